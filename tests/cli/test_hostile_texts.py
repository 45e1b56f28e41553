"""Every byte and every pair of bytes in a message, from the command line to what is stored, written
to terminals and shown: nothing of it is a control that a terminal obeys.

The pairs stand on lines of their own, since no sequence reaches across a line end; what must be
left of each is worked out here from the rules of cleaning.
"""

import re

import pytest
from harness.history import MESSAGE_STAMP, record

CSI = re.compile(rb"\x1b\[[0-9;?]*[\x40-\x7e]")
OSC = re.compile(rb"\x1b\][^\x07]*\x07")
DROPPED = re.compile(rb"[\x00-\x08\x0b-\x1f\x7f]")
C1 = re.compile(rb"\xc2[\x80-\x9f]")

TEXT_MAX_BYTES = 65536
QUARTERS = [range(start, start + 64) for start in range(0, 256, 64)]


def cleaned(line):
    """A line by the rules, pass by pass; dropping a pair of C1 may make another."""
    line = DROPPED.sub(b"", OSC.sub(b"", CSI.sub(b"", line)))
    while C1.search(line):
        line = C1.sub(b"", line, count=1)
    return line


def lines_of_pairs(firsts, without=b""):
    """All pairs that begin with these bytes, a line of its own for each."""
    pairs = [bytes((first, second)) for first in firsts for second in range(256)
             if first not in without and second not in without]
    text = b"".join(pair + b"\n" for pair in pairs)
    return text.rstrip(b"\n")


def cleaned_lines(text):
    return b"\n".join(cleaned(line) for line in text.split(b"\n"))


def controls(text, allowed):
    """What a terminal in UTF-8 would obey, but for the `allowed` bytes. Bytes that are no UTF-8
    are left out: 0x80 to 0x9F alone are kept by the rules."""
    characters = text.decode(errors="ignore")
    return {character for character in characters
            if (character < " " or "\x7f" <= character <= "\x9f")
            and character.encode() not in (bytes((byte,)) for byte in allowed)}


def output_of(machine, *arguments):
    result = machine.run(*arguments)
    assert (result.status, result.stderr) == (0, "")
    return result.stdout.encode("utf-8", "surrogateescape")


def send(machine, *arguments, **options):
    result = machine.run("send", "--to", "pat", *arguments, **options)
    assert (result.stdout, result.stderr, result.status) == ("Message 1 sent to 1 user.\n", "", 0)


# ---- Texts --------------------------------------------------------------------------------


@pytest.mark.parametrize("firsts", QUARTERS, ids=lambda firsts: f"{firsts[0]:02X}")
def test_every_pair_in_a_text_is_cleaned_wherever_it_is_stored_and_shown(box, firsts):
    text = lines_of_pairs(firsts)
    assert len(text) <= TEXT_MAX_BYTES
    expected = cleaned_lines(text)
    send(box, input=text)

    stored = box.store.sent(1, "msg").read_bytes()
    assert stored.split(b"\n\n", 1)[1] == expected + b"\n"
    assert box.store.mailbox("pat", "inbox", 1).read_bytes() == stored

    banner = box.terminal.read_bytes()
    assert expected.strip(b"\n").replace(b"\n", b"\r\n") in banner
    assert banner.replace(b"\r\n", b"").count(b"\r") == 0
    assert controls(banner, b"\t\r\n") == set()

    shown = output_of(box, "status", "1")
    assert b"".join("  │ ".encode() + line + b"\n" for line in expected.split(b"\n")) in shown
    assert controls(shown + output_of(box, "list"), b"\t\n") == set()


@pytest.mark.parametrize("firsts", QUARTERS, ids=lambda firsts: f"{firsts[0]:02X}")
def test_every_pair_in_a_title_is_cleaned_wherever_it_is_stored_and_shown(box, firsts):
    typed = lines_of_pairs(firsts, without=b"\x00")  # which no argument can hold
    expected = cleaned_lines(typed).replace(b"\t", b" ").replace(b"\n", b" ")
    send(box, b"--title", typed, "hello")

    stored = box.store.sent(1, "msg").read_bytes()
    assert b"\ntitle: " + expected + b"\nexpires: \n" in stored
    banner = box.terminal.read_bytes()
    assert b" " + expected + " · ".encode() in banner
    assert controls(banner, b"\t\r\n") == set()

    shown = output_of(box, "status", "1")
    assert shown.startswith("Message 1 · ".encode() + expected + " · ".encode())
    assert controls(shown + output_of(box, "log", "1"), b"\t\n") == set()


def test_a_sequence_that_begins_in_the_title_does_not_end_in_the_text(box):
    send(box, b"--title", b"a\x1b]0;b\xc2", input=b"\x9b2Jc\x07d")
    banner = box.terminal.read_bytes()
    assert b"a]0;b\xc2" in banner
    assert b"\r\n\x9b2Jcd\r\n" in banner
    assert controls(banner, b"\r\n") == set()


# The exception: text need not be UTF-8, and in other encodings these bytes are letters.

def test_single_bytes_from_80_to_9f_are_kept(box):
    text = b"\n".join(b"<" + bytes((byte,)) + b">" for byte in range(0x80, 0xA0))
    send(box, input=text)
    assert box.store.sent(1, "msg").read_bytes().endswith(b"\n\n" + text + b"\n")


# ---- Confirmations ------------------------------------------------------------------------


def test_every_byte_in_the_detail_of_a_confirmation_is_cleaned(box):
    ending = [b"\x00", b"\n"]  # end what is read of a confirmation
    others = [bytes((byte,)) for byte in range(1, 256) if byte != 0x0A]
    details = ending + [b"".join(b"<" + byte + b"\xc2" + byte + b">" for byte in others[at:at + 32])
                        for at in range(0, len(others), 32)]
    for number, detail in enumerate(details, start=1):
        box.store.make_message(number, delivered=[("pat", 1790000000, 0)])
        box.store.write_as("pat", ("acks", number), b"1790000001 " + detail)
        shown = output_of(box, "status", str(number))
        expected = cleaned(detail) if detail not in ending else b"?"
        assert b" confirmed on 21/09 14:13 (" + expected + b")\n" in shown
        assert controls(shown, b"\t\n") == set()


# ---- The history --------------------------------------------------------------------------
# Any local user writes records.


def pairs_apart(first):
    """The pairs that begin with a byte, kept apart by blanks; NUL ends a field of a record."""
    return b"".join(bytes((first, second)) + b" " for second in range(1, 256))


def test_every_pair_in_the_records_of_the_history_is_cleaned(history, machine):
    texts = [pairs_apart(first) for first in range(1, 256)]
    history.write(*(record("SENT", usec=number, author=text, details=text)
                    for number, text in enumerate(texts)))
    shown = output_of(machine, "log", "7")
    stamp = f"{MESSAGE_STAMP}  message 7 sent by ".encode()
    expected = [cleaned((stamp + text + b" to: " + text).replace(b"\n", b" ")) for text in texts]
    assert shown.removesuffix(b"\n").split(b"\n")[1:] == expected
    assert controls(shown, b"\t\n") == set()


def test_every_pair_in_the_sentence_of_an_unknown_record_is_cleaned(history, machine):
    history.write(*(record("FOO", usec=first, sentence=pairs_apart(first))
                    for first in range(1, 256)))
    shown = output_of(machine, "log", "7")
    assert shown.count(b"\n") == 256
    assert controls(shown, b"\t\n") == set()
