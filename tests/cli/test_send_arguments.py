"""How send reads its arguments, and in which order it complains."""

import pytest

from harness.outcome import assert_refused, assert_sent

BAD_EXPIRY = ("--expires", "no such day")
PAST = ("--expires", "0m")


@pytest.mark.parametrize("arguments", [
    [], ["hello"], ["-"], [""], ["--"], ["--", "hello"], ["--title", "t"],
    ["--title", "t", "hello"], ["--title", "t", "--", "hello"], ["hello", "--to", "pat"],
    ["--", "--to", "pat"], ["-", "--to", "pat"], ["--file", "/nonexistent"],
    ["--expires", "2h"], ["hello", "--bogus"], ["hello", "--title"]])
def test_a_missing_recipient_option_is_reported(box, arguments):
    assert_refused(box, "missing --to", "send", *arguments)


@pytest.mark.parametrize("option", ["--to", "--title", "--expires", "--file"])
@pytest.mark.parametrize("before", [[], ["--to", "pat"], ["--title", "t"]])
@pytest.mark.parametrize("after", [[], [""], ["", "hello"]])
def test_an_option_without_value_or_with_an_empty_one_is_named(box, option, before, after):
    assert_refused(box, f"missing value for {option}", "send", *before, option, *after)


@pytest.mark.parametrize("option", ["-x", "--bogus", "--to=pat", "-t", "--TO", "--titel", "---",
                                    "-1", "- ", "--expire", "-%s"])
def test_an_unknown_option_is_named(box, option):
    assert_refused(box, f"unknown option: {option}", "send", "--to", "pat", option, "hello")


def test_an_unknown_option_is_reported_even_before_the_recipients_are_known(box):
    assert_refused(box, "unknown option: -x", "send", "-x")


@pytest.mark.parametrize("message,arguments", [
    ("unknown option: -x", ["-x", *BAD_EXPIRY]),
    ("invalid expiry: no such day", [*BAD_EXPIRY, "-x"]),
    ("invalid expiry: no such day", [*BAD_EXPIRY, "hello"]),
    ("invalid expiry: no such day", [*BAD_EXPIRY, "--title"]),
    ("missing value for --title", ["--title", "", *BAD_EXPIRY]),
    ("the expiry is already in the past", [*PAST, "hello"]),
    ("the expiry is already in the past", [*PAST, "-x"]),
    ("the expiry is already in the past", ["--to", "nobody-here", *PAST, ""]),
    ("missing --to", ["hello", *BAD_EXPIRY])])
def test_the_first_bad_argument_is_the_one_reported(box, message, arguments):
    assert_refused(box, message, "send", *arguments)


@pytest.mark.parametrize("message,arguments", [
    ("/nonexistent: No such file or directory", ["--to", "nobody-here", "--file", "/nonexistent"]),
    ("empty message", ["--to", "nobody-here", ""]),
    ("empty message", ["--to", ",", ""]),
    ("no such user: nobody-here", ["--to", "nobody-here,@nogroup", "hello"])])
def test_the_text_is_checked_before_the_recipients(box, message, arguments):
    assert_refused(box, message, "send", *arguments)


def test_a_long_text_is_reported_before_unknown_recipients(box):
    assert_refused(box, "message too long: 65537 bytes (at most 65536)",
                   "send", "--to", "nobody-here", input=b"a" * 65537)


def test_an_expiry_is_refused_even_where_a_later_one_is_good(box):
    assert_refused(box, "invalid expiry: no such day",
                   "send", "--to", "pat", *BAD_EXPIRY, "--expires", "2h", "hello")


def test_a_later_option_replaces_an_earlier_one(box):
    box.path("/run/text").write_text("from the file", encoding="ascii")
    message = assert_sent(box, "--to", "nobody-here", "--title", "one", "--file", "/nonexistent",
                          "--expires", "@5000000000", "--to", "pat", "--title", "two",
                          "--file", "/run/text", "--expires", "@6000000000")
    assert (message["title"], message["expires"], message["text"]) == (
        "two", "6000000000", "from the file\n")
    assert box.store.sent(1, "recipients").read_bytes() == b"pat\n"


def test_a_value_that_looks_like_an_option_is_a_value(box):
    message = assert_sent(box, "--title", "--to", "--to", "pat", "hello")
    assert message["title"] == "--to"


@pytest.mark.parametrize("words,text", [
    (["hello"], "hello"), (["hello", "world"], "hello world"), (["hello world"], "hello world"),
    (["a", "", "b"], "a  b"), (["a", ""], "a "), (["", "a"], " a"),
    (["hello", "--title", "t"], "hello --title t"), (["a", "--", "b"], "a -- b"),
    (["a", "--bogus", "-x"], "a --bogus -x"), (["-"], "-"), (["-", "a"], "- a"),
    (["--", "--title"], "--title"), (["--", "--", "x"], "-- x"), (["--", "a", "--to", "b"],
                                                                  "a --to b"),
    (["--", "-"], "-"), (["a\nb"], "a\nb"), (["a\n\n"], "a"), (["é"], "é")])
def test_the_words_are_joined_with_single_blanks(box, words, text):
    assert assert_sent(box, "--to", "pat", *words)["text"] == text + "\n"


@pytest.mark.parametrize("end", [[], ["--"]])
def test_without_words_the_text_is_standard_input(box, end):
    message = assert_sent(box, "--to", "pat", *end, input=b"one\ntwo")
    assert message["text"] == "one\ntwo\n"


@pytest.mark.parametrize("end", [[], ["--"]])
def test_without_words_the_text_is_that_of_the_file(box, end):
    box.path("/run/text").write_text("one\n\ntwo\n", encoding="ascii")
    message = assert_sent(box, "--file", "/run/text", "--to", "pat", *end, input=b"unread")
    assert message["text"] == "one\n\ntwo\n"


@pytest.mark.parametrize("words", [["hello"], ["--", "hello"]])
def test_words_keep_the_file_from_being_read(box, words):
    message = assert_sent(box, "--to", "pat", "--file", "/nonexistent", *words)
    assert message["text"] == "hello\n"


@pytest.mark.parametrize("text", [["hello"], ["--file", "/run/text"]])
def test_standard_input_is_not_read_when_the_text_comes_from_elsewhere(box, text):
    box.path("/run/text").write_text("hello", encoding="ascii")
    terminal = box.open_terminal("pat")  # a read would wait for ever
    assert assert_sent(box, "--to", "pat", *text, stdin=terminal.slave)["text"] == "hello\n"
