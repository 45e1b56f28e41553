"""The interface under a real pseudo-terminal: how long until a frame stands there."""

import fcntl
import os
import pty
import select
import signal
import statistics
import struct
import termios
import time
from dataclasses import asdict, dataclass

from .cases import TBX, ListCase
from .machine import ENVIRONMENT
from .measure import run_once

ROWS, COLUMNS = 24, 80
FRAME_END = b"\x1b[J\x1b[?25l"
DEADLINE_SECONDS = 60
DOWN, ENTER = b"\x1b[B", b"\r"


@dataclass
class Measured:
    """Medians over the runs."""

    name: str
    what: str
    runs: int
    first_frame_seconds: float
    list_seconds: float
    key_seconds: float
    reload_seconds: float
    frame_bytes: int

    def as_dict(self):
        return asdict(self)


class Session:
    """One run of the interface; every method returns when the frame has arrived."""

    def __init__(self):
        self._started = time.perf_counter()
        self._pid, self._terminal = pty.fork()
        if self._pid == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
            os.execve(TBX, [TBX], ENVIRONMENT)

    def first_frame(self):
        self._await_frame()
        return time.perf_counter() - self._started

    def press(self, key):
        """Seconds until the frame that answers the key, and its bytes."""
        started = time.perf_counter()
        os.write(self._terminal, key)
        frame = self._await_frame()
        return time.perf_counter() - started, len(frame)

    def close(self):
        os.kill(self._pid, signal.SIGTERM)
        while self._read():
            pass
        os.close(self._terminal)
        os.waitpid(self._pid, 0)

    def _read(self):
        try:
            return os.read(self._terminal, 65536)
        except OSError:  # the program has gone, and its terminal with it
            return b""

    def _await_frame(self):
        seen = b""
        while not seen.endswith(FRAME_END):
            ready, _, _ = select.select([self._terminal], [], [], DEADLINE_SECONDS)
            data = self._read() if ready else b""
            if not data:
                raise RuntimeError("no frame came")
            seen += data
        return seen


def measure_session(keys):
    session = Session()
    first = session.first_frame()
    presses = [session.press(DOWN) for _ in range(keys)]
    session.press(b"/")
    reload_seconds, _ = session.press(ENTER)  # an empty search: everything is read again
    session.close()
    return (first, reload_seconds, statistics.median(seconds for seconds, _ in presses),
            max(size for _, size in presses))


def measure(machine, runs, messages, recipients, users):
    """The interface on a store of that shape, each run beside one of `list` on the same."""
    case = ListCase(messages, recipients, users, confirmed=False)
    with case.prepared(machine):
        run_once(case.tbx)  # warms the caches up for both
        lists, sessions = [], []
        for _ in range(runs):
            lists.append(run_once(case.tbx).seconds)
            sessions.append(measure_session(keys=15))
    firsts, reloads, keys, sizes = zip(*sessions)
    return Measured("interface", case.what, runs, statistics.median(firsts),
                    statistics.median(lists), statistics.median(keys),
                    statistics.median(reloads), max(sizes))


SHAPES = [(100, 20, 100), (1000, 20, 100), (10_000, 20, 100)]


def table(results):
    """The results as lines of text."""
    lines = [f"{'INTERFACE':<44}  FIRST ms  list ms  RATIO  KEY ms  RELOAD ms  FRAME bytes"]
    for result in results:
        first, listed = result["first_frame_seconds"], result["list_seconds"]
        lines.append(f"{result['what']:<44}  {first * 1000:8.1f}  {listed * 1000:7.1f}  "
                     f"{first / listed:5.2f}  {result['key_seconds'] * 1000:6.2f}  "
                     f"{result['reload_seconds'] * 1000:9.1f}  {result['frame_bytes']:11d}")
    return "\n".join(lines)
