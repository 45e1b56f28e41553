"""The interface under a real pseudo-terminal: how long until a frame stands there."""

import os
import pty
import re
import select
import signal
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
FRAME_WITH_CURSOR = re.compile(rb"\x1b\[J\x1b\[[0-9]+;[0-9]+H\x1b\[\?25h$")
DEADLINE_SECONDS = 60
DOWN, ENTER, SEARCH, QUIT = b"\x1b[B", b"\r", b"/", b"q"
NEW_MESSAGE, BACK_TAB = b"n", b"\x1b[Z"
PASTE_BEGINS, PASTE_ENDS = b"\x1b[200~", b"\x1b[201~"
PIECE_BYTES = 1024  # that the terminal takes at once
FRAME_MAX_BYTES = 16384


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

    def paste(self, text, marked):
        """Opens the form and pastes into its text, as fast as the interface takes it.

        marked  as a terminal does that marks a paste; else as if it were typed
        Returns the seconds until the frame that shows all of it.
        """
        self.press(NEW_MESSAGE)
        self.press(BACK_TAB)
        bytes_left = PASTE_BEGINS + text + PASTE_ENDS if marked else text
        shown = b"%d of 65536 bytes" % len(text)
        seen = b""
        started = time.perf_counter()
        while not (shown in seen and FRAME_WITH_CURSOR.search(seen)):
            ready = select.select([self._terminal], [self._terminal] if bytes_left else [], [],
                                  DEADLINE_SECONDS)
            if ready[1]:
                written = os.write(self._terminal, bytes_left[:PIECE_BYTES])
                bytes_left = bytes_left[written:]
            if ready[0]:
                seen = (seen + self._read())[-2 * FRAME_MAX_BYTES:]
            if not any(ready):
                raise RuntimeError("the paste was not shown")
        return time.perf_counter() - started

    def abandon(self):
        """Ends the interface with a text in its form, without keeping the text."""
        os.kill(self._pid, signal.SIGKILL)
        os.close(self._terminal)
        os.waitpid(self._pid, 0)

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
        while not seen.endswith(FRAME_END) and not FRAME_WITH_CURSOR.search(seen):
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


PASTES = {"a line": b"x", "lines of 60": b"x" * 59 + b"\n"}


@dataclass
class PasteCase:
    """So many characters, pasted into the text of a new message."""

    size: int
    pasted: str  # one of PASTES
    marked: bool
    axis = "characters pasted"

    @property
    def what(self):
        return f"{self.pasted}, {'marked' if self.marked else 'as if typed'}"

    def measure(self, machine, runs):
        unit = PASTES[self.pasted]
        text = (unit * (self.size // len(unit) + 1))[:self.size - 1] + b"x"
        machine.settle()
        seconds = []
        for _ in range(runs):
            session = Session([TBX])
            session.first_frame()
            seconds.append(session.paste(text, self.marked))
            session.abandon()
        return {"name": "paste", "size": self.size, "what": self.what, "runs": runs,
                "seconds": statistics.median(seconds)}


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
