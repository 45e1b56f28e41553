"""The tables, as text and for the documentation, and the machine that they were taken on."""

import itertools
import math
import os
import platform
import re
import subprocess
from pathlib import Path

CASE_HEADINGS = ("case", "grows", "tbx ms", "floor ms", "ratio", "CPU ratio", "growth",
                 "floor's", "peak MiB", "of")
INTERFACE_HEADINGS = ("messages", "first frame ms", "list ms", "ratio", "key ms", "reload ms",
                      "bytes a frame")
PASTE_HEADINGS = ("characters", "ms", "ns each", "pasted of")
WALL_HEADINGS = ("terminals", "tbx ms", "wall ms")


def milliseconds(seconds):
    return f"{seconds * 1000:.1f}"


# ---- Growth -------------------------------------------------------------------------------

def exponent(smaller, larger, program):
    """How the time grew from one size to the next: 1 is in proportion."""
    times = larger[program]["seconds"] / smaller[program]["seconds"]
    return math.log(times) / math.log(larger["size"] / smaller["size"])


def add_growth(results):
    """Notes in each result how it grew from the next smaller one of its axis."""
    for (_, axis), cases in itertools.groupby(cases_by_axis(results), axis_of):
        for smaller, larger in itertools.pairwise(list(cases) if axis else []):
            larger["growth"] = exponent(smaller, larger, "tbx")
            larger["floor_growth"] = exponent(smaller, larger, "floor")


def axis_of(case):
    return case["name"], case["axis"]


def cases_by_axis(results):
    """The results that have a floor, those of one axis together, else in their order."""
    cases = [result for result in results if "floor" in result]
    axes = list(dict.fromkeys(map(axis_of, cases)))
    return sorted(cases, key=lambda case: axes.index(axis_of(case)))


# ---- Rows ---------------------------------------------------------------------------------

def growth_text(case, key):
    return f"{case[key]:.2f}" if key in case else ""


def case_row(case):
    grows = f"{case['size']:,} {case['axis']}" if case["axis"] else ""
    return (case["name"], grows, milliseconds(case["tbx"]["seconds"]),
            milliseconds(case["floor"]["seconds"]), f"{case['ratio']:.2f}",
            f"{case['cpu_ratio']:.2f}", growth_text(case, "growth"),
            growth_text(case, "floor_growth"), f"{case['tbx']['peak_kib'] / 1024:.1f}",
            case["what"])


def wall_row(case):
    return (f"{case['size']:,}", milliseconds(case["tbx"]["seconds"]),
            milliseconds(case["wall"]["seconds"]))


def interface_row(screen):
    first, listed = screen["first_frame_seconds"], screen["list_seconds"]
    return (f"{screen['size']:,}", milliseconds(first), milliseconds(listed),
            f"{first / listed:.2f}", f"{screen['key_seconds'] * 1000:.2f}",
            milliseconds(screen["reload_seconds"]), str(screen["frame_bytes"]))


def paste_row(paste):
    return (f"{paste['size']:,}", milliseconds(paste["seconds"]),
            f"{paste['seconds'] * 1e9 / paste['size']:.0f}", paste["what"])


def tables(results):
    """Each table as its headings and its rows."""
    cases = cases_by_axis(results)
    beside_wall = [case for case in cases if "wall" in case]
    pastes = [result for result in results if result["name"] == "paste"]
    screens = [result for result in results if result["name"] == "interface"]
    return [(headings, rows) for headings, rows in (
        (CASE_HEADINGS, list(map(case_row, cases))),
        (WALL_HEADINGS, list(map(wall_row, beside_wall))),
        (INTERFACE_HEADINGS, list(map(interface_row, screens))),
        (PASTE_HEADINGS, list(map(paste_row, pastes)))) if rows]


# ---- Text ---------------------------------------------------------------------------------

def plain(headings, rows):
    """A table as lines of text: words to the left, figures to the right."""
    headings = [heading.upper() for heading in headings]
    widths = [max(map(len, column)) for column in zip(headings, *rows)]
    words = [heading in ("CASE", "GROWS", "OF", "PASTED OF") for heading in headings]
    return "\n".join("  ".join(cell.ljust(width) if word else cell.rjust(width)
                               for cell, width, word in zip(cells, widths, words)).rstrip()
                     for cells in (headings, *rows))


def markdown(headings, rows):
    return "\n".join("| " + " | ".join(cells) + " |"
                     for cells in (headings, ["---"] * len(headings), *rows))


def text(figures):
    return "\n\n".join([*(plain(*table) for table in tables(figures["results"])),
                        machine_line(figures)])


# ---- The machine --------------------------------------------------------------------------

def processor():
    found = re.search(r"^model name\s*: (.*)$", Path("/proc/cpuinfo").read_text(encoding="ascii"),
                      re.MULTILINE)
    return found[1] if found else platform.machine()


def machine_facts(scratch):
    """What the figures depend on, without saying which machine it was."""
    kind = subprocess.run(["findmnt", "-n", "-o", "FSTYPE", "-T", scratch], check=True,
                          capture_output=True, text=True).stdout.strip()
    return {"processor": processor(), "cores": os.cpu_count(),
            "kernel": platform.release().split("-")[0], "file_system": kind}


def machine_line(figures):
    loads = [result["load"] for result in figures["results"]]
    minutes = sum(result["minutes"] for result in figures["results"])
    return ("{processor}, {cores} cores, Linux {kernel}, {file_system}".format(**figures["machine"])
            + f"; load {min(loads)} to {max(loads)}, {minutes:.0f} minutes in all")


# ---- The report ---------------------------------------------------------------------------

def write(figures, path):
    """The figures as tables in Markdown."""
    runs = min(result["runs"] for result in figures["results"])
    body = "\n\n".join(markdown(*table) for table in tables(figures["results"]))
    taken = f"Medians of {runs} runs of each program on {machine_line(figures)}."
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f"{taken}\n\n{body}\n", encoding="utf-8")
