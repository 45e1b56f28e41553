"""Text that is long, foreign, broken or hostile: the frame stays whole and the terminal safe."""

import re
from dataclasses import replace

import pytest

from harness.history import record
from harness.pseudo_terminal import BACK_TAB, CTRL_S, DOWN, ENTER, TAB
from interface import expect, frames_as_text, press, reply
from kept_frames import RED
from messages import DATE, FUTURE, Message, people
from pages import (
    DetailPage, ListPage, message_box, purge_confirmation, revoke_confirmation, search_box)

# Everything that the interface ever writes beside characters.
SEQUENCES = re.compile(rb"\x1b\[(?:H|J|K|\d+G|\?7[lh]|\d+;\d+H|\?25[lh]|\?1049[lh]|\?2004[lh]|"
                       rb"0m|1m|2m|7m|7;1m|3[123]m|90m|1;3[236]m)")


def assert_safe(tbx):
    """Nothing but frames of the terminal's size was written, and nothing in them acts on it."""
    characters = SEQUENCES.sub(b"", tbx.raw).decode("utf-8")
    assert not re.search("[\x00-\x09\x0b\x0c\x0e-\x1f\x7f-\x9f]", characters)
    columns, rows = tbx.size
    for frame in frames_as_text(tbx):
        lines = SEQUENCES.sub(b"", frame.encode()).decode().split("\r\n")
        assert [len(line) for line in lines] == [columns] * rows


# ---- Characters of more than one byte -----------------------------------------------------

GOTHIC = "\U00010330\U00010331\U00010332"  # four bytes each
LETTERS = "äöüß ÀÉÎ жизнь Ελλάδα €„“…→ " + GOTHIC


@pytest.mark.parametrize("size", [(80, 20), (109, 24), (110, 24), (200, 60)])
def test_every_character_takes_one_column_of_the_list(interface, size):
    interface([Message(1, LETTERS * 10 + "\n"),
               Message(2, LETTERS * 10 + "\n", title=LETTERS),
               Message(3, "x" + LETTERS * 10 + "\n", title=LETTERS * 10, revoked=DATE)], size)


@pytest.mark.parametrize("size", [(80, 20), (110, 24)])
def test_every_character_takes_one_column_of_the_page_of_a_message(detail, size):
    name = "Ωμέγα-" * 4
    detail(Message(1, LETTERS * 20 + "\n", title=LETTERS, delivered=(name, "Зоя")), size)


def test_every_character_takes_one_column_of_a_dialog(interface):
    message = Message(1, title="Größe " * 9)
    tbx, page = interface([message])
    press(tbx, "r", page, revoke_confirmation(message))


def test_every_character_takes_one_column_of_the_form(form):
    tbx, page, _ = form()
    line = LETTERS * 2
    page = replace(page, to="Зоя", title=LETTERS, text=f"{line}\n{line}", focus="Text",
                   preview=RED("tbx: no such user: Зоя"), scroll=len(line) - 54)
    press(tbx, TAB.join(["Зоя", LETTERS, "", line + ENTER + line]), page)


# ---- Hostile text in the store ------------------------------------------------------------

HOSTILE = [  # as it stands in a file, and what is shown of it
    (b"a\x1b[2Jb\x1b]0;title\x07c\x1b]0;never ended", "abc]0;never ended"),
    (b"a\rb\x7f\tc\x00d\xc2\x9b31m", "ab cd31m"),
    (b"a\xffb\xe2\x82c\x80d\xed\xa0\x80e\xc3", "a\ufffdb\ufffdcd\ufffde\ufffd"),
]


@pytest.mark.parametrize("raw, shown", HOSTILE)
def test_hostile_text_is_shown_without_what_acts_on_a_terminal(terminal, store, raw, shown):
    header = b"from: %s\ndate: %d\ntitle: %s\n\n" % (raw, DATE, raw)
    store.make_message(1, msg=header + raw + b" \xe2\x82\xac\n", to=("daemon",),
                       delivered=[("daemon", DATE, 0)])
    message = Message(1, shown + " €\n", title=shown, author=shown)
    tbx = terminal()
    page = ListPage(tbx.size, (message,))
    expect(tbx, page)
    press(tbx, "r", page, revoke_confirmation(message))
    press(tbx, "n", page)
    press(tbx, ENTER, DetailPage(tbx.size, message))
    assert_safe(tbx)


def test_hostile_recipient_is_made_harmless(terminal, store):
    store.make_message(1)
    store.write_private(store.sent(1, "recipients"), b"a\x1b[31mb\nc\x07d\n\xffe\n")
    tbx = terminal()
    tbx.wait_for("updated at")
    tbx.send(ENTER)
    tbx.wait_for("Message 1")
    assert [row[2:20].split()[0] for row in tbx.rows()[7:10]] == ["ab", "cd", "\ufffde"]
    assert_safe(tbx)


def test_hostile_events_are_made_harmless(terminal, store, journal):
    Message(1).put(store)
    tbx = terminal(argv=journal(
        record("SENT", message=1, details=b"\x1b[31mred\x1b]0;x\x07\xff", author="root"),
        record("REVOKED", message=1, author=b"two\nlines\x07\xc2\x9b", when=DATE + 1)))
    tbx.wait_for("updated at")
    tbx.send(ENTER + TAB)
    tbx.wait_for("revoked by two")
    assert_safe(tbx)


# ---- Hostile text that is typed -----------------------------------------------------------

TYPED = [  # as typed, and what is shown of it
    ("a\u009bb".encode(), "a b"),
    (b"a\xffb\xc0\xafc\xe2\x82d", "a\ufffdb\ufffdc\ufffdd"),
]


@pytest.mark.parametrize("typed, shown", TYPED)
def test_hostile_search_is_made_harmless(interface, typed, shown):
    tbx, page = interface([Message(1)])
    press(tbx, b"/" + typed, page, search_box(shown))
    press(tbx, ENTER, replace(page, messages=(), search=shown))
    assert_safe(tbx)


@pytest.mark.parametrize("typed, shown", TYPED)
def test_hostile_duration_is_made_harmless(interface, typed, shown):
    tbx, page = interface([])
    tbx.send(b"p" + b"\x7f" * 3 + typed + b"\r")
    expect(tbx, page, purge_confirmation(shown))
    reply(tbx, "y")
    tbx.wait_for("tbx: invalid duration: a")
    assert_safe(tbx)


@pytest.mark.parametrize("typed, shown", TYPED)
def test_hostile_message_in_the_form_is_made_harmless(form, typed, shown):
    tbx, page, _ = form()
    tbx.send(b"\t" + typed + b"\t" + typed + b"\t" + typed)
    tbx.wait_for(lambda: tbx.frame().count(shown) == 3)
    tbx.send(BACK_TAB * 3 + "nosuch")
    tbx.wait_for("[ nosuch ")
    tbx.send(typed + b"\t")
    tbx.wait_for("tbx: no such user: nosuch")
    tbx.send(CTRL_S)
    tbx.wait_for("Send the message?")
    reply(tbx, "y")
    tbx.wait_for("Sending result")
    assert_safe(tbx)


def test_text_that_is_pasted_arrives_whole(form):
    tbx, page, _ = form()
    lines = [f"line {number} of what was pasted, {LETTERS}" for number in range(30)]
    text = "\n".join(lines)
    press(tbx, BACK_TAB + text.replace("\n", ENTER),
          replace(page, text=text, focus="Text", scroll=len(lines[-1]) - 54))


# ---- Long text ----------------------------------------------------------------------------


def test_long_text_title_and_identifier_leave_the_frame_whole(interface):
    message = Message(123456789012345678, "x" * 65536 + "\n", title="t" * 6000, expires=FUTURE,
                      author="a" * 500)
    tbx, page = interface([message, Message(7)])
    tbx.send("r")
    tbx.wait_for("y  Confirm")
    press(tbx, "n", page)
    tbx.send(ENTER)
    tbx.wait_for("Message 123456789012345678")
    tbx.send("m")
    tbx.wait_for("y  Confirm")
    assert_safe(tbx)


def test_many_empty_lines_leave_the_frame_whole(detail):
    tbx, page, _ = detail(Message(1, "\n" * 65000))
    assert_safe(tbx)


def test_recipients_by_the_thousand_can_be_scrolled(detail):
    tbx, page, _ = detail(Message(1, delivered=people(2000), percentage="0%"))
    press(tbx, DOWN * 3, replace(page, scroll=3))


def test_names_that_were_not_reached_are_cut_with_the_box(form, store):
    tbx, page, _ = form()
    store.create()
    names = ["bin", "daemon", "games", "irc", "list", "lp", "mail", "man"]
    for name in names:
        store.mailbox(name).write_text("in the way")
    page = replace(page, to=",".join(names), text="Hello", focus="Text", preview="8 recipients")
    press(tbx, page.to + BACK_TAB + "Hello", page)
    press(tbx, CTRL_S, page, page.review("8 recipients"))
    press(tbx, "y", page, message_box(
        "Sending result", "Message 1 delivered to 0 of 8 recipients.",
        f"tbx: message 1 not delivered to: {' '.join(names)} (see the log; the next tbx command "
        "will retry)"))
    assert_safe(tbx)
