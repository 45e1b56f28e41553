"""Many interrupted messages at once: each mailbox is asked once, and only what is missing costs."""

import fcntl

import pytest

DATE = 1790000000
USERS = ("alex", "kim", "pat")
MESSAGES = range(1, 7)
FORK = "clone,clone3,fork,vfork"

pytestmark = pytest.mark.usefixtures("strace")


def make_incomplete(box, copies=USERS, delivered=USERS):
    for number in MESSAGES:
        box.store.make_message(number, to=USERS, copies=copies, markers=["incomplete"],
                               delivered=[(user, DATE, 0) for user in delivered])


def children(traced):
    return sum(name in FORK.split(",") for name, _, _ in traced.calls)


def block(box, user, numbers):
    for number in numbers:
        box.store.mailbox(user, "inbox", number).mkdir(parents=True)


def is_incomplete(box, number):
    return box.store.sent(number, "incomplete").exists()


def test_what_everybody_holds_costs_one_child_for_each_mailbox(box):
    make_incomplete(box)
    traced = box.trace(FORK, "log", "1")
    assert (traced.result.stderr, traced.result.status) == ("", 0)
    assert children(traced) == len(USERS)
    assert not any(is_incomplete(box, number) for number in MESSAGES)


def test_a_user_who_blocks_every_copy_costs_no_child_for_each_message(box):
    make_incomplete(box, copies=("alex", "kim"))
    block(box, "pat", MESSAGES)
    traced = box.trace(FORK, "log", "1")
    assert children(traced) == len(USERS)
    assert traced.result.stderr.splitlines() == [
        f"tbx: message {number} still not delivered to 1 recipients (see tbx status {number})"
        for number in MESSAGES]
    assert all(is_incomplete(box, number) for number in MESSAGES)


def test_a_mailbox_that_takes_nothing_is_not_tried_for_each_of_many(box):
    many = range(1, 41)
    for number in many:
        box.store.make_message(number, to=USERS, copies=("alex", "kim"), markers=["incomplete"],
                               delivered=[(user, DATE, 0) for user in USERS])
    inbox = box.store.make_mailbox("pat") / "inbox"
    inbox.rmdir()
    inbox.symlink_to("nowhere")
    traced = box.trace(FORK, "log", "1")
    assert children(traced) < len(USERS) + len(many) / 2
    assert traced.result.stderr.count("still not delivered to 1 recipients") == len(many)
    inbox.unlink()
    assert box.run("log", "1").status == 0
    assert all((inbox / str(number)).exists() for number in many)


def test_a_missing_copy_costs_one_child_more(box):
    make_incomplete(box)
    box.store.mailbox("kim", "inbox", 3).unlink()
    traced = box.trace(FORK, "log", "1")
    assert children(traced) == len(USERS) + 1
    assert box.store.mailbox("kim", "inbox", 3).read_bytes() == box.store.sent(
        3, "msg").read_bytes()


@pytest.mark.parametrize("damaged", [b"", b"x", None], ids=["empty", "short", "same length"])
def test_a_half_written_copy_is_made_whole(box, damaged):
    make_incomplete(box)
    whole = box.store.sent(3, "msg").read_bytes()
    copy = box.store.mailbox("kim", "inbox", 3)
    copy.write_bytes(bytes(len(whole)) if damaged is None else damaged)
    assert box.run("log", "1").status == 0
    assert copy.read_bytes() == whole


def test_whom_the_log_does_not_name_yet_is_told_of(box):
    make_incomplete(box, delivered=("alex", "kim"))
    result = box.run("log", "1")
    assert result.stderr.splitlines() == [
        f"tbx: completed delivery of message {number} to 1 recipients" for number in MESSAGES]
    assert [event[:2] for event in box.journal.events()] == [
        event for _ in MESSAGES for event in (("DELIVERED", "pat"), ("RECOVERED", ""))]


def test_what_was_read_is_not_brought_back(box):
    make_incomplete(box, copies=("alex", "kim"))
    for number in MESSAGES:
        (box.store.make_mailbox("pat") / "read" / str(number)).touch()
    assert box.run("log", "1").status == 0
    assert not any(is_incomplete(box, number) for number in MESSAGES)
    assert not any(box.store.mailbox("pat", "inbox", number).exists() for number in MESSAGES)


def test_a_message_that_is_being_sent_is_not_asked_for(box):
    make_incomplete(box)
    with open(box.store.sent(1, "lock"), "wb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        traced = box.trace(FORK, "log", "2")
    assert children(traced) == len(USERS)
    assert is_incomplete(box, 1)


def test_revocations_cost_one_child_for_each_mailbox(box):
    for number in MESSAGES:
        box.store.make_message(number, to=USERS, copies=USERS, markers=["revoking"], revoked=DATE,
                               delivered=[(user, DATE, 0) for user in USERS])
    block(box, "kim", [9])
    box.store.mailbox("pat", "inbox", 4).unlink()
    box.store.mailbox("pat", "inbox", 4).mkdir()
    traced = box.trace(FORK, "log", "1")
    assert children(traced) == len(USERS)
    left = [number for number in MESSAGES if box.store.sent(number, "revoking").exists()]
    assert left == [4]
    assert not any(box.store.mailbox(user, "inbox", number).is_file()
                   for user in USERS for number in MESSAGES)


def test_a_purge_of_many_costs_one_child_for_each_mailbox(box):
    for number in MESSAGES:
        box.store.make_message(number, to=USERS, copies=USERS,
                               delivered=[(user, DATE, 0) for user in USERS])
    traced = box.trace(FORK, "purge", "1d")
    assert traced.result.stdout == f"Deleted {len(MESSAGES)} messages older than 1d.\n"
    assert children(traced) == len(USERS)
    assert not any(box.store.mailbox(user, "inbox", number).exists()
                   for user in USERS for number in MESSAGES)
    assert not list((box.store.top / "sent").glob(".deleting-*"))
