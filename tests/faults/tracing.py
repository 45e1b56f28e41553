"""Runs of tbx under the tracer (trace.cpp): what they called, and what went wrong on purpose."""

import errno
import os
import re
import select
import shutil
from dataclasses import dataclass
from pathlib import Path

from harness.waiting import wait_for

TRACER = "/run/fault_trace"
LOG = "/run/fault_log"
KILLED = 128 + 9
FLOCK = 73  # the number of the system call

# Calls that change a file, a process or what somebody is told.
CHANGING = {"mkdir", "write", "writev", "pwrite64", "fsync", "fdatasync", "syncfs", "rename",
            "unlink", "unlinkat", "rmdir", "chown", "lchown", "fchown", "chmod", "fchmod",
            "ftruncate", "link", "symlink", "utimensat", "kill", "fork", "execve", "sendmsg", "sendto"}


@dataclass(frozen=True)
class Call:
    """One system call of a run: process 0 is the program, 1 its first child and so on."""

    process: int
    name: str
    occurrence: int
    outcome: int | None  # None: killed before
    flags: str
    paths: tuple

    @property
    def path(self):
        return self.paths[0]

    @property
    def creates(self):
        return self.flags == "create"

    @property
    def changes(self):
        """Whether it changes something, as far as it succeeds."""
        return self.name in CHANGING or self.flags in ("create", "truncate")

    @property
    def succeeded(self):
        return self.outcome is not None and self.outcome >= 0

    def __str__(self):
        flags = "" if self.flags == "-" else f" ({self.flags})"
        return f"{self.process}/{self.name}/{self.occurrence}{flags} {' '.join(self.paths)}"


@dataclass(frozen=True)
class Fault:
    """What goes wrong at a call; `how` is an action of the tracer."""

    call: Call
    how: str
    error: int = 0

    @property
    def point(self):
        return f"{self.call.process}/{self.call.name}/{self.call.occurrence}"

    @property
    def action(self):
        return f"{self.how}={self.error}" if self.error else self.how

    @property
    def kills(self):
        return self.how in ("kill", "tear")

    @property
    def error_name(self):
        return errno.errorcode[self.error] if self.error else ""

    def is_at(self, pattern):
        """Whether one of the call's files is what the pattern says, to its end."""
        return any(re.search(f"(?:{pattern})$", path) for path in self.call.paths)

    def __str__(self):
        return f"{self.how} {self.error_name} at {self.call}".replace("  ", " ")


def parse_log(text):
    calls = []
    for line in text.splitlines():
        process, name, occurrence, outcome, flags, *paths = line.split("\t")
        calls.append(Call(int(process), name, int(occurrence),
                          None if outcome == "killed" else int(outcome), flags, tuple(paths)))
    return calls


class Run:
    """A finished run: its Result and its calls in order."""

    def __init__(self, result, calls):
        self.result, self.calls = result, calls
        self.stdout, self.stderr, self.status = result

    def met(self, fault):
        """Whether the run came to the fault's call."""
        key = (fault.call.process, fault.call.name, fault.call.occurrence)
        return any((call.process, call.name, call.occurrence) == key for call in self.calls)


def built_tracer(binary):
    """The tracer that is built beside the program."""
    return Path(binary).parent / "tests" / "faults" / "fault_trace"


def install_tracer(machine, binary):
    shutil.copy(built_tracer(binary), machine.path(TRACER))


def wrapper(fault=None, log=LOG, hurries=False):
    """The tracer's command line; `hurries` lets the program's monotonic clock run away."""
    point = [fault.point, fault.action] if fault else []
    return [TRACER, *(["--hurry"] if hurries else []), log, *point, "--"]


def read_log(machine, log=LOG):
    return parse_log(machine.path(log).read_text(encoding="utf-8", errors="surrogateescape"))


def run_traced(machine, *command, fault=None, hurries=False, **options):
    """Runs tbx, with the fault if one is given; returns the Run."""
    result = machine.run(*command, wrap=wrapper(fault, hurries=hurries), **options)
    return Run(result, read_log(machine))


class StoppedRun:
    """A run that stands still before one of its calls, until `go_on`.

    meanwhile  is called again and again until the run has stopped or ended; such a run writes little
    """

    def __init__(self, machine, call, *command, hurries=False, meanwhile=None, **options):
        place = "/run/gates/stop"
        self._machine, self._meanwhile = machine, meanwhile
        ends = []
        for name in ("reached", "opened"):
            fifo = machine.path(f"{place}.{name}")
            if not fifo.exists():
                os.mkfifo(fifo)
                fifo.chmod(0o666)  # the run may be a user's
            ends.append(os.open(fifo, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC))
        self._reached, self._opened = ends
        wrap = wrapper(Fault(call, f"stop={place}"), f"{LOG}.stopped", hurries)
        self._process = machine.start(*command, wrap=wrap, **options)
        self.has_stopped = wait_for(self._stopped_or_ended) == "stopped"

    def _stopped_or_ended(self):
        if self._meanwhile:
            self._meanwhile()
        if select.select([self._reached], [], [], 0.001)[0]:
            os.read(self._reached, 1)
            return "stopped"
        return not self._process.is_running() and "ended"

    def send_signal(self, number):
        """To the program, which gets it when it goes on."""
        tracer = self._process.pid()
        children = Path(f"/proc/{tracer}/task/{tracer}/children").read_text(encoding="ascii")
        os.kill(int(children.split()[0]), number)

    def go_on(self):
        """Lets it continue to its end; returns the Run."""
        os.write(self._opened, b"\n")
        while self._meanwhile and self._process.is_running():
            self._meanwhile()
        result = self._process.wait()
        for end in (self._reached, self._opened):
            os.close(end)
        return Run(result, read_log(self._machine, f"{LOG}.stopped"))


def is_waiting_for_lock(process):
    """Whether the program that was started stands in flock()."""
    return process.system_call() == FLOCK
