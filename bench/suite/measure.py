"""Running tbx and its floor in turn, and what comes of it."""

import statistics
import subprocess
from dataclasses import asdict, dataclass
from pathlib import Path

from .machine import ENVIRONMENT, OUTPUT, PROGRAMS

RUN = f"{PROGRAMS}/bench/run"
WARM_UP_RUNS = 1


@dataclass
class Sample:
    """One run of one program, with all of its children."""

    seconds: float
    cpu_seconds: float
    peak_kib: int


def run_once(command):
    """Runs a command to its end; its output stands in the file OUTPUT then."""
    result = subprocess.run([RUN, OUTPUT, *command], stdout=subprocess.PIPE, text=True,
                            env=ENVIRONMENT, check=True)
    seconds, cpu_seconds, peak_kib, status = result.stdout.split()
    if status != "0":
        said = Path(OUTPUT).read_text(encoding="utf-8")
        raise RuntimeError(f"{' '.join(command[:3])}: wait status {status}: {said[-1000:]}")
    return Sample(float(seconds), float(cpu_seconds), int(peak_kib))


@dataclass
class Figures:
    """The medians of one program's runs."""

    seconds: float
    fastest_seconds: float
    slowest_seconds: float
    cpu_seconds: float
    peak_kib: int

    @classmethod
    def of(cls, samples):
        seconds = [sample.seconds for sample in samples]
        return cls(statistics.median(seconds), min(seconds), max(seconds),
                   statistics.median(sample.cpu_seconds for sample in samples),
                   max(sample.peak_kib for sample in samples))


def run_checked(machine, case, program):
    case.make_ready(program)
    if case.writes:
        machine.settle()
    machine.journal.take_count()
    sample = run_once(case.programs[program])
    case.check(program, Path(OUTPUT).read_text(encoding="utf-8"), machine.journal.take_count())
    return sample


def in_turn(names, turn):
    """The programs in the order of this turn: each comes first equally often."""
    first = turn % len(names)
    return names[first:] + names[:first]


def compare(machine, case, runs):
    """Runs the case's programs alternately; the figures of each."""
    names = list(case.programs)
    samples = {name: [] for name in names}
    for turn in range(WARM_UP_RUNS + runs):
        for name in in_turn(names, turn):
            sample = run_checked(machine, case, name)
            if turn >= WARM_UP_RUNS:
                samples[name].append(sample)
    figures = {name: Figures.of(taken) for name, taken in samples.items()}
    tbx, floor = figures["tbx"], figures["floor"]
    return {"name": case.name, "axis": case.axis, "size": case.size, "what": case.what,
            "runs": runs, "ratio": tbx.seconds / floor.seconds,
            "cpu_ratio": tbx.cpu_seconds / floor.cpu_seconds,
            **{name: asdict(figure) for name, figure in figures.items()}}
