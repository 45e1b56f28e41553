"""The list of messages: what it shows, where it opens, and how it keeps itself up to date."""

import re
import shutil
from dataclasses import replace

import pytest

from harness.pseudo_terminal import (
    DOWN, END, ENTER_SCREEN, LEAVE_SCREEN, PAGE_UP, PASTE_OFF, PASTE_ON, UP)
from interface import clocks_shown, expect, frame_that_shows, frames_drawn, press, read_again
from messages import BARS, DATE, FUTURE, PAST, USERS, Message, people
from pages import ListPage
from shapes import SHAPES

HOME_CURSOR, CLEAR_BELOW, HIDE_CURSOR = b"\x1b[H", b"\x1b[J", b"\x1b[?25l"

ALL_SORTS = [
    Message(1, "One line\n", sent=("bin",)),
    Message(2, "A title, too\n", title="Backup tonight", confirmed=("daemon",), delivered=()),
    Message(3, "First line\nsecond line\n", title="Größe · Übung", delivered=("bin", "sys")),
    Message(4, "Taken back\n", revoked=DATE + 60, confirmed=("bin",)),
    Message(5, "Too late\n", title="Over", expires=PAST, date=PAST - 60),
    Message(6, "Both\n", title="Over and taken back", expires=PAST, date=PAST - 60, revoked=PAST),
    Message(12, "Not over yet\n", expires=FUTURE, delivered=(), sent=people(3)),
    Message(345, "x" * 200 + "\n", delivered=people(99), sent=people(1001, "other"),
            percentage="0%"),
    Message(6789, "y" * 200 + "\n", title="z" * 200),
]


# ---- Frames -------------------------------------------------------------------------------


@pytest.mark.parametrize("size, colour", SHAPES)
def test_empty_store_shows_that_no_messages_were_sent(interface, size, colour):
    tbx, _ = interface([], size, colour)
    assert "│    No messages sent." in tbx.frame()


@pytest.mark.parametrize("size, colour", SHAPES)
def test_messages_of_all_sorts_fill_their_rows(interface, size, colour):
    interface(ALL_SORTS, size, colour)


def test_messages_stand_newest_first(interface):
    tbx, _ = interface([Message(number) for number in (2, 10, 1, 9)])
    assert [row[3:6] for row in tbx.rows()[2:6]] == [" 10", "  9", "  2", "  1"]


def test_only_the_selected_row_is_marked_without_colour(interface):
    tbx, _ = interface([Message(1), Message(2)], colour=False)
    assert [row[2:6] for row in tbx.rows()[2:4]] == [">  2", "   1"]


def test_highlight_of_the_selected_row_spans_the_inner_width(interface):
    tbx, _ = interface([Message(1), Message(2)])
    assert tbx.styles().split("\n")[2] == "d." + "R" * 76 + ".d"


def test_more_messages_than_fit_fill_all_rows_but_seven(interface):
    tbx, _ = interface([Message(number) for number in range(1, 31)])
    assert [row[3:6].strip() for row in tbx.rows()[2:19]] == [str(n) for n in range(30, 13, -1)]
    assert tbx.rows()[20].startswith("│ █ confirmed   ▒ delivered   ░ sent ")


@pytest.mark.parametrize("width, columns", [(36, 80), (65, 109), (29, 110), (119, 200)])
def test_message_is_cut_to_its_column_without_a_mark(interface, width, columns):
    letters = "abcdefghij" * 20
    tbx, _ = interface([Message(1, letters[:width]), Message(2, letters)], (columns, 24))
    row_of_2, row_of_1 = tbx.rows()[2:4]
    assert row_of_1[21:21 + width + 3] == letters[:width] + "  ▒"
    assert row_of_2[21:] == row_of_1[21:]


@pytest.mark.parametrize("columns, recipients", [
    (109, "1/3"), (110, "1 confirmed · 1 delivered · 1 sent")])
def test_recipients_are_spelled_out_from_110_columns_on(interface, columns, recipients):
    tbx, _ = interface([Message(1, confirmed=("bin",), sent=("man",))], (columns, 24))
    assert re.search(r"░  (.*?) *│", tbx.rows()[2])[1] == recipients


def test_message_with_a_long_identifier_makes_room_for_its_recipients(interface):
    tbx, _ = interface([with_counts(number, 10, 0, 0, "100%") for number in (9999, 12345)])
    assert re.search(r"█{12}  (.*?) *│", tbx.rows()[2])[1] == "100%"
    assert [row.index("█" * 12) for row in tbx.rows()[2:4]] == [60, 60]


def test_long_identifier_moves_the_recipients_that_are_spelled_out(interface):
    tbx, _ = interface([with_counts(number, 2, 0, 0) for number in (123, 12345)], (120, 24))
    assert [row.index("█" * 12) for row in tbx.rows()[2:4]] == [64, 62]


@pytest.mark.parametrize("counts, recipients", [
    ((2, 0, 0), "all confirmed (2)"),
    ((2, 1, 0), "2 confirmed · 1 delivered"),
])
def test_recipients_tell_what_there_is(interface, counts, recipients):
    tbx, _ = interface([with_counts(1, *counts)], (120, 24))
    assert re.search(r"[█▒░]{12}  (.*?) *│", tbx.rows()[2])[1] == recipients


def with_counts(number, confirmed, delivered, sent, percentage=""):
    return Message(number, confirmed=USERS[:confirmed], delivered=people(delivered, "has"),
                   sent=people(sent, "awaits"), percentage=percentage)


def test_bar_divides_twelve_cells_by_the_counts(interface):
    percentages = {(0, 99, 1001): "0%", (10, 90, 0): "10%"}
    tbx, _ = interface([with_counts(number, *counts, percentages.get(counts, ""))
                        for number, counts in enumerate(BARS, start=1)], (80, 40))
    shown = [re.search("[█▒░]{12}", row)[0] for row in tbx.rows()[2:2 + len(BARS)]]
    assert shown == [cells for _, cells in reversed(BARS.items())]


def test_date_that_cannot_be_formatted_is_a_question_mark(store, terminal):
    Message(1, date=999999999999999999).put(store)
    tbx = terminal()
    tbx.wait_for("│ >  1  ?            Hello")


def test_date_is_local_time(store, terminal):
    Message(1, date=0).put(store)
    tbx = terminal(env={"TZ": "LATE+01:30"})
    tbx.wait_for("│ >  1  31/12 22:30  Hello")


# ---- Output -------------------------------------------------------------------------------


def inside(raw):
    """What a whole session wrote between entering and leaving the screen."""
    return raw.removeprefix(ENTER_SCREEN + PASTE_ON).removesuffix(PASTE_OFF + LEAVE_SCREEN)


def test_output_is_whole_frames_between_entering_and_leaving_the_screen(interface):
    tbx, page = interface([Message(1), Message(2)])
    press(tbx, DOWN, replace(page, selected=1))
    tbx.send("q")
    assert tbx.wait_exit() == 0
    assert tbx.raw.startswith(ENTER_SCREEN + PASTE_ON + HOME_CURSOR)
    assert tbx.raw.endswith(CLEAR_BELOW + HIDE_CURSOR + PASTE_OFF + LEAVE_SCREEN)
    frames = inside(tbx.raw).split(HOME_CURSOR)[1:]
    assert {frame.count(b"\r\n") for frame in frames} == {23}
    assert all(frame.endswith(CLEAR_BELOW + HIDE_CURSOR) for frame in frames)


@pytest.mark.parametrize("value", ["", "0"])
def test_no_color_with_any_value_leaves_no_style_in_the_output(interface, value):
    tbx, _ = interface([Message(1)], colour=False, env={"NO_COLOR": value})
    tbx.send("q")
    tbx.wait_exit()
    rest = inside(tbx.raw)
    for sequence in (HOME_CURSOR, CLEAR_BELOW, HIDE_CURSOR):
        rest = rest.replace(sequence, b"")
    assert b"\x1b" not in rest


@pytest.fixture
def traced(strace, terminal, store, binary, tmp_path):
    """traced(keys) is the writes, file and process calls of a session with these keys.

    Each is its name and, for a write, the beginning of what was written.
    """
    del strace  # there to be asked for
    log = tmp_path / "calls"
    messages = [Message(number).put(store) for number in (1, 2, 3)]

    def run(keys):
        tbx = terminal(argv=["strace", "-o", log, "-e", "trace=write,%file,%process", binary],
                       env={"ASAN_OPTIONS": "detect_leaks=0"}, columns=200, rows=60)
        page = ListPage(tbx.size, tuple(messages))
        expect(tbx, page)
        for key, selected in keys:
            press(tbx, key, replace(page, selected=selected))
        tbx.send("q")
        tbx.wait_exit()
        return re.findall(r'^(\w+)\((?:1, "(\\33\[\?*[0-9H]+))?', log.read_text(), re.MULTILINE)

    return run


def test_frame_is_one_write_and_moving_the_selection_reads_no_store(traced):
    calls = traced([(DOWN, 1), (END, 2), (UP, 1), (PAGE_UP, 0)])
    first = calls.index(("write", r"\33[H"))
    last = calls.index(("write", r"\33[?2004"))
    assert last - first >= 5  # a tick may come between
    assert set(calls[first:last]) == {("write", r"\33[H")}


# ---- Where it opens -----------------------------------------------------------------------


def test_empty_command_opens_the_interface(terminal):
    tbx = terminal("")
    expect(tbx, ListPage((80, 24)))


@pytest.mark.parametrize("columns, rows", [(79, 24), (80, 19)])
def test_terminal_below_80x20_gets_the_guide(terminal, columns, rows):
    tbx = terminal(columns=columns, rows=rows)
    tbx.wait_for("q quit")
    assert tbx.rows()[0].startswith("┌─ tbx — guide ")
    tbx.send("q")
    assert tbx.wait_exit() == 0
    assert b"sent messages" not in tbx.raw


@pytest.mark.parametrize("command, columns", [
    ('"$0" </dev/null', 120), ('"$0" | cat', 120), ('setsid --wait "$0"', 120), ('"$0"', 0)])
def test_without_a_whole_terminal_the_guide_is_printed(terminal, binary, command, columns):
    tbx = terminal(argv=["sh", "-c", command, binary], columns=columns, env={"PAGER": "cat"})
    assert tbx.wait_exit() == 0
    assert b"SEE ALSO" in tbx.raw
    assert ENTER_SCREEN not in tbx.raw
    assert tbx.attributes() == tbx.attributes_before


# ---- Stores -------------------------------------------------------------------------------


def test_message_that_cannot_be_read_is_left_out(interface, store):
    store.make_message(2, failed=DATE)
    store.make_message(4, msg=b"title: no date\n\nHello\n")
    store.make_message(5, to=())
    store.make_message(6, msg=False)
    store.sent(6, "msg").symlink_to(store.sent(1, "msg"))
    interface([Message(1), Message(3)])


def test_what_is_no_message_in_the_store_is_left_out(interface, store):
    store.make_message(7)
    store.sent(7).rename(store.sent("x7"))
    store.sent(8).mkdir()
    store.sent(9).write_text("")
    interface([Message(1)])


def test_message_goes_by_the_identifier_of_its_folder(terminal, store):
    store.make_message(5, msg=b"id: 77\nfrom: root\ndate: 1790000000\n\nHello\n",
                       to=("daemon",), delivered=[("daemon", DATE, 0)])
    expect(terminal(), ListPage((80, 24), (Message(5),)))


@pytest.mark.parametrize("make", [
    lambda path: path.write_text("no folder"),
    lambda path: path.symlink_to(path.name),
    lambda path: path.mkdir(),
], ids=["file", "link to itself", "empty folder"])
@pytest.mark.parametrize("place", ["var", "var/sent"])
def test_damaged_store_is_an_empty_list(terminal, tmp_path, make, place):
    path = tmp_path / place
    path.parent.mkdir(exist_ok=True)
    make(path)
    expect(terminal(), ListPage((80, 24)))


@pytest.fixture
def locked():
    """locked(path) takes every permission from a file or folder until the test is over."""
    modes = {}

    def lock(path):
        modes[path] = path.stat().st_mode
        path.chmod(0)

    yield lock
    for path, mode in modes.items():
        path.chmod(mode)


def test_unreadable_store_is_an_empty_list(terminal, store, locked, without_privileges):
    Message(1).put(store)
    locked(store.sent(""))
    expect(terminal(argv=without_privileges), ListPage((80, 24)))


def test_unreadable_message_is_left_out(terminal, store, locked, without_privileges):
    for number in (1, 2):
        Message(number).put(store)
    locked(store.sent(2, "msg"))
    expect(terminal(argv=without_privileges), ListPage((80, 24), (Message(1),)))


def test_unreadable_delivery_record_leaves_everybody_undelivered(terminal, store):
    message = Message(1, delivered=(), sent=("daemon", "bin")).put(store)
    store.sent(1, "delivery").mkdir()
    expect(terminal(), ListPage((80, 24), (message,)))


def test_interrupted_send_is_finished_before_the_list_is_shown(terminal, store):
    message = Message(1, delivered=(), sent=("daemon",)).put(store)
    store.sent(1, "incomplete").touch()
    expect(terminal(), ListPage((80, 24), (message.after(delivered=("daemon",), sent=()),)))
    assert not store.sent(1, "incomplete").exists()


# ---- Keeping up to date -------------------------------------------------------------------


def test_list_is_read_again_with_every_sixth_idle_tick(interface, store):
    tbx, page = interface([Message(1), Message(2, delivered=("bin",))])
    store.confirm("daemon", 1, DATE + 60)
    shutil.rmtree(store.sent(2))
    arrived = Message(3, title="Arrived").put(store)
    expect(tbx, replace(page, messages=(
        Message(1, confirmed=("daemon",), delivered=()), arrived)))
    assert frame_that_shows(tbx, "Arrived") == 6
    clocks = clocks_shown(tbx)[:7]
    assert [clock == clocks[0] for clock in clocks] == [True] * 6 + [False]


def test_keys_do_not_reset_the_count_of_idle_ticks(interface, store):
    tbx, page = interface([Message(1)])
    arrived = Message(2, title="Arrived").put(store)
    tbx.wait_for(lambda: frames_drawn(tbx) == 3)
    tbx.send("x")
    expect(tbx, replace(page, messages=(Message(1), arrived)))
    assert frame_that_shows(tbx, "Arrived") == 7


def test_selection_stays_at_its_index_when_the_selected_message_goes(interface, store):
    tbx, page = interface([Message(number) for number in (1, 2, 3)])
    press(tbx, DOWN, replace(page, selected=1))
    shutil.rmtree(store.sent(2))
    read_again(tbx, replace(page, messages=(Message(1), Message(3)), selected=1))


def test_selection_is_clamped_to_the_last_row_when_the_list_gets_shorter(interface, store):
    tbx, page = interface([Message(number) for number in (1, 2, 3)])
    press(tbx, END, replace(page, selected=2))
    for number in (1, 2):
        shutil.rmtree(store.sent(number))
    read_again(tbx, replace(page, messages=(Message(3),)))


def test_rows_scroll_back_when_the_list_gets_shorter(interface, store):
    tbx, page = interface([Message(number) for number in range(1, 31)])
    press(tbx, END, replace(page, selected=29, top=13))
    for number in range(1, 26):
        shutil.rmtree(store.sent(number))
    left = tuple(Message(number) for number in range(26, 31))
    read_again(tbx, replace(page, messages=left, selected=4, top=4))


def test_selection_of_an_emptied_list_is_left_as_it_is(interface, store):
    tbx, page = interface([Message(1), Message(2)])
    press(tbx, DOWN, replace(page, selected=1))
    for number in (1, 2):
        shutil.rmtree(store.sent(number))
    read_again(tbx, replace(page, messages=()))
    both = tuple(Message(number).put(store) for number in (1, 2))
    read_again(tbx, replace(page, messages=both, selected=1))
