"""The recipients' program under faults: answers and marks, whatever goes wrong.

Each trial begins with a mailbox that is written anew and runs one command of the user under the
tracer. What it left and told is compared with the rules at once, behind the next command, and
once the command was repeated.
"""

import os
import pty
import re
import shutil
import time
from collections import Counter
from collections.abc import Callable
from dataclasses import dataclass

from harness.machine import Machine
from harness.store import message_file, tree
from harness.user_program import PROGRAM, TELLBOX, deliver, install_user_program
from rules import require
from tracing import KILLED, LOG, StoppedRun, install_tracer, run_traced
from trials import PROBLEMS, Tally

USER = "pat"
ID = 7
COPY = message_file(ID)
ANSWER = re.compile(rb"\d{10} (terminal|desktop)\n")
MARKS = {b"shown\n", b"postponed\n"}
AS_USER = {"program": TELLBOX, "user": USER}
BANNER = "── Tellbox · "
TEMPORARY = re.compile(r"(acks/\.7|state/\.7\.(term|gui))(\.\d+-\d+)?\.tmp")


# ---- Mailboxes ----------------------------------------------------------------------------

def waiting(machine):
    deliver(machine, ID)


def waiting_without_folders(machine):
    waiting(machine)
    for folder in ("acks", "read", "state"):
        machine.store.mailbox(USER, folder).rmdir()


def answered(machine):
    machine.store.make_mailbox(USER)
    machine.store.confirm(USER, ID, 1790000000, "desktop")
    machine.store.write_as(USER, ("read", ID), COPY)


def left_by_a_kill(machine):
    waiting(machine)
    machine.store.confirm(USER, ID, 1790000000, "desktop")
    machine.store.write_as(USER, ("acks", f".{ID}.tmp"), b"17")


def shown_lately(machine):
    waiting(machine)
    machine.store.write_as(USER, ("state", f"{ID}.term"), b"shown\n")


def shown_long_ago(machine):
    waiting(machine)
    path = machine.store.write_as(USER, ("state", f"{ID}.term"), b"postponed\n")
    os.utime(path, (1790000000, time.time() + 5000))  # from the future: as if it were not there
    machine.store.write_as(USER, ("state", f".{ID}.term.tmp"), b"sho")


@dataclass(frozen=True)
class AnswerCase:
    """One command of the user on one mailbox."""

    command: tuple
    furnish: Callable

    @property
    def is_prompt(self):
        """Whether a shell's hook runs it, which reads its exit status."""
        return self.command[0] == "prompt"

    @property
    def needs_terminal(self):
        return self.command[0] in ("prompt", "show")

    def __str__(self):
        return f"{' '.join(self.command)}, {self.furnish.__name__.replace('_', ' ')}"


EVERY_DAY = [AnswerCase(*case) for case in (
    (("read", "7"), waiting), (("read", "7"), waiting_without_folders), (("read", "7"), answered),
    (("read", "7"), left_by_a_kill), (("read", "7"), shown_lately), (("read",), shown_lately),
    (("later", "7"), waiting), (("later", "7"), shown_lately), (("later", "7"), shown_long_ago),
    (("later", "7"), waiting_without_folders),
    (("read",), waiting), (("read",), shown_long_ago), (("list",), left_by_a_kill),
    (("show", "7"), waiting), (("prompt", USER, "0"), waiting),
    (("prompt", USER, "0"), left_by_a_kill), (("prompt", USER, "0"), shown_lately))]
CASES = EVERY_DAY + [AnswerCase(*case) for case in (
    (("prompt", USER, "0"), waiting_without_folders), (("prompt", USER, "0"), shown_long_ago),
    (("show", "7"), shown_long_ago), (("read",), left_by_a_kill), (("later",), shown_lately))]


# ---- The bench ----------------------------------------------------------------------------

class AnswerBench:
    """A machine on which one case is tried again and again."""

    def __init__(self, binary, case):
        self.case = case
        self.machine = Machine(binary)
        install_tracer(self.machine, binary)
        install_user_program(self.machine, binary.parent)
        self.prepare()
        for log in (LOG, f"{LOG}.stopped"):
            self.machine.path(log).touch()
            self.machine.path(log).chmod(0o666)
        self._master, self._slave = pty.openpty()
        os.set_blocking(self._master, False)
        self.fresh()
        self.calls = self.run_traced().calls

    def prepare(self):
        """What else the machine needs."""

    def run_traced(self, fault=None):
        return run_traced(self.machine, *self.case.command, fault=fault, **self.options())

    def close(self):
        os.close(self._master)
        os.close(self._slave)
        self.machine.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def options(self):
        """How the case's command is run."""
        if not self.case.needs_terminal:
            return AS_USER
        program = PROGRAM if self.case.is_prompt else TELLBOX
        return {**AS_USER, "program": program, "stdout": self._slave, "env": {"TERM": "xterm"}}

    def on_screen(self):
        """What came to the terminal since the last call."""
        text = b""
        try:
            while chunk := os.read(self._master, 65536):
                text += chunk
        except BlockingIOError:
            pass  # that is all
        return text.decode("utf-8", "replace")

    def fresh(self):
        """The mailbox anew; what it began with."""
        shutil.rmtree(self.machine.store.top, ignore_errors=True)
        self.machine.store.create()
        self.case.furnish(self.machine)
        self.machine.journal.clear()
        return self.files()

    def files(self):
        """Path to (mode, content) of the mailbox's files."""
        return {path: (facts[0] & 0o7777, facts[3])
                for path, facts in tree(self.machine.store.mailbox(USER)).items()
                if facts[3] is not None}

    def events(self):
        return Counter(event for event, *_ in self.machine.journal.events())

    def run(self, *command):
        return self.machine.run(*command, **AS_USER)

    def try_fault(self, fault=None):
        tally = Tally(tried=1)
        try:
            before = self.fresh()
            self.on_screen()
            run = self.run_traced(fault)
            judge = AnswerJudge(before, run, fault)
            judge.check_shown(self.case, self.files(), self.on_screen())
            if fault and not run.met(fault):
                tally.missed = 1
            at_once, told = self.files(), self.events()
            judge.check_at_once(at_once, told)
            next_run = self.run("list")
            require(next_run.status == 0 and next_run.stderr == "", f"the next run: {next_run}")
            settled, events = self.files(), self.events()
            judge.check_settled(settled, events, at_once, told)
            self.run("list")
            require((self.files(), self.events()) == (settled, events),
                    "the run behind the next finds more to do")
            self._repeat(settled)
            tally.outcomes["answered" if f"acks/{ID}" in settled else "waiting"] += 1
        except PROBLEMS as problem:
            tally.failed.append((str(fault), f"{type(problem).__name__}: {problem}"))
        return tally

    def _repeat(self, settled):
        """The command again does what it says."""
        run = self.run("read", str(ID))
        require(run.status == 0, f"read once more: {run}")
        files = self.files()
        require(f"acks/{ID}" in files and f"inbox/{ID}" not in files, f"{sorted(files)}")
        if f"acks/{ID}" in settled:
            require(files == settled, "an answer was changed")


class AnswerJudge:
    """Compares what a run left and told with what is promised."""

    def __init__(self, before, run, fault):
        self._before, self._run, self._fault = before, run, fault
        self._kills = fault is not None and fault.kills
        self._journal_fails = fault is not None and (
            fault.call.name in ("sendmsg", "sendto", "connect", "socket") or
            "journal" in " ".join(fault.call.paths))

    def check_shape(self, files):
        for path, (mode, content) in files.items():
            if path == f"acks/{ID}":
                require(ANSWER.fullmatch(content) and mode in (0o644, 0o444), f"{path}: {content!r}")
            elif path in (f"inbox/{ID}", f"read/{ID}"):
                require(content == COPY, f"{path}: {content!r}")
            elif path.startswith("state/7."):
                require(content in MARKS and mode == 0o644, f"{path}: {content!r}")
            else:
                require(TEMPORARY.fullmatch(path) or path == "state/.prompt", f"there is {path}")
        copies = {f"inbox/{ID}", f"read/{ID}"} & files.keys()
        require(len(copies) == 1, f"copies: {copies}")

    def check_shown(self, case, files, screen):
        """What a terminal saw, what was marked, and when a shell looks again."""
        status = self._run.status
        is_killed = status == KILLED and self._kills
        if not case.is_prompt:
            require(status in (0, 1) or is_killed, f"{self._run.result}")
        if not case.needs_terminal:
            return
        name = f"state/{ID}.term"
        is_shown = BANNER in screen
        is_new = name in files and files[name] != self._before.get(name)
        require(is_shown or not is_new, "marked, and nobody has seen it")
        if is_killed or not case.is_prompt:
            return
        require(1 <= status <= 120 or 193 <= status <= 214, f"{self._run.result}")
        if is_shown and name not in files:
            require(193 <= status <= 213, f"a shell would show it again at once: {status}")
        if not is_shown and self._is_due:
            require(status in (1, 214) or 61 <= status <= 120, f"nothing seen, and {status}")

    @property
    def _is_due(self):
        name = f"state/{ID}.term"
        is_marked = name in self._before and self._before[name][1] == b"shown\n"
        return f"acks/{ID}" not in self._before and not is_marked

    def check_at_once(self, files, events):
        run = self._run
        self.check_shape(files)
        lines = run.stderr.splitlines()
        whole = all(call.succeeded for call in run.calls if call.path in ("stdout", "stderr"))
        require(not whole or all(line.startswith("tellbox: ") for line in lines), run.stderr)
        has_answer = f"acks/{ID}" in files
        if f"acks/{ID}" in self._before:
            require(files[f"acks/{ID}"][1] == self._before[f"acks/{ID}"][1], "it was replaced")
        if "confirmed" in run.stdout and "waiting" not in run.stdout:
            require(has_answer, f"told {run.stdout!r}")
        if "stays waiting" in run.stderr:
            require(not has_answer, f"told {run.stderr!r}")
            require(events["CONFIRMATION_FAILED"] == 1 or self._journal_fails, f"{events}")
        require(events["CONFIRMED"] <= 1, f"{events}")
        require(has_answer or events["CONFIRMED"] == 0, "recorded without an answer")
        if "postponed:" in run.stdout:
            require(files[f"state/{ID}.term"][1] == b"postponed\n", "told that it is postponed")
            require(events["POSTPONED"] == 1 or self._journal_fails, f"{events}")

    def check_settled(self, files, events, at_once, told):
        self.check_shape(files)
        require(not any(TEMPORARY.fullmatch(path) for path in files), f"left: {sorted(files)}")
        has_answer = f"acks/{ID}" in files
        require(has_answer == (f"acks/{ID}" in at_once), "the next run made or lost an answer")
        if not has_answer:
            require(f"inbox/{ID}" in files and events["CONFIRMED"] == 0, f"{sorted(files)}")
            return
        require(f"read/{ID}" in files, "the answered message is in the inbox still")
        if f"read/{ID}" in self._before:
            require(events["CONFIRMED"] == 0, f"{events}")
        elif told["CONFIRMED"] == 1 and self._kills and f"inbox/{ID}" in at_once:
            require(events["CONFIRMED"] in (1, 2), f"{events}")
        else:
            require(events["CONFIRMED"] == 1 or (events["CONFIRMED"] == 0 and self._journal_fails),
                    f"{events}")


# ---- Two at once --------------------------------------------------------------------------

OTHERS = {"read": ("read", "7"), "later": ("later", "7"),
          "revoke": ("revoke", "7"), "remind": ("remind", "7"), "purge": ("purge", "1d"),
          "recovery": ("list",)}
OF_USER = ("read", "later")
FIRST = {"read": AnswerCase(("read", "7"), waiting), "later": AnswerCase(("later", "7"), waiting),
         "tidying": AnswerCase(("list",), left_by_a_kill),
         "prompt": AnswerCase(("prompt", USER, "0"), waiting)}


def stops(calls):
    """The calls before which the first command stands still."""
    return [call for call in calls if call.succeeded and (call.changes or call.name == "flock")]


def make_sent(machine, second):
    """The administrator's side of the message, as far as the second command needs it."""
    is_sending = second == "recovery"
    machine.store.make_message(ID, to=(USER,), markers=("incomplete",) if is_sending else (),
                               delivered=() if is_sending else ((USER, 1790000000, 0),))


def run_second(bench, second):
    """Runs the second command to its end, as its own user; returns its Result."""
    if second in OF_USER:
        return bench.run(*OTHERS[second])
    result = bench.machine.run(*OTHERS[second])
    may_fail = second == "remind"  # of a mailbox without the message's recipient: all confirmed
    require(result.status == 0 or may_fail, f"{second}: {result}")
    return None


def try_together(bench, second, call):
    """The first stands still before the call while the second runs to its end."""
    tally = Tally(tried=1)
    try:
        before = bench.fresh()
        make_sent(bench.machine, second)
        stopped = StoppedRun(bench.machine, call, *bench.case.command, **bench.options())
        if not stopped.has_stopped:
            tally.missed = 1
            return tally
        other = run_second(bench, second)
        first = stopped.go_on()
        runs = [run for run in (None if bench.case.is_prompt else first.result, other) if run]
        check_together(bench, before, second, runs)
        tally.outcomes["done"] += 1
    except PROBLEMS as problem:
        tally.failed.append((f"{bench.case}, stopped before {call}, meanwhile {second}",
                             f"{type(problem).__name__}: {problem}"))
    return tally


def check_together(bench, before, second, runs):
    for run in runs:
        require(run.status in (0, 1), f"{run}")
        require(all(line.startswith("tellbox: ") for line in run.stderr.splitlines()), f"{run}")
    require(bench.run("list").status == 0, "the next run")
    files, events = bench.files(), bench.events()
    confirmed = sum("Message 7 confirmed." in run.stdout for run in runs)
    postponed = sum("Message 7 postponed" in run.stdout for run in runs)
    require(events["POSTPONED"] == postponed, f"{events}: {runs}")
    new = 0 if f"acks/{ID}" in before and f"inbox/{ID}" not in before else 1
    require(events["CONFIRMED"] <= new, f"{events}: {runs}")
    if second != "purge":
        status = bench.machine.run("status", str(ID)).stdout
        require(("confirmed on" in status) == (f"acks/{ID}" in files), status)
    if second in ("revoke", "purge"):
        require(f"inbox/{ID}" not in files, f"withdrawn, and there is {sorted(files)}")
        require(events["CONFIRMED"] >= confirmed, f"{events}: {runs}")
        has_answer = f"acks/{ID}" in files
        require(not has_answer or events["CONFIRMED"] == 1, f"{events}: {sorted(files)}")
        return
    require(confirmed <= 1, f"confirmed twice: {runs}")
    if confirmed or f"acks/{ID}" in before:
        require(f"read/{ID}" in files and f"acks/{ID}" in files, f"{sorted(files)}")
        require(events["CONFIRMED"] == 1, f"{events}: {runs}")
        require(ANSWER.fullmatch(files[f"acks/{ID}"][1]), "the answer is not whole")
    else:
        require(f"inbox/{ID}" in files and f"acks/{ID}" not in files, f"{sorted(files)}")
    require(not any(TEMPORARY.fullmatch(path) for path in files), f"left: {sorted(files)}")
