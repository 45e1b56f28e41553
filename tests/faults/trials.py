"""Which faults are tried at which calls, and one trial of one fault."""

import errno
import re
import shutil
from collections import Counter
from dataclasses import dataclass, field

from cases import set_up_store
from harness.machine import Machine
from harness.waiting import wait_for
from rules import Broken, Judge, require
from syncs import SyncRules
from told import check_deliveries_recorded, check_events, check_told, journal_records
from tracing import Fault, install_tracer, run_traced

# ---- Faults -------------------------------------------------------------------------------

READ = "EIO ENOMEM"
# A directory service or a file system of the network has many ways to say that it cannot tell.
LOOK = f"{READ} EUCLEAN ESTALE EPERM ETIMEDOUT EAGAIN ECONNREFUSED"
OPEN = f"EACCES EMFILE ENFILE {LOOK}"
CREATE = f"{OPEN} ENOSPC EDQUOT EROFS"
CHANGE = "EIO ENOSPC EDQUOT EACCES EROFS ENOMEM"

# The errors that each call can really have, where it is made on a file.
ERRORS = {name: [getattr(errno, error) for error in errors.split()] for name, errors in {
    "access": f"{LOOK} EACCES", "brk": "ENOMEM", "chdir": f"{READ} EACCES",
    "chmod": CHANGE, "chown": CHANGE, "lchown": CHANGE, "fchown": CHANGE, "fchmod": CHANGE,
    "close": "EIO EINTR ENOSPC EDQUOT", "connect": "ECONNREFUSED EAGAIN EINTR EACCES",
    "dup": "EMFILE", "dup2": "EMFILE EINTR", "execve": "ENOENT EACCES ENOMEM EIO",
    "fcntl": "EINTR ENOMEM", "flock": "EINTR ENOLCK", "fork": "EAGAIN ENOMEM",
    "fstat": LOOK, "fsync": "EIO ENOSPC EDQUOT EINTR", "ftruncate": "EIO EINTR EROFS",
    "getdents64": READ, "inotify_add_watch": "ENOSPC ENOMEM EIO",
    "inotify_init1": "EMFILE ENFILE ENOMEM", "ioctl": "EIO", "kill": "EPERM ESRCH", "link": CHANGE, "lseek": "",
    "lstat": f"{LOOK} EACCES",
    "mkdir": CHANGE, "mmap": "ENOMEM", "newfstatat": f"{LOOK} EACCES", "open": OPEN,
    "openat": OPEN, "openat2": f"{OPEN} ENOSYS", "pidfd_open": "EMFILE ENFILE ENOMEM ENOSYS", "pipe2": "EMFILE ENFILE",
    "poll": "EINTR ENOMEM", "prctl": "EPERM", "pread64": READ, "read": READ,
    "readlink": f"{LOOK} EACCES", "rename": CHANGE, "rmdir": "EIO EACCES EROFS ENOMEM",
    "sendmsg": "EAGAIN ENOBUFS EINTR ECONNREFUSED", "sendto": "EAGAIN ENOBUFS EINTR",
    "setgroups": "ENOMEM EPERM", "setresgid": "EAGAIN EPERM", "setresuid": "EAGAIN EPERM",
    "socket": "EMFILE ENFILE ENOMEM", "stat": f"{LOOK} EACCES", "statx": f"{LOOK} EACCES",
    "syncfs": "EIO ENOSPC EDQUOT EINTR", "unlink": "EIO EACCES EROFS ENOMEM",
    "unlinkat": "EIO EACCES EROFS ENOMEM", "utimensat": "EIO EACCES EROFS", "wait4": "EINTR ECHILD",
    "write": "ENOSPC EIO EDQUOT EINTR ENOMEM", "writev": "ENOSPC EIO EDQUOT EINTR",
}.items()}
CREATE_ERRORS = [getattr(errno, error) for error in CREATE.split()]
PIPE_WRITE_ERRORS = [errno.EPIPE, errno.EINTR, errno.EAGAIN, errno.ENOMEM]
PIPE_READ_ERRORS = [errno.EINTR, errno.EIO]
TERMINAL_READ_ERRORS = [errno.EINTR, errno.EIO, errno.EAGAIN]
TERMINAL_SET_ERRORS = [errno.EINTR, errno.EIO]
TERMINAL = re.compile("(/dev)?/(pts/)?[0-9]+")
TIME = re.compile(rb"\b\d{10}\b")
SHORT_BYTES = 2  # of a write that can be cut in two


def errors_of(call):
    if call.creates:
        return CREATE_ERRORS
    if call.flags == "unnamed":
        return [*CREATE_ERRORS, errno.EOPNOTSUPP, errno.EISDIR]
    if call.path == "pipe" and call.name == "close":
        return []  # nothing is left to be written
    if call.path == "pipe" and call.name == "write":
        return PIPE_WRITE_ERRORS
    if call.path == "pipe" and call.name == "read":
        return PIPE_READ_ERRORS
    if TERMINAL.fullmatch(call.path) and call.name == "read":
        return TERMINAL_READ_ERRORS
    if call.flags == "sets":
        return TERMINAL_SET_ERRORS
    errors = ERRORS[call.name]
    if call.process == 0 and not call.changes:
        errors = [error for error in errors if error != errno.EACCES]  # nobody refuses root
    return errors


def is_file_write(call):
    return call.name == "write" and call.path.startswith("/") and (call.outcome or 0) >= SHORT_BYTES


def kills(calls):
    """A kill before each call that changes something, and within each write of a file."""
    for call in calls:
        if call.changes and call.succeeded:
            yield Fault(call, "kill")
        if is_file_write(call):
            yield Fault(call, "tear")


def failures(calls):
    """Each error at each call, and writes that are cut short."""
    for call in calls:
        for error in errors_of(call):
            yield Fault(call, "fail", error)
        if is_file_write(call):
            yield Fault(call, "half")
            yield Fault(call, "fill", errno.ENOSPC)


def without_repeats(calls):
    """The calls without those that only repeat, for a further recipient, what was done before.

    A call repeats another if the calls around both are the same but for names and numbers.
    """
    seen, kept = set(), []
    for process in sorted({call.process for call in calls}):
        own = [call for call in calls if call.process == process]
        signs = [_sign(call) for call in own]
        for place, call in enumerate(own):
            around = (process > 0, min(place, 4), tuple(signs[max(0, place - 4):place + 5]))
            if around not in seen:
                seen.add(around)
                kept.append(call)
    return kept


def _sign(call):
    paths = tuple("USER" if part in ("alex", "kim", "pat", "sam", "gone") else part
                  for path in call.paths for part in path.split("/"))
    # How often these two come depends on who is faster.
    return "wait" if call.name in ("poll", "wait4") else (call.name, call.flags, paths)


# ---- One trial ----------------------------------------------------------------------------

# Whatever the judge could not make sense of counts as a failed trial.
PROBLEMS = (Broken, AssertionError, KeyError, OSError, ValueError)


def kept_benches(new):
    """For a fixture: yields `new`, and closes in the end all that it has made."""
    benches = []

    def make(case):
        benches.append(new(case))
        return benches[-1]

    yield make
    for bench in benches:
        bench.close()


def summary(outcome):
    """The different things that became of the messages, as one text."""
    return ", ".join(sorted(set(outcome.values()))) or "nothing done"


@dataclass
class Tally:
    """What became of the trials of one case."""

    tried: int = 0
    outcomes: Counter = field(default_factory=Counter)
    missed: int = 0  # the run did not come to the call
    failed: list = field(default_factory=list)  # (fault, what was broken)

    def add(self, other):
        self.tried += other.tried
        self.outcomes += other.outcomes
        self.missed += other.missed
        self.failed += other.failed


known_outcomes = {}  # of stores that were tried to the end and passed


def sign_of(tree):
    """The same for trees that differ in the time of writing only."""
    return hash(tuple(sorted((path, *facts[:3], TIME.sub(b"TIME", facts[3] or b""))
                             for path, facts in tree.items())))


OF_A_RUN = {"tbx", "fault_trace", "date", "systemd-run"}  # the programs of a run


class Bench:
    """A machine on which one case is tried again and again."""

    def __init__(self, binary, case):
        self.case = case
        self.machine = Machine(binary)
        install_tracer(self.machine, binary)
        if case.furnish:
            case.furnish(self.machine)
        self._fresh_store()
        run = run_traced(self.machine, *case.command)
        self.clean_stdout = run.stdout
        self.calls = run.calls

    def close(self):
        self.machine.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _processes(self):
        """The names of the programs that run on the machine."""
        names = set()
        for path in self.machine.path("/proc").iterdir():
            try:
                if path.name.isdigit():
                    names.add((path / "comm").read_text(encoding="ascii").strip())
            except OSError:
                pass  # it has just ended
        return names

    def wait_for_quiet(self):
        """Waits until no process of an ended run is left."""
        wait_for(lambda: not self._processes() & OF_A_RUN, limit_seconds=10)
        for terminal in getattr(self.machine, "fault_terminals", ()):
            terminal.read()

    def _fresh_store(self):
        if self.machine.store.top.exists():
            shutil.rmtree(self.machine.store.top)
        contents = set_up_store(self.machine, self.case)
        self.machine.journal.clear()
        return contents

    def tree(self):
        return self.machine.store.tree() if self.machine.store.top.exists() else {}

    def judge(self, *faults):
        """A fresh store, and the judge of what happens to it."""
        contents = self._fresh_store()
        return Judge(self.case, self.machine, self.tree(), contents, faults)

    def check_syncs(self, run, tree, judge):
        SyncRules(self.machine.state_name, tree,
                  judge.excuses.store_not_synced).check(run.calls)

    def disturbed(self, judge, fault=None):
        """Runs the command, with the fault; checks what it left and told at once."""
        run = run_traced(self.machine, *self.case.command, fault=fault)
        self.wait_for_quiet()
        at_once = self.tree()
        judge.check_always(at_once)
        check_told(judge, run, at_once, journal_records(self.machine), self.clean_stdout)
        self.check_syncs(run, judge.before, judge)
        return run, at_once

    def settle(self, judge, run, at_once, earlier=()):
        """The next command once and twice; returns what became of each message.

        earlier  records of the journal from before the store was put back
        """
        first = run_traced(self.machine, "list")
        require(first.status == 0, f"the next command: {first.result}")
        self.check_syncs(first, at_once, judge)
        settled = self.tree()
        records = [*earlier, *journal_records(self.machine)]
        outcome = judge.settled(settled, run, at_once)
        check_events(judge, run, records)
        check_deliveries_recorded(judge, outcome, records)
        second = self.machine.run("list")
        require(self.tree() == settled and second.stdout == first.stdout,
                f"the command behind the next finds more to do: {second}")
        if not self.case.unreachable:
            require(second.stderr == "", f"the second command: {second}")
        return outcome, settled

    def repeat(self, judge, settled):
        result = self.machine.run(*self.case.command)
        judge.repeated(self.tree(), result, settled)

    def _outcome(self, judge, run, at_once):
        """What becomes of the messages by the next commands.

        The same store, told of in the same way, becomes the same: it is not tried again.
        """
        state = (self.case.name, sign_of(at_once), tuple(journal_records(self.machine)),
                 run.status, judge.excuses.sign)
        if state not in known_outcomes:
            outcome, settled = self.settle(judge, run, at_once)
            self.repeat(judge, settled)
            known_outcomes[state] = outcome
        return known_outcomes[state]

    def try_fault(self, fault=None):
        """One trial; returns its Tally."""
        tally = Tally(tried=1)
        try:
            judge = self.judge(*([fault] if fault else []))
            run, at_once = self.disturbed(judge, fault)
            if fault and not run.met(fault):
                tally.missed = 1
            tally.outcomes[summary(self._outcome(judge, run, at_once))] += 1
        except PROBLEMS as problem:
            tally.failed.append((str(fault), f"{type(problem).__name__}: {problem}"))
        return tally
