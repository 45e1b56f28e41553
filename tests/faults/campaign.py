"""Many trials at once, in processes that have a machine each."""

import multiprocessing
import signal

from cases import CASES
from trials import Bench, Tally, failures, kills, without_repeats

CHUNK = 60  # trials on one machine

_binary = None


def _start_worker(binary):
    global _binary
    _binary = binary
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the parent ends the workers


def points_of(name):
    """(kills, failures) of a case, as an undisturbed run has its calls."""
    with Bench(_binary, CASES[name]) as bench:
        return list(kills(bench.calls)), list(failures(without_repeats(bench.calls)))


def try_faults(task):
    name, kind, faults = task
    total = Tally()
    with Bench(_binary, CASES[name]) as bench:
        for fault in faults:
            total.add(bench.try_fault(fault))
    return name, kind, total


def chunks(items, size=CHUNK):
    return [items[start:start + size] for start in range(0, len(items), size)]


def run_pool(binary, jobs, function, tasks, done):
    """Runs the function on each task and hands every result to `done`."""
    with multiprocessing.Pool(jobs, _start_worker, (binary,), maxtasksperchild=20) as pool:
        for result in pool.imap_unordered(function, tasks):
            done(result)


def fault_tasks(binary, jobs, names, kinds=("kill", "failure")):
    """The trials of the named cases, in chunks."""
    tasks = []
    with multiprocessing.Pool(jobs, _start_worker, (binary,)) as pool:
        for name, points in zip(names, pool.map(points_of, names, chunksize=1)):
            for kind, faults in zip(("kill", "failure"), points):
                if kind in kinds:
                    tasks += [(name, kind, chunk) for chunk in chunks(faults)]
    return tasks
