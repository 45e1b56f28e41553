"""A second kill: a command is killed at one of its calls, and the next one at each of its own."""

import os
import shutil

from told import journal_records
from tracing import run_traced
from trials import PROBLEMS, Tally, kills, sign_of, summary


class Snapshot:
    """The store as it is, to be put back as often as needed."""

    def __init__(self, bench):
        self._top = bench.machine.store.top
        self._copy = bench.machine.path("/var/lib/kept")
        if self._copy.exists():
            shutil.rmtree(self._copy)
        if self._top.exists():
            copy_tree(self._top, self._copy)

    def put_back(self):
        if self._top.exists():
            shutil.rmtree(self._top)
        if self._copy.exists():
            copy_tree(self._copy, self._top)


def copy_tree(source, target):
    """With owners, modes and times."""
    def copy_owner(place, other):
        facts = os.stat(place)
        os.chown(other, facts.st_uid, facts.st_gid)

    def copy_file(place, other):
        shutil.copy2(place, other)
        copy_owner(place, other)

    shutil.copytree(source, target, copy_function=copy_file)
    for folder, _, _ in os.walk(source):
        copy_owner(folder, os.path.join(target, os.path.relpath(folder, source)))


def try_second_kills(bench, first, seen):
    """The trials behind one first kill; none where `seen` holds the tree that it left."""
    tally = Tally()
    judge = bench.judge(first)
    run, tree = bench.disturbed(judge, first)
    earlier = journal_records(bench.machine)
    if sign_of(tree) in seen:
        return tally
    seen.add(sign_of(tree))
    snapshot = Snapshot(bench)
    for second in kills(run_traced(bench.machine, "list").calls):
        snapshot.put_back()
        bench.machine.journal.clear()
        tally.add(_try_second_kill(bench, judge.with_faults(first, second), second,
                                   (run, tree, earlier)))
    return tally


def _try_second_kill(bench, judge, second, before):
    run, tree, earlier = before
    tally = Tally(tried=1)
    try:
        killed = run_traced(bench.machine, "list", fault=second)
        bench.wait_for_quiet()
        judge.check_always(bench.tree())
        bench.check_syncs(killed, tree, judge)
        outcome, settled = bench.settle(judge, run, tree, earlier)
        bench.repeat(judge, settled)
        tally.outcomes[summary(outcome)] += 1
    except PROBLEMS as problem:
        tally.failed.append((f"kill before {run.calls[-1]}, then {second}", str(problem)))
    return tally
