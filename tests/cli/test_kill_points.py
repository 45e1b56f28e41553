"""revoke and purge, killed before each of their calls that change something, in the program
itself and in each of its children: the next command finishes what was begun."""

import re
import shutil
from collections import Counter
from dataclasses import dataclass

import pytest
from harness.stopped import CHANGING, Call, run_killed

DATE = 1500000000
REVOKED = ("Message 7 revoked.\n", "", 0)
COPIES_LEFT = ("tbx: message 7 revoked, but some copies could not be removed from the mailboxes: "
               "the next tbx command will retry\n")

# What a message leaves in a mailbox, in the order in which purge removes it.
MAILBOX_FILES = ("inbox/{}", "read/{}", "acks/{}", "state/{}.term", "state/{}.gui")


def make_message(machine, message_id, *users, **options):
    """A delivered message of long ago with every file that a mailbox may have of it."""
    options = {"date": DATE, **options}
    machine.store.make_message(message_id, to=users, copies=users,
                               delivered=[(user, DATE + 1, 1) for user in users], **options)
    for user in users:
        machine.store.mark_read(user, message_id)
        machine.store.confirm(user, message_id, DATE + 50)
        machine.store.mark_shown(user, message_id, DATE + 10, "term")
        machine.store.mark_shown(user, message_id, DATE + 20, "gui")


# The points.

@dataclass(frozen=True)
class Point:
    """A call that changes something, as the trace of an undisturbed run shows it."""

    call: Call
    text: str
    is_child: bool


def changes_something(name, arguments, outcome):
    return not outcome.startswith("-1") and (name != "openat" or "O_CREAT" in arguments)


def path_in(name, arguments):
    """The path by which the call can be told from others, or None."""
    if name in ("clone", "clone3", "fork", "vfork", "sendmsg"):
        return None
    found = re.search(r'"(/[^"]+)"|<(/[^>]+)>', arguments)
    return found and (found[1] or found[2])


def points_of(trace):
    """Every point of the run, in order, each named by its place among its like."""
    points, counted = [], Counter()
    for pid, (name, arguments, outcome) in zip(trace.pids, trace.calls):
        path = path_in(name, arguments)
        counted.update({(pid, name, path), (pid, name, None)})
        if changes_something(name, arguments, outcome):
            call = Call(name, path, counted[pid, name, path])
            points.append(Point(call, f"{name}({arguments})", pid != trace.pids[0]))
    return points


class Trial:
    """A store that is made anew for each point of a command."""

    def __init__(self, machine, make_store, *command):
        self._machine, self._make_store, self._command = machine, make_store, command
        self.before = self._fresh_store()
        trace = machine.trace(CHANGING, *command)
        assert trace.result.status == 0
        self.points = points_of(trace)

    def _fresh_store(self):
        if self._machine.store.top.exists():
            shutil.rmtree(self._machine.store.top)
        self._make_store()
        self._machine.journal.clear()
        return self._machine.store.tree()

    def killed_at(self, point):
        """Runs the command on a fresh store, killed at the point; returns its Result."""
        self.before = self._fresh_store()
        result = run_killed(self._machine, point.call, *self._command)
        processes = {path.name for path in self._machine.path("/proc").iterdir()
                     if path.name.isdigit()}
        assert processes == {"1"}, f"{point}: something is still running"
        return result

    def after_next_command(self, point):
        """The store once `list` has run; a second one finds nothing more to do."""
        assert tuple(self._machine.run("list"))[1:] == ("", 0), point
        after = self._machine.store.tree()
        self._machine.run("list")
        assert self._machine.store.tree() == after, point
        return after


def without(tree, *paths):
    assert set(paths) <= set(tree)
    return {path: facts for path, facts in tree.items() if path not in paths}


def in_order(outcomes, *expected):
    """Whether the outcomes are the expected ones, each at least once, in that order."""
    return list(dict.fromkeys(outcomes)) == list(expected) and outcomes == sorted(
        outcomes, key=expected.index)


# revoke

@pytest.fixture
def revocation(machine, strace):
    def make_store():
        make_message(machine, 7, "pat", "sam")
        make_message(machine, 8, "pat")

    return Trial(machine, make_store, "revoke", "7")


def withdrawn(before):
    return without(before, *(f"users/{user}/{file}" for user in ("pat", "sam")
                             for file in ("inbox/7", "state/7.term", "state/7.gui")))


def state_of_revocation(before, after, point):
    """Which of the allowed states the store is in. Besides, the lock file and a temporary
    file of the mark may be there."""
    found = dict(after)
    for name in ("lock", "revoked.tmp"):
        found.pop(f"sent/7/{name}", None)
    mark = found.pop("sent/7/revoked", None)
    if mark:
        assert re.fullmatch(rb"\d+\n", mark[3]) and mark[0] & 0o7777 == 0o600, point
        assert found == withdrawn(before), point
        return "revoked"
    if found == withdrawn(before):
        return "withdrawn"
    assert found == before, point
    return "untouched"


def test_the_points_of_a_revoke_are_all_found(revocation):
    own = [point.call.name for point in revocation.points if not point.is_child]
    assert [name for name in own if name not in ("clone", "clone3", "fork", "vfork")] == [
        "openat", "openat", "write", "fsync", "rename", "openat", "fsync", "fsync", "sendmsg",
        "openat", "unlink", "write"]
    assert len(own) == 12 + 2  # a child for each recipient
    assert [point.call.path.split("users/")[1] for point in revocation.points
            if point.is_child] == [f"{user}/{file}" for user in ("pat", "sam")
                                   for file in ("inbox/7", "state/7.term", "state/7.gui")]


def test_a_revoke_killed_at_any_point_is_finished_by_the_next_command(revocation):
    outcomes = []
    for point in revocation.points:
        if point.is_child:
            continue
        assert revocation.killed_at(point).status == -9, point
        after = revocation.after_next_command(point)
        outcomes.append(state_of_revocation(revocation.before, after, point))
    assert in_order(outcomes, "untouched", "withdrawn", "revoked"), outcomes


def test_a_revoke_killed_at_any_point_can_be_repeated(machine, revocation):
    for point in revocation.points:
        if point.is_child:
            continue
        revocation.killed_at(point)
        assert tuple(machine.run("revoke", "7")) == REVOKED, point
        after = machine.store.tree()
        assert state_of_revocation(revocation.before, after, point) == "revoked"
        assert "sent/7/revoked.tmp" not in after, point


def test_a_revoke_records_its_event_once_unless_killed_between_the_mark_and_the_record(
        machine, revocation):
    recorded = []
    for point in revocation.points:
        if point.is_child:
            continue
        revocation.killed_at(point)
        machine.run("revoke", "7")
        recorded.append(machine.journal.events().count(("REVOKED", "", "")))
    names = [point.call.name for point in revocation.points if not point.is_child]
    unrecorded = range(names.index("rename") + 1, names.index("sendmsg") + 1)
    assert recorded == [0 if place in unrecorded else 1 for place in range(len(recorded))]


def test_a_revoke_whose_child_is_killed_says_so_and_the_next_command_finishes(machine,
                                                                             revocation):
    for point in revocation.points:
        if not point.is_child:
            continue
        assert tuple(revocation.killed_at(point)) == ("", COPIES_LEFT, 1), point
        assert machine.store.sent(7, "revoking").exists(), point
        after = revocation.after_next_command(point)
        assert state_of_revocation(revocation.before, after, point) == "revoked"


# purge

@pytest.fixture
def deletion(machine, strace):
    def make_store():
        make_message(machine, 7, "pat", "sam")
        make_message(machine, 8, "pat")
        make_message(machine, 9, "pat", date=4000000000)

    return Trial(machine, make_store, "purge", "90d")


def files_of(message_id, *users):
    """Every file of a message, in its directory and in the mailboxes."""
    place = f"sent/{message_id}"
    return [place, f"{place}/msg", f"{place}/recipients", f"{place}/delivery",
            *(f"users/{user}/{file.format(message_id)}" for user in users
              for file in MAILBOX_FILES)]


def state_of_deletion(before, after, point):
    """Which of the messages are left; each is whole, but for its lock file, or gone."""
    found = {path: facts for path, facts in after.items() if not path.endswith("/lock")}
    both_gone = without(before, *files_of(7, "pat", "sam"), *files_of(8, "pat"))
    allowed = {"both": before, "one": without(before, *files_of(7, "pat", "sam")),
               "none": both_gone}
    matching = [name for name, tree in allowed.items() if tree == found]
    assert matching, f"{point}: {sorted(set(found) ^ set(both_gone))}"
    return matching[0]


def test_the_points_of_a_purge_are_all_found(deletion):
    own = [point.call.name for point in deletion.points if not point.is_child]
    assert [name for name in own if name not in ("clone", "clone3", "fork", "vfork")] == [
        "openat", "rename", "fsync", "sendmsg", *["unlinkat"] * 4, "rmdir"] * 2 + ["write"]
    assert len(own) == 9 * 2 + 1 + 3  # two children for message 7 and one for message 8
    assert [point.call.path.split("users/")[1] for point in deletion.points
            if point.is_child] == [f"{user}/{file.format(message_id)}" for message_id, user in
                                   ((7, "pat"), (7, "sam"), (8, "pat"))
                                   for file in MAILBOX_FILES]


def test_a_purge_killed_at_any_point_leaves_each_message_whole_or_gone(deletion):
    outcomes = []
    for point in deletion.points:
        if point.is_child:
            continue
        assert deletion.killed_at(point).status == -9, point
        after = deletion.after_next_command(point)
        outcomes.append(state_of_deletion(deletion.before, after, point))
    assert in_order(outcomes, "both", "one", "none"), outcomes


def test_a_message_is_never_listed_once_a_killed_purge_has_begun_with_it(machine, deletion):
    first = [point for point in deletion.points
             if not point.is_child and point.call.path != f"{machine.state_name}/sent/8"]
    moved = [point.call.name for point in first].index("rename") + 1
    for point in first[moved:]:
        deletion.killed_at(point)
        assert not machine.store.sent(7).exists(), point


def test_a_purge_killed_at_any_point_can_be_repeated(machine, deletion):
    for point in deletion.points:
        if point.is_child:
            continue
        deletion.killed_at(point)
        assert machine.run("purge", "90d").status == 0, point
        after = deletion.after_next_command(point)
        assert state_of_deletion(deletion.before, after, point) == "none"


def test_a_purge_whose_child_is_killed_goes_on_and_leaves_what_that_child_had_left(machine,
                                                                                 deletion):
    for point in deletion.points:
        if not point.is_child:
            continue
        assert tuple(deletion.killed_at(point)) == (
            "Deleted 2 messages older than 90d.\n", "", 0), point
        killed_before = point.call.path.removeprefix(f"{machine.state_name}/")
        mailbox_of_child = [path for files in (files_of(7, "pat"), files_of(7, "sam"),
                                               files_of(8, "pat"))
                            for path in [files[4:]] if killed_before in path][0]
        left = mailbox_of_child[mailbox_of_child.index(killed_before):]
        gone = set(files_of(7, "pat", "sam") + files_of(8, "pat")) - set(left)
        assert deletion.after_next_command(point) == without(deletion.before, *gone), point
