"""Runs of tbx that are stopped, killed or refused at one of their system calls, by strace.

    stopped = Stopped(machine, Call("renameat2", "revoked.tmp"), "revoke", "7")
    ...                                # it stands right behind that call
    stopped.go_on().wait()
"""

import itertools
import re
from dataclasses import dataclass

from .waiting import wait_for

_numbers = itertools.count(1)


@dataclass(frozen=True)
class Call:
    """The `when`-th call `name` of a process, of those on `path` if one is given."""

    name: str
    path: str | None = None
    when: int = 1

    def options(self, signal):
        chosen = ["-P", self.path] if self.path else []
        return [*chosen, "-e", f"trace={self.name}",
                "-e", f"inject={self.name}:signal={signal}:when={self.when}"]


def strace(log, *options):
    return ["strace", "-f", "-qq", "-y", "-s", "200", "-o", log, *options]


def without_leak_check(machine):
    """Leak checking needs ptrace for itself."""
    return {"ASAN_OPTIONS": machine.env.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}


def run_failing(machine, call, error, *arguments):
    """Runs tbx; every call of this name on this path fails with the error."""
    options = ["-P", call.path, "-e", f"trace={call.name}",
               "-e", f"inject={call.name}:error={error}"]
    return machine.run(*arguments, wrap=strace("/dev/null", *options),
                       env=without_leak_check(machine))


class Stopped:
    """A run that stands still right behind one of its calls until `go_on`.

    also    further options of strace, such as another call to fail
    """

    def __init__(self, machine, call, *arguments, also=()):
        log = f"/run/stopped.{next(_numbers)}"
        self._machine, self._log = machine, machine.path(log)
        self._process = machine.start(
            *arguments, wrap=strace(log, "-e", "signal=SIGSTOP", *call.options("STOP"), *also),
            env=without_leak_check(machine))
        self._pid = wait_for(self._stopped_process)

    def _stopped_process(self):
        if not self._log.exists():
            return None
        text = self._log.read_text(encoding="utf-8", errors="surrogateescape")
        found = re.search(r"^(\d+) +--- stopped by SIGSTOP ---$", text, re.MULTILINE)
        assert found or self._process.is_running(), f"it was never stopped:\n{text}"
        return found and found[1]

    def go_on(self):
        """Lets it continue and returns the Process."""
        self._machine.shell(f"kill -CONT {self._pid}")
        return self._process

    def kill(self):
        """Kills the program itself, which strace ends with."""
        self._machine.shell(f"kill -KILL {self._pid}")
        return self._process
