"""Hostile bytes in everything that the interface shows: whoever wrote them, and wherever they
stand, the terminal obeys nothing but the interface's own sequences.

Every pair of bytes is tried in the unit tests; here those that begin what terminals know, on the
program itself.
"""

import pytest
from harness.history import record
from harness.pseudo_terminal import CTRL_E, ENTER, ESCAPE, FRAME_ENDS, PAGE_DOWN, TAB
from interface import frames_drawn, reply
from terminal_bytes import assert_harmless, assert_whole_frames

SIZE = (120, 30)
# Escape, two-byte C1, bytes that some terminals take for C1, bell, return, a character cut short.
BEGINNINGS = [b"\x1b", b"\x1b[", b"\x1b]", b"\xc2", b"\x9b", b"\x90", b"\x07", b"\r", b"\xe2\x94",
              b"\xc2\xc2", b""]
# Each in a line of its own: no sequence reaches across a line end.
HOSTILE_LINES = [beginning + bytes((byte,)) + b"31m<"
                 for beginning in BEGINNINGS for byte in range(256) if byte != 0x0A]
LINES_A_MESSAGE = 5  # of which the page of a message shows all


def message_file(title=b"", text=b"hello", author=b"root"):
    return (b"id: 1\nfrom: " + author + b"\ndate: 1790000000\ntitle: " + title + b"\n\n" + text
            + b"\n")


def put_messages(store, messages):
    for number, message in enumerate(messages, start=1):
        store.make_message(number, msg=message, to=["daemon"])


@pytest.fixture
def opened(terminal):
    """opened(...) starts the interface, on a terminal large enough for many lines."""

    def open_interface(**options):
        tbx = terminal(columns=SIZE[0], rows=SIZE[1], **options)
        tbx.wait_for("Tellbox · sent messages")
        return tbx

    return open_interface


def type_and_wait(tbx, keys):
    """Types, and waits until a frame is drawn for it."""
    drawn = frames_drawn(tbx)
    tbx.send(keys)
    tbx.wait_for(lambda: frames_drawn(tbx) > drawn)


def assert_nothing_obeyed(tbx):
    assert FRAME_ENDS in tbx.raw
    assert_harmless(tbx.raw)
    assert_whole_frames(tbx.raw, {SIZE})


def test_hostile_titles_and_texts_in_the_list(opened, store):
    put_messages(store, [message_file(title=title, text=text) for title, text
                         in zip(HOSTILE_LINES[0::2], HOSTILE_LINES[1::2])])
    tbx = opened()
    for _ in range(0, len(HOSTILE_LINES) // 2, SIZE[1] - 7):
        type_and_wait(tbx, PAGE_DOWN)
    assert ">  1 " in tbx.frame()  # the last of all
    assert_nothing_obeyed(tbx)


@pytest.mark.parametrize("colour", [None, "1"], ids=["colour", "plain"])
def test_hostile_fields_on_the_page_of_a_message(opened, store, colour):
    chunks = [HOSTILE_LINES[at:at + LINES_A_MESSAGE]
              for at in range(0, len(HOSTILE_LINES), 20 * LINES_A_MESSAGE)]
    put_messages(store, [message_file(title=lines[0], text=b"\n".join(lines), author=lines[-1])
                         for lines in chunks])
    tbx = opened(env={"NO_COLOR": colour})
    for number in range(len(chunks), 0, -1):
        type_and_wait(tbx, ENTER)
        tbx.wait_for(f"─ Message {number} ")
        type_and_wait(tbx, "q")
        tbx.wait_for("Tellbox · sent messages")
        type_and_wait(tbx, "\x1b[B")
    assert_nothing_obeyed(tbx)


def test_hostile_details_of_confirmations(opened, store):
    details = [b"".join(HOSTILE_LINES[at:at + 20]) for at in range(0, len(HOSTILE_LINES), 100)]
    for number, detail in enumerate(details, start=1):
        store.make_message(number, to=["daemon"], delivered=[("daemon", 1790000000, 0)])
        store.write_as("daemon", ("acks", number), b"1790000001 " + detail)
    tbx = opened()
    for number in range(len(details), 0, -1):
        type_and_wait(tbx, ENTER)
        tbx.wait_for("confirmed on 21/09 14:13 (")
        type_and_wait(tbx, "q")
        tbx.wait_for("Tellbox · sent messages")
        type_and_wait(tbx, "\x1b[B")
    assert_nothing_obeyed(tbx)


def test_hostile_records_in_the_history(opened, store, journal):
    store.make_message(7, to=["daemon"])
    lines = [line.replace(b"\x00", b"") for line in HOSTILE_LINES[::70]]
    tbx = opened(argv=journal(*(record("SENT", usec=number, author=line, details=line)
                                for number, line in enumerate(lines))))
    type_and_wait(tbx, ENTER)
    tbx.wait_for("─ Message 7 ")
    tbx.send(TAB)
    tbx.wait_for("message 7 sent by")
    assert_nothing_obeyed(tbx)


# A terminal sends what is pasted into it as if it were typed.

TYPED = b"a\xc2\x9b31m\xc2\x85b\x9b\x90\xff\xe2\x94c\xe0\x80\x9b"


def test_hostile_characters_typed_into_the_fields_of_the_form(opened):
    tbx = opened()
    tbx.send("n")
    tbx.wait_for("New message")
    tbx.send(TYPED + b"\t" + TYPED + b"\t" + TYPED + b"\t" + TYPED)
    tbx.wait_for("no such user: a")
    tbx.wait_for(lambda: tbx.frame().count("31m") >= 5)
    assert_nothing_obeyed(tbx)


def test_hostile_characters_typed_into_the_search(opened):
    tbx = opened()
    tbx.send("/")
    tbx.wait_for("Show only the messages containing:")
    tbx.send(TYPED)
    tbx.wait_for(lambda: "31m" in tbx.frame())
    tbx.send(ENTER)
    tbx.wait_for("Esc to clear")
    assert_nothing_obeyed(tbx)


def test_hostile_characters_typed_as_the_age_to_delete(opened):
    tbx = opened()
    tbx.send("p")
    tbx.wait_for("Delete the messages sent more than")
    tbx.send(TYPED + b"\r")
    tbx.wait_for("Messages older than 90da")
    reply(tbx, "y")
    tbx.wait_for("any key to continue")
    assert_nothing_obeyed(tbx)


def test_hostile_text_from_the_editor(opened, tmp_path):
    text = tmp_path / "text"
    text.write_bytes(b"\n".join(beginning + b"\x9b31m<" for beginning in BEGINNINGS))
    editor = tmp_path / "editor"
    editor.write_text(f'#!/bin/sh\ncp {text} "$1"\n')
    editor.chmod(0o755)
    tbx = opened(env={"VISUAL": str(editor)})
    tbx.send("n")
    tbx.wait_for("New message")
    tbx.send(CTRL_E)
    tbx.wait_for(f"{text.stat().st_size} of 65536 bytes")
    assert_nothing_obeyed(tbx)
    tbx.send(ESCAPE)
    tbx.wait_for("Discard the message?")
