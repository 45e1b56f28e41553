"""Two runs on the same store at the same time: real processes, each stopped at a known point."""

import fcntl
import signal

import pytest
from harness.clock import now, wait_until_after
from harness.stopped import Call, Stopped
from harness.store import parse_message_file
from harness.waiting import wait_for

OLD = 1500000000
REVOKED = ("Message 7 revoked.\n", "", 0)
DELETED = ("Deleted 1 message older than 0m.\n", "", 0)
NONE_DELETED = ("No messages older than 0m.\n", "", 0)


def make_delivered(machine, *users, **options):
    """Message 7 of long ago, delivered to the users and shown to each."""
    options = {"date": OLD, "copies": users, **options}
    machine.store.make_message(7, to=users, delivered=[(user, OLD + 1, 1) for user in users],
                               **options)
    for user in users:
        machine.store.mark_shown(user, 7, OLD + 10)


def stored(machine, name):
    """The path of a file of message 7 as the program names it."""
    return f"{machine.state_name}/sent/7/{name}"


def has_no_trace_of_message_7(machine):
    return not any(part in ("7", ".deleting-7") or part.startswith("7.")
                   for path in machine.store.tree() for part in path.split("/"))


# A revoke during a send.

def test_a_revoke_during_a_send_stops_the_delivery(machine):
    send, gate = machine.send_held_at("pat", "--to", "alex,pat,sam", "Hello")
    revoke = machine.start("revoke", "1")
    wait_for(lambda: "REVOKED" in [record.event for record in machine.journal.records()])
    assert machine.store.mailbox("alex", "inbox", 1).exists()
    assert machine.store.mailbox("pat", "inbox", 1).exists()
    assert send.is_running() and revoke.is_running()
    gate.open()
    assert tuple(send.wait()) == (
        "Message 1 revoked while sending: delivery stopped.\n", "", 0)
    assert tuple(revoke.wait()) == ("Message 1 revoked.\n", "", 0)
    assert not machine.store.mailbox("sam").exists()
    assert not machine.store.mailbox("alex", "inbox", 1).exists()
    assert not machine.store.mailbox("pat", "inbox", 1).exists()
    assert {path.name for path in machine.store.sent(1).iterdir()} == {
        "msg", "recipients", "delivery", "lock", "revoked"}
    assert machine.journal.events() == [
        ("DELIVERED", "alex", "0"), ("REVOKED", "", ""), ("DELIVERED", "pat", "0"),
        ("SENT", "", "alex pat sam")]


def test_a_revoke_behind_the_last_recipient_takes_back_every_copy(machine):
    send, gate = machine.send_held_at("sam", "--to", "pat,sam", "Hello")
    revoke = machine.start("revoke", "1")
    wait_for(machine.store.sent(1, "revoked").exists)
    gate.open()
    assert send.wait().stdout == "Message 1 revoked while sending: delivery stopped.\n"
    assert revoke.wait().status == 0
    for user in ("pat", "sam"):
        assert not machine.store.mailbox(user, "inbox", 1).exists()


def test_a_send_that_fails_and_is_revoked_meanwhile_delivers_nothing_later(machine):
    machine.store.create()
    machine.store.mailbox("alex").touch()  # no directory: alex cannot get the copy
    send, gate = machine.send_held_at("pat", "--to", "alex,pat,sam", "Hello")
    revoke = machine.start("revoke", "1")
    wait_for(machine.store.sent(1, "revoked").exists)
    gate.open()
    assert send.wait().status == 1
    assert revoke.wait().status == 0
    assert machine.store.sent(1, "incomplete").exists()
    machine.store.mailbox("alex").unlink()
    assert "[revoked]" in machine.run("list").stdout
    assert not machine.store.sent(1, "incomplete").exists()
    assert not machine.store.mailbox("alex").exists()
    assert not machine.store.mailbox("pat", "inbox", 1).exists()


def test_the_recovery_leaves_a_revocation_that_waits_for_a_send_alone(machine):
    send, gate = machine.send_held_at("pat", "--to", "pat", "Hello")
    revoke = machine.start("revoke", "1")
    wait_for(machine.store.sent(1, "revoked").exists)
    assert tuple(machine.run("list"))[1:] == ("", 0)
    assert machine.store.mailbox("pat", "inbox", 1).exists()
    assert machine.store.sent(1, "incomplete").exists()
    gate.open()
    assert send.wait().status == 0
    assert revoke.wait().status == 0
    assert not machine.store.mailbox("pat", "inbox", 1).exists()


def test_a_revoke_killed_while_it_waits_for_a_send_is_finished_by_the_next_command(machine):
    send, gate = machine.send_held_at("pat", "--to", "alex,pat,sam", "Hello")
    revoke = machine.start("revoke", "1")
    wait_for(lambda: "REVOKED" in [record.event for record in machine.journal.records()])
    revoke.send_signal(signal.SIGKILL)
    assert revoke.wait().status == -signal.SIGKILL
    gate.open()
    assert send.wait().stdout == "Message 1 revoked while sending: delivery stopped.\n"
    assert machine.store.mailbox("alex", "inbox", 1).exists()
    machine.run("list")
    assert not machine.store.mailbox("alex", "inbox", 1).exists()
    assert not machine.store.mailbox("pat", "inbox", 1).exists()
    assert not machine.store.sent(1, "revoking").exists()


# A purge during a send and during a recovery.

def test_a_purge_during_a_send_leaves_the_message_alone(machine):
    send, gate = machine.send_held_at("pat", "--to", "pat,sam", "Hello")
    sent = parse_message_file(machine.store.sent(1, "msg").read_bytes())
    wait_until_after(int(sent["date"]))
    before = machine.store.tree()
    assert tuple(machine.run("purge", "0m")) == NONE_DELETED
    assert machine.store.tree() == before
    gate.open()
    assert tuple(send.wait()) == ("Message 1 sent to 2 users.\n", "", 0)
    assert machine.store.mailbox("sam", "inbox", 1).exists()
    assert tuple(machine.run("purge", "0m")) == DELETED


def test_a_send_that_has_just_removed_its_mark_is_still_left_alone_by_a_purge(machine, strace):
    send = Stopped(machine, Call("unlink", f"{machine.state_name}/sent/1/incomplete"),
                   "send", "--to", "pat", "Hello")
    wait_until_after(now())
    assert not machine.store.sent(1, "incomplete").exists()
    assert tuple(machine.run("purge", "0m")) == NONE_DELETED
    assert tuple(send.go_on().wait()) == ("Message 1 sent to 1 user.\n", "", 0)
    assert machine.store.mailbox("pat", "inbox", 1).exists()


def test_a_send_during_a_purge_of_older_messages_is_not_touched(machine, strace):
    make_delivered(machine, "pat")
    purge = Stopped(machine, Call("rename", f"{machine.state_name}/sent/7"), "purge", "90d")
    machine.store.sent(".seq").write_bytes(b"7\n")
    assert machine.run("send", "--to", "pat", "Hello").stdout == "Message 8 sent to 1 user.\n"
    assert purge.go_on().wait().stdout == "Deleted 1 message older than 90d.\n"
    assert has_no_trace_of_message_7(machine)
    assert machine.store.mailbox("pat", "inbox", 8).exists()


def test_a_purge_during_the_recovery_of_a_send_leaves_the_message_alone(machine):
    machine.store.make_message(7, to=["pat", "sam"], date=OLD, markers=["incomplete"])
    machine.add_session("c1", "pat", kind="wayland")
    gate = machine.gate("agent")
    machine.stand_in("systemd-run", gate.body)
    listing = machine.start("list")
    gate.wait()
    before = machine.store.tree()
    assert tuple(machine.run("purge", "0m")) == NONE_DELETED
    assert machine.store.tree() == before
    gate.open()
    assert listing.wait().stderr == "tbx: completed delivery of message 7 to 2 recipients\n"
    assert machine.store.mailbox("sam", "inbox", 7).exists()
    assert tuple(machine.run("purge", "0m")) == DELETED
    assert has_no_trace_of_message_7(machine)


def test_a_purge_during_the_recovery_of_a_revocation_leaves_the_message_alone(machine, strace):
    make_delivered(machine, "pat", "sam", revoked=OLD + 100, markers=["revoking"])
    listing = Stopped(machine, Call("flock", stored(machine, "lock")), "list")
    before = machine.store.tree()
    assert tuple(machine.run("purge", "0m")) == NONE_DELETED
    assert machine.store.tree() == before
    assert listing.go_on().wait().status == 0
    assert not machine.store.sent(7, "revoking").exists()
    assert not machine.store.mailbox("pat", "inbox", 7).exists()


@pytest.mark.parametrize("call", ["flock", "rename", "rmdir"])
def test_a_recovery_during_a_purge_does_no_harm(machine, strace, call):
    make_delivered(machine, "pat", "sam")
    path = {"flock": stored(machine, "lock"), "rename": f"{machine.state_name}/sent/7",
            "rmdir": f"{machine.state_name}/sent/.deleting-7"}[call]
    purge = Stopped(machine, Call(call, path), "purge", "0m")
    listing = machine.run("list")
    assert (listing.stderr, listing.status) == ("", 0)
    assert ("Hello" in listing.stdout) == (call == "flock")
    assert tuple(purge.go_on().wait()) == DELETED
    assert has_no_trace_of_message_7(machine)
    assert machine.journal.events() == [("DELETED", "", "0m")]


def test_a_purge_during_a_purge_deletes_once(machine, strace):
    make_delivered(machine, "pat", "sam")
    first = Stopped(machine, Call("flock", stored(machine, "lock")), "purge", "0m")
    assert tuple(machine.run("purge", "0m")) == NONE_DELETED
    assert tuple(first.go_on().wait()) == DELETED
    assert has_no_trace_of_message_7(machine)
    assert machine.journal.events() == [("DELETED", "", "0m")]


# A purge during a revoke.

def test_a_purge_during_a_revoke_leaves_the_message_alone(machine, strace):
    make_delivered(machine, "pat", "sam")
    revoke = Stopped(machine, Call("flock", stored(machine, "lock")), "revoke", "7")
    assert tuple(machine.run("purge", "0m")) == NONE_DELETED
    assert tuple(revoke.go_on().wait()) == REVOKED
    assert machine.store.sent(7, "revoked").exists()


def test_a_revoke_that_waits_behind_a_purge_has_nothing_left_to_take_back(machine, strace):
    make_delivered(machine, "pat", "sam")
    purge = Stopped(machine, Call("flock", stored(machine, "lock")), "purge", "0m")
    revoke = Stopped(machine, Call("openat", stored(machine, "lock")), "revoke", "7")
    assert tuple(purge.go_on().wait()) == DELETED
    assert tuple(revoke.go_on().wait()) == REVOKED
    assert has_no_trace_of_message_7(machine)


def test_a_revoke_that_loses_the_message_to_a_purge_before_the_lock_fails(machine, strace):
    make_delivered(machine, "pat", "sam")
    revoke = Stopped(machine, Call("renameat2", stored(machine, "revoked.tmp")), "revoke", "7")
    assert tuple(machine.run("purge", "0m")) == DELETED
    assert tuple(revoke.go_on().wait()) == (
        "", f"tbx: {machine.state_name}/sent/7: No such file or directory\n", 1)
    assert has_no_trace_of_message_7(machine)


# Two revokes.

@pytest.mark.parametrize("call, name", [
    ("openat", "revoking"), ("unlink", "revoked.tmp"), ("openat", "revoked.tmp"),
    ("fsync", "revoked.tmp"), ("renameat2", "revoked.tmp"), ("fsync", "revoking")])
def test_a_revoke_that_runs_whole_within_another_and_the_other_both_succeed(machine, strace, call,
                                                                         name):
    make_delivered(machine, "pat", "sam")
    first = Stopped(machine, Call(call, stored(machine, name)), "revoke", "7")
    assert tuple(machine.run("revoke", "7")) == REVOKED
    assert tuple(first.go_on().wait()) == REVOKED
    assert {path.name for path in machine.store.sent(7).iterdir()} == {
        "msg", "recipients", "delivery", "lock", "revoked"}
    for user in ("pat", "sam"):
        assert not machine.store.mailbox(user, "inbox", 7).exists()
    assert machine.journal.events() == [("REVOKED", "", "")]


FAILING_SYNC = ["-e", "trace=renameat2,fsync", "-e", "inject=fsync:error=EIO:when=2"]


def test_a_revoke_whose_marks_cannot_be_synced_leaves_another_s_revocation_alone(machine, strace):
    make_delivered(machine, "pat")
    first = Stopped(machine, Call("renameat2"), "revoke", "7", also=FAILING_SYNC)
    assert tuple(machine.run("revoke", "7")) == REVOKED
    assert first.go_on().wait().stderr == (
        f"tbx: {machine.state_name}/sent/7: Input/output error\n")
    assert machine.store.sent(7, "revoked").exists()
    assert not machine.store.mailbox("pat", "inbox", 7).exists()


def test_a_revoke_whose_mark_another_has_taken_back_withdraws_nothing(machine, strace):
    make_delivered(machine, "pat")
    revoke = Stopped(machine, Call("flock", stored(machine, "lock")), "revoke", "7")
    machine.store.sent(7, "revoked").unlink()
    assert tuple(revoke.go_on().wait()) == (
        "", f"tbx: {machine.state_name}/sent/7/revoked: No such file or directory\n", 1)
    assert machine.store.mailbox("pat", "inbox", 7).exists()


def test_the_second_revoke_waits_for_the_lock_of_the_first(machine, strace):
    make_delivered(machine, "pat", "sam")
    first = Stopped(machine, Call("flock", stored(machine, "lock")), "revoke", "7")
    second = Stopped(machine, Call("openat", stored(machine, "lock")), "revoke", "7")
    second = second.go_on()
    assert machine.store.mailbox("pat", "inbox", 7).exists()
    assert second.is_running()
    assert tuple(first.go_on().wait()) == REVOKED
    assert tuple(second.wait()) == REVOKED
    assert machine.journal.events() == [("REVOKED", "", "")]


def test_revokes_that_take_the_temporary_file_from_each_other_both_succeed(machine, strace):
    make_delivered(machine, "pat", "sam")
    first = Stopped(machine, Call("fsync", stored(machine, "revoked.tmp")), "revoke", "7")
    second = Stopped(machine, Call("unlink", stored(machine, "revoked.tmp")), "revoke", "7")
    assert not machine.store.sent(7, "revoked.tmp").exists()
    assert not machine.store.sent(7, "revoked").exists()
    assert tuple(first.go_on().wait()) == REVOKED
    assert tuple(second.go_on().wait()) == REVOKED
    assert not machine.store.sent(7, "revoked.tmp").exists()


def test_a_revoke_that_finds_the_other_s_temporary_file_in_its_way_succeeds_too(machine, strace):
    make_delivered(machine, "pat", "sam")
    first = Stopped(machine, Call("unlink", stored(machine, "revoked.tmp")), "revoke", "7")
    second = Stopped(machine, Call("fsync", stored(machine, "revoked.tmp")), "revoke", "7")
    assert tuple(first.go_on().wait()) == REVOKED
    assert tuple(second.go_on().wait()) == REVOKED
    assert not machine.store.sent(7, "revoked.tmp").exists()
    assert not machine.store.mailbox("pat", "inbox", 7).exists()


def test_many_revokes_at_once_all_succeed(machine):
    make_delivered(machine, "pat", "sam")
    revokes = [machine.start("revoke", "7") for _ in range(10)]
    assert [tuple(revoke.wait()) for revoke in revokes] == [REVOKED] * 10
    assert {path.name for path in machine.store.sent(7).iterdir()} == {
        "msg", "recipients", "delivery", "lock", "revoked"}
    assert not machine.store.mailbox("pat", "inbox", 7).exists()
    assert set(machine.journal.events()) == {("REVOKED", "", "")}


def test_a_recovery_between_the_marks_of_a_revoke_does_no_harm(machine, strace):
    make_delivered(machine, "pat")
    revoke = Stopped(machine, Call("openat", stored(machine, "revoking")), "revoke", "7")
    assert machine.run("list").stderr == ""
    assert not machine.store.sent(7, "revoking").exists()
    assert tuple(revoke.go_on().wait()) == REVOKED
    assert machine.store.sent(7, "revoked").exists()
    assert machine.journal.events() == [("REVOKED", "", "")]


def test_the_first_mark_is_set_anew_where_a_recovery_took_it_away(machine, strace):
    make_delivered(machine, "pat")
    revoke = Stopped(machine, Call("openat", stored(machine, "revoking")), "revoke", "7")
    assert machine.run("list").stderr == ""
    machine.store.write_as("pat", ("inbox", 7), b"delivered again")
    with open(machine.store.sent(7, "lock"), "wb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        revoke.go_on()
        wait_for(lambda: machine.journal.events() == [("REVOKED", "", "")])
        assert revoke.kill().wait().status == -signal.SIGKILL
    assert machine.store.sent(7, "revoking").exists()
    machine.run("list")
    assert not machine.store.mailbox("pat", "inbox", 7).exists()


# Two sends.

def test_two_sends_take_their_identifiers_one_after_the_other(machine, strace):
    machine.store.create()
    lock = f"{machine.state_name}/sent/.seq.lock"
    first = Stopped(machine, Call("flock", lock), "send", "--to", "pat", "one")
    second = Stopped(machine, Call("openat", lock), "send", "--to", "pat", "two").go_on()
    assert second.is_running() and not machine.store.sent(1).exists()
    assert first.go_on().wait().stdout == "Message 1 sent to 1 user.\n"
    assert second.wait().stdout == "Message 2 sent to 1 user.\n"
    assert machine.store.mailbox("pat", "inbox", 1).read_bytes().endswith(b"\n\none\n")
    assert machine.store.mailbox("pat", "inbox", 2).read_bytes().endswith(b"\n\ntwo\n")


def test_a_send_does_not_wait_for_another_that_is_delivering(machine):
    first, gate = machine.send_held_at("pat", "--to", "pat", "one")
    second = machine.run("send", "--to", "sam", "two")
    assert tuple(second) == ("Message 2 sent to 1 user.\n", "", 0)
    assert first.is_running() and machine.store.sent(1, "incomplete").exists()
    gate.open()
    assert tuple(first.wait()) == ("Message 1 sent to 1 user.\n", "", 0)


def test_many_sends_at_once_have_distinct_identifiers(machine):
    sends = [machine.start("send", "--to", "pat,sam", f"text {number}") for number in range(12)]
    results = [send.wait() for send in sends]
    assert all((result.stderr, result.status) == ("", 0) for result in results)
    assert sorted(result.stdout for result in results) == sorted(
        f"Message {number} sent to 2 users.\n" for number in range(1, 13))
    texts = {machine.store.mailbox("sam", "inbox", number).read_text(encoding="ascii").split()[-1]
             for number in range(1, 13)}
    assert texts == {str(number) for number in range(12)}
    assert machine.store.sent(".seq").read_bytes() == b"12\n"


# A remind during a purge.

def test_a_purge_does_not_wait_for_a_remind_and_nothing_comes_back(machine):
    make_delivered(machine, "pat", "sam")
    machine.add_session("c1", "pat", kind="wayland")
    gate = machine.gate("agent")
    machine.stand_in("systemd-run", gate.body)
    remind = machine.start("remind", "7")
    gate.wait()
    assert tuple(machine.run("purge", "0m")) == DELETED
    assert has_no_trace_of_message_7(machine)
    gate.open()
    assert tuple(remind.wait()) == ("Message 7: 2 recipients reminded.\n", "", 0)
    assert has_no_trace_of_message_7(machine)


def test_a_remind_before_the_message_is_moved_aside_reminds(machine, strace):
    make_delivered(machine, "pat")
    purge = Stopped(machine, Call("flock", stored(machine, "lock")), "purge", "0m")
    assert tuple(machine.run("remind", "7")) == ("Message 7: 1 recipient reminded.\n", "", 0)
    assert tuple(purge.go_on().wait()) == DELETED
    assert has_no_trace_of_message_7(machine)


def test_a_remind_behind_the_move_finds_no_message_and_finishes_the_purge(machine, strace):
    make_delivered(machine, "pat")
    purge = Stopped(machine, Call("rename", f"{machine.state_name}/sent/7"), "purge", "0m")
    assert tuple(machine.run("remind", "7")) == ("", "tbx: no such message: 7\n", 1)
    assert has_no_trace_of_message_7(machine)
    assert tuple(purge.go_on().wait()) == DELETED
    assert machine.journal.events() == [("DELETED", "", "0m")]


def test_a_remind_that_loses_the_message_in_between_reminds_nobody(machine, strace):
    make_delivered(machine, "pat")
    remind = Stopped(machine, Call("openat", stored(machine, "msg")), "remind", "7")
    assert tuple(machine.run("purge", "0m")) == DELETED
    assert tuple(remind.go_on().wait()) == ("Message 7: 0 recipients reminded.\n", "", 0)
    assert has_no_trace_of_message_7(machine)


# A remind during a revoke.

def test_a_remind_during_a_revoke_is_refused_as_soon_as_the_mark_stands(machine, strace):
    make_delivered(machine, "pat")
    revoke = Stopped(machine, Call("renameat2", stored(machine, "revoked.tmp")), "revoke", "7")
    assert machine.run("remind", "7").stderr == (
        "tbx: message 7 has been revoked: nobody to remind\n")
    assert tuple(revoke.go_on().wait()) == REVOKED
