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
from trials import PROBLEMS, TIME, Tally

USER = "pat"
ID = 7
COPY = message_file(ID)
ANSWER = re.compile(rb"\d{10} (terminal|desktop)\n")
MARKS = {b"shown\n", b"postponed\n"}
AS_USER = {"program": TELLBOX, "user": USER}
BANNER = "── Tellbox · "
TEMPORARY = re.compile(r"(acks/\.\d+|state/\.\d+\.(term|gui))(\.\d+-\d+)?\.tmp")
OF_MESSAGE = re.compile(r"\w+/\.?(\d+)(\..*)?")


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

    ids = (ID,)  # of the messages

    def __init__(self, binary, case):
        self.case = case
        self._known = {}  # what mailboxes become that were tried to the end and passed
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
        """How often each event was recorded, by message and name."""
        return Counter((int(record["TBX_MESSAGE"]), record.event)
                       for record in self.machine.journal.records())

    def run(self, *command):
        return self.machine.run(*command, **AS_USER)

    def disturbed(self, before, fault):
        """Runs the command, with the fault; returns the Run, and a judge for each message."""
        self.on_screen()
        run = self.run_traced(fault)
        judge = AnswerJudge(before, run, fault)
        judge.check_shown(self.case, self.files(), self.on_screen())
        return run, [judge]

    def try_fault(self, fault=None):
        tally = Tally(tried=1)
        try:
            before = self.fresh()
            run, judges = self.disturbed(before, fault)
            if fault and not run.met(fault):
                tally.missed = 1
            at_once, told = self.files(), self.events()
            self._check_files(at_once)
            for judge in judges:
                judge.check_at_once(at_once, told)
            settled, events = self._settled(at_once, told)
            for judge in judges:
                judge.check_settled(settled, events, at_once, told)
            tally.outcomes[self.outcome(settled)] += 1
        except PROBLEMS as problem:
            tally.failed.append((str(fault), f"{type(problem).__name__}: {problem}"))
        return tally

    def outcome(self, files):
        """What became of the messages, as one text."""
        kinds = {"answered" if f"acks/{number}" in files else "waiting" for number in self.ids}
        return ", ".join(sorted(kinds))

    def _check_files(self, files):
        for path in files:
            own = OF_MESSAGE.fullmatch(path)
            require(path == "state/.prompt" or (own and int(own[1]) in self.ids), f"there is {path}")

    def _settled(self, at_once, told):
        """The files and events that the next commands leave.

        The same mailbox, told of in the same way, becomes the same: it is not tried again.
        """
        state = (tuple(sorted((path, mode, TIME.sub(b"TIME", content))
                              for path, (mode, content) in at_once.items())),
                 tuple(sorted(told.items())))
        if state not in self._known:
            self._known[state] = self._settle()
        return self._known[state]

    def _settle(self):
        """The next command once and twice, then an answer to each message."""
        next_run = self.run("list")
        require(next_run.status == 0 and next_run.stderr == "", f"the next run: {next_run}")
        settled, events = self.files(), self.events()
        self._check_files(settled)
        self.run("list")
        require((self.files(), self.events()) == (settled, events),
                "the run behind the next finds more to do")
        self._repeat(settled)
        return settled, events

    def _repeat(self, settled):
        """Each message can be answered now, and no answer changes."""
        run = self.run("read", *map(str, self.ids))
        require(run.status == 0, f"read once more: {run}")
        files = self.files()
        for number in self.ids:
            require(f"acks/{number}" in files and f"inbox/{number}" not in files, f"{sorted(files)}")
            if f"acks/{number}" in settled:
                require(files[f"acks/{number}"] == settled[f"acks/{number}"],
                        "an answer was changed")
        if all(f"acks/{number}" in settled for number in self.ids):
            require(files == settled, "something was changed behind the answers")


class AnswerJudge:
    """Compares what a run left of one message, and told of it, with what is promised."""

    def __init__(self, before, run, fault, message_id=ID, copy=COPY):
        self._before, self._run, self._fault = before, run, fault
        self._id, self._copy = message_id, copy
        self._answer = f"acks/{message_id}"
        self._inbox, self._read = f"inbox/{message_id}", f"read/{message_id}"
        self._mark = f"state/{message_id}.term"
        self._kills = fault is not None and fault.kills
        self._journal_fails = fault is not None and (
            fault.call.name in ("sendmsg", "sendto", "connect", "socket") or
            "journal" in " ".join(fault.call.paths))

    def check_shape(self, files):
        for path, (mode, content) in files.items():
            if path == self._answer:
                require(ANSWER.fullmatch(content) and mode in (0o644, 0o444), f"{path}: {content!r}")
            elif path in (self._inbox, self._read):
                require(content == self._copy, f"{path}: {content!r}")
            elif path.startswith(f"state/{self._id}."):
                require(content in MARKS and mode == 0o644, f"{path}: {content!r}")
            else:
                require(not path.startswith(f"acks/{self._id}") or TEMPORARY.fullmatch(path),
                        f"there is {path}")
        copies = {self._inbox, self._read} & files.keys()
        require(len(copies) == 1, f"copies: {copies}")

    def is_newly_marked(self, files):
        return self._mark in files and files[self._mark] != self._before.get(self._mark)

    def check_shown(self, case, files, screen):
        """What a terminal saw, what was marked, and when a shell looks again."""
        status = self._run.status
        is_killed = status == KILLED and self._kills
        if not case.is_prompt:
            require(status in (0, 1) or is_killed, f"{self._run.result}")
        if not case.needs_terminal:
            return
        is_shown = BANNER in screen
        require(is_shown or not self.is_newly_marked(files), "marked, and nobody has seen it")
        if is_killed or not case.is_prompt:
            return
        require(1 <= status <= 120 or 193 <= status <= 214, f"{self._run.result}")
        if is_shown and self._mark not in files:
            require(193 <= status <= 213, f"a shell would show it again at once: {status}")
        is_gone = self._fault is not None and self._fault.call.name == "ioctl"
        if not is_shown and self._is_due and not is_gone:  # a terminal that hung up shows nothing
            require(status in (1, 214) or 61 <= status <= 120, f"nothing seen, and {status}")

    @property
    def _is_due(self):
        is_marked = self._mark in self._before and self._before[self._mark][1] == b"shown\n"
        return self._answer not in self._before and not is_marked

    # What the run says of the message.

    def says_confirmed(self):
        return "confirmed" in self._run.stdout and "waiting" not in self._run.stdout

    def says_postponed(self):
        return "postponed:" in self._run.stdout

    def says_it_stays(self):
        return f"message {self._id} could not be confirmed and stays waiting" in self._run.stderr

    def check_diagnostics(self):
        calls = [call for call in self._run.calls if call.path in ("stdout", "stderr")]
        lines = self._run.stderr.splitlines()
        require(not all(call.succeeded for call in calls) or
                all(line.startswith("tellbox: ") for line in lines), self._run.stderr)

    def check_at_once(self, files, events):
        self.check_shape(files)
        self.check_diagnostics()
        recorded = {event: events[self._id, event]
                    for event in ("CONFIRMED", "CONFIRMATION_FAILED", "POSTPONED")}
        has_answer = self._answer in files
        if self._answer in self._before:
            require(files[self._answer][1] == self._before[self._answer][1], "it was replaced")
        if self.says_confirmed():
            require(has_answer, f"told {self._run.stdout!r}")
        if self.says_it_stays():
            require(not has_answer, f"told {self._run.stderr!r}")
            require(recorded["CONFIRMATION_FAILED"] == 1 or self._journal_fails, f"{recorded}")
        require(recorded["CONFIRMED"] <= 1, f"{recorded}")
        require(has_answer or recorded["CONFIRMED"] == 0, "recorded without an answer")
        if self.says_postponed():
            require(files[self._mark][1] == b"postponed\n", "told that it is postponed")
            require(recorded["POSTPONED"] == 1 or self._journal_fails, f"{recorded}")

    def check_settled(self, files, events, at_once, told):
        self.check_shape(files)
        require(not any(TEMPORARY.fullmatch(path) for path in files), f"left: {sorted(files)}")
        confirmed = events[self._id, "CONFIRMED"]
        has_answer = self._answer in files
        require(has_answer == (self._answer in at_once), "the next run made or lost an answer")
        if not has_answer:
            require(self._inbox in files and confirmed == 0, f"{sorted(files)}, {events}")
            return
        require(self._read in files, "the answered message is in the inbox still")
        if self._read in self._before:
            require(confirmed == 0, f"{events}")
        elif told[self._id, "CONFIRMED"] == 1 and self._kills and self._inbox in at_once:
            require(confirmed in (1, 2), f"{events}")
        else:
            require(confirmed == 1 or (confirmed == 0 and self._journal_fails), f"{events}")


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
    files = bench.files()
    events = Counter(event for event, *_ in bench.machine.journal.events())
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
