"""Every command, killed at every call that changes something, on every store."""

import re

import pytest
from cases import CASES
from trials import Tally, kills
from twice import try_second_kills

SMALLEST = CASES["send to one user, nothing there yet"]
REVOKE = CASES["revoke what two users have"]
PURGE = CASES["purge two of three messages"]


@pytest.mark.parametrize("name", CASES)
def test_nothing_is_lost_wherever_the_command_is_killed(new_bench, name):
    bench = new_bench(CASES[name])
    tally = Tally()
    for fault in kills(bench.calls):
        tally.add(bench.try_fault(fault))
    assert tally.failed == []
    assert tally.tried > 0


def test_undisturbed_the_commands_do_what_they_tell(new_bench):
    for case in CASES.values():
        assert new_bench(case).try_fault().failed == [], case.name


@pytest.mark.parametrize("place", [0.3, 0.6, 0.9])
def test_nothing_is_lost_where_the_next_command_is_killed_too(new_bench, place):
    bench = new_bench(SMALLEST)
    points = list(kills(bench.calls))
    tally = try_second_kills(bench, points[int(len(points) * place)], set())
    assert tally.failed == []
    assert tally.tried > 0


# What exactly happens at some of the points.

def names(faults, process):
    return [fault.call.name for fault in faults
            if fault.how == "kill" and fault.call.process == process]


def test_the_kill_points_of_a_send_are_all_found(new_bench):
    found = list(kills(new_bench(SMALLEST).calls))
    assert names(found, 0) == [
        "mkdir", "mkdir", "mkdir", "openat", "mkdir",  # the state, .seq.lock, the message
        "openat", "write", "fsync", "rename",  # .seq
        "openat", "openat",  # lock, incomplete
        *["openat", "write", "fsync", "rename"] * 2,  # msg, recipients
        "fsync", "fsync", "fsync",
        "mkdir", "fchown", "fork", "write",  # the mailbox, and the copy to the child
        "openat", "write", "sendmsg", "sendmsg",  # delivery, DELIVERED, SENT
        "syncfs", "fsync", "unlink", "fsync", "write"]
    assert names(found, 1) == ["mkdir", "mkdir", "mkdir", "mkdir", "openat", "write", "rename"]


def test_the_kill_points_of_a_revoke_are_all_found(new_bench):
    found = list(kills(new_bench(REVOKE).calls))
    assert names(found, 0) == [
        "openat", "openat", "write", "fsync", "rename",  # revoking, revoked
        "openat", "fsync", "fsync", "sendmsg",  # revoking anew, REVOKED
        "openat", "fork", "fork", "unlink", "write"]  # lock, the mailboxes, revoking
    assert names(found, 1) == names(found, 2) == ["unlink"] * 3 + ["write"]  # the report


def test_the_kill_points_of_a_purge_are_all_found(new_bench):
    found = list(kills(new_bench(PURGE).calls))
    aside = ["openat", "rename", "fsync", "sendmsg"]
    removed = [*["unlinkat"] * 4, "rmdir"]
    assert names(found, 0) == [*aside, *aside, "fork", "fork", *removed, *removed, "write"]
    # pat had both messages; sam had one, and has confirmed nothing.
    assert names(found, 1) == ["unlink"] * 10 + ["write"]
    assert names(found, 2) == ["unlink"] * 4 + ["write"]


def killed(bench, process=None):
    """Every kill on a fresh store, and the run that it ended or went past."""
    for fault in kills(bench.calls):
        is_wanted = fault.call.process == 0 if process == 0 else fault.call.process > 0
        if fault.how == "kill" and is_wanted:
            judge = bench.judge(fault)
            yield fault, judge, bench.disturbed(judge, fault)[0]


def test_a_revoke_records_its_event_once_unless_killed_between_the_mark_and_the_record(new_bench):
    bench = new_bench(REVOKE)
    recorded, points = [], []
    for fault, _, _ in killed(bench, process=0):
        assert bench.machine.run("revoke", "7").stdout == "Message 7 revoked.\n"
        recorded.append([event for event, *_ in bench.machine.journal.events()].count("REVOKED"))
        points.append(fault.call.name)
    unrecorded = range(points.index("rename") + 1, points.index("sendmsg") + 1)
    assert recorded == [0 if place in unrecorded else 1 for place in range(len(points))]


def test_a_revoke_whose_child_is_killed_says_so(new_bench):
    bench = new_bench(REVOKE)
    for fault, _, run in killed(bench):
        assert tuple(run.result) == (
            "", "tbx: message 7 revoked, but some copies could not be removed from the mailboxes: "
            "the next tbx command will retry\n", 1), fault
        assert bench.machine.store.sent(7, "revoking").exists(), fault


def test_a_message_is_never_listed_once_a_killed_purge_has_begun_with_it(new_bench):
    bench = new_bench(PURGE)
    has_begun = False
    for fault, _, _ in killed(bench, process=0):
        assert bench.machine.store.sent(7).exists() == (not has_begun), fault
        has_begun = has_begun or (fault.call.name == "rename" and fault.is_at("/sent/7"))
    assert has_begun


def test_a_purge_whose_child_is_killed_leaves_just_what_that_child_had_left(new_bench):
    bench = new_bench(PURGE)
    for fault, judge, run in killed(bench):
        assert run.stdout == "Deleted 2 messages older than 90d.\n", fault
        if fault.call.name != "unlink":
            continue  # the report: everything is gone then
        own = [call.path.removeprefix(f"{bench.machine.state_name}/") for call in bench.calls
               if call.name == "unlink" and call.process == fault.call.process]
        left = set(own[fault.call.occurrence - 1:]) & judge.before.keys()
        ended = set(bench.tree())
        assert ended & {path for path in judge.before if re.search(r"/[78](\.\w+)?$", path)} == left
