"""All trials: what there is to try, in processes that have a machine each, and the table."""

import multiprocessing
import signal
from collections import Counter
from dataclasses import dataclass, field

import answers
import question
from cases import CASES
from together import PAIRS, stops, try_pair
from trials import Bench, Tally, failures, kills, without_repeats
from twice import try_second_kills

CHUNK = 150  # trials on one machine
TWICE = ("send to one user, nothing there yet", "revoke with a lost account and a user without "
         "mailbox", "purge two of three messages", "send beside one interrupted message of each "
         "kind")

_binary = None


def start_worker(binary):
    global _binary
    _binary = binary
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # the parent ends the workers


# ---- What there is to try -----------------------------------------------------------------

@dataclass(frozen=True)
class Task:
    """Some trials of one kind, on one machine."""

    kind: str
    name: str  # of the case or pair
    points: tuple


def points_of(kind, name):
    """The points of a case or pair, as an undisturbed run has its calls."""
    if kind in OF_USERS:
        with new_user_bench(kind, name) as bench:
            return list(OF_USERS[kind](bench.calls))
    case = _pair(name).case if kind == "together" else CASES[name]
    with Bench(_binary, case) as bench:
        if kind == "together":
            return stops(bench.calls)
        if kind == "error":
            return list(failures(without_repeats(bench.calls)))
        return list(kills(bench.calls))


def _pair(name):
    return next(pair for pair in PAIRS if str(pair) == name)


# The points of the recipients' commands.
OF_USERS = {"answer-kill": kills, "answer-error": failures, "answer-together": answers.stops,
            "question-kill": kills, "question-error": failures,
            "question-together": question.question_stops}
ANSWER_CASES = {str(case): case for case in answers.CASES}
ANSWER_PAIRS = {f"{first}, meanwhile {second}": (first, second)
                for first in answers.FIRST for second in answers.OTHERS}
QUESTION_CASES = {str(case): case for case in question.CASES}
QUESTION_PAIRS = {f"{key} at the question, meanwhile {second}": (key, second)
                  for key in question.FIRST for second in question.SECONDS}
NAMES = {"answer-kill": ANSWER_CASES, "answer-error": ANSWER_CASES, "answer-together": ANSWER_PAIRS,
         "question-kill": QUESTION_CASES, "question-error": QUESTION_CASES,
         "question-together": QUESTION_PAIRS, "kill": CASES, "error": CASES, "twice": TWICE,
         "together": list(map(str, PAIRS))}


def new_user_bench(kind, name):
    if kind == "question-together":
        return question.QuestionBench(_binary, question.first_case(*QUESTION_PAIRS[name]))
    if kind == "answer-together":
        return answers.AnswerBench(_binary, answers.FIRST[ANSWER_PAIRS[name][0]])
    if kind in ("question-kill", "question-error"):
        return question.QuestionBench(_binary, QUESTION_CASES[name])
    return answers.AnswerBench(_binary, ANSWER_CASES[name])


def names_of(kind):
    return NAMES[kind]


KINDS = {
    "kill": "Killed at every call that changes something, and within every write",
    "error": "Every call failing with every error that it can have, every write cut short",
    "twice": "Killed, and the next command killed at every call of its own",
    "together": "Standing still before every call that changes something, while another command "
                "runs",
    "answer-kill": "A recipient's command, killed at every call that changes something",
    "answer-error": "A recipient's command, every call failing with every error that it can have",
    "answer-together": "A recipient's command, standing still before every call that changes "
                       "something, while another command runs",
    "question-kill": "The question at a terminal, killed at every call that changes something",
    "question-error": "The question at a terminal, every call failing with every error that it can "
                      "have",
    "question-together": "The question at a terminal, standing still before every call that "
                         "changes something or takes a key, while another command runs",
}


def tasks_of(kind, name):
    points = tuple(points_of(kind, name))
    # What one first kill left is tried once: the trials of one case stay in one process.
    size = len(points) or 1 if kind == "twice" else CHUNK
    return [Task(kind, name, points[start:start + size])
            for start in range(0, len(points), size)]


def run_user_task(task):
    total = Tally()
    with new_user_bench(task.kind, task.name) as bench:
        for point in task.points:
            if task.kind == "answer-together":
                total.add(answers.try_together(bench, ANSWER_PAIRS[task.name][1], point))
            elif task.kind == "question-together":
                total.add(question.try_question_together(bench, QUESTION_PAIRS[task.name][1],
                                                         point))
            else:
                total.add(bench.try_fault(point))
    return task, total


def run_task(task):
    if task.kind in OF_USERS:
        return run_user_task(task)
    total = Tally()
    case = _pair(task.name).case if task.kind == "together" else CASES[task.name]
    seen = set()
    with Bench(_binary, case) as bench:
        for point in task.points:
            if task.kind == "twice":
                total.add(try_second_kills(bench, point, seen))
            elif task.kind == "together":
                total.add(try_pair(bench, _pair(task.name), point))
            else:
                total.add(bench.try_fault(point))
    return task, total


def _tasks_of(pair):
    return tasks_of(*pair)


def run_everything(binary, jobs, wanted, on_result):
    """Runs all trials of the (kind, name) pairs; every (Task, Tally) goes to on_result."""
    with multiprocessing.Pool(jobs, start_worker, (binary,), maxtasksperchild=50) as pool:
        tasks = [task for some in pool.imap(_tasks_of, wanted) for task in some]
        # The long ones first, so that no process is left alone with one at the end.
        tasks.sort(key=lambda task: task.kind != "twice")
        for task, tally in pool.imap_unordered(run_task, tasks):
            on_result(task, tally)


# ---- The table ----------------------------------------------------------------------------

@dataclass
class Results:
    """The tallies of a campaign by kind and name."""

    tallies: dict = field(default_factory=dict)

    def add(self, task, tally):
        self.tallies.setdefault((task.kind, task.name), Tally()).add(tally)

    @property
    def failed(self):
        return [(*key, *failure) for key, tally in self.tallies.items()
                for failure in tally.failed]

    def outcomes(self, kind):
        total = Counter()
        for (own, _), tally in self.tallies.items():
            if own == kind:
                for texts, count in tally.outcomes.items():
                    total.update({text: count for text in texts.split(", ")})
        return total

    def rows(self, kind):
        """(name, tried, survived, failed) in the order of the cases."""
        for name in names_of(kind):
            tally = self.tallies.get((kind, name))
            if tally:
                yield (name, tally.tried, tally.tried - len(tally.failed), len(tally.failed))

    def table(self, kind):
        rows = list(self.rows(kind))
        total = [sum(row[column] for row in rows) for column in (1, 2, 3)]
        lines = [f"### {KINDS[kind]}", "", "| | tried | survived | failed |", "|---|--:|--:|--:|"]
        lines += [f"| {name} | {tried} | {survived} | {failed} |"
                  for name, tried, survived, failed in rows]
        lines += [f"| **together** | **{total[0]}** | **{total[1]}** | **{total[2]}** |", ""]
        outcomes = sorted(self.outcomes(kind).items(), key=lambda item: -item[1])
        lines += ["Trials by what became of a message: " + ", ".join(
            f"{text} {count}" for text, count in outcomes) + ".", ""]
        return lines

    def tables(self):
        kinds = [kind for kind in KINDS if any(own == kind for own, _ in self.tallies)]
        return "\n".join(line for kind in kinds for line in self.table(kind))
