"""The text and the title of a message: where they come from, cleaning and limits."""

import os
import time

import pytest

from harness.outcome import assert_refused, assert_sent
from harness.store import message_file

FILE_MAX_BYTES = 73728


def test_a_missing_text_file_is_named(box):
    assert_refused(box, "/no/such file: No such file or directory",
                   "send", "--to", "pat", "--file", "/no/such file")


def test_an_unreadable_text_file_is_named(machine):
    secret = machine.write("/run/secret", "secret", 0o600)
    result = machine.run("send", "--to", "pat", "--file", "/run/secret", user="sam",
                         env={"TBX_TEST": "1", "TBX_VAR": "/run/nowhere"})
    assert tuple(result) == ("", "tbx: /run/secret: Permission denied\n", 1)
    assert secret.read_bytes() == b"secret"


def test_a_folder_as_text_file_is_refused(box):
    assert_refused(box, "/run: Invalid argument", "send", "--to", "pat", "--file", "/run")


def test_a_named_pipe_as_text_file_is_refused_without_waiting(box):
    os.mkfifo(box.path("/run/pipe"))
    assert_refused(box, "/run/pipe: Invalid argument", "send", "--to", "pat", "--file", "/run/pipe")


def test_a_device_as_text_file_is_refused(box):
    assert_refused(box, "/dev/zero: Invalid argument", "send", "--to", "pat", "--file", "/dev/zero")


def test_a_standard_input_that_cannot_be_read_is_an_empty_text(box):
    with_folder = os.open(box.path("/run"), os.O_RDONLY)
    assert_refused(box, "empty message", "send", "--to", "pat", stdin=with_folder)
    os.close(with_folder)


def test_a_closed_standard_input_is_an_empty_text(box):
    assert_refused(box, "empty message", "send", "--to", "pat",
                   wrap=["/bin/sh", "-c", 'exec "$@" <&-', "sh"])


@pytest.mark.parametrize("given,stored", [
    (b"hello\n\n\n", "hello\n"), (b"\n\nhello", "\n\nhello\n"), (b"hello \n", "hello \n"),
    (b"a\r\nb\x00\tc\x1b[1;3\nmd\xc2\x9b31m\xff", "a\nb\tc[1;3\nmd31m\udcff\n")])
def test_the_text_is_cleaned_of_what_drives_a_terminal(box, given, stored):
    assert assert_sent(box, "--to", "pat", input=given)["text"] == stored


def test_newlines_are_taken_off_the_end_before_the_text_is_cleaned(box):
    assert assert_sent(box, "--to", "pat", input=b"hello\n\x1b[0m\n")["text"] == "hello\n\n"


@pytest.mark.parametrize("text", [b"", b"\n", b"\n\n\n", b" ", b" \t \n", b"\v\f\r", b"\x1b[0m",
                                  b"\x00\x01", b" \x1b]0;t\x07\t\n \n", b"\xc2\x85"])
def test_a_text_without_anything_to_show_is_refused(box, text):
    assert_refused(box, "empty message", "send", "--to", "pat", input=text)


def test_a_no_break_space_is_text(box):
    assert assert_sent(box, "--to", "pat", "\u00a0")["text"] == "\u00a0\n"


@pytest.mark.parametrize("given,stored", [
    ("a\tb\nid: 9\n", "a b id: 9 "), ("\x1b[31mé: ü\x1b[0m\r", "é: ü"), ("\x1b[0m", "")])
def test_the_title_is_cleaned_and_put_on_one_line(box, given, stored):
    message = assert_sent(box, "--to", "pat", "--title", given, "hello")
    assert (message["title"], message["id"], message["text"]) == (stored, "1", "hello\n")


def test_a_text_of_65536_bytes_is_sent_whole(box):
    assert assert_sent(box, "--to", "pat", input=b"a" * 65536)["text"] == "a" * 65536 + "\n"
    assert box.store.mailbox("pat", "inbox", 1).read_bytes() == (
        box.store.sent(1, "msg").read_bytes())


def test_a_text_of_65537_bytes_is_too_long(box):
    assert_refused(box, "message too long: 65537 bytes (at most 65536)",
                   "send", "--to", "pat", input=b"a" * 65537)


def test_the_length_of_a_text_is_counted_in_bytes(box):
    assert_refused(box, "message too long: 65538 bytes (at most 65536)",
                   "send", "--to", "pat", input="é".encode() * 32769)


def test_the_length_of_a_text_is_counted_after_cleaning(box):
    given = b"\x1b[1m" + b"a" * 65536 + b"\x00\r\x1b[0m"
    assert assert_sent(box, "--to", "pat", input=given)["text"] == "a" * 65536 + "\n"


def test_trailing_newlines_do_not_count_for_the_length(box):
    assert_sent(box, "--to", "pat", input=b"a" * 65536 + b"\n" * 1000)


def title_that_fills(box, text, size):
    """A title with which the message file, its identifier of 18 digits, has `size` bytes."""
    rest = message_file(10**17, text + "\n", date=int(time.time()),
                        author=box.account_running_tests())
    return "t" * (size - len(rest))


def test_a_message_file_of_73728_bytes_is_sent(box):
    title = title_that_fills(box, "a" * 60000, FILE_MAX_BYTES)
    message = assert_sent(box, "--to", "pat", "--title", title, input=b"a" * 60000)
    assert message["title"] == title


def test_a_message_file_of_73729_bytes_is_too_long(box):
    title = title_that_fills(box, "a" * 60000, FILE_MAX_BYTES + 1)
    assert_refused(box, "message too long: 73729 bytes (at most 73728)",
                   "send", "--to", "pat", "--title", title, input=b"a" * 60000)


def test_the_expiry_counts_for_the_size_of_the_message_file(box):
    title = title_that_fills(box, "hello", FILE_MAX_BYTES - 9)
    assert_refused(box, "message too long: 73729 bytes (at most 73728)",
                   "send", "--to", "pat", "--title", title, "--expires", "@4000000000", "hello")


@pytest.mark.parametrize("message,to", [("no such user: nobody-here", "nobody-here"),
                                        ("no recipients", ",")])
def test_the_size_of_the_message_file_is_the_last_thing_checked(box, message, to):
    title = title_that_fills(box, "hello", FILE_MAX_BYTES + 1)
    assert_refused(box, message, "send", "--to", to, "--title", title, "hello")
