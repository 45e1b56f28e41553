"""log: the heading, and one line for each record of the message."""

import pytest
from harness.history import MESSAGE_DATE, MESSAGE_STAMP, record
from harness.outcome import assert_fails
from harness.store import replace_by, short_time

HEADING = f"Message 7 · {short_time(MESSAGE_DATE)}\n"


# The message.

def test_without_an_identifier_there_is_no_history(box):
    assert_fails(box, "missing message ID", "log")


def test_the_history_of_an_unknown_message_is_refused_with_the_identifier_as_typed(box):
    box.store.make_message(7)
    assert_fails(box, "no such message: 008", "log", "008")


@pytest.mark.parametrize("content", [b"no date\n", False], ids=["undated", "missing"])
def test_a_message_that_cannot_be_read_has_no_history(box, content):
    box.store.make_message(7, msg=content)
    assert_fails(box, "no such message: 7", "log", "7")


def test_a_symbolic_link_in_place_of_the_message_is_not_followed(box):
    box.store.make_message(7)
    replace_by("link", box.store.sent(7, "msg"))
    assert_fails(box, "no such message: 7", "log", "7")


# The heading.

def test_the_heading_of_an_untitled_message_has_its_date(history, machine):
    assert machine.run("log", "7").stdout == HEADING


def test_the_heading_has_the_title_before_the_date(history, machine):
    machine.store.make_message(8, title="Backup · tonight")
    assert machine.run("log", "8").stdout == (
        f"Message 8 · Backup · tonight · {short_time(MESSAGE_DATE)}\n")


def test_the_heading_has_the_number_without_leading_zeros(history, machine):
    history.write(record("REVOKED", author="root"))
    assert machine.run("log", "007").stdout == (
        f"{HEADING}{MESSAGE_STAMP}  message 7 revoked by root\n")


def test_a_date_that_cannot_be_shown_is_a_question_mark_in_the_heading(history, machine):
    machine.store.make_message(8, date=999999999999999999)
    assert tuple(machine.run("log", "8")) == ("Message 8 · ?\n", "", 0)


@pytest.mark.parametrize("state", [{"revoked": MESSAGE_DATE}, {"failed": MESSAGE_DATE},
                                   {"expires": 1}])
def test_a_message_that_is_over_keeps_its_history(history, machine, state):
    machine.store.make_message(8, **state)
    history.write(record("REMINDED", message=8, details="1", author="root"))
    assert history.lines(8) == [f"{MESSAGE_STAMP}  message 8: 1 recipient reminded by root"]


def test_without_any_journal_there_is_the_heading_alone(history, machine):
    assert tuple(machine.run("log", "7")) == (HEADING, "", 0)


def test_without_a_record_of_the_message_there_is_the_heading_alone(history, machine):
    history.write(record("SENT", message=8))
    assert tuple(machine.run("log", "7")) == (HEADING, "", 0)


# The lines.

@pytest.mark.parametrize("event, fields, sentence", [
    ("SENT", {"details": "pat sam", "author": "root"}, "message 7 sent by root to: pat sam"),
    ("CONFIRMATION_FAILED",
     {"user": "pat", "uid": 1001, "channel": "desktop", "details": "disk full"},
     "user pat: ERROR, confirmation of message 7 not recorded (desktop): disk full"),
])
def test_an_event_is_told_in_its_sentence(history, event, fields, sentence):
    history.write(record(event, **fields))
    assert history.lines() == [f"{MESSAGE_STAMP}  {sentence}"]


def test_the_sentence_is_told_from_the_fields_and_not_taken_from_the_record(history):
    history.write(record("REVOKED", author="root", sentence="nothing happened"))
    assert history.lines() == [f"{MESSAGE_STAMP}  message 7 revoked by root"]


@pytest.mark.parametrize("event", ["FOO", ""])
def test_an_unknown_event_is_told_in_the_writer_s_own_words(history, event):
    history.write(record(event, sentence="something new happened"))
    assert history.lines() == [f"{MESSAGE_STAMP}  something new happened"]


def test_an_unknown_event_without_words_is_the_time_alone(history):
    history.write(record("FOO", without=["MESSAGE"]))
    assert history.lines() == [f"{MESSAGE_STAMP}  "]


@pytest.mark.parametrize("event, fields, missing, line", [
    ("SENT", {"details": "pat"}, ["TBX_AUTHOR"], "message 7 sent by  to: pat"),
    ("SENT", {"author": "root"}, ["TBX_DETAILS"], "message 7 sent by root to: "),
    ("DELIVERED", {"details": "1"}, ["TBX_USER"],
     "message 7 delivered to  (terminals written: 1)"),
    ("REVOKED", {"author": "root"}, ["TBX_EVENT"], "as the writer put it"),
    ("POSTPONED", {"user": "pat", "uid": 1001}, ["TBX_CHANNEL"],
     "user pat: postponed message 7 ()"),
    ("SENT", {}, ["TBX_USER", "TBX_CHANNEL", "TBX_DETAILS", "TBX_AUTHOR", "MESSAGE"],
     "message 7 sent by  to: "),
])
def test_a_missing_field_reads_as_empty(history, event, fields, missing, line):
    history.write(record(event, without=missing, **fields))
    assert history.lines() == [f"{MESSAGE_STAMP}  {line}"]


def test_text_that_looks_like_a_placeholder_stays_as_it_is(history):
    history.write(record("SENT", author="{details}", details="%s {id} %n"))
    assert history.lines() == [f"{MESSAGE_STAMP}  message 7 sent by {{details}} to: %s {{id}} %n"]


def test_fields_keep_their_letters_beyond_ascii(history):
    history.write(record("CONFIRMATION_FAILED", uid=1001, user="pat", channel="Bildschirm – é",
                         details="\t\u00a0€ 漢字"))
    assert history.lines() == [f"{MESSAGE_STAMP}  user pat: ERROR, confirmation of message 7 not "
                               "recorded (Bildschirm – é): \t\u00a0€ 漢字"]


# Which records, and in which order.

def test_only_records_of_this_message_are_shown(history):
    history.write(record("REVOKED", message=77), record("REVOKED", message=8),
                  record("REVOKED", message="07"), record("REVOKED", author="me"),
                  record("REVOKED", message="7 "))
    assert history.lines() == [f"{MESSAGE_STAMP}  message 7 revoked by me"]


@pytest.mark.parametrize("changes", [{"identifier": "other"}, {"identifier": "tbx2"},
                                     {"identifier": "TBX"}, {"without": ["SYSLOG_IDENTIFIER"]},
                                     {"without": ["TBX_MESSAGE"]}])
def test_records_of_other_programs_are_not_shown(history, changes):
    history.write(record("REVOKED", **changes))
    assert history.lines() == []


def test_records_are_shown_oldest_first(history):
    history.write(record("SENT", details="pat"),
                  record("DELIVERED", when=MESSAGE_DATE + 1, user="pat"),
                  record("REVOKED", when=MESSAGE_DATE + 90000))
    assert history.lines() == ["2026-09-21 14:13:20  message 7 sent by  to: pat",
                               "2026-09-21 14:13:21  message 7 delivered to pat (recovery)",
                               "2026-09-22 15:13:20  message 7 revoked by "]


def test_a_fraction_of_a_second_is_cut_off(history):
    history.write(record("REVOKED", usec=999_999))
    assert history.lines() == [f"{MESSAGE_STAMP}  message 7 revoked by "]


def test_times_are_local(history):
    history.write(record("REVOKED"))
    assert history.lines(env={"TZ": "EAST-3"}) == ["2026-09-21 17:13:20  message 7 revoked by "]


def test_a_record_of_one_second_before_the_message_is_shown(history):
    history.write(record("SENT", when=MESSAGE_DATE - 1))
    assert history.lines() == ["2026-09-21 14:13:19  message 7 sent by  to: "]


def test_records_older_than_one_second_before_the_message_are_not_shown(history):
    history.write(record("SENT", when=MESSAGE_DATE - 90000),
                  record("REVOKED", when=MESSAGE_DATE - 2, usec=999_999),
                  record("CANCELLED", when=MESSAGE_DATE - 1))
    assert history.lines() == [
        "2026-09-21 14:13:19  message 7: sending interrupted before it was saved, cancelled"]


@pytest.mark.parametrize("date", [0, 1])
def test_a_message_from_the_beginning_of_time_shows_every_record(history, machine, date):
    machine.store.make_message(8, date=date)
    history.write(record("REVOKED", message=8, when=0, usec=1))
    assert history.lines(8) == ["1970-01-01 00:00:00  message 8 revoked by "]


@pytest.mark.parametrize("date", [4_000_000_000, 18_446_744_073_710, 999_999_999_999_999_999])
def test_a_message_from_the_future_shows_no_earlier_record(history, machine, date):
    machine.store.make_message(8, date=date)
    history.write(record("REVOKED", message=8))
    assert history.lines(8) == []


def test_the_history_is_read_and_nothing_else_happens(history, machine):
    history.write(record("REVOKED"))
    before = machine.store.tree()
    history.lines()
    assert machine.store.tree() == before
    assert machine.journal.events() == []


def test_a_user_who_may_not_read_the_journal_sees_the_heading_alone(box, box_history):
    box.shell(f"chown -R pat:pat {box.state_name}")
    box_history.write(record("REVOKED", uid=1001, author="pat"))
    assert box_history.lines(user="pat") == [f"{MESSAGE_STAMP}  message 7 revoked by pat"]
    box_history.path().chmod(0o600)
    assert box_history.lines(user="pat") == []
