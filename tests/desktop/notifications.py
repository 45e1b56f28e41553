"""The strict notification service while it runs, as tests see it."""

import json
import pathlib
import queue
import subprocess
import threading

from processes import PATIENCE_SECONDS, end

PROGRAM = pathlib.Path(__file__).with_name("notification_service.py")


class Service:
    """notification_service.py in one of its modes."""

    def __init__(self, screen, mode="strict", bus=None):
        env = {"DBUS_SESSION_BUS_ADDRESS": bus} if bus else {}
        self.process = screen.start("/usr/bin/python3", str(PROGRAM), mode, env=env, text=True,
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self._told = queue.Queue()
        threading.Thread(target=self._listen, daemon=True).start()
        assert self.next() == {"ready": True}

    def _listen(self):
        for line in self.process.stdout:
            self._told.put(json.loads(line))

    def next(self, seconds=PATIENCE_SECONDS):
        """What it tells next."""
        try:
            return self._told.get(timeout=seconds)
        except queue.Empty:
            raise AssertionError(f"nothing asked of the service within {seconds} s") from None

    def await_call(self, method):
        """The arguments of the next call of a method; others before it are passed over."""
        while True:
            told = self.next()
            if told.get("call") == method:
                return told.get("arguments")

    def await_notification(self):
        """The next notification that it has put up: its number and its arguments."""
        arguments = self.await_call("Notify")
        return self.next()["number"], arguments

    def await_told(self, name):
        while name not in self.next():
            pass

    def was_asked(self, method):
        """Whether a call of a method has arrived that nobody has awaited yet."""
        return any(told.get("call") == method for told in list(self._told.queue))

    def is_left_alone(self, seconds=0.5):
        """Whether it is asked nothing for a while."""
        try:
            told = self._told.get(timeout=seconds)
        except queue.Empty:
            return True
        return not told

    def command(self, *words):
        self.process.stdin.write(" ".join(map(str, words)) + "\n")
        self.process.stdin.flush()

    def close(self):
        end(self.process)
