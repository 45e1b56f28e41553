"""The interface under a real pseudo-terminal: how long until a frame stands there."""

import os
import pty
import select
import statistics
import time
from dataclasses import dataclass

from harness.terminals import set_size

from .machine import ENVIRONMENT, PROGRAMS
from .measure import run_once
from .stores import Shape

TBX = f"{PROGRAMS}/tbx"

ROWS, COLUMNS = 24, 80
FRAME_END = b"\x1b[J\x1b[?25l"
DEADLINE_SECONDS = 60
DOWN, ENTER, SEARCH, QUIT = b"\x1b[B", b"\r", b"/", b"q"


class Session:
    """One run of the interface; every method returns when the frame has arrived."""

    def __init__(self, command):
        self._started = time.perf_counter()
        self._pid, self._terminal = pty.fork()
        if self._pid == 0:
            set_size(0, COLUMNS, ROWS)
            os.execve(command[0], command, ENVIRONMENT)

    def first_frame(self):
        self._await_frame()
        return time.perf_counter() - self._started

    def press(self, key):
        """Seconds until the frame that answers the key, and its bytes."""
        started = time.perf_counter()
        os.write(self._terminal, key)
        frame = self._await_frame()
        return time.perf_counter() - started, len(frame)

    def press_down(self):
        return self.press(DOWN)

    def quit(self):
        """Leaves the interface by its key, and waits until the program has ended."""
        os.write(self._terminal, QUIT)
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
    session = Session([TBX])
    first = session.first_frame()
    presses = [session.press_down() for _ in range(keys)]
    session.press(SEARCH)
    reload_seconds, _ = session.press(ENTER)  # an empty search: everything is read again
    session.quit()
    return (first, reload_seconds, statistics.median(seconds for seconds, _ in presses),
            max(size for _, size in presses))


@dataclass
class InterfaceCase:
    """The interface on a store, each run beside one of `list` on the same."""

    size: int  # messages
    shape: Shape
    list_command: list
    axis = "interface, messages"

    @property
    def what(self):
        return str(self.shape)

    def measure(self, machine, runs):
        run_once(self.list_command)  # warms the caches up for both
        machine.settle()
        lists, sessions = [], []
        for _ in range(runs):
            lists.append(run_once(self.list_command).seconds)
            sessions.append(measure_session(keys=15))
        firsts, reloads, keys, sizes = zip(*sessions)
        return {"name": "interface", "size": self.size, "what": self.what, "runs": runs,
                "first_frame_seconds": statistics.median(firsts),
                "list_seconds": statistics.median(lists),
                "key_seconds": statistics.median(keys),
                "reload_seconds": statistics.median(reloads), "frame_bytes": max(sizes)}
