"""What a person sees of the window, in every look that a desktop can give it."""

import subprocess
import time

import pytest

from dialog import GUARD_SECONDS
from processes import await_condition

READ, LATER = "I have read it", "Later"
READABLE_CONTRAST = 4.5  # between text and what is behind it

LONG_LINE = "".join(chr(ord("a") + n % 26) for n in range(64 * 1024))
EMOJI = "👩‍👩‍👧‍👦 👍🏽 🏳️‍🌈 🇩🇪 é" + "e\N{COMBINING ACUTE ACCENT}"


def luminance(pixel):
    linear = [c / 255 / 12.92 if c / 255 <= 0.04045 else ((c / 255 + 0.055) / 1.055) ** 2.4
              for c in pixel]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]


def contrast(picture):
    """Between the brightest and the darkest that a piece of a picture holds."""
    found = [luminance(pixel) for _, pixel in picture.getcolors(maxcolors=1 << 24)]
    return (max(found) + 0.05) / (min(found) + 0.05)


def on_screen(dialog, widget):
    """Left, top, right and bottom of a widget on the screen."""
    left, top, _, _ = dialog.screen.place(dialog.window)
    x, y, width, height = widget.place
    return left + x, top + y, left + x + width, top + y + height


def assert_whole_on_screen(dialog, box, inner=0):
    left, top, right, bottom = box
    assert 0 <= left < right - inner and 0 <= top < bottom - inner, box
    assert right <= dialog.screen.width and bottom <= dialog.screen.height, box


def assert_can_be_answered(dialog, picture_name=None):
    """Both buttons, the sender and the text are there whole, apart, and can be told from what is
    behind them."""
    tree = dialog.tree
    boxes = [on_screen(dialog, tree.find("push button", name)) for name in (LATER, READ)]
    boxes.append(on_screen(dialog, tree.find("scroll pane", "Text of the message")))
    picture = await_condition(lambda: drawn(dialog, boxes[0]), "the window is drawn")
    for box in boxes:
        assert_whole_on_screen(dialog, box, inner=20)
        assert contrast(picture.crop(shrunk(box))) >= READABLE_CONTRAST
    (_, _, later_right, _), (read_left, _, read_right, _), _ = boxes
    assert later_right <= read_left or read_right <= boxes[0][0]
    if picture_name:
        picture.save(picture_name)
    return picture


def shrunk(box):
    """Without the border, which has a contrast of its own."""
    left, top, right, bottom = box
    return left + 4, top + 4, right - 4, bottom - 4


def drawn(dialog, box):
    picture = dialog.screen.picture()
    return picture if len(picture.crop(shrunk(box)).getcolors(1 << 24)) > 2 else None


@pytest.fixture
def large_text(tmp_path):
    """The settings of a user who needs letters twice as large."""
    settings = tmp_path / "config" / "gtk-4.0" / "settings.ini"
    settings.parent.mkdir(parents=True)
    settings.write_text("[Settings]\ngtk-font-name=Sans 22\n")
    return {"XDG_CONFIG_HOME": str(tmp_path / "config")}


@pytest.fixture
def hebrew(tmp_path):
    """A locale that is written from right to left."""
    subprocess.run(["localedef", "--no-archive", "-i", "he_IL", "-f", "UTF-8",
                    str(tmp_path / "he_IL.UTF-8")], check=False, capture_output=True)
    assert (tmp_path / "he_IL.UTF-8" / "LC_CTYPE").exists()
    return {"LOCPATH": str(tmp_path), "LC_ALL": "he_IL.UTF-8", "LANGUAGE": "he"}


@pytest.mark.parametrize("theme", ["Default", "Default:dark", "Default-hc", "Default-hc-dark"])
def test_it_is_readable_in_every_theme(open_dialog, theme):
    dialog = open_dialog("Please log out.", title="Tonight", env={"GTK_THEME": theme})
    picture = assert_can_be_answered(dialog)
    left, top, _, _ = dialog.screen.place(dialog.window)
    is_dark = luminance(picture.getpixel((left + 3, top + 60))) < 0.2
    assert is_dark == theme.endswith("dark")


def test_it_fits_a_small_screen_with_large_text(open_dialog, new_screen, large_text):
    small = new_screen(1024, 600)
    dialog = open_dialog("Please log out. " * 50, on=small, title="Maintenance " * 10,
                         expires=1790003600, env=large_text)
    assert_can_be_answered(dialog)
    assert dialog.button(READ).place[2] > 150  # it is large indeed


def test_it_is_mirrored_where_one_writes_from_right_to_left(open_dialog, hebrew):
    dialog = open_dialog("שלום לכולם", title="הודעה", env=hebrew)
    assert_can_be_answered(dialog)
    assert dialog.button(READ).place[0] < dialog.button(LATER).place[0]


@pytest.mark.parametrize("text, title", [
    (LONG_LINE, ""), ("\N{COMBINING ACUTE ACCENT}" * 30000, ""), ("a\n" * 32000, ""),
    ("hello", "W" * 60000), ("hello", "word " * 12000), (EMOJI * 800, EMOJI),
    ("אבגד " * 6000, "שלום " * 100), ("\t" * 60000, "\t"), (" " * 60000, " "), ("", ""),
])
def test_no_text_holds_it_up_or_pushes_the_answers_out(open_dialog, text, title):
    assert_can_be_seen_and_answered(open_dialog(text, title=title))


def assert_can_be_seen_and_answered(dialog):
    for name in (LATER, READ):
        assert_whole_on_screen(dialog, on_screen(dialog, dialog.button(name)), inner=20)
    dialog.outlast_guard().click(READ)
    assert dialog.answer() == ("read", None, 0)


def test_a_sender_who_does_not_end_leaves_room_for_the_answers(open_dialog):
    assert_can_be_seen_and_answered(open_dialog("hello", sender="x" * 60000))


@pytest.mark.parametrize("text", [LONG_LINE, "short\n\nlines", EMOJI * 500, "words " * 2000])
@pytest.mark.parametrize("selection", ["clipboard", "primary"])
def test_a_copy_is_the_original(open_dialog, screen, text, selection):
    dialog = open_dialog(text)
    dialog.take_focus()
    screen.press("ctrl+a", "ctrl+c")
    await_condition(lambda: screen.output("xclip", "-o", "-selection", selection) == text,
                    "the original is copied")


def test_the_first_focus_is_the_text_and_it_is_described(open_dialog):
    dialog = open_dialog("Please log out.")
    dialog.take_focus()
    focused = [widget for widget in dialog.tree.everything() if "focused" in widget.states]
    assert [(widget.role, widget.name, widget.description) for widget in focused] == [
        ("text", "Message", "Please log out.")]


def test_whatever_the_user_can_reach_has_a_role_and_a_name(open_dialog):
    dialog = open_dialog("Please log out.", title="Tonight")
    assert (dialog.tree.role, dialog.tree.name) == ("dialog", "Message from the administrator")
    layout = {"panel", "filler", "scroll bar"}  # without a meaning of their own
    nameless = [widget.role for widget in dialog.tree.everything()
                if widget.role not in layout and not widget.name]
    assert nameless == []


def test_tab_goes_round_the_text_and_both_answers(open_dialog, screen):
    dialog = open_dialog("Please log out.")
    dialog.take_focus()

    def focused():
        return [widget.name for widget in dialog.tree.everything() if "focused" in widget.states]

    seen = [focused()]
    for _ in range(3):
        screen.press("Tab")
        seen.append(await_condition(lambda: focused() != seen[-1] and focused(), "the next one"))
    assert seen == [["Message"], [LATER], [READ], ["Message"]]


def test_it_waits_behind_a_locked_screen(open_dialog, new_screen):
    locked = new_screen()
    curtain = locked.start("xterm", "-fullscreen", "-T", "curtain", "-e", "sleep", "600")
    locked.focus(locked.await_window("curtain"))
    dialog = open_dialog(on=locked)
    locked.press(*"password", "Return")
    time.sleep(GUARD_SECONDS)
    locked.press(*"password", "Return", "space", "Escape")
    assert dialog.says_nothing()
    curtain.kill()
    curtain.wait()
    dialog.click(READ)
    assert dialog.answer() == ("read", None, 0)
