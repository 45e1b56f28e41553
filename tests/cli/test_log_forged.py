"""log: any local user can write records, so each line tells when the writer was another."""

import pytest
from harness.history import MESSAGE_STAMP, record

PAT, ALEX = 1001, 1002
OF_THE_ADMINISTRATOR = ["SENT", "DELIVERED", "NOT_DELIVERED", "CANCELLED", "RECOVERED", "DELETED",
                        "REMINDED", "REVOKED"]
OF_THE_USER = ["POSTPONED", "CONFIRMED", "CONFIRMATION_FAILED"]


def mark(uid):
    return f"{MESSAGE_STAMP}  [not trustworthy: written by UID {uid}] "


def is_marked(history, uid):
    """Whether the only line of the history carries the mark for that writer."""
    [line] = history.lines()
    assert line.startswith(mark(uid)) or "trust" not in line, line
    return line.startswith(mark(uid))


# Who may write what.

@pytest.mark.parametrize("event", OF_THE_ADMINISTRATOR + ["FOO", ""])
def test_a_record_of_the_administrator_is_root_s_to_write(history, event):
    history.write(record(event, user="pat", uid=0))
    assert not is_marked(history, 0)


@pytest.mark.parametrize("event", OF_THE_ADMINISTRATOR + ["FOO", ""])
def test_a_record_of_the_administrator_by_an_ordinary_user_is_marked(history, event):
    history.write(record(event, user="pat", uid=PAT))
    assert is_marked(history, PAT)


@pytest.mark.parametrize("event", OF_THE_USER)
def test_a_record_of_a_user_is_their_own_to_write(history, event):
    history.write(record(event, user="pat", uid=PAT))
    assert not is_marked(history, PAT)


@pytest.mark.parametrize("event", OF_THE_USER)
@pytest.mark.parametrize("uid", [ALEX, 0])
def test_a_record_of_a_user_by_anyone_else_is_marked(history, event, uid):
    history.write(record(event, user="pat", uid=uid))
    assert is_marked(history, uid)


@pytest.mark.parametrize("user", ["nobody-here", "", "1001", "pat ", "PAT"])
@pytest.mark.parametrize("uid", [PAT, 0])
def test_a_record_of_a_user_without_an_account_is_marked_whoever_wrote_it(history, user, uid):
    history.write(record("CONFIRMED", user=user, uid=uid))
    assert is_marked(history, uid)


def test_a_record_of_a_user_whose_account_is_gone_is_marked(history, machine):
    history.write(record("CONFIRMED", user="pat", uid=PAT))
    assert not is_marked(history, PAT)
    machine.remove_user("pat")
    assert is_marked(history, PAT)


def test_a_user_side_record_of_root_is_root_s_to_write(history):
    history.write(record("CONFIRMED", user="root", uid=0))
    assert not is_marked(history, 0)


def test_a_record_without_a_writer_is_marked_with_a_question_mark(history):
    history.write(record("REVOKED", without=["_UID"]))
    assert is_marked(history, "?")


def test_a_record_with_an_empty_writer_is_marked_with_a_question_mark(history):
    history.write(record("REVOKED", uid=""))
    assert is_marked(history, "?")


@pytest.mark.parametrize("uid", ["abc", "-0", "+0", "0x0", "0 ", "0" * 19])
def test_a_writer_that_is_no_number_is_marked(history, uid):
    history.write(record("REVOKED", uid=uid))
    assert is_marked(history, uid)


@pytest.mark.parametrize("uid", [4294967295, 999999999999999999])
def test_no_writer_equals_a_missing_account(history, uid):
    history.write(record("CONFIRMED", user="nobody-here", uid=uid))
    assert is_marked(history, uid)


def test_true_and_forged_records_stand_side_by_side(history):
    history.write(record("CONFIRMED", user="pat", uid=PAT, channel="terminal"),
                  record("CONFIRMED", user="pat", uid=ALEX, channel="terminal"),
                  record("REVOKED", author="root", uid=PAT))
    assert history.lines() == [
        f"{MESSAGE_STAMP}  user pat: confirmed reading message 7 (terminal)",
        f"{mark(ALEX)}user pat: confirmed reading message 7 (terminal)",
        f"{mark(PAT)}message 7 revoked by root"]


def test_the_mark_stands_before_the_words_of_an_unknown_event(history):
    history.write(record("FOO", uid=PAT, sentence="message 7 revoked by root"))
    assert history.lines() == [f"{mark(PAT)}message 7 revoked by root"]


def test_root_is_expected_also_where_only_the_effective_user_is_root(history):
    history.write(record("REVOKED", author="root", uid=0))
    assert history.lines(wrap=["setpriv", f"--ruid={PAT}", "--"]) == [
        f"{MESSAGE_STAMP}  message 7 revoked by root"]


@pytest.mark.parametrize("uid, marked", [(PAT, False), (0, True), (ALEX, True)])
def test_in_test_mode_the_administrator_is_whoever_runs_the_program(
        box, box_history, uid, marked):
    box.shell(f"chown -R pat:pat {box.state_name}")
    box_history.write(record("REVOKED", author="pat", uid=uid))
    assert box_history.lines(user="pat") == [
        (mark(uid) if marked else f"{MESSAGE_STAMP}  ") + "message 7 revoked by pat"]


@pytest.mark.parametrize("uid, marked", [(PAT, False), (ALEX, True)])
def test_in_test_mode_a_user_s_record_is_still_theirs(box_history, uid, marked):
    box_history.write(record("CONFIRMED", user="pat", uid=uid, channel="terminal"))
    assert is_marked(box_history, uid) == marked


# What a forged record cannot do.

# A sentence with the text in each field that it shows, and the line that comes of it.
PLACES = [
    ("SENT", "details", "message 7 sent by  to: {}"),
    ("SENT", "author", "message 7 sent by {} to: "),
    ("DELIVERED", "user", "message 7 delivered to {} (recovery)"),
    ("RECOVERED", "details", "message 7: delivery completed for {} recipients after an "
                             "interruption"),
    ("POSTPONED", "channel", "user : postponed message 7 ({})"),
    ("CONFIRMATION_FAILED", "details",
     "user : ERROR, confirmation of message 7 not recorded (): {}"),
    ("FOO", "sentence", "{}"),
]
FORGED_LINE = f"{MESSAGE_STAMP}  message 7 revoked by root"


@pytest.mark.parametrize("event, field, line", PLACES[-2:])
def test_a_newline_in_a_field_is_shown_as_a_blank(history, event, field, line):
    history.write(record(event, uid=ALEX, **{field: f"one\n{FORGED_LINE}"}))
    assert history.lines() == [mark(ALEX) + line.format(f"one {FORGED_LINE}")]


def test_every_newline_is_one_blank(history):
    history.write(record("SENT", details="\na\n\nb\r\nc\n"))
    assert history.lines() == [f"{MESSAGE_STAMP}  message 7 sent by  to:  a  b c "]


@pytest.mark.parametrize("event, field, line", PLACES[-2:])
def test_escape_sequences_are_shown_without(history, event, field, line):
    text = "a\x1b[1;31mb\x1b[0m\x1b]0;title\x07c\x1b[?25l"
    history.write(record(event, uid=ALEX, **{field: text}))
    assert history.lines() == [mark(ALEX) + line.format("abc")]


@pytest.mark.parametrize("text, shown", [
    ("a\x1b[3\n1mb", "a[3 1mb"), ("a\x1b]0;t\nu\x07b", "ab"), ("a\tb\u0085\rc\x7f", "a\tbc")])
def test_control_characters_are_dropped(history, text, shown):
    history.write(record("SENT", details=text))
    assert history.lines() == [f"{MESSAGE_STAMP}  message 7 sent by  to: {shown}"]


@pytest.mark.parametrize("fields", [
    {"author": "\x1b[", "details": "31m"}, {"author": "\x1b]0;", "details": "\x07"},
    {"author": "\x1b", "details": "[31m"}, {"author": b"\xc2", "details": b"\x9b31m"}])
def test_a_sequence_cannot_begin_in_one_field_and_end_in_the_next(history, machine, fields):
    history.write(record("SENT", uid=ALEX, **fields))
    out = machine.run("log", "7").stdout.encode("utf-8", "surrogateescape")
    assert not any(byte < 0x20 and byte != 0x0a for byte in out)
    assert b"\xc2\x9b" not in out
    assert mark(ALEX).encode() in out


@pytest.mark.parametrize("eraser", ["\r", "\b" * 80, "\x1b[2K\x1b[G", "\x1b[1A", "\x1b8", "\u0084"])
def test_the_mark_cannot_be_erased(history, machine, eraser):
    history.write(record("REVOKED", uid=ALEX, author=f"{eraser}{FORGED_LINE}"))
    line = machine.run("log", "7").stdout.split("\n")[1]
    assert line.startswith(f"{mark(ALEX)}message 7 revoked by ")
    assert line.endswith(FORGED_LINE)
    assert line.isprintable()


def test_a_writer_that_holds_control_characters_is_cleaned_too(history):
    history.write(record("REVOKED", uid="0\n\x1b[31m1"))
    assert history.lines() == [f"{mark('0 1')}message 7 revoked by "]


def test_a_record_with_every_byte_prints_no_control_byte(history, machine):
    every = bytes(range(1, 256))
    history.write(record("CONFIRMATION_FAILED", uid=ALEX, user=every, channel=every,
                         details=every, author=every))
    out = machine.run("log", "7").stdout.encode("utf-8", "surrogateescape")
    assert out.count(b"\n") == 2
    assert not any((byte < 0x20 and byte not in b"\t\n") or byte == 0x7f for byte in out)


@pytest.mark.parametrize("event, field, line", PLACES)
def test_a_field_ends_at_a_zero_byte(history, event, field, line):
    history.write(record(event, uid=ALEX, **{field: "shown\0hidden"}))
    assert history.lines() == [mark(ALEX) + line.format("shown")]


@pytest.mark.parametrize("event", [b"CONFIRMED\0x", b"REVOKED\0x"])
def test_a_zero_byte_in_the_event_s_name_does_not_make_a_forgery_trustworthy(history, event):
    history.write(record(event, uid=ALEX, user="pat"))
    assert is_marked(history, ALEX)


@pytest.mark.parametrize("users", [("pat", "alex"), ("alex", "pat")])
def test_a_record_that_names_two_users_cannot_speak_for_the_other_unmarked(history, users):
    first, second = users
    history.write(record("CONFIRMED", uid=ALEX, user=first, extra=[("TBX_USER", second)]))
    [line] = history.lines()
    assert line in (f"{MESSAGE_STAMP}  user alex: confirmed reading message 7 ()",
                    f"{mark(ALEX)}user pat: confirmed reading message 7 ()")
