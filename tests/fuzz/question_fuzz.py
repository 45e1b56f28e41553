#!/usr/bin/python3
"""Asks random people at terminals about random mailboxes: keys, pastes, sizes, signals, Ctrl+Z,
hang-ups, while others answer, withdraw, remind, deliver and damage.

    TBX_BINARY=build/asan/tbx tests/fuzz/question_fuzz.py [--seconds N] [--jobs N] [--seed N]

Everything is drawn from the seed, which is printed. Each round checks that

- nothing is confirmed or postponed that nobody has pressed a key alone for, or answered elsewhere,
- a message that nobody has damaged is there once and whole, its answer is whole, and CONFIRMED is
  recorded once for each answer, whoever else worked at the same time,
- the next command leaves nothing to do,
- the program ends when it is asked to, by itself, and gives the terminal back,
- nothing but well-formed text and line ends reaches the terminal,
- no sanitizer has anything to report.

Needs root, for a machine with users of its own.
"""

import argparse
import errno
import multiprocessing
import os
import random
import re
import shutil
import signal
import sys
import time
from collections import Counter
from pathlib import Path

sys.dont_write_bytecode = True
HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent), str(HERE.parent / "tui"), str(HERE.parent / "user")]

from harness.pseudo_terminal import CTRL_C, CTRL_Z, LFLAG, Terminal  # noqa: E402
from harness.store import message_file, tree  # noqa: E402
from harness.waiting import NeverCameTrue, wait_for  # noqa: E402
from recipient import GUARD_SECONDS, QUESTION, UserMachine  # noqa: E402
from terminal_bytes import assert_harmless  # noqa: E402

DEFAULT_BINARY = HERE.parent.parent / "build" / "asan" / "tbx"
REPORTS = "/run/reports"
FINDING = re.compile(r"SUMMARY: |runtime error: ")
FOUND_BY_SANITIZER = 99  # an exit status that the program never has
ECHO = 0o10
ANSWER = re.compile(rb"\d{10} (terminal|desktop)\n")
# Behind Ctrl+Z the question is drawn from the beginning of its line, below the message's headline.
REDRAWN = re.compile(rb"\r(?!\n)([^\r\n]*)\r\n(?=" + re.escape(QUESTION.encode()) + rb")")
PAUSE_SECONDS = 0.08  # longer than the keys of one burst are waited for
TAKEN_SECONDS = GUARD_SECONDS + 0.05  # then a question takes a key
ENDS = (signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGQUIT)
# What the terminal itself keeps: signals, and the keys that stop and start its output.
OF_THE_TERMINAL = re.compile("[\x03\x11\x13\x1a\x1c]")

# What a shell does: gives tellbox the terminal, and continues it when Ctrl+Z has stopped it. The keys'
# signals end and stop neither this nor nsenter, which stands above it.
KEYS_SIGNALS = "INT,QUIT,TSTP,HUP,TTOU"
SHELL = f"""
import os, signal, time
child = os.fork()
if child == 0:
    os.setpgid(0, 0)
    os.tcsetpgrp(0, os.getpid())
    for name in "{KEYS_SIGNALS}".split(","):
        signal.signal(getattr(signal, "SIG" + name), signal.SIG_DFL)
    os.execvp("tellbox", ["tellbox"])
status = waits = 0
while True:
    ended, status = os.waitpid(child, os.WUNTRACED | os.WNOHANG)
    if ended and not os.WIFSTOPPED(status):
        break
    # Ctrl+Z can stop a pager that is only being started: then tellbox waits and cannot stop.
    waits = waits + 1 if open(f"/proc/{{child}}/stat").read().split()[2] == "D" else 0
    if ended or waits > 20:
        time.sleep({PAUSE_SECONDS / 2})
        os.killpg(child, signal.SIGCONT)
    time.sleep(0.01)
code = os.waitstatus_to_exitcode(status)
os._exit(code if code >= 0 else 128 - code)
"""

# ---- What is typed ------------------------------------------------------------------------

BURSTS = ["rr", "lr", "qr", "\x1br", "\x1b[A", "\x1bOR", "\r\r", "r\r", "\x04\x04", "éé", "x ",
          "\x1b[200~r\x1b[201~", "Please restart the server, Kay\n", "r" * 300, "\x13\x11r\x13\x11l"]


def some_keys(draw):
    if draw.random() < 0.1:
        others = (chr(draw.randrange(32, 0x2ff)) for _ in range(draw.randrange(1, 9)))
        return draw.choice("rl") + "".join(others)
    return draw.choice(BURSTS)


# ---- What is in the mailbox ---------------------------------------------------------------

HOSTILE = ["\x1b[31m", "\x1b]0;title\x07", "\x9b2J", "\r", "\x00", "\x7f", "\t", "\udcff\udcfe",
           "\u0301", "%s%n", "再起動👩‍💻", "\u202e", QUESTION]


def some_text(draw):
    pieces = draw.choices(["Hello ", "world", "\n", "x" * 100, *HOSTILE], k=draw.randrange(40))
    return "".join(pieces) + "\n" * draw.choice([0, 1, 1, 40])


class Round:
    """One mailbox, one person at a terminal, and everybody else."""

    def __init__(self, draw, machine):
        self.draw, self.machine = draw, machine
        shutil.rmtree(machine.store.top, ignore_errors=True)
        machine.store.create()
        machine.store.make_mailbox("pat")
        machine.journal.clear()
        self.contents = {}  # message to its file
        self.withdrawn, self.damaged = set(), set()
        self.read, self.postponed = set(), set()  # by whom ever: what may be answered
        self.signals = set()
        self.done = []  # what has happened, in order
        self.keys = 0
        for _ in range(draw.choice([0, 1, 1, 2, 3])):
            self.deliver()
        pager = draw.choice(["cat", "head -1", "true", "false", "/nonexistent"])
        self.terminal = Terminal(
            ["env", f"--ignore-signal={KEYS_SIGNALS}", *machine._enter(), *machine._become("pat"),
             "/usr/bin/python3", "-I", "-S", "-c", SHELL], env=machine.environment("pat", {"PAGER": pager}),
            columns=draw.choice([80, 20, 200, 1]), rows=draw.choice([24, 5, 60]),
            attributes=self.without_echo)

    @staticmethod
    def without_echo(attributes):
        """What is typed would stand among what the program writes."""
        attributes[LFLAG] &= ~ECHO

    # The mailbox.

    def box(self, *parts):
        return self.machine.store.mailbox("pat", *parts)

    def deliver(self):
        number = max([0, *self.contents]) + self.draw.randrange(1, 4)
        expires = int(time.time()) + 1 if self.draw.random() < 0.1 else 0
        text, title = some_text(self.draw), self.draw.choice(["", "再起動", "x" * 300, "A title"])
        self.contents[number] = message_file(number, text, title=title, expires=expires)
        self.machine.deliver(number, text, title=title, expires=expires)

    def some_message(self):
        return self.draw.choice([*self.contents, 99])

    def withdraw(self):
        number = self.some_message()
        self.withdrawn.add(number)
        for name in (f"inbox/{number}", f"state/{number}.term", f"state/{number}.gui"):
            self.remove(self.box(name))

    def remind(self):
        for path in self.box("state").glob("[0-9]*"):
            self.remove(path)

    @staticmethod
    def remove(path):
        try:
            path.unlink(missing_ok=True)
        except IsADirectoryError:
            pass  # damaged

    def damage(self):
        number = self.some_message()
        self.damaged.add(number)
        name = self.draw.choice([f"inbox/{number}", f"acks/{number}", f"state/{number}.term",
                                 f"read/{number}"])
        path = self.box(name)
        kind = self.draw.choice(["text", "folder", "pipe", "link", "closed"])
        try:
            if kind == "closed":
                path.chmod(0)
                return
            path.unlink(missing_ok=True)
            if kind == "text":
                path.write_bytes(self.draw.randbytes(self.draw.randrange(60)))
            elif kind == "folder":
                path.mkdir()
            elif kind == "pipe":
                os.mkfifo(path)
            else:
                path.symlink_to("/etc/passwd")
            os.chown(path, self.machine.uid("pat"), -1, follow_symlinks=False)
        except OSError as error:
            if error.errno not in (errno.ENOENT, errno.EEXIST, errno.EISDIR):
                raise

    def close_a_folder(self):
        """For a moment nothing can be read or written there."""
        folder = self.box(self.draw.choice(["", "inbox", "acks", "state", "read"]))
        mode = folder.stat().st_mode & 0o777
        folder.chmod(self.draw.choice([0, 0o500]))
        time.sleep(self.draw.choice([0, PAUSE_SECONDS, TAKEN_SECONDS]))
        self.press(self.draw.choice("rlx"))
        time.sleep(PAUSE_SECONDS)
        folder.chmod(mode)

    def answer_elsewhere(self):
        number = self.some_message()
        verb = self.draw.choice(["read", "later", "list", "show"])
        (self.read if verb == "read" else self.postponed).add(number)
        words = [] if verb == "list" else [str(number)]
        result = self.machine.tellbox(verb, *words)
        assert result.status in (0, 1), f"{verb}: {result}"

    # The terminal.

    def has_ended(self):
        return self.terminal._status is not None  # the end is no failure here

    def take(self, seconds=0):
        """Reads what the terminal shows, for so long."""
        deadline = time.monotonic() + seconds
        while not self.has_ended() and self.terminal._master is not None:
            left = deadline - time.monotonic()
            self.terminal._take_what_arrives(max(0, left))
            if left <= 0:
                return

    def send(self, keys):
        if self.has_ended() or self.terminal._master is None:
            return
        self.keys += len(keys)
        seen = OF_THE_TERMINAL.sub("", keys)
        if len(seen) == 1:
            self.may_answer(seen)
        try:
            self.terminal.send(keys.encode("utf-8", "surrogatepass"))
        except OSError:
            pass  # the terminal has gone with the program

    def may_answer(self, key):
        """A key alone answers whatever message stands there then."""
        if key in "rR":
            self.read.update(self.contents)
        elif key in "lL":
            self.postponed.update(self.contents)

    def press(self, key):
        """One key alone: nothing else comes shortly before or after."""
        self.take(PAUSE_SECONDS)
        self.send(key)
        self.take(PAUSE_SECONDS)

    def answer(self):
        """A key when the question takes it, as far as one can tell."""
        self.take(TAKEN_SECONDS)
        self.press(self.draw.choice("rrrlqRLx"))

    def stop(self):
        self.send(CTRL_Z)
        self.take(self.draw.choice([0, PAUSE_SECONDS]))

    def type(self):
        self.send(some_keys(self.draw))

    def type_late(self):
        """When the question would take a key."""
        self.take(TAKEN_SECONDS)
        self.type()
        self.take(PAUSE_SECONDS)

    def wait(self):
        self.take(PAUSE_SECONDS)

    def resize(self):
        self.terminal.resize(self.draw.choice([80, 3, 150]), self.draw.choice([24, 2, 70]))

    def raise_signal(self):
        number = self.draw.choice([*ENDS, signal.SIGWINCH, signal.SIGCONT, signal.SIGTSTP])
        self.signal(number)

    def signal(self, number):
        """To the program itself, behind nsenter and the shell."""
        self.signals.add(number)
        self.await_program()
        try:
            if not self.has_ended():
                os.kill(self.program(), number)
        except (ProcessLookupError, TypeError):
            pass  # it has just ended

    def await_program(self):
        """Waits until it has begun, or is over."""
        self.terminal.poll_for(lambda: self.has_ended() or self.program())

    def program(self):
        """The process of tellbox; None if there is none."""
        pid = self.terminal.pid
        try:
            while Path(f"/proc/{pid}/comm").read_text(encoding="ascii") != "tellbox\n":
                pid = int(Path(f"/proc/{pid}/task/{pid}/children").read_text().split()[0])
            return pid
        except (FileNotFoundError, IndexError, ProcessLookupError):
            return None  # it has ended, or has just begun

    # The round.

    def run(self):
        weights = {self.answer: 10, self.stop: 1, self.resize: 1, self.withdraw: 2, self.remind: 1,
                   self.deliver: 2, self.answer_elsewhere: 3, self.damage: 1, self.close_a_folder: 1,
                   self.type: 3, self.type_late: 5, self.wait: 4, self.raise_signal: 1}
        if self.draw.random() < 0.5:  # what is typed then must answer nothing
            weights = {self.type: 1, self.type_late: 3, self.stop: 1, self.deliver: 1}
        self.await_program()
        if self.draw.random() < 0.7:
            try:
                self.terminal.poll_for(lambda: self.has_ended() or
                                       QUESTION.encode() in self.terminal.raw)
            except AssertionError:
                pass  # a narrow terminal breaks no line of its own: it is there or has failed
        for action in self.draw.choices([*weights], weights.values(), k=self.draw.randrange(1, 6)):
            self.done.append(getattr(action, "__name__", "?"))
            action()
            self.take()
            if self.has_ended():
                break
        self.end()
        self.check()

    def end(self):
        how = self.draw.choice([*ENDS, "quit", "quit", "interrupt", "hang up"])
        self.take()
        self.done.append(f"asked to end: {how}")
        if self.has_ended():
            return
        if how == "hang up":
            self.terminal.hang_up()
        elif how == "quit":
            deadline = time.monotonic() + 15
            while not self.has_ended():
                assert time.monotonic() < deadline, f"q does not end it: {self.state()}"
                self.send("\x11")
                self.take(TAKEN_SECONDS)
                self.press("q")
            return
        elif how == "interrupt":
            self.signals.add(signal.SIGINT)
            self.insist(lambda: self.send(CTRL_C))
        elif how in (signal.SIGINT, signal.SIGQUIT):
            self.insist(lambda: self.signal(how))
        else:
            self.signal(how)
        try:
            wait_for(self._has_come_to_its_end, limit_seconds=10)
        except NeverCameTrue:
            raise AssertionError(f"still running after {how}: {self.state()}") from None

    def state(self):
        """What tells where the program stands."""
        folder = Path(f"/proc/{self.program()}")
        try:
            status = re.findall(r"^(?:State|Sig\w+|ShdPnd):.*$",
                                (folder / "status").read_text(), re.MULTILINE)
            return f"{(folder / 'syscall').read_text().split()[:3]} {status}"
        except OSError:
            return "no program"

    def insist(self, interrupt):
        """Interrupts again and again: while a pager runs, only the pager is to hear it."""
        self.await_program()
        for _ in range(9):
            if not self.has_ended():
                interrupt()
                self.take(1)

    def _has_come_to_its_end(self):
        self.terminal._take_what_arrives(0)
        return self.has_ended()

    # The judge.

    def check(self):
        status = self.terminal.wait_exit()
        # Before and behind a question the signals keep their default.
        assert status in (0, 1) or status - 128 in self.signals, f"status {status}"
        if self.terminal._master is not None:
            found, wanted = self.terminal.attributes(), self.terminal.attributes_before
            assert found == wanted, f"not restored: {found} instead of {wanted}"
            raw = REDRAWN.sub(rb"\1\r\n", self.terminal.raw).replace(b"\t", b"")
            assert_harmless(raw)
        self.check_files(may_have_leftovers=status > 128)
        result = self.machine.tellbox("list")
        assert result.status in (0, 1) and (result.status == 0 or self.damaged), f"{result}"
        first = self.facts()
        self.check_files(may_have_leftovers=False)
        self.machine.tellbox("list")
        assert self.facts() == first, f"the command behind the next finds more to do: {first}"
        self.check_events(killed=status > 128)
        self.check_reports()

    def facts(self):
        files = {path: (mode, content) for path, (mode, _, _, content)
                 in tree(self.box()).items()}
        return files, Counter(self.machine.events())

    def check_files(self, may_have_leftovers):
        files = {path for path in self.facts()[0] if "/" in path}
        for path in files:
            leftover = re.fullmatch(r"(acks|state)/\.\d+.*\.tmp", path)
            assert not leftover or may_have_leftovers, f"{path} is left"
        for number in self.contents.keys() - self.damaged:
            copies = {f"inbox/{number}", f"read/{number}"} & files
            assert len(copies) <= 1 and (copies or number in self.withdrawn), f"{number}: {copies}"
            for copy in copies:
                assert self.box(copy).read_bytes() == self.contents[number], copy
            if f"acks/{number}" in files:
                answer = self.box("acks", number).read_bytes()
                assert ANSWER.fullmatch(answer), f"acks/{number}: {answer!r}"
                assert number in self.read, f"{number} is confirmed, and nobody has pressed r"
            mark = self.box("state", f"{number}.term")
            if mark.exists() and mark.read_bytes() == b"postponed\n":
                assert number in self.postponed, f"{number}: nobody has pressed l"

    def check_events(self, killed):
        events = Counter((event, number) for event, number, *_ in self.machine.events())
        for number in self.contents.keys() - self.damaged:
            count = events["CONFIRMED", number]
            assert count <= (2 if killed else 1), f"{number}: {events}"
            if self.box("acks", number).exists():
                assert count >= 1, f"{number} is confirmed and not recorded: {events}"

    def check_reports(self):
        folder = self.machine.path(REPORTS)
        reports = "".join(path.read_text(errors="replace") for path in folder.iterdir())
        assert not FINDING.search(reports), reports


# ---- All rounds ---------------------------------------------------------------------------

def new_machine(binary):
    machine = UserMachine(binary)
    folder = machine.path(REPORTS)
    folder.mkdir()
    folder.chmod(0o1777)
    options = f"exitcode={FOUND_BY_SANITIZER}:log_path={REPORTS}/san"
    machine.env.update(ASAN_OPTIONS=options, UBSAN_OPTIONS=options)
    return machine


def run_rounds(binary, seeds, deadline):
    """Runs rounds on one machine until the time is over; returns (rounds, bytes typed, problem)."""
    machine = new_machine(binary)
    rounds = keys = 0
    try:
        for seed in seeds:
            if rounds and time.monotonic() > deadline:
                break
            one = None
            try:
                one = Round(random.Random(seed), machine)
                one.run()
            except Exception as problem:
                raw = one.terminal.raw[-400:] if one else b""
                return rounds, keys, (f"seed {seed}: {one and one.done}: "
                                      f"{type(problem).__name__}: {problem}\n"
                                      f"the last bytes written: {raw!r}")
            finally:
                if one:
                    one.terminal.close()
            rounds += 1
            keys += one.keys
        return rounds, keys, None
    finally:
        machine.close()


def run_worker(arguments):
    return run_rounds(*arguments)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=int, default=180)
    parser.add_argument("--jobs", type=int, default=2 * os.cpu_count())  # they mostly wait
    parser.add_argument("--seed", type=int, default=None)
    options = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("question_fuzz.py: needs root")
    binary = Path(os.environ.get("TBX_BINARY", DEFAULT_BINARY)).resolve()
    first = random.randrange(2**32) if options.seed is None else options.seed
    jobs = options.jobs if options.seed is None else 1
    deadline = time.monotonic() + options.seconds
    tasks = [(binary, range(first + job, first + 10**6, jobs), deadline) for job in range(jobs)]
    with multiprocessing.Pool(jobs) as pool:
        results = pool.map(run_worker, tasks, chunksize=1)
    problems = [problem for *_, problem in results if problem]
    for problem in problems:
        print(problem)
    rounds, keys = (sum(result[place] for result in results) for place in (0, 1))
    print(f"{rounds} rounds from seed {first}, {keys} bytes typed")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
