"""Running tbx and a floor in turn, and what comes of it."""

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
        raise RuntimeError(f"{' '.join(command[:3])}: wait status {status}")
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


@dataclass
class Comparison:
    """A case's outcome."""

    name: str
    what: str
    runs: int
    tbx: Figures
    floor: Figures

    def ratio(self):
        return self.tbx.seconds / self.floor.seconds

    def cpu_ratio(self):
        return self.tbx.cpu_seconds / self.floor.cpu_seconds

    def as_dict(self):
        return {**asdict(self), "ratio": self.ratio(), "cpu_ratio": self.cpu_ratio()}


def run_checked(machine, case, command):
    machine.settle()
    machine.journal.take_count()
    sample = run_once(command)
    case.check(Path(OUTPUT).read_text(encoding="utf-8"), machine.journal.take_count())
    return sample


def compare(machine, case, runs):
    """Runs the case's two programs alternately, each first as often as the other."""
    samples = {"tbx": [], "floor": []}
    commands = {"tbx": case.tbx, "floor": case.floor}
    for turn in range(WARM_UP_RUNS + runs):
        order = ["tbx", "floor"] if turn % 2 == 0 else ["floor", "tbx"]
        for name in order:
            sample = run_checked(machine, case, commands[name])
            if turn >= WARM_UP_RUNS:
                samples[name].append(sample)
    return Comparison(case.name, case.what, runs, Figures.of(samples["tbx"]),
                      Figures.of(samples["floor"]))
