"""revoke: the message is marked, the event recorded, every copy taken back."""

import fcntl
import os

import pytest
from harness.clock import now
from harness.outcome import assert_fails, mode
from harness.stopped import Call, run_failing
from harness.store import replace_by, short_time
from harness.waiting import wait_for

REVOKED = ("Message 7 revoked.\n", "", 0)
COPIES_LEFT = ("message 7 revoked, but some copies could not be removed from the mailboxes: the "
               "next tbx command will retry")


def make_delivered(machine, *users, **options):
    """Message 7, delivered to the users."""
    return machine.store.make_message(
        7, to=users, delivered=[(user, 1790000001, 1) for user in users], copies=users, **options)


def block_copy(machine, user):
    """Puts something in place of the copy that the user's own rights cannot remove."""
    place = machine.store.mailbox(user, "inbox", 7)
    place.unlink()
    place.mkdir()
    return place


# Refusals.

def test_an_unknown_message_is_refused_with_the_identifier_as_typed(box):
    make_delivered(box, "pat")
    before = box.store.tree()
    assert_fails(box, "no such message: 008", "revoke", "008")
    assert box.store.tree() == before


def test_revoking_without_any_store_creates_none(box):
    assert_fails(box, "no such message: 7", "revoke", "7")
    assert not box.store.top.exists()


@pytest.mark.parametrize("content", [b"no date\n", False], ids=["undated", "missing"])
def test_a_message_that_cannot_be_read_is_not_revoked(box, content):
    box.store.make_message(7, msg=content)
    before = box.store.tree()
    assert_fails(box, "no such message: 7", "revoke", "7")
    assert box.store.tree() == before
    assert box.journal.events() == []


# What it leaves.

def test_every_copy_is_taken_back(machine):
    make_delivered(machine, "pat", "sam", "kim")
    assert tuple(machine.run("revoke", "7")) == REVOKED
    for user in ("pat", "sam", "kim"):
        assert list(machine.store.mailbox(user, "inbox").iterdir()) == []


def test_the_marks_of_a_shown_message_go_with_the_copy(machine):
    make_delivered(machine, "pat", "sam")
    machine.store.mark_shown("pat", 7, 1790000010, "term")
    machine.store.mark_shown("sam", 7, 1790000010, "gui")
    machine.run("revoke", "7")
    assert list(machine.store.mailbox("pat", "state").iterdir()) == []
    assert list(machine.store.mailbox("sam", "state").iterdir()) == []


def test_what_was_read_and_confirmed_stays_on_record(machine):
    make_delivered(machine, "pat")
    machine.store.mark_read("pat", 7)
    machine.store.confirm("pat", 7, 1790000050)
    machine.run("revoke", "7")
    assert machine.store.mailbox("pat", "read", 7).exists()
    assert machine.store.mailbox("pat", "acks", 7).read_bytes() == b"1790000050 terminal\n"
    assert "confirmed on" in machine.run("status", "7").stdout


def test_other_messages_and_other_mailboxes_are_left_alone(machine):
    make_delivered(machine, "pat")
    machine.store.make_message(77, copies=["pat", "sam"])
    machine.store.write_as("sam", ("inbox", 7), b"somebody's own file")
    machine.store.mark_shown("pat", 77, 1790000010)
    before = machine.store.tree()
    machine.run("revoke", "7")
    after = machine.store.tree()
    assert {path for path in before if path not in after} == {"users/pat/inbox/7"}
    assert {path for path in after if path not in before} == {"sent/7/lock", "sent/7/revoked"}
    assert all(before[path] == after[path] for path in before if path in after)


def test_the_revoked_marker_holds_the_time_and_is_private(box):
    make_delivered(box, "pat")
    before = now()
    box.run("revoke", "7")
    marker = box.store.sent(7, "revoked")
    text = marker.read_text(encoding="ascii")
    assert text.endswith("\n") and before <= int(text) <= now()
    assert mode(marker) == 0o600


def test_no_other_marker_and_no_temporary_file_stays(box):
    make_delivered(box, "pat")
    box.run("revoke", "7")
    assert {path.name for path in box.store.sent(7).iterdir()} == {
        "msg", "recipients", "delivery", "lock", "revoked"}


def test_a_stale_temporary_file_does_not_stop_it(box):
    make_delivered(box, "pat")
    box.store.write_private(box.store.sent(7, "revoked.tmp"), b"179")
    assert tuple(box.run("revoke", "7")) == REVOKED
    assert not box.store.sent(7, "revoked.tmp").exists()


def test_listings_say_that_it_is_revoked(box):
    make_delivered(box, "pat")
    box.run("revoke", "7")
    moment = int(box.store.sent(7, "revoked").read_text(encoding="ascii"))
    assert "[revoked] Hello" in box.run("list").stdout
    status = box.run("status", "7").stdout
    assert f"REVOKED on {short_time(moment)}\n" in status
    assert "delivered, not confirmed (revoked)\n" in status


def test_leading_zeros_of_the_identifier_do_not_matter(box):
    make_delivered(box, "pat")
    assert tuple(box.run("revoke", "007")) == REVOKED


def test_an_expired_message_can_be_revoked(box):
    make_delivered(box, "pat", expires=1790000002)
    assert tuple(box.run("revoke", "7")) == REVOKED
    assert not box.store.mailbox("pat", "inbox", 7).exists()


def test_a_message_whose_sending_was_interrupted_is_completed_and_then_revoked(box):
    box.store.make_message(7, to=["pat"], markers=["incomplete"])
    result = box.run("revoke", "7")
    assert tuple(result) == ("Message 7 revoked.\n",
                             "tbx: completed delivery of message 7 to 1 recipients\n", 0)
    assert not box.store.sent(7, "incomplete").exists()
    assert not box.store.mailbox("pat", "inbox", 7).exists()


# The event.

def test_the_event_is_recorded_with_the_author(machine):
    make_delivered(machine, "pat", "sam")
    machine.run("revoke", "7", env={"SUDO_USER": "alex"})
    [record] = machine.journal.records()
    assert record.fields[-6:] == [
        ("TBX_EVENT", "REVOKED"), ("TBX_MESSAGE", "7"), ("TBX_USER", ""), ("TBX_CHANNEL", ""),
        ("TBX_DETAILS", ""), ("TBX_AUTHOR", "alex")]
    assert record["MESSAGE"] == "message 7 revoked by alex"
    assert record.uid == 0


def test_revoking_twice_records_once_and_keeps_the_first_time(box):
    make_delivered(box, "pat", revoked=1790000100)
    assert tuple(box.run("revoke", "7")) == REVOKED
    assert box.store.sent(7, "revoked").read_bytes() == b"1790000100\n"
    assert box.journal.events() == []


def test_both_of_two_revokes_say_so_and_one_records_it(box):
    make_delivered(box, "pat")
    assert tuple(box.run("revoke", "7")) == REVOKED
    once = box.store.tree()
    assert tuple(box.run("revoke", "7")) == REVOKED
    assert box.store.tree() == once
    assert box.journal.events() == [("REVOKED", "", "")]


def test_a_second_revoke_takes_back_a_copy_that_came_again(box):
    make_delivered(box, "pat", revoked=1790000100)
    assert box.store.mailbox("pat", "inbox", 7).exists()
    box.run("revoke", "7")
    assert not box.store.mailbox("pat", "inbox", 7).exists()


# Recipients without a copy.

def test_a_recipient_whose_account_is_gone_is_passed_over(machine):
    make_delivered(machine, "pat", "sam")
    machine.remove_user("sam")
    assert tuple(machine.run("revoke", "7")) == REVOKED
    assert not machine.store.mailbox("pat", "inbox", 7).exists()
    assert machine.store.mailbox("sam", "inbox", 7).exists()
    assert not machine.store.sent(7, "revoking").exists()


def test_a_recipient_without_a_mailbox_counts_as_done(machine):
    machine.store.make_message(7, to=["pat", "sam"], copies=["pat"])
    assert tuple(machine.run("revoke", "7")) == REVOKED
    assert not machine.store.mailbox("sam").exists()


def test_a_symbolic_link_in_place_of_a_mailbox_is_not_followed(machine):
    make_delivered(machine, "pat")
    real = replace_by("link", machine.store.mailbox("pat"))
    assert tuple(machine.run("revoke", "7")) == REVOKED
    assert (real / "inbox" / "7").exists()


@pytest.mark.parametrize("recipients", [None, []])
def test_a_message_without_recipients_is_revoked(box, recipients):
    box.store.make_message(7, to=recipients)
    assert tuple(box.run("revoke", "7")) == REVOKED
    assert box.store.sent(7, "revoked").exists()


# Failures.

def test_a_copy_that_stays_is_reported_and_the_others_go(machine):
    make_delivered(machine, "alex", "pat", "sam")
    block_copy(machine, "pat")
    assert_fails(machine, COPIES_LEFT, "revoke", "7")
    assert not machine.store.mailbox("alex", "inbox", 7).exists()
    assert not machine.store.mailbox("sam", "inbox", 7).exists()
    assert machine.store.sent(7, "revoked").exists()
    assert machine.store.sent(7, "revoking").exists()
    assert machine.journal.events() == [("REVOKED", "", "")]


def test_the_next_command_finishes_once_the_copy_can_be_removed(machine):
    make_delivered(machine, "pat")
    blocked = block_copy(machine, "pat")
    machine.run("revoke", "7")
    assert tuple(machine.run("remind", "7")) == (
        "", "tbx: message 7 has been revoked: nobody to remind\n", 1)
    assert machine.store.sent(7, "revoking").exists()
    blocked.rmdir()
    machine.store.write_as("pat", ("inbox", 7), b"the copy")
    assert machine.run("list").stderr == ""
    assert not machine.store.mailbox("pat", "inbox", 7).exists()
    assert not machine.store.sent(7, "revoking").exists()


def test_a_copy_out_of_the_user_s_own_reach_is_not_removed_by_root(machine):
    make_delivered(machine, "pat")
    os.chown(machine.store.mailbox("pat", "inbox"), 0, 0)
    assert_fails(machine, COPIES_LEFT, "revoke", "7")
    assert machine.store.mailbox("pat", "inbox", 7).exists()


def test_a_marker_that_cannot_be_written_is_an_error_and_no_copy_goes(box):
    make_delivered(box, "pat")
    box.store.sent(7, "revoked.tmp").mkdir()
    marker = f"{box.state_name}/sent/7/revoked"
    assert_fails(box, f"{marker}: File exists", "revoke", "7")
    assert box.store.mailbox("pat", "inbox", 7).exists()
    assert not box.store.sent(7, "revoked").exists()
    assert box.journal.events() == []


@pytest.mark.parametrize("call", ["fsync", "renameat2", "write"])
def test_a_full_disk_at_the_marker_is_an_error(box, strace, call):
    make_delivered(box, "pat")
    marker = f"{box.state_name}/sent/7/revoked"
    traced = box.trace(call, "revoke", "7", inject=[f"{call}:error=ENOSPC:when=1"])
    assert tuple(traced.result) == ("", f"tbx: {marker}: No space left on device\n", 1)
    assert not box.store.sent(7, "revoked.tmp").exists()
    assert not box.store.sent(7, "revoked").exists()


@pytest.mark.parametrize("number", [2, 3])
def test_marks_that_cannot_be_put_on_the_disk_leave_a_message_to_be_revoked_again(box, strace,
                                                                               number):
    make_delivered(box, "pat")
    traced = box.trace("fsync", "revoke", "7", inject=[f"fsync:error=EIO:when={number}"])
    assert tuple(traced.result) == (
        "", f"tbx: {box.state_name}/sent/7: Input/output error\n", 1)
    assert not box.store.sent(7, "revoked").exists()
    assert box.journal.events() == []
    assert tuple(box.run("revoke", "7")) == REVOKED
    assert box.journal.events() == [("REVOKED", "", "")]


def test_the_mark_is_taken_back_under_the_lock(box, strace):
    make_delivered(box, "pat")
    traced = box.trace("fsync,flock,unlink", "revoke", "7", inject=["fsync:error=EIO:when=2"])
    behind_the_failure = [(name, arguments.rstrip('"').rpartition("/")[2])
                          for name, arguments, _ in traced.calls[-2:]]
    assert behind_the_failure[0][0] == "flock"
    assert behind_the_failure[1] == ("unlink", "revoked")


def test_a_lock_that_cannot_be_taken_is_an_error_behind_the_marks(box):
    make_delivered(box, "pat")
    box.store.sent(7, "lock").mkdir()
    assert_fails(box, f"{box.state_name}/sent/7: Is a directory", "revoke", "7")
    assert box.store.sent(7, "revoked").exists()
    assert box.store.sent(7, "revoking").exists()
    assert box.store.mailbox("pat", "inbox", 7).exists()


@pytest.mark.parametrize("path", ["/etc/passwd", "sent/7/recipients"])
def test_recipients_that_cannot_be_told_keep_the_revocation_unfinished(box, strace, path):
    make_delivered(box, "pat")
    looked_up = Call("openat", path if path[0] == "/" else f"{box.state_name}/{path}")
    assert tuple(run_failing(box, looked_up, "EMFILE", "revoke", "7")) == (
        "", f"tbx: {COPIES_LEFT}\n", 1)
    assert box.store.sent(7, "revoking").exists()
    box.run("list")
    assert not box.store.mailbox("pat", "inbox", 7).exists()


# The order.

def test_the_marks_stand_before_the_lock_is_waited_for(box):
    make_delivered(box, "pat")
    with open(box.store.sent(7, "lock"), "wb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        revoke = box.start("revoke", "7")
        wait_for(lambda: box.journal.events() == [("REVOKED", "", "")])
        assert box.store.sent(7, "revoked").exists()
        assert box.store.sent(7, "revoking").exists()
        assert box.store.mailbox("pat", "inbox", 7).exists()
        assert revoke.is_running()
    assert tuple(revoke.wait()) == REVOKED
    assert not box.store.mailbox("pat", "inbox", 7).exists()


def test_marks_are_on_the_disk_before_the_event_and_the_lock(machine, strace):
    make_delivered(machine, "pat")
    traced = machine.trace("renameat2,fsync,sendmsg,flock,unlink", "revoke", "7")
    assert traced.result.status == 0
    place = f"{machine.state_name}/sent/7"
    steps = []
    for name, arguments, outcome in traced.calls:
        if place in arguments or "inbox" in arguments:
            steps.append((name, arguments.split(place)[-1].split("users/")[-1].strip('/">)')))
        elif name == "sendmsg" and "REVOKED" in arguments:
            steps.append((name, "REVOKED"))
    assert [step for step in steps if step != ("unlink", "revoked.tmp")] == [
        ("fsync", "revoked.tmp"), ("renameat2", 'revoked", RENAME_NOREPLACE'),
        ("fsync", "revoking"), ("fsync", ""), ("sendmsg", "REVOKED"),
        ("flock", "lock>, LOCK_EX"), ("unlink", "pat/inbox/7"), ("unlink", "revoking")]


@pytest.mark.parametrize("error, text", [("ENOSPC", "No space left on device"),
                                         ("EIO", "Input/output error")])
def test_a_revocation_that_no_later_run_could_finish_does_not_begin(box, strace, error, text):
    box.store.make_message(7, copies=["pat"], delivered=[("pat", 1790000000, 0)])
    traced = box.trace("openat", "revoke", "7", inject=[f"openat:error={error}"],
                       only_path=f"{box.state_name}/sent/7/revoking")
    assert tuple(traced.result) == ("", f"tbx: {box.state_name}/sent/7/revoking: {text}\n", 1)
    assert not box.store.sent(7, "revoked").exists()
    assert box.store.mailbox("pat", "inbox", 7).exists()
    assert box.journal.events() == []
