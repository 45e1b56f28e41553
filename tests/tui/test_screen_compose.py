"""The form for a new message: its frames, its keys, its preview of the recipients."""

from dataclasses import replace

import pytest

from harness.pseudo_terminal import (
    BACK_TAB, BACKSPACE, DELETE, DOWN, END, ENTER, HOME, LEFT, PAGE_DOWN, PAGE_UP, RIGHT,
    TAB, UP)
from interface import MEANINGLESS, press
from shapes import SHAPES

FOCI = ["To", "Title", "Expires", "Text"]


def to(focus):
    """The keys that lead from To to another field."""
    return TAB * FOCI.index(focus)


# ---- Frames -------------------------------------------------------------------------------


@pytest.mark.parametrize("size, colour", SHAPES)
def test_empty_form_fills_the_terminal(form, size, colour):
    form(size, colour)


@pytest.mark.parametrize("size, colour", SHAPES)
def test_form_that_is_filled_in_fills_the_terminal(form, size, colour):
    tbx, page, _ = form(size, colour)
    press(tbx, "daemon,bin\tBackup\t2h\tTonight" + ENTER * 2 + "Thank you",
          replace(page, to="daemon,bin", title="Backup", expires="2h",
                  text="Tonight\n\nThank you", focus="Text", preview="2 recipients"))


@pytest.mark.parametrize("colour", [True, False])
@pytest.mark.parametrize("focus", FOCI)
def test_focused_field_is_bold_and_has_the_cursor(form, focus, colour):
    tbx, page, _ = form(colour=colour)
    press(tbx, to(focus), replace(page, focus=focus))


def test_cursor_is_placed_and_shown_behind_the_frame(form):
    tbx, _, _ = form()
    tbx.send("ab")
    tbx.wait_for(lambda: tbx.raw.endswith(b"\x1b[J\x1b[3;19H\x1b[?25h"))


@pytest.mark.parametrize("hint", [
    "user, @group, all or online, separated by commas", "optional, one line",
    "optional: 30m, 2h, 3d or a date"])
def test_hint_of_a_field_can_be_read_at_80_columns(form, hint):
    tbx, _, _ = form()
    assert hint in tbx.frame()


# ---- From field to field ------------------------------------------------------------------


def test_keys_go_from_field_to_field(form):
    tbx, page, _ = form()
    for key, target in [(TAB, "Title"), (DOWN, "Expires"), (ENTER, "Text"), (TAB, "To"),
                        (BACK_TAB, "Text"), (BACK_TAB, "Expires"), (UP, "Title"), (UP, "To")]:
        press(tbx, key, replace(page, focus=target))


@pytest.mark.parametrize("back", [UP, BACK_TAB, TAB * 3])
def test_field_is_entered_at_its_end(form, back):
    tbx, page, _ = form()
    press(tbx, "daemon" + HOME + TAB, replace(page, to="daemon", focus="Title",
                                              preview="1 recipient"))
    press(tbx, back + "x", replace(page, to="daemonx", preview="1 recipient"))


def test_text_is_entered_where_it_was_left(form):
    tbx, page, _ = form()
    text = replace(page, text="one\ntwo", focus="Text")
    press(tbx, to("Text") + "one\rtwo" + UP + LEFT, replace(text, at=(0, 2)))
    press(tbx, TAB + BACK_TAB, replace(text, at=(0, 2)))


# ---- Editing a field ----------------------------------------------------------------------

@pytest.mark.parametrize("focus", FOCI)
def test_field_is_edited(form, focus):
    tbx, page, _ = form()
    keys = "aéЖ€" + LEFT + BACKSPACE + HOME + DELETE + END + "X"
    press(tbx, to(focus) + keys, replace(page, **{focus.lower(): "é€X"}, focus=focus))


@pytest.mark.parametrize("focus", FOCI)
def test_key_without_a_meaning_does_nothing(form, focus):
    tbx, page, _ = form()
    here = replace(page, **{focus.lower(): "ab"}, focus=focus)
    middle = (0, 1) if focus == "Text" else 1
    press(tbx, to(focus) + "ab", here)
    for key in [*MEANINGLESS, PAGE_UP, PAGE_DOWN]:
        tbx.send(key)
        press(tbx, LEFT, replace(here, at=middle))
        press(tbx, RIGHT, here)


def test_character_in_two_pieces_is_one(form):
    tbx, page, _ = form()
    tbx.send(b"\xd0")
    tbx.send(b"\x96")
    press(tbx, "x", replace(page, to="Жx"))


@pytest.mark.parametrize("typed, shown", [
    (b"\xff", "[ a\ufffdb "), (b"\xc3", "[ a\ufffdb "), (b"\xe6\x97", "[ a\ufffdb ")])
def test_broken_character_is_shown_as_such_and_removed_as_one(form, typed, shown):
    tbx, page, _ = form()
    tbx.send(to("Title").encode() + b"a" + typed + b"b")
    tbx.wait_for(shown)
    press(tbx, BACKSPACE * 2, replace(page, title="a", focus="Title"))


def test_stray_continuation_byte_goes_with_the_character_before_it(form):
    tbx, page, _ = form()
    tbx.send(to("Title").encode() + b"a\x80b")
    tbx.wait_for("[ ab ")
    press(tbx, BACKSPACE * 2, replace(page, focus="Title"))


@pytest.mark.parametrize("field", ["To", "Title", "Expires"])
def test_field_takes_no_character_beyond_1000_bytes(form, field):
    tbx, page, _ = form()
    value = "x" * 1000
    press(tbx, to(field) + value + "yzé",
          replace(page, **{field.lower(): value}, focus=field, scroll=1000 - 54))
    press(tbx, HOME + "y", replace(page, **{field.lower(): value}, focus=field, at=0))


def test_last_character_of_a_field_may_end_beyond_1000_bytes(form):
    tbx, page, _ = form()
    value = "x" * 999 + "é"
    press(tbx, value + "éx", replace(page, to=value, scroll=1000 - 54))
    press(tbx, BACKSPACE * 2 + "x€é", replace(page, to="x" * 999 + "€", scroll=1000 - 54))


# ---- A value longer than its place --------------------------------------------------------


@pytest.mark.parametrize("keys, cursor, scroll", [
    ("", 60, 6),
    (LEFT * 55, 5, 5),
])
@pytest.mark.parametrize("focus", ["Title", "Text"])
def test_long_value_scrolls_with_the_cursor(form, focus, keys, cursor, scroll):
    value = "".join(chr(ord("Ā") + number) for number in range(60))
    tbx, page, _ = form()
    press(tbx, to(focus) + value + keys,
          replace(page, **{focus.lower(): value}, focus=focus, scroll=scroll,
                  at=(0, cursor) if focus == "Text" else cursor))


def test_value_of_the_width_of_its_place_does_not_scroll(form):
    tbx, page, _ = form()
    press(tbx, "x" * 54, replace(page, to="x" * 54))


# ---- Editing the text ---------------------------------------------------------------------

@pytest.mark.parametrize("keys, text, place", [
    ("one\rtwo" + UP + DELETE, "onetwo", (0, 3)),
    ("longer\rone" + UP + "X", "lonXger\none", (0, 4)),
    ("aé\rЖb" + HOME + BACKSPACE + BACKSPACE, "aЖb", (0, 1)),
])
def test_text_is_edited(form, keys, text, place):
    tbx, page, _ = form()
    press(tbx, to("Text") + keys, replace(page, text=text, focus="Text", at=place))


def test_up_from_the_first_line_goes_to_expires(form):
    tbx, page, _ = form()
    press(tbx, to("Text") + "one\rtwo" + UP * 2, replace(page, text="one\ntwo", focus="Expires"))
    press(tbx, DOWN + "X", replace(page, text="oneX\ntwo", focus="Text", at=(0, 4)))


def test_text_scrolls_so_that_the_cursor_is_visible(form):
    tbx, page, _ = form()  # ten lines are shown
    lines = [f"line {number}" for number in range(1, 13)]
    text = replace(page, text="\n".join(lines), focus="Text")
    press(tbx, to("Text") + "\r".join(lines), replace(text, top=2))
    press(tbx, UP * 9, replace(text, top=2, at=(2, 6)))
    press(tbx, UP, replace(text, top=1, at=(1, 6)))
    press(tbx, DOWN * 9, replace(text, top=1, at=(10, 6)))
    press(tbx, DOWN * 2, replace(text, top=2, at=(11, 6)))
    press(tbx, BACK_TAB, replace(text, top=2, focus="Expires"))
    press(tbx, TAB + END + BACKSPACE * 8, replace(text, text="\n".join(lines[:11]), top=1))


def test_size_counts_bytes_and_the_newlines_between_lines(form):
    tbx, page, _ = form()
    press(tbx, to("Text") + "é\rЖ€\r", replace(page, text="é\nЖ€\n", focus="Text"))
    assert " 9 of 65536 bytes " in tbx.frame()
