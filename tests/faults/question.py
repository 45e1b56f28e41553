"""`tellbox` alone on a terminal under faults: somebody reads the question about each waiting
message and answers it with a key, while the program is killed, refused or held up.

The tracer lets the program's clock run away, so that a key counts as soon as the question stands on
the screen. That keys before it are dropped is tested with the real clock, in tests/user.
"""

import errno
import os
import pty
import re
import select
import signal
import termios
import time
from collections.abc import Callable
from dataclasses import dataclass

from answers import (
    AS_USER,
    ID,
    OTHERS,
    USER,
    AnswerBench,
    AnswerJudge,
    check_together,
    make_sent,
    run_second,
    stops,
)
from harness.clock import now, wait_until_after
from harness.process import Result
from harness.store import message_file
from harness.user_program import deliver
from harness.waiting import PATIENCE_SECONDS
from rules import require
from tracing import KILLED, LOG, Run, StoppedRun, read_log, wrapper
from trials import PROBLEMS, TERMINAL, Tally

QUESTION = b"I have read it [r]   Later [l]   Quit [q]"
TEXT = re.compile(rb"This is message (\d+)\.")
QUIT = "q"
END_OF_INPUT = b"\x04"
END_MARK = b"\x07"
AT_LINE_START = re.compile(rb"(^|\n)[rlq]*\Z")  # a key that came too late is echoed there
REACTION_SECONDS = 0.5  # a person who sees nothing happen for so long presses a key again
LOOK_SECONDS = 0.005
OTHER_LOG = f"{LOG}.other"


def text_of(number):
    return f"This is message {number}.\n"


def long_text_of(number):
    return text_of(number) + "".join(f"line {line}\n" for line in range(60))


# ---- Mailboxes ----------------------------------------------------------------------------

def three_waiting(machine):
    for number in (7, 8, 9):
        deliver(machine, number, text_of(number))


def two_waiting(machine):
    for number in (7, 8):
        deliver(machine, number, text_of(number))


def one_waiting(machine):
    deliver(machine, ID, text_of(ID))


def one_without_folders(machine):
    one_waiting(machine)
    for folder in ("acks", "read", "state"):
        machine.store.mailbox(USER, folder).rmdir()


def one_behind_a_killed_answer(machine):
    one_waiting(machine)
    deliver(machine, 8, text_of(8))
    machine.store.confirm(USER, ID, 1790000000, "desktop")
    machine.store.write_as(USER, ("acks", f".{ID}.tmp"), b"17")


def one_postponed_long_ago(machine):
    one_waiting(machine)
    path = machine.store.write_as(USER, ("state", f"{ID}.term"), b"postponed\n")
    os.utime(path, (1790000000, 1790000000))


def a_long_one(machine):
    deliver(machine, ID, long_text_of(ID))


def one_that_expires(machine):
    deliver(machine, ID, text_of(ID), expires=now() + 2)


@dataclass(frozen=True)
class QuestionCase:
    """Who presses which keys, one at each question, and what waits."""

    keys: str
    furnish: Callable
    ids: tuple = (ID,)
    text: Callable = text_of
    command: tuple = ()
    is_prompt: bool = False

    def __str__(self):
        return f"{' '.join(self.keys)} at the question, {self.furnish.__name__.replace('_', ' ')}"


TWO = QuestionCase("rl", two_waiting, (7, 8))
THREE = QuestionCase("rlq", three_waiting, (7, 8, 9))
QUITTING = QuestionCase("q", one_waiting)
LONG = QuestionCase("r", a_long_one, text=long_text_of)
CASES = [THREE, TWO, QuestionCase("lrr", three_waiting, (7, 8, 9)),
         QuestionCase("r", one_without_folders), QuestionCase("l", one_without_folders),
         QuestionCase("r", one_behind_a_killed_answer, (7, 8)),
         QuestionCase("l", one_postponed_long_ago), QUITTING, LONG]


# ---- The person ---------------------------------------------------------------------------

class Person:
    """Sits at a terminal: reads, and presses the next key at each question."""

    def __init__(self, keys, master):
        self.raw = b""  # what came to the terminal
        self.pressed = []  # (message, key)
        self.knows = None  # the message whose text was shown elsewhere
        self.reads_for_seconds = 0  # before a key is pressed
        self._keys, self._master = keys, master
        self._nudges = 0
        self._since = self._looked = time.monotonic()

    def attend(self, seconds=LOOK_SECONDS):
        """Reads what has come, and answers if there is a new question."""
        began = time.monotonic()
        if began > self._looked + REACTION_SECONDS / 2:
            self._since = began  # was away
        if select.select([self._master], [], [], seconds)[0]:
            self.raw += os.read(self._master, 65536)
            self._since = time.monotonic()
        self._answer()
        self._looked = time.monotonic()

    def _answer(self):
        count = len(self.pressed)
        if self.raw.count(QUESTION) > count:
            if time.monotonic() < self._since + self.reads_for_seconds:
                return
            shown = TEXT.findall(self.raw.split(QUESTION)[count])
            key = self._keys[count] if count < len(self._keys) else QUIT
            self.pressed.append((int(shown[-1]) if shown else self.knows, key))
            self._press(key.encode())
        elif count and time.monotonic() > self._since + REACTION_SECONDS:
            # On a terminal that still waits for whole lines, the end of input sends what was typed.
            self._nudges += 1
            self._press(END_OF_INPUT if self._nudges % 2 else self.pressed[-1][1].encode())

    def read_to_the_end(self, slave):
        """Reads what is still on its way from an ended program."""
        os.write(slave, END_MARK)
        while not self.raw.endswith(END_MARK):
            select.select([self._master], [], [])
            self.raw += os.read(self._master, 65536)
        self.raw = self.raw.removesuffix(END_MARK)

    def type_ahead(self, keys):
        os.write(self._master, keys)

    def _press(self, key):
        os.write(self._master, key)
        self._since = time.monotonic()

    def keys_at(self, number):
        return {key for message, key in self.pressed if message == number}

    def text(self):
        return self.raw.decode("utf-8", "replace").replace("\r\n", "\n")


def ends_pager_early(fault):
    """Whether the pager has ended, or seems to, before it has shown the text."""
    if fault is None:
        return False
    is_killed = fault.kills and fault.call.process > 0
    return is_killed or fault.call.name == "wait4" or (
        (fault.call.path, fault.error) == ("pipe", errno.EPIPE))


# ---- The bench ----------------------------------------------------------------------------

class QuestionBench(AnswerBench):
    """A machine on which somebody answers the questions of one case again and again."""

    hurries = True  # otherwise the program has the real clock

    def __init__(self, binary, case):
        self.ids = case.ids
        self.person = None
        self._usual = None
        super().__init__(binary, case)

    def prepare(self):
        self.machine.path(OTHER_LOG).touch()
        self.machine.path(OTHER_LOG).chmod(0o666)

    def options(self):
        return {**AS_USER, "stdin": self._slave, "stdout": self._slave,
                "env": {"TERM": "xterm", "PAGER": "cat"}}

    def fresh(self):
        if self._usual is None:
            self._usual = termios.tcgetattr(self._slave)
        termios.tcsetattr(self._slave, termios.TCSANOW, self._usual)
        termios.tcflush(self._slave, termios.TCIOFLUSH)
        self.person = Person(self.case.keys, self._master)
        return super().fresh()

    def run_traced(self, fault=None):
        process = self.machine.start(wrap=wrapper(fault, hurries=self.hurries), **self.options())
        if ends_pager_early(fault):
            self.person.knows = ID
        deadline = time.monotonic() + PATIENCE_SECONDS / 3
        while process.is_running():
            self.person.attend()
            if time.monotonic() > deadline:
                process.send_signal(signal.SIGKILL)
                process.wait()
                raise AssertionError(f"it hangs: {self.person.raw!r}")
        return self.heard(Run(process.wait(), read_log(self.machine)))

    def heard(self, run):
        """The Run, with what came to the terminal as its output."""
        self.person.read_to_the_end(self._slave)
        return Run(Result(self.person.text(), run.stderr, run.status), run.calls)

    def disturbed(self, before, fault):
        run = self.run_traced(fault)
        self.check_terminal(run, fault)
        judges = [QuestionJudge(before, self, run, fault, number) for number in self.ids]
        files = self.files()
        for judge in judges:
            judge.check_question(files)
        return run, judges

    def check_terminal(self, run, fault=None):
        """How the run ended, and how it left the terminal."""
        is_killed = run.status == KILLED and fault is not None and fault.kills
        require(b"\x1b" not in self.person.raw, "there is an escape sequence")
        if is_killed:
            return
        require(run.status in (0, 1), f"{run.result}")
        require(termios.tcgetattr(self._slave) == self._usual, "the terminal is not restored")
        is_untold = fault is not None and fault.call.path == "stdout"
        require(is_untold or AT_LINE_START.search(self.person.raw), "the cursor stands within a line")
        # What fails at the terminal itself is like its end: there is nobody to be told.
        is_terminal = fault is not None and (
            fault.call.path in ("stdout", "stderr") or TERMINAL.fullmatch(fault.call.path))
        require(run.status == 0 or run.stderr or is_terminal, f"no reason is given: {run.result}")


class QuestionJudge(AnswerJudge):
    """What a run of questions left of one message, and told of it."""

    def __init__(self, before, bench, run, fault, number):
        super().__init__(before, run, fault, number, message_file(number, bench.case.text(number)))
        self._person = bench.person

    def says_confirmed(self):
        return f"Message {self._id} confirmed." in self._run.stdout

    def says_postponed(self):
        return f"Message {self._id} postponed:" in self._run.stdout

    def check_question(self, files):
        keys = self._person.keys_at(self._id)
        is_answered = self._answer in files
        is_postponed = self.is_newly_marked(files) and files[self._mark][1] == b"postponed\n"
        require("r" in keys or is_answered == (self._answer in self._before),
                "answered, and nobody has pressed r")
        require("l" in keys or not is_postponed, "postponed, and nobody has pressed l")
        is_seen = (f"This is message {self._id}." in self._run.stdout or
                   self._person.knows == self._id)
        require(is_seen or not self.is_newly_marked(files), "marked, and nobody has seen it")
        if self._run.status == 0:
            self._check_success(keys, is_answered, files)

    def _check_success(self, keys, is_answered, files):
        """What a run must have done that reports no error."""
        all_keys = {key for _, key in self._person.pressed}
        is_asked = keys or is_answered or QUIT in all_keys
        is_listed = re.search(rf"^ +{self._id}\b|^{self._id}\b", self._run.stdout, re.MULTILINE)
        require(is_asked or is_listed, "it was never asked about")
        require("r" not in keys or is_answered, "r is told as done, and there is no answer")
        require("l" not in keys or files[self._mark][1] == b"postponed\n",
                "l is told as done, and there is no mark")


# ---- Two at once --------------------------------------------------------------------------

EXPIRY, ANOTHER = "expiry", "another question"
SECONDS = (*OTHERS, EXPIRY, ANOTHER)
FIRST = {"r": QuestionCase("r", one_waiting), "l": QuestionCase("l", one_waiting)}
EXPIRING = {key: QuestionCase(key, one_that_expires) for key in FIRST}


def first_case(key, second):
    return (EXPIRING if second == EXPIRY else FIRST)[key]


def ask_elsewhere(bench):
    """Somebody presses r at another terminal; returns the Result."""
    master, slave = pty.openpty()
    try:
        person = Person("r", master)
        process = bench.machine.start(wrap=wrapper(log=OTHER_LOG, hurries=True),
                                      **{**bench.options(), "stdin": slave, "stdout": slave})
        while process.is_running():
            person.attend()
        result = process.wait()
        person.read_to_the_end(slave)
        return Result(person.text(), result.stderr, result.status)
    finally:
        os.close(master)
        os.close(slave)


def run_meanwhile(bench, second):
    if second == EXPIRY:
        wait_until_after(now() + 1)
        return None
    return ask_elsewhere(bench) if second == ANOTHER else run_second(bench, second)


def question_stops(calls):
    """The calls before which it stands still: also those that wait for a key and take it."""
    own = [call for call in calls if call.process == 0]
    return sorted({*stops(own), *(call for call in own if call.name in ("poll", "read", "ioctl") and
                                  call.occurrence > 1)}, key=own.index)


def try_question_together(bench, second, call):
    """The first stands still before the call while the second runs to its end."""
    tally = Tally(tried=1)
    try:
        before = bench.fresh()
        make_sent(bench.machine, second if second in OTHERS else "read")
        stopped = StoppedRun(bench.machine, call, hurries=True, meanwhile=bench.person.attend,
                             **bench.options())
        if not stopped.has_stopped:
            tally.missed = 1
            return tally
        other = run_meanwhile(bench, second)
        first = bench.heard(stopped.go_on())
        bench.check_terminal(first)
        check_together(bench, before, second, [run for run in (first.result, other) if run])
        tally.outcomes["done"] += 1
    except PROBLEMS as problem:
        tally.failed.append((f"{bench.case}, stopped before {call}, meanwhile {second}",
                             f"{type(problem).__name__}: {problem}"))
    return tally
