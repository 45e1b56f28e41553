"""Two commands at once: one stands still before a call while the other runs to its end."""

import re
from dataclasses import dataclass

from cases import TEXT, TWO, Case, Message, seen
from harness.clock import now, wait_until_after
from harness.waiting import wait_for
from rules import require
from told import journal_records
from tracing import StoppedRun, is_waiting_for_lock
from trials import PROBLEMS, Tally
from views import SHOWN, log_users, views

SEND = ("send", "--to", "pat,sam", TEXT)
STORES = {
    "send": Case("send", SEND, recipients=TWO),
    "revoke": Case("revoke", ("revoke", "7"), messages=(seen(7, *TWO),), recipients=TWO),
    "remind": Case("remind", ("remind", "7"), recipients=TWO,
                   messages=(Message(7, TWO, shown=TWO),)),
    "purge": Case("purge", ("purge", "90d"), messages=(seen(7, *TWO),), recipients=TWO),
    "recovery of a send": Case("recovery of a send", ("list",), recipients=TWO,
                               messages=(Message(7, TWO, "saved", logged=("pat",)),)),
    "recovery of a revocation": Case(
        "recovery of a revocation", ("list",), recipients=TWO,
        messages=(Message(7, TWO, "revoking", revoked=1500000100, shown=TWO),)),
    "recovery of a purge": Case("recovery of a purge", ("list",), recipients=TWO,
                                messages=(Message(7, TWO, "moved", shown=TWO),)),
}
OTHERS = ("send", "revoke", "remind", "purge", "list")


@dataclass(frozen=True)
class Pair:
    """The first command is the one that stands still."""

    first: str  # of STORES
    second: str

    @property
    def case(self):
        return STORES[self.first]

    @property
    def target(self):
        return 1 if self.first == "send" else 7

    @property
    def second_command(self):
        """On the message of the first."""
        return {"send": SEND, "list": ("list",), "revoke": ("revoke", str(self.target)),
                "remind": ("remind", str(self.target)),
                "purge": ("purge", "0m" if self.first == "send" else "90d")}[self.second]

    def __str__(self):
        return f"{self.first}, meanwhile {self.second}"


PAIRS = [Pair(first, second) for first in STORES for second in OTHERS]


def stops(calls):
    """The calls before which the first command stands still."""
    return [call for call in calls if call.succeeded and (call.changes or call.name == "flock")]


def run_pair(bench, pair, call):
    """Runs both; returns their Results, or None where the first never came to the call."""
    machine = bench.machine
    first = StoppedRun(machine, call, *pair.case.command)
    if not first.has_stopped:
        return None
    if pair.first == "send" and pair.second == "purge":
        wait_until_after(now())  # only what is older is purged
    second = machine.start(*pair.second_command)
    wait_for(lambda: not second.is_running() or is_waiting_for_lock(second))
    result = None if second.is_running() else second.wait()
    first_result = first.go_on().result
    return first_result, result or second.wait()


def try_pair(bench, pair, call):
    tally = Tally(tried=1)
    try:
        judge = bench.judge()
        results = run_pair(bench, pair, call)
        if results is None:
            tally.missed = 1
            return tally
        bench.wait_for_quiet()
        judge.check_always(bench.tree())
        ends = PairJudge(judge, pair, results)
        ends.check_told()
        require(bench.machine.run("list").status == 0, "the next command")
        tree = bench.tree()
        judge.check_always(tree)
        outcome = ends.outcome(tree)
        check_events_once(journal_records(bench.machine))
        again = bench.machine.run("list")
        require((bench.tree(), again.stderr) == (tree, ""), f"the command behind it: {again}")
        tally.outcomes[outcome] += 1
    except PROBLEMS as problem:
        tally.failed.append((f"{pair}, stopped before {call}",
                             f"{type(problem).__name__}: {problem}"))
    return tally


def check_events_once(records):
    for event in ("SENT", "DELIVERED", "CANCELLED", "RECOVERED", "REVOKED", "DELETED"):
        found = [record[:3] for record in records if record[0] == event]
        require(len(set(found)) == len(found), f"recorded twice: {found}")


class PairJudge:
    """What two commands that ran at once have told, and what they have left."""

    def __init__(self, judge, pair, results):
        self._judge, self._pair, self._results = judge, pair, results
        self._message = judge.known.get(pair.target)
        self._verbs = (pair.case.verb, pair.second)

    def _results_of(self, verb):
        return [result for own, result in zip(self._verbs, self._results) if own == verb]

    @property
    def _deleted(self):
        return sum(result.stdout.startswith("Deleted 1 ") for result in self._results_of("purge"))

    @property
    def _revoked(self):
        return any(result.status == 0 for result in self._results_of("revoke"))

    @property
    def _reminded(self):
        told = [re.search(r": (\d+) recipients? reminded", result.stdout)
                for result in self._results_of("remind")]
        return sum(int(match[1]) for match in told if match)

    def check_told(self):
        for verb, result in zip(self._verbs, self._results):
            require(result.status in (0, 1), f"{verb}: {result}")
            require(all(line.startswith("tbx: ") for line in result.stderr.splitlines()),
                    f"{verb}: {result}")
            require(result.status == 0 or self._may_fail(verb, result.stderr), f"{verb}: {result}")
        require(self._deleted <= 1, f"deleted twice: {self._results}")

    def _may_fail(self, verb, errors):
        """A command may lose its message to the other one, or come before it is there."""
        is_lost = "no such message" in errors or "No such file or directory" in errors
        may_lose = (self._deleted or self._pair.first in ("send", "recovery of a purge"))
        if verb == "send":  # of no age yet and not marked: its directory is taken for a broken one
            return is_lost and self._deleted
        if verb == "revoke":
            return is_lost and may_lose
        if verb == "remind":
            is_refused = "has been revoked" in errors and (
                "revoke" in self._verbs or self._message.revoked)
            return is_refused or (is_lost and may_lose)
        return False

    def outcome(self, tree):
        found = views(tree)
        for number, view in found.items():
            if number != self._pair.target:
                self._check_other(number, view)
        return self._outcome_of_target(found.get(self._pair.target))

    def _check_other(self, number, view):
        """What a second send has sent, whole."""
        require("send" in self._verbs and number not in self._judge.known, f"message {number}")
        require(view.holders("copy") == set(TWO), f"message {number}: {view}")
        require("incomplete" not in view.folder, f"message {number} is still marked")

    def _outcome_of_target(self, view):
        was_moved = self._message is not None and self._message.kind == "moved"
        if view is None or view.is_nowhere:
            require(self._deleted or was_moved, "the message is lost")
            return "gone"
        require(not self._deleted and not was_moved and view.folder is not None and
                view.aside is None, f"told that it is deleted, and there is {view}")
        names = view.folder.keys()
        require(not names & {"incomplete", "revoking", "failed"}, f"still marked: {sorted(names)}")
        was_revoked = self._message is not None and self._message.revoked is not None
        require(("revoked" in names) == (self._revoked or was_revoked), f"marks: {sorted(names)}")
        if "revoked" in names:
            held = view.holders("copy", *SHOWN)
            require(not held, f"revoked, and {held} still have it")
            return "revoked"
        require(view.holders("copy") == set(TWO), f"copies: {view.boxes}")
        users, torn = log_users(view.folder["delivery"])
        require((sorted(users), torn) == (sorted(TWO), b""), f"the log names {users}, {torn!r}")
        return self._check_shown(view)

    def _check_shown(self, view):
        shown = set(self._message.shown) if self._message else set()
        left = view.holders("term", "gui")
        require(left <= shown and len(shown - left) <= self._reminded,
                f"{left} of {shown} still have their marks, {self._reminded} were reminded")
        return "reminded" if left != shown else "delivered"
