"""remind: whoever has the message and has not confirmed it is shown it again."""

import os

import pytest
from harness.outcome import assert_fails
from harness.store import replace_by

DATE = 1790000000
FUTURE = 4000000000


def make_delivered(machine, *users, **options):
    """Message 7, delivered to the users and shown to each on both ways."""
    machine.store.make_message(
        7, to=users, delivered=[(user, DATE + 1, 1) for user in users], copies=users, **options)
    for user in users:
        machine.store.mark_shown(user, 7, DATE + 10, "term")
        machine.store.mark_shown(user, 7, DATE + 20, "gui")


def shown_marks(machine, user):
    return sorted(path.name for path in machine.store.mailbox(user, "state").iterdir())


def assert_reminds(machine, text, count):
    """The reminder of message 7 ends well, says the text and records the count."""
    machine.journal.clear()
    assert tuple(machine.run("remind", "7")) == (f"Message 7: {text}\n", "", 0)
    assert machine.journal.events() == [("REMINDED", "", str(count))]


# Refusals.

def test_reminding_of_an_unknown_message_names_the_identifier_as_typed(box):
    make_delivered(box, "pat")
    assert_fails(box, "no such message: 008", "remind", "008")


@pytest.mark.parametrize("content", [b"no date\n", False], ids=["undated", "missing"])
def test_nobody_is_reminded_of_a_message_that_cannot_be_read(box, content):
    box.store.make_message(7, msg=content)
    assert_fails(box, "no such message: 7", "remind", "7")
    assert box.journal.events() == []


@pytest.mark.parametrize("state, words", [
    ({"revoked": DATE + 100}, "has been revoked"), ({"expires": DATE + 100}, "has expired"),
    ({"revoked": DATE + 100, "expires": DATE + 100}, "has been revoked")],
    ids=["revoked", "expired", "both"])
def test_a_message_that_is_over_is_refused_and_nothing_changes(machine, state, words):
    make_delivered(machine, "pat", **state)
    before = machine.store.tree()
    assert_fails(machine, f"message 7 {words}: nobody to remind", "remind", "7")
    assert machine.store.tree() == before
    assert machine.journal.events() == []


def test_a_message_that_has_not_expired_yet_is_reminded_of(box):
    make_delivered(box, "pat", expires=FUTURE)
    assert_reminds(box, "1 recipient reminded.", 1)


# Who is reminded.

def test_one_recipient_is_reminded(machine):
    make_delivered(machine, "pat")
    assert_reminds(machine, "1 recipient reminded.", 1)
    assert shown_marks(machine, "pat") == []


def test_several_recipients_are_reminded(machine):
    make_delivered(machine, "kim", "pat", "sam")
    assert_reminds(machine, "3 recipients reminded.", 3)
    assert [shown_marks(machine, user) for user in ("kim", "pat", "sam")] == [[], [], []]


def test_whoever_has_confirmed_is_left_in_peace(machine):
    make_delivered(machine, "pat", "sam")
    machine.store.confirm("pat", 7, DATE + 50)
    assert_reminds(machine, "1 recipient reminded.", 1)
    assert shown_marks(machine, "pat") == ["7.gui", "7.term"]
    assert shown_marks(machine, "sam") == []


def test_when_everyone_has_confirmed_nobody_is_reminded_and_that_is_recorded(machine):
    make_delivered(machine, "pat", "sam")
    machine.store.confirm("pat", 7, DATE + 50)
    machine.store.confirm("sam", 7, DATE + 60, "desktop")
    assert_reminds(machine, "everyone has already confirmed, nobody to remind.", 0)


def test_an_empty_confirmation_counts(box):
    make_delivered(box, "pat")
    box.store.write_as("pat", ("acks", 7), b"")
    assert_reminds(box, "everyone has already confirmed, nobody to remind.", 0)


def test_a_recipient_who_postponed_is_reminded_and_no_longer_postponed(box):
    make_delivered(box, "pat")
    assert "postponed on" in box.run("status", "7").stdout
    assert_reminds(box, "1 recipient reminded.", 1)
    assert "postponed on" not in box.run("status", "7").stdout


def test_a_recipient_who_was_never_shown_the_message_is_reminded(box):
    box.store.make_message(7, delivered=[("pat", DATE + 1, 0)], copies=["pat"])
    assert_reminds(box, "1 recipient reminded.", 1)


@pytest.mark.parametrize("how", ["term", "gui"])
def test_a_single_mark_is_enough(box, how):
    box.store.make_message(7, delivered=[("pat", DATE + 1, 0)], copies=["pat"])
    box.store.mark_shown("pat", 7, DATE + 10, how)
    assert_reminds(box, "1 recipient reminded.", 1)
    assert shown_marks(box, "pat") == []


def test_a_recipient_without_a_copy_is_not_reminded_and_not_counted(machine):
    machine.store.make_message(7, to=["pat", "sam"], delivered=[("pat", DATE + 1, 1)],
                               copies=["pat"])
    machine.store.mark_shown("sam", 7, DATE + 10)
    assert_reminds(machine, "1 recipient reminded.", 1)
    assert shown_marks(machine, "sam") == ["7.term"]


def test_an_undelivered_recipient_alone_is_not_everyone(box):
    box.store.make_message(7, to=["pat"])
    assert_reminds(box, "0 recipients reminded.", 0)


def test_confirmed_and_undelivered_recipients_are_not_everyone(machine):
    machine.store.make_message(7, to=["pat", "sam"], delivered=[("pat", DATE + 1, 1)],
                               copies=["pat"])
    machine.store.confirm("pat", 7, DATE + 50)
    assert_reminds(machine, "0 recipients reminded.", 0)


@pytest.mark.parametrize("recipients", [None, []])
def test_a_message_without_recipients_reminds_none(box, recipients):
    box.store.make_message(7, to=recipients)
    assert_reminds(box, "0 recipients reminded.", 0)


def test_a_confirmation_without_a_delivery_does_not_count(box):
    box.store.make_message(7, to=["pat"])
    box.store.confirm("pat", 7, DATE + 50)
    assert_reminds(box, "0 recipients reminded.", 0)


# What stands in the way.

def test_a_recipient_whose_account_is_gone_is_not_counted(machine):
    make_delivered(machine, "pat", "sam")
    machine.remove_user("sam")
    assert_reminds(machine, "1 recipient reminded.", 1)
    assert shown_marks(machine, "sam") == ["7.gui", "7.term"]


def test_in_test_mode_too_a_recipient_whose_account_is_gone_is_not_counted(box):
    make_delivered(box, "pat", "sam")
    box.remove_user("sam")
    assert_reminds(box, "1 recipient reminded.", 1)


def test_a_recipient_without_a_mailbox_is_not_counted(machine):
    machine.store.make_message(7, to=["pat"], delivered=[("pat", DATE + 1, 1)])
    assert_reminds(machine, "0 recipients reminded.", 0)
    assert not machine.store.mailbox("pat").exists()


def test_a_mailbox_behind_a_symbolic_link_is_not_touched(machine):
    make_delivered(machine, "pat")
    real = replace_by("link", machine.store.mailbox("pat"))
    assert_reminds(machine, "0 recipients reminded.", 0)
    assert (real / "state" / "7.term").exists()


@pytest.mark.parametrize("name", ["7.term", "7.gui"])
def test_a_recipient_whose_mark_cannot_be_removed_is_not_counted(machine, name):
    make_delivered(machine, "pat", "sam")
    mark = machine.store.mailbox("pat", "state", name)
    mark.unlink()
    mark.mkdir()
    assert_reminds(machine, "1 recipient reminded.", 1)
    assert shown_marks(machine, "pat") == [name]


def test_a_mark_out_of_the_user_s_own_reach_is_not_removed_by_root(machine):
    make_delivered(machine, "pat")
    os.chown(machine.store.mailbox("pat", "state"), 0, 0)
    assert_reminds(machine, "0 recipients reminded.", 0)
    assert shown_marks(machine, "pat") == ["7.gui", "7.term"]


# What else happens, and what does not.

def test_nothing_but_the_shown_marks_of_this_message_goes(machine):
    make_delivered(machine, "pat")
    machine.store.make_message(77, delivered=[("pat", DATE + 1, 1)], copies=["pat"])
    machine.store.mark_shown("pat", 77, DATE + 10)
    machine.store.mark_read("pat", 7)
    before = machine.store.tree()
    machine.run("remind", "7")
    after = machine.store.tree()
    assert {path for path in before if path not in after} == {
        "users/pat/state/7.term", "users/pat/state/7.gui"}
    assert all(before[path] == after[path] for path in after)


def test_the_copy_is_not_written_again(machine):
    make_delivered(machine, "pat")
    machine.store.mailbox("pat", "inbox", 7).unlink()
    assert_reminds(machine, "1 recipient reminded.", 1)
    assert not machine.store.mailbox("pat", "inbox", 7).exists()


def test_nothing_is_written_to_terminals(machine):
    make_delivered(machine, "pat")
    terminal = machine.open_terminal("pat")
    assert_reminds(machine, "1 recipient reminded.", 1)
    assert terminal.read() == b""


def test_reminding_twice_reminds_twice(box):
    make_delivered(box, "pat")
    assert_reminds(box, "1 recipient reminded.", 1)
    assert_reminds(box, "1 recipient reminded.", 1)


def test_the_record_names_the_author(machine):
    make_delivered(machine, "pat")
    machine.run("remind", "7", env={"SUDO_USER": "alex"})
    [record] = machine.journal.records()
    assert record.fields[-6:] == [
        ("TBX_EVENT", "REMINDED"), ("TBX_MESSAGE", "7"), ("TBX_USER", ""), ("TBX_CHANNEL", ""),
        ("TBX_DETAILS", "1"), ("TBX_AUTHOR", "alex")]
    assert record["MESSAGE"] == "message 7: 1 recipient reminded by alex"


def test_an_interrupted_send_is_completed_first_and_its_recipient_reminded(box):
    box.store.make_message(7, to=["pat"], markers=["incomplete"])
    assert tuple(box.run("remind", "7")) == (
        "Message 7: 1 recipient reminded.\n",
        "tbx: completed delivery of message 7 to 1 recipients\n", 0)
    assert box.journal.events() == [("DELIVERED", "pat", ""), ("RECOVERED", "", "1"),
                                    ("REMINDED", "", "1")]


# The desktop.

def started_for(machine):
    return [call[1] for call in machine.systemd_run.calls()]


def test_the_agent_of_everyone_reminded_is_started_in_order(machine):
    make_delivered(machine, "sam", "kim", "pat", "alex")
    machine.store.confirm("pat", 7, DATE + 50)
    for number, user in enumerate(("alex", "kim", "pat", "sam")):
        machine.add_session(f"c{number}", user, kind="wayland")
    machine.run("remind", "7")
    assert started_for(machine) == [f"--machine={user}@.host" for user in ("sam", "kim", "alex")]


def test_an_agent_that_runs_is_woken(machine):
    make_delivered(machine, "pat")
    machine.add_session("c1", "pat", kind="x11")
    agent = machine.start_agent("pat")
    machine.write_readiness("pat", agent.pid)
    assert_reminds(machine, "1 recipient reminded.", 1)
    agent.wait_until_woken()
    assert machine.systemd_run.calls() == []


def test_the_marks_are_gone_before_the_agent_starts(machine):
    make_delivered(machine, "pat")
    machine.add_session("c1", "pat", kind="wayland")
    state = f"{machine.state_name}/users/pat/state"
    machine.stand_in("systemd-run", f"ls {state} > /run/seen")
    machine.run("remind", "7")
    assert machine.path("/run/seen").read_text(encoding="ascii") == ""


def test_without_a_desktop_no_agent_is_started_and_the_reminder_counts(machine):
    make_delivered(machine, "pat")
    machine.add_session("c1", "pat", kind="tty", tty="tty2")
    assert_reminds(machine, "1 recipient reminded.", 1)
    assert machine.systemd_run.calls() == []


def test_whose_marks_stay_gets_no_agent(machine):
    make_delivered(machine, "pat")
    os.chown(machine.store.mailbox("pat", "state"), 0, 0)
    machine.add_session("c1", "pat", kind="wayland")
    assert_reminds(machine, "0 recipients reminded.", 0)
    assert machine.systemd_run.calls() == []


def test_an_agent_that_cannot_be_started_does_not_matter(machine):
    make_delivered(machine, "pat")
    machine.add_session("c1", "pat", kind="wayland")
    machine.stand_in("systemd-run", "exit 1")
    assert_reminds(machine, "1 recipient reminded.", 1)


def test_in_test_mode_a_reminder_starts_no_agent(box):
    make_delivered(box, "pat")
    box.add_session("c1", "pat", kind="wayland")
    assert_reminds(box, "1 recipient reminded.", 1)
    assert box.systemd_run.calls() == []
