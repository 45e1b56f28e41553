"""The guide as tabs on the whole screen."""

import re
import signal
import termios

import pytest

from expected_texts import FOLDER
from harness.pseudo_terminal import (
    BACK_TAB, CC, CTRL_BACKSLASH, CTRL_C, CTRL_S, DOWN, EARLIER, END, ENTER, ENTER_SCREEN, ESCAPE,
    HOME, LEAVE_SCREEN, LEFT, LFLAG, PAGE_DOWN, PAGE_UP, RIGHT, TAB, UP, assert_restored, unusual)
from interface import stop

HOME_CURSOR, CLEAR_BELOW = b"\x1b[H", b"\x1b[J"

TABS = ["Info", "Commands", "Options", "Examples", "Files"]
SHOWN_LINES, PAGE_LINES = 18, 17  # at 80x24
SIZES = [(80, 24), (44, 10), (120, 40), (200, 60)]


@pytest.fixture
def guide(terminal):
    """guide(...) opens the guide, by default without colour, and waits for its first frame."""

    def open_guide(env=None, **options):
        tbx = terminal("help", env=env or {"NO_COLOR": "1"}, **options)
        tbx.wait_for("q quit")
        return tbx

    return open_guide


@pytest.fixture
def lines_of(guide):
    """lines_of(tab) is the lines of a tab at 80 columns, from a terminal with room for all."""

    def read(tab):
        tbx = guide(rows=250)
        press(tbx, str(TABS.index(tab) + 1), (tab, 1))
        count = re.search(r"lines 1-(\d+)/\1 ", tbx.frame())[1]
        return tbx.rows()[3:3 + int(count)]

    return read


@pytest.fixture
def commands_end(lines_of):
    """The first line of the last page of the tab "Commands"."""
    first = len(lines_of("Commands")) - SHOWN_LINES + 1
    assert first > 1
    return first


def shown(tbx):
    """The current tab and the number of the first line shown, in a guide without colour."""
    frame = tbx.frame()
    tab = re.search(r">(\w+)<", frame)
    line = re.search(r"lines (\d+)-", frame)
    return (tab[1], int(line[1])) if tab and line else None


def press(tbx, keys, result):
    """Types the keys and waits until the guide shows (tab, first line)."""
    tbx.send(keys)
    tbx.wait_for(lambda: shown(tbx) == result)


def without_colour(expected, columns, rows, tab):
    """The frame of a tab as it looks when the current tab is marked instead of coloured."""
    title, tab_bar, rest = expected(f"guide/{columns}x{rows}-{tab.lower()}.txt").split("\n", 2)
    return "\n".join([title, tab_bar.replace(f" {tab} ", f">{tab}<"), rest])


# ---- Frames -------------------------------------------------------------------------------


@pytest.mark.expects
@pytest.mark.parametrize("columns, rows", SIZES)
@pytest.mark.parametrize("tab", TABS)
def test_tab_fills_the_terminal_in_colour(guide, expected, columns, rows, tab):
    tbx = guide(env={"NO_COLOR": None}, columns=columns, rows=rows)
    tbx.send(str(TABS.index(tab) + 1))
    expected.compare_screen(tbx, f"guide/{columns}x{rows}-{tab.lower()}")
    assert tbx.cursor() is None


@pytest.mark.parametrize("tab", TABS)
def test_tab_without_colour_has_the_same_frame_and_a_marked_tab(guide, expected, tab):
    tbx = guide()
    tbx.send(str(TABS.index(tab) + 1))
    tbx.wait_for_frame(without_colour(expected, 80, 24, tab))
    assert set(tbx.styles()) == {".", "\n"}


def test_there_is_no_expected_frame_of_a_tab_that_is_no_more():
    of_tabs = {f"{columns}x{rows}-{tab.lower()}" for columns, rows in SIZES for tab in TABS}
    plain = {"24x9-plain-files", "12x4-plain-info"}
    assert {path.stem.removesuffix("-styles") for path in (FOLDER / "guide").glob("*.txt")} == (
        of_tabs | plain)


@pytest.mark.parametrize("value", ["", "0"])
def test_no_color_with_any_value_leaves_no_style_in_the_output(guide, value):
    tbx = guide(env={"NO_COLOR": value})
    press(tbx, "4", ("Examples", 1))
    tbx.send("q")
    tbx.wait_exit()
    rest = tbx.raw.removeprefix(ENTER_SCREEN).removesuffix(LEAVE_SCREEN)
    assert b"\x1b" not in rest.replace(HOME_CURSOR, b"").replace(CLEAR_BELOW, b"")


def test_output_is_whole_frames_between_entering_and_leaving_the_screen(guide):
    tbx = guide()
    press(tbx, "j", ("Info", 2))
    tbx.send("q")
    tbx.wait_exit()
    assert tbx.raw.startswith(ENTER_SCREEN + HOME_CURSOR)
    assert tbx.raw.endswith(CLEAR_BELOW + LEAVE_SCREEN)
    frames = tbx.raw.removeprefix(ENTER_SCREEN).removesuffix(LEAVE_SCREEN).split(HOME_CURSOR)[1:]
    assert [frame.endswith(CLEAR_BELOW) for frame in frames] == [True, True]
    assert [frame.count(b"\r\n") for frame in frames] == [23, 23]


@pytest.mark.usefixtures("strace")
def test_frame_is_one_write(terminal, binary, tmp_path):
    log = tmp_path / "writes"
    tbx = terminal(argv=["strace", "-o", log, "-e", "trace=write", binary, "help"],
                   env={"ASAN_OPTIONS": "detect_leaks=0"}, columns=200, rows=60)
    tbx.wait_for("q quit")
    tbx.send("3")
    tbx.wait_for("Send options")
    tbx.send("q")
    tbx.wait_exit()
    beginnings = re.findall(r'^write\(\d+, "(\\33\[\?*[0-9H]+)', log.read_text(), re.MULTILINE)
    assert beginnings == [r"\33[?1049", r"\33[H", r"\33[H", r"\33[?25"]
    assert len(re.findall(r"^write", log.read_text(), re.MULTILINE)) == len(beginnings)


# ---- Keys ---------------------------------------------------------------------------------
# At 80x24 18 lines are shown; a page is 17. The tab "Commands" has more, the tab "Options" has not.


@pytest.mark.parametrize("key", [TAB, ENTER, "\n", "l", RIGHT, "\x1bOC"])
def test_key_for_the_next_tab(guide, key):
    press(guide(), key, ("Commands", 1))


@pytest.mark.parametrize("key", ["h", LEFT, "\x1bOD", BACK_TAB])
def test_key_for_the_previous_tab(guide, key):
    press(guide(), "3" + key, ("Commands", 1))


def test_next_tab_of_the_last_is_the_first(guide):
    tbx = guide()
    press(tbx, "5", ("Files", 1))
    press(tbx, "l", ("Info", 1))


def test_previous_tab_of_the_first_is_the_last(guide):
    press(guide(), "h", ("Files", 1))


def test_digit_goes_straight_to_its_tab(guide):
    tbx = guide()
    for digit in "54321":
        press(tbx, digit, (TABS[int(digit) - 1], 1))


@pytest.mark.parametrize("key", [DOWN, "\x1bOB", "j"])
def test_key_for_a_line_down(guide, key):
    press(guide(), "2" + key, ("Commands", 2))


@pytest.mark.parametrize("key", [UP, "\x1bOA", "k"])
def test_key_for_a_line_up(guide, commands_end, key):
    tbx = guide()
    press(tbx, "2G", ("Commands", commands_end))
    press(tbx, key, ("Commands", commands_end - 1))


@pytest.mark.parametrize("key", [" ", PAGE_DOWN])
def test_key_for_a_page_down(guide, commands_end, key):
    press(guide(), "2" + key, ("Commands", min(1 + PAGE_LINES, commands_end)))


@pytest.mark.parametrize("key", ["b", PAGE_UP, "\x1b[15~"])
def test_key_for_a_page_up(guide, commands_end, key):
    tbx = guide()
    press(tbx, "2G", ("Commands", commands_end))
    press(tbx, key, ("Commands", max(commands_end - PAGE_LINES, 1)))


@pytest.mark.parametrize("key", ["g", HOME, "\x1bOH", "\x1b[1~", "\x1b[7~", "\x1b[17~"])
def test_key_for_the_first_line(guide, commands_end, key):
    tbx = guide()
    press(tbx, "2G", ("Commands", commands_end))
    press(tbx, key, ("Commands", 1))


@pytest.mark.parametrize("key", ["G", END, "\x1bOF", "\x1b[4~", "\x1b[8~"])
def test_key_for_the_last_page(guide, lines_of, commands_end, key):
    lines = lines_of("Commands")
    tbx = guide()
    press(tbx, "2" + key, ("Commands", commands_end))
    assert f"lines {commands_end}-{len(lines)}/{len(lines)} " in tbx.frame()
    assert tbx.rows()[3:-3] == lines[-SHOWN_LINES:]


def test_scrolling_stops_at_the_first_line(guide):
    press(guide(), "2kkbj", ("Commands", 2))


def test_scrolling_stops_at_the_last_line(guide, commands_end):
    press(guide(), "2Gj  k", ("Commands", commands_end - 1))


def test_tab_that_fits_does_not_scroll(guide, lines_of):
    count = len(lines_of("Options"))
    assert count <= SHOWN_LINES
    tbx = guide()
    press(tbx, "3", ("Options", 1))
    tbx.send("jG q")
    tbx.wait_exit()
    assert set(re.findall(rb"lines (\d+)-\d+/%d " % count, tbx.raw)) == {b"1"}


def test_each_tab_keeps_its_own_place(guide):
    tbx = guide()
    press(tbx, "2jjj", ("Commands", 4))
    press(tbx, "4j", ("Examples", 2))
    press(tbx, "2", ("Commands", 4))
    press(tbx, "4", ("Examples", 2))


def test_any_other_key_is_ignored(guide):
    tbx = guide()
    for key in ["6", "7", "8", "9", "0", "x", "J", "é", "\x04", "\x7f", "\x1bq", "\x1bOP", "\x1bOZ",
                "\x1b[2~", "\x1b[3~", "\x1b[~", "\x1b[E", "\x1b[1;5C", "\x1b[5;5~"]:
        tbx.send(key)
    press(tbx, "j", ("Info", 2))
    assert tbx.raw.count(HOME_CURSOR) == 2


def test_sequence_in_two_pieces_is_one_key(guide):
    for _ in range(20):  # where the machine is so busy that the second piece comes late
        tbx = guide()
        tbx.send(ESCAPE)
        tbx.send("[B")
        tbx.wait_for(lambda: shown(tbx) == ("Info", 2) or not tbx.screen.alternate)
        if tbx.screen.alternate:
            return
    pytest.fail("taken for a lone escape every time")


# ---- Resizing -----------------------------------------------------------------------------


@pytest.mark.parametrize("columns, rows", [(120, 40), (44, 10)])
def test_new_size_of_the_terminal_is_drawn_without_a_key(guide, expected, columns, rows):
    tbx = guide()
    press(tbx, "4", ("Examples", 1))
    tbx.resize(columns, rows)
    tbx.wait_for_frame(without_colour(expected, columns, rows, "Examples"))


def test_scroll_position_stays_within_the_content_of_a_larger_terminal(
        guide, lines_of, commands_end):
    count = len(lines_of("Commands"))
    tbx = guide()
    press(tbx, "2G", ("Commands", commands_end))
    tbx.resize(80, count + 6)
    tbx.wait_for(f"lines 1-{count}/{count} ")


@pytest.mark.expects
def test_terminal_made_too_narrow_keeps_the_frame_and_the_current_tab(guide, expected):
    tbx = guide()
    press(tbx, "5", ("Files", 1))
    tbx.resize(24, 9)
    expected.compare_screen(tbx, "guide/24x9-plain-files")


@pytest.mark.expects
def test_terminal_made_tiny_shows_the_top_of_the_frame(guide, expected):
    tbx = guide()
    tbx.resize(12, 4)
    expected.compare_screen(tbx, "guide/12x4-plain-info")


@pytest.mark.parametrize("columns, rows", [(1, 1), (3, 3), (5, 100)])
def test_guide_survives_any_size(guide, lines_of, columns, rows):
    count = len(lines_of("Info"))
    tbx = guide()
    tbx.resize(columns, rows)
    tbx.wait_for(lambda: tbx.raw.count(HOME_CURSOR) == 2)
    tbx.resize(80, 24)
    tbx.wait_for(f"lines 1-{min(SHOWN_LINES, count)}/{count} ")


def test_terminal_that_tells_no_size_any_more_is_drawn_at_the_last_one(guide):
    tbx = guide()
    tbx.resize(0, 0)
    press(tbx, "j", ("Info", 2))
    assert tbx.rows()[-1] == "└" + "─" * 78 + "┘"


# ---- The terminal's state and the ways out ------------------------------------------------

def test_only_line_editing_and_echo_are_off_while_the_guide_is_open(guide):
    tbx = guide(attributes=unusual)
    wanted = list(tbx.attributes_before)
    wanted[LFLAG] &= ~(termios.ICANON | termios.ECHO)
    wanted[CC] = list(wanted[CC])
    wanted[CC][termios.VMIN], wanted[CC][termios.VTIME] = 1, 0
    assert tbx.attributes() == wanted


@pytest.mark.parametrize("key", ["q", "Q", ESCAPE, CTRL_C, CTRL_BACKSLASH])
def test_key_that_leaves_restores_the_terminal(guide, key):
    tbx = guide(earlier=EARLIER, attributes=unusual)
    tbx.send(key)
    assert tbx.wait_exit() == 0
    assert_restored(tbx)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_signal_that_ends_the_guide_restores_the_terminal(guide, number):
    tbx = guide(earlier=EARLIER, attributes=unusual)
    tbx.signal(number)
    assert tbx.wait_exit() == 0
    assert_restored(tbx)


def test_guide_on_a_terminal_that_is_hung_up_ends(guide):
    tbx = guide()
    tbx.hang_up()
    assert tbx.wait_status() == 0


def test_signal_ends_the_guide_while_output_is_stopped(guide):
    tbx = guide()
    tbx.send(CTRL_S)
    tbx.send("j")
    tbx.signal(signal.SIGTERM)
    assert tbx.wait_status() == 0
    assert tbx.attributes() == tbx.attributes_before


def test_ctrl_z_gives_the_terminal_back_until_the_guide_goes_on(guide):
    tbx = guide(earlier=EARLIER, attributes=unusual)
    press(tbx, "2j", ("Commands", 2))
    raw = tbx.attributes()
    stop(tbx)
    assert_restored(tbx)
    tbx.resize(100, 30)
    tbx.signal(signal.SIGCONT)
    tbx.wait_for(lambda: shown(tbx) == ("Commands", 2) and tbx.rows()[-1] == "└" + "─" * 98 + "┘")
    assert tbx.attributes() == raw
    tbx.send("q")
    assert tbx.wait_exit() == 0
    assert_restored(tbx)


def test_nothing_is_drawn_after_the_key_that_leaves(guide):
    tbx = guide()
    tbx.send("qjjj")
    assert tbx.wait_exit() == 0
    assert tbx.raw.count(HOME_CURSOR) == 1
