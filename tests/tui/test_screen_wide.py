"""Characters of two columns and of none: no row wraps, no border moves, no cell is stale.

The terminal counts by its own rules, which differ from the program's where emoji are joined.
"""

import pytest

from harness.pseudo_terminal import (
    BACK_TAB, BACKSPACE, DOWN, ENTER, ESCAPE, HOME, LEFT, RIGHT, TAB, UP)
from interface import frames_drawn, reply
from messages import Message

SIZES = [(80, 20), (80, 24), (120, 40)]
JAPANESE = "再起動のお知らせ"  # eight characters, sixteen columns
ACCENTS = "Cafe\u0301 a\u0308o\u0308u\u0308"
EMOJI = "👍🏽 👩‍💻 ❤️ 🇩🇪 1️⃣"
TEXTS = {"japanese": JAPANESE, "accents": ACCENTS, "emoji": EMOJI, "marks": "a\u202eb\u200bc\xadd",
         "mixed": f"a{JAPANESE[:3]}é{ACCENTS}b{EMOJI}c"}


def columns(tbx):
    """The rows as cells: a character of two columns is followed by an empty one."""
    width = tbx.size[0]
    return [[tbx.screen.buffer[row][x].data for x in range(width)] for row in range(tbx.size[1])]


def assert_frame_stands(tbx):
    rows = columns(tbx)
    assert "".join(rows[0]).startswith("┌─ ")
    assert "".join(rows[-1]).startswith("└─")
    assert [row[-1] for row in rows] == ["┐"] + ["│"] * (len(rows) - 4) + ["┤", "│", "┘"]
    assert all(row[0] in "┌│├└" for row in rows)


def next_frame(tbx, keys):
    """Types, and waits for two frames: one of them was drawn after the keys were read."""
    drawn = frames_drawn(tbx)
    tbx.send(keys)
    tbx.wait_for(lambda: frames_drawn(tbx) >= drawn + 2)


def column_of(tbx, row, text):
    """The column at which a text of narrow characters stands in a row."""
    cells = columns(tbx)[row]
    at = "".join(cells).index(text)
    return next(x for x in range(len(cells)) if len("".join(cells[:x])) == at)


# ---- Every page ---------------------------------------------------------------------------


@pytest.mark.parametrize("kind, size", [
    *((kind, SIZES[0]) for kind in TEXTS), *(("mixed", size) for size in SIZES[1:])])
def test_frame_of_every_page_stands(store, terminal, kind, size):
    text = TEXTS[kind]
    for number, message in enumerate([
            Message(1, "plain\n", title="Plain"),
            Message(2, text * 20 + "\n", title=text, delivered=(text, "daemon")),
            Message(3, "x" + text * 20 + "\nsecond " + text + "\n"),
            Message(4, text + "\n", title="x" * 35 + text)], start=1):
        assert message.put(store).id == number
    tbx = terminal(columns=size[0], rows=size[1])
    tbx.wait_for("updated at")
    for keys, seen in [
            (DOWN * 3 + UP, "updated at"), ("r", "y  Confirm"), ("n", "? keys"),
            ("/" + text, "Esc cancel"), (ENTER, "search: «"), (ESCAPE, "sent messages"),
            (HOME + ENTER, "Recipients ("), (DOWN + TAB, "Recipients ("), (ESCAPE, "? keys"),
            ("n", "New message"), (text + TAB + text * 9, "optional, one line"),
            (BACK_TAB * 2 + text * 9 + LEFT * 7, "optional, one line"),
            (HOME + RIGHT + BACKSPACE, "optional, one line")]:
        drawn = frames_drawn(tbx)
        reply(tbx, keys)
        tbx.wait_until_still(lambda: frames_drawn(tbx) > drawn and seen in tbx.frame()
                             and (keys != ESCAPE or "search: «" not in tbx.frame()))
        assert seen in tbx.frame(), keys
        assert_frame_stands(tbx)


@pytest.mark.parametrize("kind", TEXTS)
def test_nothing_of_wide_text_is_left_behind(store, terminal, kind):
    """The list as it is drawn over the page of a message is the list as it was."""
    Message(1, TEXTS[kind] * 9 + "\n", title=TEXTS[kind]).put(store)
    for number in range(2, 9):
        Message(number, "narrow\n").put(store)
    tbx = terminal()
    tbx.wait_for("updated at")

    def cells():
        return [row for row in columns(tbx)][1:]

    before = cells()
    next_frame(tbx, DOWN * 7 + ENTER)
    tbx.wait_for("Recipients (1)")
    next_frame(tbx, ESCAPE)
    tbx.wait_for("sent messages")
    next_frame(tbx, UP * 7)
    assert cells() == before


# ---- Where things stand -------------------------------------------------------------------


@pytest.mark.parametrize("kind", TEXTS)
def test_columns_behind_a_wide_message_stand_where_they_belong(store, terminal, kind):
    Message(1, "narrow\n").put(store)
    Message(2, TEXTS[kind] * 9 + "\n").put(store)
    Message(3, TEXTS[kind] + "\n", title="T").put(store)
    tbx = terminal()
    tbx.wait_for("updated at")
    for row in (2, 3, 4):
        assert column_of(tbx, row, "▒" * 12) == 2 + 19 + 36 + 2
        assert column_of(tbx, row, "0/1") == 2 + 19 + 36 + 2 + 12 + 2


def test_wide_message_is_cut_before_a_character_that_would_stand_half(store, terminal):
    Message(1, "日" * 40 + "\n").put(store)
    Message(2, "x" + "日" * 40 + "\n").put(store)
    tbx = terminal()
    tbx.wait_for("updated at")
    shown = ["".join(columns(tbx)[row][21:57]).rstrip() for row in (2, 3)]
    assert shown == ["x" + "日" * 17, "日" * 18]


@pytest.mark.parametrize("typed, behind", [
    (JAPANESE, 16), ("日" + BACKSPACE + "本", 2), ("日本" + LEFT, 2),
    ("a\u0301" * 3 + BACKSPACE, 3)])
def test_cursor_of_the_form_stands_behind_what_was_typed(terminal, typed, behind):
    tbx = terminal()
    tbx.wait_for("updated at")
    tbx.send("n")
    tbx.wait_for("New message")
    tbx.send(typed)
    tbx.wait_for(lambda: tbx.cursor() == (2, 16 + behind))
    tbx.send(TAB * 3 + typed)
    tbx.wait_for(lambda: tbx.cursor() == (9, 16 + behind))


@pytest.mark.parametrize("focus", ["", TAB * 3])
def test_long_wide_value_scrolls_with_the_cursor(terminal, focus):
    tbx = terminal()
    tbx.wait_for("updated at")
    tbx.send("n")
    tbx.wait_for("New message")
    tbx.send(focus + "x" + "日本" * 40)
    row = 9 if focus else 2
    tbx.wait_for(lambda: (tbx.cursor() or (0, 0))[0] == row and "日本" in tbx.frame())
    next_frame(tbx, "語")
    y, x = tbx.cursor()
    assert x in (16 + 53, 16 + 54)
    assert columns(tbx)[y][x - 2] == "語"
    assert_frame_stands(tbx)
    next_frame(tbx, HOME)
    assert tbx.cursor() == (row, 16)
    assert_frame_stands(tbx)


def test_text_of_a_message_is_wrapped_by_columns(store, terminal):
    Message(1, "日" * 80 + "\n").put(store)
    tbx = terminal()
    tbx.wait_for("updated at")
    tbx.send(ENTER)
    tbx.wait_for("Recipients")
    shown = ["".join(row).count("日") for row in columns(tbx)]
    assert [count for count in shown if count] == [36, 36, 8]


def test_box_is_as_wide_as_a_wide_line_needs(store, terminal):
    Message(1, title="日" * 25).put(store)
    tbx = terminal(columns=120, rows=30)
    tbx.wait_for("updated at")
    tbx.send("r")
    tbx.wait_for("y  Confirm")
    line = f"«{'日' * 25}» · 1 delivered"
    assert f"│  {line}  │" in "".join("".join(row) for row in columns(tbx))
    assert_frame_stands(tbx)


def test_rows_of_narrow_characters_hold_no_sequence_for_wide_ones(store, terminal):
    Message(1, "äöü жизнь\n", title="Größe").put(store)
    tbx = terminal()
    tbx.wait_for("updated at")
    for keys in [ENTER, ESCAPE, "n", ESCAPE]:
        next_frame(tbx, keys)
    assert all(sequence not in tbx.raw for sequence in (b"\x1b[?7", b"\x1b[K", b"G\x1b"))


def test_terminal_wraps_again_after_the_interface(store, terminal):
    Message(1, JAPANESE + "\n").put(store)
    tbx = terminal()
    tbx.wait_for("updated at")
    tbx.send("q")
    assert tbx.wait_exit() == 0
    assert tbx.raw.count(b"\x1b[?7l") == tbx.raw.count(b"\x1b[?7h") > 0
    assert tbx.raw.rfind(b"\x1b[?7h") > tbx.raw.rfind(b"\x1b[?7l")
