"""What does not depend on the machine's mood: the system calls and the instructions that each
recipient, user, message or key costs. Every operation runs at two sizes; what an item costs is
the difference."""

import os
import subprocess
from collections import Counter
from dataclasses import dataclass
from pathlib import Path

from .interface import Session
from .machine import ENVIRONMENT, PROGRAMS
from .stores import TEXT, Shape, mounted

TBX = f"{PROGRAMS}/tbx"
SMALL, LARGE = 5, 15
REPORTS = Path("/run/cost")  # of the programs that count
TIMEOUT_SECONDS = 300  # of one run: valgrind is slow, and the machine may be busy
SESSIONS = 3  # of the interface, of which the shortest counts

# How often one waits depends on who is faster, and how often memory is asked for on what was
# freed before: neither belongs to an item.
WAITING = {"poll", "wait4", "restart_syscall"}
MEMORY = {"brk", "mmap", "munmap", "mremap"}

# The library picks its string functions by the processor; these are the same on all.
PLAIN_PROCESSOR = {"GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX2,-AVX,-BMI2,-BMI1,-LZCNT,-MOVBE,-ERMS"}


@dataclass
class Operation:
    """One command on a store whose shape follows from the number of items."""

    name: str
    shape: callable
    arguments: list


def per_recipient(*words):
    return lambda items: Shape(1, items, items, words)


def per_message(*words):
    return lambda items: Shape(items, 2, 2, words)


OPERATIONS = (
    Operation("send, per recipient", lambda items: Shape(0, 1, items),
              ["send", "--to", "all", TEXT]),
    Operation("list, per message", per_message(), ["list"]),
    Operation("list, per message confirmed by 2", per_message("confirmed"), ["list"]),
    Operation("list, per user", per_recipient(), ["list"]),
    Operation("status, per recipient", per_recipient(), ["status", "1"]),
    Operation("status, per recipient who confirmed", per_recipient("confirmed"), ["status", "1"]),
    Operation("revoke, per recipient", per_recipient("copies", "shown"), ["revoke", "1"]),
    Operation("remind, per recipient", per_recipient("copies", "shown"), ["remind", "1"]),
    Operation("purge, per message to 2", per_message("copies"), ["purge", "1d"]),
    Operation("recovery, per 2 recipients, of whom 1 has it",
              lambda items: Shape(1, 2 * items, 2 * items, ("copies", "cut")), ["log", "1"]),
    Operation("recovery of many, per message to 2, of whom 1 has it",
              per_message("copies", "cut"), ["log", "1"]),
)


# ---- Counting -----------------------------------------------------------------------------

def run(command, **more):
    subprocess.run(command, check=True, env={**ENVIRONMENT, **more}, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=TIMEOUT_SECONDS)


def calls_in(report):
    """From the table that strace leaves: "CALL COUNT" on each line but headings and rules."""
    counts = Counter()
    for line in report.read_text(encoding="ascii").splitlines():
        name, _, count = line.partition(" ")
        if count.strip().isdigit() and name != "total":
            counts[name] = int(count)
    return counts


def tracer(report):
    return ["/usr/bin/strace", "-f", "-c", "-U", "name,calls", "-o", str(report)]


def count_calls(arguments):
    report = REPORTS / "calls"
    run([*tracer(report), TBX, *arguments])
    return calls_in(report)


def instructions_in(report):
    return next(int(line.split()[1]) for line in report.read_text(encoding="utf-8").splitlines()
                if line.startswith("totals:"))


def count_instructions(arguments):
    """Of the process and its children. A child starts with its parent's count: it is set to zero
    where the child becomes the user."""
    run(["/usr/bin/valgrind", "--tool=callgrind", "--zero-before=closefrom",
         f"--callgrind-out-file={REPORTS}/instructions.%p", TBX, *arguments], **PLAIN_PROCESSOR)
    reports = list(REPORTS.glob("instructions.*"))
    total = sum(map(instructions_in, reports))
    for report in reports:
        report.unlink()
    return total


def count(machine, operation, items):
    """The calls and the instructions of an operation on so many items."""
    machine.use_accounts(2 * LARGE, humans=items)
    shape = operation.shape(items)
    with mounted(machine, shape):
        calls = count_calls(operation.arguments)
    with mounted(machine, shape):
        return calls, count_instructions(operation.arguments)


# ---- The interface ------------------------------------------------------------------------

def count_session(keys):
    """The calls of a run of the interface in which the selection moves so many times."""
    report = REPORTS / "calls"
    session = Session([*tracer(report), TBX])
    session.first_frame()
    for _ in range(keys):
        session.press_down()
    session.quit()
    return calls_in(report)


def count_keys(keys):
    """The fewest of some sessions: one that was held up looks at the store again meanwhile."""
    return min((count_session(keys) for _ in range(SESSIONS)), key=lambda counts: counts.total())


# ---- Per item -----------------------------------------------------------------------------

def difference(small, large, left_out):
    """What one item adds to each kind of call."""
    added = {name: (large[name] - small[name]) / (LARGE - SMALL)
             for name in sorted(small | large) if name not in left_out}
    return {name: int(calls) if calls.is_integer() else calls
            for name, calls in added.items() if calls != 0}


def of_operation(machine, operation):
    (small_calls, small), (large_calls, large) = (count(machine, operation, items)
                                                  for items in (SMALL, LARGE))
    return {"instructions": round((large - small) / (LARGE - SMALL)),
            "calls": difference(small_calls, large_calls, WAITING | MEMORY)}


def of_key(machine):
    machine.use_accounts(LARGE)
    with mounted(machine, Shape(2 * LARGE, 2, 2)):
        return {"calls": difference(count_keys(SMALL), count_keys(LARGE), MEMORY)}


def count_all(machine):
    """Each operation's cost per item."""
    machine.use_memory()
    REPORTS.mkdir()
    os.chmod(REPORTS, 0o1777)  # children write as the users that they have become
    costs = {operation.name: of_operation(machine, operation) for operation in OPERATIONS}
    return {**costs, "interface, per key": of_key(machine)}
