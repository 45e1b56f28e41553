"""A user with a mailbox and an agent, in test mode.

The agent has a /run of its own, and so a runtime folder and a journal that nobody else uses.
"""

import os
import pathlib
import signal
import subprocess
import time

from dialog import GUARD_SECONDS, TITLE, OnScreen
from harness.journal import Journal
from processes import PATIENCE_SECONDS, await_condition, end

# Private /run, then the program as itself: the agent is known by its command line.
IN_OWN_RUN = ["unshare", "--mount", "--propagation", "private", "sh", "-c",
              'mount --bind "$0" /run && exec "$@"']


def children(pid):
    try:
        text = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii")
    except (FileNotFoundError, ProcessLookupError):
        return []
    return [int(child) for child in text.split()]


class Recipient:
    """Whoever runs the tests, as somebody who gets messages."""

    name = "root"

    def __init__(self, folder, programs, screen):
        self.folder, self.screen = folder, screen
        self.var, self.lib, self.run = folder / "var", folder / "lib", folder / "run"
        self.runtime = self.run / "user" / str(os.geteuid())
        for place in (self.var, self.lib, self.runtime, self.run / "systemd" / "journal"):
            place.mkdir(parents=True)
        for program in ("tellbox-user", "tellbox-window"):
            (self.lib / program).symlink_to(programs / program)
        (self.lib / "tellbox").symlink_to(programs / "tellbox-user")
        self._tbx = str(programs / "tbx")
        self.journal = Journal(self.run / "systemd" / "journal" / "socket")
        self._configuration = folder / "tellbox.conf"
        self._agents = []
        self._sent = 0

    def close(self):
        for agent in self._agents:
            agent.close()
        self.journal.close()

    @property
    def environment(self):
        return {"TBX_TEST": "1", "TBX_VAR": str(self.var), "TBX_LIB": str(self.lib),
                "TBX_CONF": str(self._configuration)}

    # ---- What others do -------------------------------------------------------------------

    def configure(self, **settings):
        text = "".join(f"{name}={value}\n" for name, value in settings.items())
        self._configuration.write_text(text, encoding="ascii")

    def tbx(self, *arguments):
        """Runs the administrator's command."""
        result = subprocess.run([*IN_OWN_RUN, str(self.run), self._tbx, *arguments],
                                env={"PATH": "/usr/bin:/bin", "TZ": "UTC", **self.environment},
                                capture_output=True, text=True, timeout=60, check=False)
        assert (result.returncode, result.stderr) == (0, ""), result
        return result.stdout

    def send(self, text="Please log out.", *options):
        """Sends a message; returns its number."""
        self.tbx("send", "--to", self.name, *options, text)
        self._sent += 1
        return self._sent

    def use_window(self, script):
        """Puts a shell script in the window's place."""
        program = self.lib / "tellbox-window"
        program.unlink()
        program.write_text(f"#!/bin/sh\n{script}\n", encoding="utf-8")
        program.chmod(0o755)

    def remove_window(self):
        (self.lib / "tellbox-window").unlink()

    def start_tellbox(self, screen, *words, gate):
        """Starts the command of the terminal; it waits until nobody locks the file `gate`."""
        return screen.start(*IN_OWN_RUN, str(self.run), "flock", "--shared", str(gate),
                            str(self.lib / "tellbox"), *map(str, words), env=self.environment,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    # ---- The mailbox ----------------------------------------------------------------------

    def file(self, *parts):
        return self.var.joinpath("users", self.name, *map(str, parts))

    def mark(self, number):
        """What the desktop's mark says, None if there is none."""
        path = self.file("state", f"{number}.gui")
        try:
            return path.read_text(encoding="ascii").strip()
        except FileNotFoundError:
            return None

    def await_mark(self, number, what):
        await_condition(lambda: self.mark(number) == what, f"message {number} is {what}")

    def await_answer(self, number):
        """The channel of the answer."""
        await_condition(lambda: self.file("read", number).exists(), f"the answer to {number}")
        seconds, channel = self.file("acks", number).read_text(encoding="ascii").split()
        assert abs(int(seconds) - time.time()) < 3600
        return channel

    def is_unanswered(self, number):
        return self.file("inbox", number).exists() and not self.file("acks", number).exists()

    def let_expire(self, number, seconds):
        """The message, which had no end, expires in so many seconds."""
        copy = self.file("inbox", number)
        text = copy.read_text(encoding="utf-8")
        assert "expires: \n" in text
        moment = int(time.time()) + seconds
        copy.with_name("new").write_text(text.replace("expires: \n", f"expires: {moment}\n"),
                                         encoding="utf-8")
        copy.with_name("new").rename(copy)
        self.wake()

    def make_due(self, number):
        """Lets the time of a reminder pass."""
        long_ago = time.time() - 3600
        for mark in self.file("state").glob(f"{number}.*"):
            os.utime(mark, (long_ago, long_ago))
        self.wake()

    def events(self):
        """The events that the agent has recorded: (event, message, channel)."""
        return [(record.event, int(record["TBX_MESSAGE"]), record["TBX_CHANNEL"])
                for record in self.journal.records()
                if record["TBX_EVENT"] in ("CONFIRMED", "POSTPONED", "CONFIRMATION_FAILED")]

    def await_events(self, *expected):
        """Exactly these events are recorded; they follow what they tell of."""
        await_condition(lambda: len(self.events()) >= len(expected), f"recorded: {expected}")
        assert self.events() == list(expected)

    # ---- The agent ------------------------------------------------------------------------

    @property
    def ready_file(self):
        return self.runtime / "tellbox-agent.ready"

    def start_agent(self, env=None, wait=True, errors=subprocess.DEVNULL):
        agent = Agent(self, env or {}, errors)
        self._agents.append(agent)
        if wait:
            agent.await_ready()
        return agent

    def wake(self):
        for agent in self._agents:
            if agent.process.poll() is None:
                agent.signal(signal.SIGUSR1)

    def no_window_comes(self, seconds=0.6):
        """Whether none comes for a while, in which one would have come."""
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            if any(agent.windows() for agent in self._agents):
                return False
            time.sleep(0.02)
        return True


class Agent:
    """A running agent."""

    def __init__(self, recipient, env, errors):
        self.recipient = recipient
        own = {**recipient.environment, **env}
        self.process = recipient.screen.start(
            *IN_OWN_RUN, str(recipient.run), str(recipient.lib / "tellbox-user"), "agent",
            env={name: value for name, value in own.items() if value is not None}, stderr=errors)

    def await_ready(self):
        """It holds the readiness file."""
        path = self.recipient.ready_file
        await_condition(lambda: path.exists() and
                        path.read_text(encoding="ascii") == f"{self.process.pid}\n",
                        "the agent is ready")

    def signal(self, number):
        self.process.send_signal(number)

    def status(self):
        return self.process.wait(PATIENCE_SECONDS)

    def sees_read_only(self, folder):
        """The agent cannot write to a folder any more; others can."""
        subprocess.run(["nsenter", "--target", str(self.process.pid), "--mount", "sh", "-c",
                        'mount --bind "$0" "$0" && mount -o remount,bind,ro "$0"', str(folder)],
                       check=True)

    def cannot_read(self, path):
        """The agent gets an input/output error where others read the file."""
        subprocess.run(["nsenter", "--target", str(self.process.pid), "--mount",
                        "mount", "--bind", "/proc/self/mem", str(path)], check=True)

    def windows(self):
        """The processes of its windows."""
        return children(self.process.pid)

    def await_window(self, number=None):
        """The window that it has opened, once it is shown (of this message)."""
        if number:
            self.recipient.await_mark(number, "shown")
        pid = await_condition(self.windows, "a window is opened")[-1]
        shown = OnScreen(self.recipient.screen, pid)
        shown.tree  # pylint: disable=pointless-statement; waits for it
        return shown

    def await_no_window(self):
        await_condition(lambda: not self.windows(), "the window is gone")

    def await_another_window(self, before):
        pid = await_condition(lambda: [pid for pid in self.windows() if pid != before.pid],
                              "another window")[-1]
        return OnScreen(self.recipient.screen, pid)

    def answer(self, button, number=None):
        """The user reads, and answers."""
        window = self.await_window(number)
        time.sleep(GUARD_SECONDS + 0.1)
        window.button(button).activate()
        return window

    def title(self):
        """The title of the window on the screen."""
        window = self.recipient.screen.await_window(TITLE)
        return self.recipient.screen.output("xdotool", "getwindowname", str(window)).strip()

    def close(self):
        end(self.process)
