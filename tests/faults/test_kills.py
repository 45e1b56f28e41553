"""Every command, killed at every call that changes something, on every store."""

import pytest
from cases import CASES
from trials import Tally, kills
from twice import try_second_kills

SMALLEST = CASES["send to one user, nothing there yet"]


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


def test_the_kill_points_of_a_send_are_all_found(new_bench):
    calls = new_bench(SMALLEST).calls
    found = [(fault.call.process, fault.call.name) for fault in kills(calls)
             if fault.how == "kill"]
    assert [name for process, name in found if process == 0] == [
        "mkdir", "mkdir", "mkdir", "openat", "mkdir",  # the state, .seq.lock, the message
        "openat", "write", "fsync", "rename",  # .seq
        "openat", "openat",  # lock, incomplete
        *["openat", "write", "fsync", "rename"] * 2,  # msg, recipients
        "fsync", "fsync", "fsync",
        "mkdir", "lchown", "fork", "write",  # the mailbox, and the copy to the child
        "openat", "write", "sendmsg", "sendmsg",  # delivery, DELIVERED, SENT
        "syncfs", "fsync", "unlink", "fsync", "write"]
    assert [name for process, name in found if process == 1] == [
        "mkdir", "mkdir", "mkdir", "mkdir", "openat", "write", "rename"]
