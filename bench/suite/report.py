"""The table that is printed, and the machine that it was taken on."""

import os
import platform
import re
import subprocess
from pathlib import Path

HEADINGS = ("CASE", "SIZE", "TBX ms", "FLOOR ms", "RATIO", "TBX cpu ms", "FLOOR cpu ms",
            "CPU RATIO", "PEAK MiB")


def milliseconds(seconds):
    return f"{seconds * 1000:.1f}"


def row(result):
    tbx, floor = result["tbx"], result["floor"]
    return (result["name"], result["what"], milliseconds(tbx["seconds"]),
            milliseconds(floor["seconds"]), f"{result['ratio']:.2f}",
            milliseconds(tbx["cpu_seconds"]), milliseconds(floor["cpu_seconds"]),
            f"{result['cpu_ratio']:.2f}", f"{tbx['peak_kib'] / 1024:.1f}")


def table(results):
    """The results as lines of text: words to the left, figures to the right."""
    rows = [HEADINGS, *map(row, results)]
    widths = [max(map(len, column)) for column in zip(*rows)]
    return "\n".join("  ".join(cell.ljust(width) if place < 2 else cell.rjust(width)
                               for place, (cell, width) in enumerate(zip(cells, widths)))
                     for cells in rows)


def processor():
    found = re.search(r"^model name\s*: (.*)$", Path("/proc/cpuinfo").read_text(encoding="ascii"),
                      re.MULTILINE)
    return found[1] if found else platform.machine()


def machine_facts(scratch):
    """What the figures depend on, without saying which machine it was."""
    kind = subprocess.run(["findmnt", "-n", "-o", "FSTYPE", "-T", scratch], check=True,
                          capture_output=True, text=True).stdout.strip()
    return {"processor": processor(), "cores": os.cpu_count(),
            "kernel": platform.release().split("-")[0], "file_system": kind,
            "load": round(os.getloadavg()[0], 1)}


def machine_line(facts):
    return ("{processor}, {cores} cores, Linux {kernel}, {file_system}, load {load} at the start"
            .format(**facts))
