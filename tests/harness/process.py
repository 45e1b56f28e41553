"""Programs that run on a machine: their results, and what a test uses to steer them."""

import os
import re
import subprocess
from dataclasses import dataclass

from .waiting import wait_for


@dataclass
class Result:
    """How a program ended: its two outputs as text, and its exit status.

    The status is negative when a signal ended the program.
    """

    stdout: str
    stderr: str
    status: int

    def __iter__(self):
        return iter((self.stdout, self.stderr, self.status))


class Process:
    """A program that has been started."""

    def __init__(self, machine, child, data):
        self._machine, self._child, self._data = machine, child, data

    def wait(self, timeout=60):
        """Waits for its end and returns the Result."""
        try:
            out, errors = self._child.communicate(
                self._data if self._child.stdin is not None else None, timeout=timeout)
        except subprocess.TimeoutExpired:
            self._machine.kill()
            out, errors = self._child.communicate()
            raise AssertionError(f"still running after {timeout} s: {out!r} {errors!r}") from None
        texts = [(data or b"").decode("utf-8", "surrogateescape") for data in (out, errors)]
        return Result(*texts, self._child.returncode)

    def reap(self):
        """Releases what is left of it once its machine is gone."""
        self._child.wait()
        for pipe in (self._child.stdin, self._child.stdout, self._child.stderr):
            if pipe is not None and not pipe.closed:
                try:
                    pipe.close()
                except BrokenPipeError:
                    pass  # input that nobody took

    def is_running(self):
        return self._child.poll() is None

    def pid(self):
        """The process ID of the program itself, as this process sees it."""
        return int(wait_for(self._children)[0])

    def system_call(self):
        """The number of the system call that the program waits in; None while it waits in none."""
        try:
            with open(f"/proc/{self._children()[0]}/syscall", encoding="ascii") as call:
                number = call.read().split()[0]
        except (OSError, IndexError):
            return None  # it has just begun or ended
        return int(number) if number.isdigit() else None

    def _children(self):
        with open(f"/proc/{self._child.pid}/task/{self._child.pid}/children",
                  encoding="ascii") as children:
            return children.read().split()

    def send_signal(self, number):
        os.kill(self.pid(), number)


class StandIn:
    """A program put first on the search path in place of the real one."""

    def __init__(self, machine, folder, name, body):
        self._machine = machine
        self._log = machine.path(f"{folder}/calls/{name}")
        log = f"{folder}/calls/{name}"
        machine.write(f"{folder}/{name}",
                      "#!/bin/sh\n"
                      f"printf '%s\\0' $# \"$@\" >> {log}\n"
                      f"{body}\n", 0o755)

    def calls(self):
        """The arguments of each call so far."""
        if not self._log.exists():
            return []
        words = self._log.read_text(encoding="utf-8", errors="surrogateescape").split("\0")[:-1]
        calls = []
        while words:
            count = int(words.pop(0))
            calls.append(words[:count])
            del words[:count]
        return calls


class Gate:
    """Where a stand-in waits: its body ends with `gate.body`."""

    def __init__(self, machine, name):
        self._reached = machine.path(f"/run/gates/{name}.reached")
        self._opened = machine.path(f"/run/gates/{name}.opened")
        for fifo in (self._reached, self._opened):
            os.mkfifo(fifo)
            os.chmod(fifo, 0o666)
        place = f"/run/gates/{name}"
        self.body = f"echo > {place}.reached; read line < {place}.opened"

    def wait(self):
        """Waits until somebody stands at the gate."""
        with open(self._reached, "rb") as fifo:
            fifo.read()

    def open(self):
        """Lets the one who waits through."""
        with open(self._opened, "wb") as fifo:
            fifo.write(b"\n")


class Trace:
    """What strace saw: `calls` holds (name, arguments, outcome) in order, all processes.

    `pids` holds the process of each call, `parent` the first process.
    """

    LINE = re.compile(r"^(\d+) +(\w+)\((.*)\) += (.*)$")
    UNFINISHED = re.compile(r"^(\d+) +(\w+)\((.*) <unfinished \.\.\.>$")
    RESUMED = re.compile(r"^(\d+) +<\.\.\. (\w+) resumed>(.*)\) += (.*)$")

    def __init__(self, result, text, wanted):
        self.result = result
        self.text = text
        self.parent = int(text.split(maxsplit=1)[0])
        self.calls, self.pids = [], []
        self._with_execve = "execve" in wanted
        pending = {}
        for line in text.split("\n"):
            if match := self.UNFINISHED.match(line):
                pending[match[1]] = match[3]
            elif match := self.RESUMED.match(line):
                self._add(match[1], match[2], pending.pop(match[1], "") + match[3], match[4])
            elif match := self.LINE.match(line):
                self._add(*match.groups())

    def _add(self, pid, name, arguments, outcome):
        if name == "execve" and not self._with_execve:
            return
        self.pids.append(int(pid))
        self.calls.append((name, arguments, outcome))

    def of_children(self):
        """The calls of every process but the first, in order."""
        return [call for pid, call in zip(self.pids, self.calls) if pid != self.parent]

    def of_parent(self):
        """The calls of the first process, in order."""
        return [call for pid, call in zip(self.pids, self.calls) if pid == self.parent]

    def named(self, *names):
        return [call for call in self.calls if call[0] in names]
