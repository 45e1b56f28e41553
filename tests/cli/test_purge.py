"""purge: messages older than a duration go, with everything that belongs to them."""

import fcntl
import os
import time

import pytest
from harness.clock import now
from harness.outcome import assert_fails, assert_sent
from harness.stopped import Call, run_failing
from harness.store import replace_by

OLD = 1500000000
NONE_DELETED = ("No messages older than 90d.\n", "", 0)


def make_old(machine, message_id, *users, **options):
    """A delivered message of long ago that every user has shown, read and confirmed."""
    options = {"date": OLD, "copies": users,
               "delivered": [(user, OLD + 1, 1) for user in users], **options}
    machine.store.make_message(message_id, to=users, **options)
    for user in users:
        machine.store.mark_read(user, message_id)
        machine.store.confirm(user, message_id, OLD + 50)
        machine.store.mark_shown(user, message_id, OLD + 10, "term")
        machine.store.mark_shown(user, message_id, OLD + 20, "gui")


def listed(machine):
    """Names of all that stands in the store."""
    return {path.name for path in machine.store.sent("").iterdir()}


def assert_purges(machine, duration, *message_ids):
    """The purge deletes just these messages and says so."""
    machine.journal.clear()
    before = listed(machine)
    count = len(message_ids)
    text = {0: f"No messages older than {duration}.",
            1: f"Deleted 1 message older than {duration}."}.get(
                count, f"Deleted {count} messages older than {duration}.")
    assert tuple(machine.run("purge", duration)) == (f"{text}\n", "", 0)
    assert listed(machine) == before - {str(message_id) for message_id in message_ids}
    assert [(record.event, record["TBX_MESSAGE"], record["TBX_DETAILS"])
            for record in machine.journal.records()] == [
                ("DELETED", str(message_id), duration) for message_id in message_ids]


# The duration.

@pytest.mark.parametrize("arguments", [[], [""]])
def test_a_missing_or_empty_duration_is_asked_for(box, arguments):
    assert_fails(box, "missing duration, for example 90d", "purge", *arguments)


@pytest.mark.parametrize("duration", ["90", "90\n", "%s"])
def test_a_malformed_duration_is_refused_and_nothing_goes(box, duration):
    make_old(box, 7, "pat")
    before = box.store.tree()
    assert_fails(box, f"invalid duration: {duration} (for example 90d, 12h, 30m)", "purge",
                 duration)
    assert box.store.tree() == before


@pytest.mark.parametrize("unit, seconds", [("m", 60), ("h", 3600), ("d", 86400)])
def test_a_message_dated_at_the_cutoff_is_kept_and_an_older_one_goes(box, unit, seconds):
    for attempt in range(20):  # the clock must not tick between the two
        moment = now()
        box.store.make_message(100 + attempt, date=moment - 3 * seconds)
        box.store.make_message(200 + attempt, date=moment - 3 * seconds - 1)
        box.run("purge", f"3{unit}")
        if now() == moment:
            break
    assert str(100 + attempt) in listed(box)
    assert str(200 + attempt) not in listed(box)


def test_leading_zeros_of_a_duration_are_kept_in_every_text(box):
    make_old(box, 7, "pat")
    assert_purges(box, "0090d", 7)


def test_no_duration_at_all_deletes_every_message_dated_before_now(box):
    make_old(box, 7, "pat")
    make_old(box, 8, "pat", date=now() - 1)
    make_old(box, 9, "pat", date=now() + 1000)
    assert_purges(box, "0m", 7, 8)


@pytest.mark.parametrize("duration", ["9" * 18 + "d", "40000d"])
def test_nothing_is_older_than_a_duration_too_large_for_the_clock(box, duration):
    make_old(box, 7, "pat", date=0)
    assert_purges(box, duration)


def test_an_extra_argument_is_refused(box):
    make_old(box, 7, "pat")
    assert_fails(box, "too many arguments for purge: 1m (tbx --help for the guide)", "purge",
                 "90d", "1m")
    assert listed(box) == {"7"}


# What goes.

def test_one_old_message_goes(box):
    make_old(box, 7, "pat")
    make_old(box, 8, "pat", date=now())
    assert_purges(box, "90d", 7)


def test_several_old_messages_go_in_the_order_of_their_numbers(box):
    for message_id in (10, 9, 100, 7):
        make_old(box, message_id, "pat")
    assert_purges(box, "90d", 7, 9, 10, 100)


def test_nothing_old_enough_is_no_error(box):
    make_old(box, 7, "pat", date=now())
    before = box.store.tree()
    assert_purges(box, "90d")
    assert box.store.tree() == before


def test_every_file_of_the_message_leaves_every_mailbox(machine):
    make_old(machine, 7, "pat", "sam")
    make_old(machine, 77, "pat", "sam", date=now())
    before = machine.store.tree()
    assert_purges(machine, "90d", 7)
    after = machine.store.tree()
    gone = {path for path in before if path not in after}
    assert gone == {"sent/7", "sent/7/msg", "sent/7/recipients", "sent/7/delivery"} | {
        f"users/{user}/{file}" for user in ("pat", "sam")
        for file in ("inbox/7", "read/7", "acks/7", "state/7.term", "state/7.gui")}
    assert all(before[path] == after[path] for path in after)


@pytest.mark.parametrize("options", [{"revoked": OLD + 100}, {"failed": OLD + 100},
                                     {"expires": OLD + 100}, {"markers": ["revoking"]}])
def test_a_message_goes_whatever_became_of_it(box, options):
    make_old(box, 7, "pat", **options)
    assert_purges(box, "90d", 7)
    assert not box.store.mailbox("pat", "inbox", 7).exists()


def test_a_message_without_recipients_goes(box):
    box.store.make_message(7, to=None, date=OLD)
    assert_purges(box, "90d", 7)


def test_a_recipient_whose_account_is_gone_does_not_keep_the_message(machine):
    make_old(machine, 7, "pat", "sam")
    machine.remove_user("sam")
    assert_purges(machine, "90d", 7)
    assert not machine.store.mailbox("pat", "inbox", 7).exists()
    assert machine.store.mailbox("sam", "inbox", 7).exists()


def test_a_recipient_without_a_mailbox_does_not_keep_the_message(machine):
    machine.store.make_message(7, to=["pat"], date=OLD)
    assert_purges(machine, "90d", 7)
    assert not machine.store.mailbox("pat").exists()


def test_a_file_out_of_the_user_s_own_reach_is_left_and_the_message_goes(machine):
    make_old(machine, 7, "pat")
    os.chown(machine.store.mailbox("pat", "inbox"), 0, 0)
    assert_purges(machine, "90d", 7)
    assert machine.store.mailbox("pat", "inbox", 7).exists()
    assert not machine.store.mailbox("pat", "acks", 7).exists()


def test_a_mailbox_behind_a_symbolic_link_is_not_entered(machine):
    make_old(machine, 7, "pat")
    real = replace_by("link", machine.store.mailbox("pat"))
    assert_purges(machine, "90d", 7)
    assert (real / "inbox" / "7").exists()


def test_identifiers_are_not_used_again(box):
    assert_sent(box, "--to", "pat", "Hello")
    message = box.store.sent(1, "msg")
    date = message.read_bytes().split(b"date: ")[1].split(b"\n")[0]
    message.write_bytes(message.read_bytes().replace(date, b"%d" % OLD))
    assert "Deleted 1 " in box.run("purge", "90d").stdout
    assert_sent(box, "--to", "pat", "Hello again", message_id=2)


# The age of a damaged message.

@pytest.mark.parametrize("content", [b"date: -5\n", b"x" * 73729, False],
                         ids=["undated", "oversized", "missing"])
def test_a_message_that_cannot_be_read_is_as_old_as_its_directory(box, content):
    for message_id, moment in ((7, OLD), (8, now()), (9, now() + 1000)):
        box.store.make_message(message_id, msg=content)
        os.utime(box.store.sent(message_id), (moment, moment))
    assert_purges(box, "90d", 7)


def test_the_message_s_own_date_counts_before_that_of_its_directory(box):
    make_old(box, 7, "pat")
    box.store.make_message(8, date=now())
    os.utime(box.store.sent(8), (OLD, OLD))
    assert_purges(box, "90d", 7)


def test_an_empty_message_directory_goes_by_its_age(box):
    box.store.create()
    box.store.sent(7).mkdir()
    os.utime(box.store.sent(7), (OLD, OLD))
    assert_purges(box, "90d", 7)


@pytest.mark.parametrize("error", ["EMFILE", "ENFILE", "EIO", "ENOMEM", "EUCLEAN", "EACCES"])
def test_a_message_that_cannot_be_read_is_kept(box, strace, error):
    make_old(box, 7, "pat")
    os.utime(box.store.sent(7), (OLD, OLD))
    message = Call("openat", f"{box.state_name}/sent/7/msg")
    assert tuple(run_failing(box, message, error, "purge", "90d")) == NONE_DELETED
    assert box.store.mailbox("pat", "inbox", 7).exists()


@pytest.mark.parametrize("error, listed_after", [("ENOENT", set()), ("EACCES", {"7"}),
                                                 ("EIO", {"7"}), ("ESTALE", {"7"})])
def test_a_broken_message_is_always_old_enough_unless_its_age_cannot_be_read(
        box, strace, error, listed_after):
    box.store.make_message(7, msg=False)
    directory = Call("newfstatat", f"{box.state_name}/sent/7")
    run_failing(box, directory, error, "purge", "90d")
    assert listed(box) == listed_after


def test_a_store_that_cannot_be_listed_is_an_error(box, strace):
    make_old(box, 7, "pat")
    store = Call("openat", f"{box.state_name}/sent")
    assert tuple(run_failing(box, store, "EMFILE", "purge", "90d")) == (
        "", f"tbx: {store.path}: Too many open files\n", 1)
    assert listed(box) == {"7"}


@pytest.mark.parametrize("path", ["/etc/passwd", "sent/.deleting-7/recipients"])
def test_recipients_that_cannot_be_told_leave_the_deletion_to_the_next_command(box, strace, path):
    make_old(box, 7, "pat")
    looked_up = Call("openat", path if path[0] == "/" else f"{box.state_name}/{path}")
    run_failing(box, looked_up, "EMFILE", "purge", "90d")
    assert listed(box) == {".deleting-7"}
    assert box.store.mailbox("pat", "inbox", 7).exists()
    box.run("list")
    assert listed(box) == set()
    assert not box.store.mailbox("pat", "inbox", 7).exists()


# What stays.

def test_a_message_that_is_being_sent_is_never_purged(box):
    make_old(box, 7, "pat", markers=["incomplete"])
    before = box.store.tree()
    assert_purges(box, "0m")
    assert box.store.tree() == before


def test_a_message_that_another_run_holds_is_passed_over_at_once(box):
    make_old(box, 7, "pat")
    make_old(box, 8, "pat")
    with open(box.store.sent(7, "lock"), "wb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        assert_purges(box, "90d", 8)
    assert box.store.mailbox("pat", "inbox", 7).exists()
    assert_purges(box, "90d", 7)


def test_a_message_that_cannot_be_locked_is_passed_over(box):
    make_old(box, 7, "pat")
    box.store.sent(7, "lock").mkdir()
    assert_purges(box, "90d")


def test_a_message_that_cannot_be_moved_aside_is_passed_over_and_stays_whole(box):
    make_old(box, 7, "pat")
    make_old(box, 8, "pat")
    box.store.sent(".deleting-7").mkdir()
    (box.store.sent(".deleting-7") / "full").touch()
    assert_purges(box, "90d", 8)
    assert box.store.mailbox("pat", "inbox", 7).exists()


def test_what_is_no_message_stays(box):
    make_old(box, 7, "pat")
    sent = box.store.sent("")
    for name in (".seq", ".seq.lock", "5", "notes"):
        (sent / name).write_bytes(b"9\n")
    for name in ("abc", "7a", "1" * 19, ".deleting-abc"):
        (sent / name).mkdir()
        os.utime(sent / name, (OLD, OLD))
    os.utime(sent / "5", (OLD, OLD))
    assert_purges(box, "90d", 7)


def test_without_a_store_nothing_is_old_and_none_is_made(box):
    assert tuple(box.run("purge", "90d")) == NONE_DELETED
    assert not box.store.top.exists()


def test_what_was_interrupted_is_left_to_the_other_commands(box):
    make_old(box, 7, "pat")
    box.store.sent(7).rename(box.store.sent(".deleting-7"))
    make_old(box, 8, "pat", copies=[], markers=["incomplete"])
    make_old(box, 9, "pat", date=now(), markers=["revoking"])
    before = box.store.tree()
    assert_purges(box, "90d")
    assert box.store.tree() == before
    box.run("list")
    assert not box.store.sent(".deleting-7").exists()
    assert not box.store.mailbox("pat", "inbox", 7).exists()


# The record and the order.

def test_the_deletion_is_recorded_with_its_author(machine):
    make_old(machine, 7, "pat")
    machine.run("purge", "12h", env={"SUDO_USER": "alex"})
    [record] = machine.journal.records()
    assert record.fields[-6:] == [
        ("TBX_EVENT", "DELETED"), ("TBX_MESSAGE", "7"), ("TBX_USER", ""), ("TBX_CHANNEL", ""),
        ("TBX_DETAILS", "12h"), ("TBX_AUTHOR", "alex")]
    assert record["MESSAGE"] == "message 7 deleted by alex (older than 12h)"


def test_a_message_is_moved_aside_and_recorded_before_anything_of_it_is_removed(machine, strace):
    make_old(machine, 7, "pat")
    traced = machine.trace("flock,rename,fsync,sendmsg,unlink,unlinkat,rmdir", "purge", "90d")
    sent = f"{machine.state_name}/sent"
    steps = [(name, arguments.replace(machine.state_name, "")) for name, arguments, _ in
             traced.calls if name != "sendmsg" or "DELETED" in arguments]
    assert steps[:3] == [("flock", steps[0][1]), ("rename", '"/sent/7", "/sent/.deleting-7"'),
                         ("fsync", steps[2][1])]
    assert steps[0][1].endswith("</sent/7/lock>, LOCK_EX|LOCK_NB")
    assert steps[2][1].endswith("</sent>")
    assert steps[3][0] == "sendmsg"
    assert [arguments for name, arguments in steps[4:] if name == "unlink"] == [
        f'"/users/pat/{file}"' for file in ("inbox/7", "read/7", "acks/7", "state/7.term",
                                            "state/7.gui")]
    assert [name for name, _ in steps[9:]] == ["unlinkat"] * 4 + ["rmdir"]
    assert traced.calls[-1][1] == f'"{sent}/.deleting-7"'


def test_a_lost_sync_of_the_store_does_not_stop_the_purge(box, strace):
    make_old(box, 7, "pat")
    traced = box.trace("fsync", "purge", "90d", inject=["fsync:error=EIO"])
    assert tuple(traced.result) == ("Deleted 1 message older than 90d.\n", "", 0)
    assert not box.store.mailbox("pat", "inbox", 7).exists()


# What a send left that could not be marked.

def make_litter(box, age_seconds=120, **options):
    box.store.make_message(7, msg=False, **options)
    box.store.sent(7, "lock").touch()
    moment = time.time() - age_seconds
    os.utime(box.store.sent(7), (moment, moment))


@pytest.mark.parametrize("to", [None, ["pat"]])
def test_a_directory_without_message_and_mark_goes_with_the_next_purge(box, to):
    make_litter(box, to=to)
    assert tuple(box.run("purge", "90d")) == ("No messages older than 90d.\n", "", 0)
    assert not box.store.sent(7).exists()
    assert not list((box.store.top / "sent").glob(".deleting-*"))
    assert box.journal.events() == []


@pytest.mark.parametrize("marks", [{"markers": ["incomplete"]}, {"markers": ["revoking"]},
                                   {"failed": OLD}, {"revoked": OLD},
                                   {"delivered": [("pat", OLD, 0)]}])
def test_a_directory_with_a_mark_is_no_litter(box, marks):
    make_litter(box, **marks)
    box.run("purge", "90d")
    assert box.store.sent(7).exists()


def test_a_directory_that_a_send_has_just_made_is_left_to_it(box):
    make_litter(box, age_seconds=0)
    box.run("purge", "90d")
    assert box.store.sent(7).exists()


def test_litter_whose_lock_is_held_is_left(box):
    make_litter(box)
    with open(box.store.sent(7, "lock"), "wb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        box.run("purge", "90d")
    assert box.store.sent(7).exists()
