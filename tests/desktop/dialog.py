"""The window by itself, started as the agent starts it."""

import os
import select
import signal
import subprocess
import time

from accessible import await_dialog
from processes import PATIENCE_SECONDS, end

GUARD_SECONDS = 0.7
TITLE = "Message from the administrator"
DATE = 1790000000  # 21/09 14:13 in UTC


def message(text, place="1 of 1", title="", sender="root", date=DATE, expires=""):
    """What the window reads: the place, then the message's file."""
    head = (f"{place}\nformat: 1\nid: 12\nfrom: {sender}\ndate: {date}\ntitle: {title}\n"
            f"expires: {expires}\n\n")
    return head.encode() + (text if isinstance(text, bytes) else text.encode())


class OnScreen:
    """A window of ours as the user has it before them. `pid` is its process."""

    def __init__(self, screen, pid):
        self.screen, self.pid = screen, pid

    @property
    def window(self):
        return self.screen.await_window(TITLE)

    @property
    def tree(self):
        return await_dialog(self.pid)

    @property
    def text(self):
        return self.tree.find("text", "Message").text

    def button(self, name):
        return self.tree.find("push button", name)

    def click(self, name):
        """Clicks a button with the mouse, where it stands on the screen."""
        x, y, width, height = self.button(name).place
        left, top, _, _ = self.screen.place(self.window)
        self.screen.click(left + x + width // 2, top + y + height // 2)

    def take_focus(self):
        """The user goes to the window, and looks at it before pressing a key."""
        self.screen.focus(self.window)
        time.sleep(GUARD_SECONDS + 0.2)


class Dialog(OnScreen):
    """A running tellbox-window."""

    def __init__(self, program, screen, data, env=None, wait=True):
        self.process = screen.start(program, env=env, stdin=subprocess.PIPE,
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        super().__init__(screen, self.process.pid)
        self._said = b""
        try:
            self.process.stdin.write(data)
            self.process.stdin.close()
        except BrokenPipeError:
            pass  # it has refused the message
        if wait:
            assert self.word() == "shown", self.errors()
            self.shown_at = time.monotonic()

    def word(self, seconds=PATIENCE_SECONDS):
        """The next word that it says; None if it ends or says nothing for so long."""
        deadline = time.monotonic() + seconds
        while b"\n" not in self._said:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self.process.stdout], [], [], left)[0]:
                return None
            more = os.read(self.process.stdout.fileno(), 4096)
            if not more:
                return None
            self._said += more
        word, _, self._said = self._said.partition(b"\n")
        return word.decode()

    def says_nothing(self, seconds=0.3):
        """Whether it says nothing for a while, long enough for a key or click to arrive."""
        return self.word(seconds) is None and self.process.poll() is None

    def errors(self):
        return self.process.stderr.read().decode() if self.process.poll() is not None else ""

    def status(self):
        return self.process.wait(PATIENCE_SECONDS)

    def answer(self):
        """What it said last, and how it ended."""
        return self.word(), self.word(), self.status()

    def outlast_guard(self):
        """Waits as a person does who reads before answering."""
        left = self.shown_at + GUARD_SECONDS + 0.1 - time.monotonic()
        time.sleep(max(left, 0))
        return self

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        return self.status()

    def close(self):
        end(self.process)
