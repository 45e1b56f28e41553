"""What a send records in the journal, and what it does when someone cannot be reached."""

import pytest

from harness.outcome import assert_sent

LOCATION = [("CODE_FILE", "src/event"), ("CODE_LINE", "75"), ("CODE_FUNC", "event")]


def record(sentence, event, message_id, *, user="", channel="", details="", author=""):
    """The fields of a record in the order in which they arrive."""
    return [*LOCATION, ("MESSAGE", sentence), ("SYSLOG_IDENTIFIER", "tbx"), ("PRIORITY", "6"),
            ("TBX_EVENT", event), ("TBX_MESSAGE", str(message_id)), ("TBX_USER", user),
            ("TBX_CHANNEL", channel), ("TBX_DETAILS", details), ("TBX_AUTHOR", author)]


def in_order_sent(fields):
    """The library puts the location behind or before the rest; both are right."""
    location = [field for field in fields if field[0].startswith("CODE_")]
    assert location == LOCATION
    return location + [field for field in fields if not field[0].startswith("CODE_")]


def recorded(machine):
    return [in_order_sent(one.fields) for one in machine.journal.records()]


def test_each_delivery_and_the_send_itself_are_recorded(box):
    assert_sent(box, "--to", "sam,pat", "hello", recipients=2)
    author = box.account_running_tests()
    assert recorded(box) == [
        record("message 1 delivered to pat (terminals written: 1)", "DELIVERED", 1, user="pat",
               details="1"),
        record("message 1 delivered to sam (terminals written: 0)", "DELIVERED", 1, user="sam",
               details="0"),
        record(f"message 1 sent by {author} to: pat sam", "SENT", 1, details="pat sam",
               author=author)]


def test_records_are_written_by_root_not_by_the_recipient(machine):
    assert_sent(machine, "--to", "pat", "hello")
    assert [one.uid for one in machine.journal.records()] == [0, 0]


def test_the_user_behind_sudo_is_the_author_of_the_record(box):
    assert_sent(box, "--to", "pat", "hello", env={"SUDO_USER": "kim"})
    sent = box.journal.records()[-1]
    assert (sent["TBX_AUTHOR"], sent["MESSAGE"]) == ("kim", "message 1 sent by kim to: pat")


def test_nothing_is_recorded_when_the_send_is_refused(box):
    box.run("send", "--to", "pat,nobody-here", "hello")
    assert box.journal.records() == []


def test_without_a_journal_the_sentences_reach_the_system_log(box):
    log = box.system_log()
    box.without_journal()
    assert_sent(box, "--to", "pat", "hello")
    author = box.account_running_tests()
    lines = [data.decode().rstrip("\0") for data, _ in log.messages()]
    assert [line.split(" tbx: ", 1)[-1].split("tbx: ", 1)[-1] for line in lines] == [
        "message 1 delivered to pat (terminals written: 1)",
        f"message 1 sent by {author} to: pat"]
    assert all(line.startswith("<14>") for line in lines)  # user facility, informational


def test_without_journal_and_system_log_a_send_goes_on(box):
    box.without_journal()
    assert_sent(box, "--to", "pat", "hello")


@pytest.fixture
def ghosts(box):
    """A box with a group in which two members have no account."""
    box.add_group("mixed", 2000, ["ghost", "pat", "zombie", "alex"])
    return box


def test_who_cannot_be_reached_is_reported_and_the_others_are_not_kept_waiting(ghosts):
    result = ghosts.run("send", "--to", "@mixed", "hello")
    assert tuple(result) == (
        "Message 1 delivered to 2 of 4 recipients.\n",
        "tbx: message 1 not delivered to: ghost zombie "
        "(see the log; the next tbx command will retry)\n", 1)
    assert ghosts.store.mailbox("alex", "inbox", 1).exists()
    assert ghosts.store.mailbox("pat", "inbox", 1).exists()
    assert sorted(path.name for path in (ghosts.store.top / "users").iterdir()) == ["alex", "pat"]


def test_who_cannot_be_reached_is_recorded_in_its_place(ghosts):
    ghosts.run("send", "--to", "@mixed", "hello")
    assert ghosts.journal.events() == [
        ("DELIVERED", "alex", "0"), ("NOT_DELIVERED", "ghost", ""), ("DELIVERED", "pat", "1"),
        ("NOT_DELIVERED", "zombie", ""), ("SENT", "", "alex ghost pat zombie")]


def test_the_record_of_a_failed_delivery_has_every_field(ghosts):
    ghosts.run("send", "--to", "@mixed", "hello")
    assert recorded(ghosts)[1] == record("message 1: ERROR, copy for ghost not written",
                                         "NOT_DELIVERED", 1, user="ghost")


def test_an_incomplete_send_keeps_its_marker_and_logs_only_deliveries(ghosts):
    ghosts.run("send", "--to", "@mixed", "hello")
    assert ghosts.store.sent(1, "incomplete").read_bytes() == b""
    lines = ghosts.store.sent(1, "delivery").read_text(encoding="ascii").splitlines()
    assert [line.split()[0] for line in lines] == ["alex", "pat"]
    assert ghosts.store.sent(1, "recipients").read_bytes() == b"alex\nghost\npat\nzombie\n"


def test_the_next_command_tries_again(ghosts):
    ghosts.run("send", "--to", "@mixed", "hello")
    ghosts.add_user("ghost", 1700)
    ghosts.add_user("zombie", 1701)
    ghosts.journal.clear()
    result = ghosts.run("list")
    assert result.stderr == "tbx: completed delivery of message 1 to 2 recipients\n"
    assert ghosts.journal.events() == [("DELIVERED", "ghost", ""), ("DELIVERED", "zombie", ""),
                                       ("RECOVERED", "", "2")]
    assert not ghosts.store.sent(1, "incomplete").exists()


def test_a_send_first_finishes_what_the_last_one_left(ghosts):
    ghosts.run("send", "--to", "@mixed", "hello")
    result = ghosts.run("send", "--to", "sam", "second")
    assert result.stderr == ("tbx: message 1 still not delivered to 2 recipients "
                             "(see tbx status 1)\n")
    assert (result.stdout, result.status) == ("Message 2 sent to 1 user.\n", 0)


def test_reaching_nobody_is_reported_too(box):
    box.add_group("nobodies", 2000, ["ghost"])
    result = box.run("send", "--to", "@nobodies", "hello")
    assert tuple(result) == (
        "Message 1 delivered to 0 of 1 recipients.\n",
        "tbx: message 1 not delivered to: ghost "
        "(see the log; the next tbx command will retry)\n", 1)
    assert not box.store.sent(1, "delivery").exists()


def test_the_longest_name_that_a_mailbox_can_have_is_logged_whole(box):
    name = "n" * 255
    box.add_user(name, 1500)
    assert_sent(box, "--to", name, "hello")
    line = box.store.sent(1, "delivery").read_text(encoding="ascii")
    assert line.startswith(name + " ") and line.endswith(" 0\n")
