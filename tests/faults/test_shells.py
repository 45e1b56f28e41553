"""`tellbox-user shells on|off`, the only command of the recipients' side that root runs: killed and
refused at every call."""

import os
import stat

import pytest
from harness.machine import Machine
from harness.user_program import PROGRAM, install_user_program
from rules import require
from short_form import chosen_failures
from tracing import install_tracer, run_traced
from trials import PROBLEMS, Tally, kills

FILES = {"bash": "/etc/bash.bashrc", "zsh": "/etc/zsh/zshrc"}
TEXTS = {"bash": "# the system's own\nalias l=ls", "zsh": "# of zsh\n"}
BEGIN = "# >>> tellbox >>>\n"


class ShellsBench:
    """A machine on which one word is tried again and again.

    word  on, for files without the hook, or off, for files with it
    """

    def __init__(self, binary, word):
        self._machine, self._word = Machine(binary), word
        install_tracer(self._machine, binary)
        install_user_program(self._machine, binary.parent)
        self._machine.path("/etc/zsh").mkdir()
        self._fresh()
        run = self._switch()
        require(run.status == 0, f"{run.result}")
        self.calls, self._after = run.calls, self._facts()
        self._before = self._fresh()
        require(self._before != self._after, "nothing was changed")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._machine.close()

    def _switch(self, fault=None, word=None):
        return run_traced(self._machine, "shells", word or self._word, program=PROGRAM, fault=fault)

    def _fresh(self):
        for name, path in FILES.items():
            self._machine.path(path).unlink(missing_ok=True)
            self._machine.write(path, TEXTS[name], 0o640)
            os.chown(self._machine.path(path), 7, 8)
        for left in self._left():
            left.unlink()
        if self._word == "off":
            require(self._switch(word="on").status == 0, "on")
        return self._facts()

    def _left(self):
        """Temporary files beside those of the shells."""
        return [found for path in FILES.values()
                for found in self._machine.path(path).parent.glob(".*.tellbox")]

    def _facts(self):
        """Shell to what its file is."""
        facts = {}
        for name, place in FILES.items():
            path = self._machine.path(place)
            status = path.lstat()
            facts[name] = (stat.S_IFMT(status.st_mode), stat.S_IMODE(status.st_mode), status.st_uid,
                           status.st_gid, path.read_text(encoding="utf-8"))
        return facts

    def try_fault(self, fault):
        tally = Tally(tried=1)
        try:
            self._fresh()
            run = self._switch(fault)
            tally.missed = 0 if run.met(fault) else 1
            self._check(run, fault)
            self._check_next()
        except PROBLEMS as problem:
            tally.failed.append((str(fault), f"{type(problem).__name__}: {problem}"))
        return tally

    def _check(self, run, fault):
        """Each file is whole, as it was or as it is wanted, and what is said of it is true."""
        facts = self._facts()
        for name in FILES:
            require(facts[name] in (self._before[name], self._after[name]), f"{name}: {facts[name]}")
            if f"{name}: now {self._word}" in run.stdout:
                require(facts[name] == self._after[name], f"{name} is told wrongly: {run.result}")
        if fault.kills:
            return
        require(run.status in (0, 1), f"{run.result}")
        if run.status == 0:
            require(facts == self._after, f"success is told: {run.result}")
        else:
            require(all(line.startswith("tellbox: ") for line in run.stderr.splitlines()),
                    run.stderr)
        require(not self._left() or fault.call.name == "unlink", f"{self._left()}")

    def _check_next(self):
        run = self._switch()
        require(run.status == 0 and run.stderr == "", f"the next run: {run.result}")
        require(self._facts() == self._after, "the next run leaves something else")
        changed = [path for path in self._left() if path.exists()]
        require(not changed or "already" in run.stdout, f"{changed}")


@pytest.fixture(params=["on", "off"])
def bench(binary, request):
    with ShellsBench(binary, request.param) as made:
        yield made


def test_the_files_of_the_shells_are_whole_wherever_the_command_is_killed(bench):
    tally = Tally()
    for fault in kills(bench.calls):
        tally.add(bench.try_fault(fault))
    assert (tally.failed, tally.missed) == ([], 0)
    assert tally.tried > 5


def test_the_files_of_the_shells_are_whole_whichever_call_fails(bench):
    tally = Tally()
    for fault in chosen_failures(bench.calls, set()):
        tally.add(bench.try_fault(fault))
    assert tally.failed == []
    assert tally.tried > 20
