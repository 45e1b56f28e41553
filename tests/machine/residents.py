"""What people have on a machine: login sessions, terminals, desktop agents."""

import os
import pathlib
import select
import termios

import pyte

from harness.terminals import open_multiplexer, set_size
from harness.waiting import PATIENCE_SECONDS, await_condition

AGENT = "/usr/local/lib/tellbox/tellbox-user"

SESSION_FILES = "/run/systemd/sessions"

# Size of a terminal
COLUMNS, ROWS = 110, 24


def login_sessions(machine):
    """What logind keeps of each session, as a dict of its fields with the identifier as ID."""
    sessions = []
    for path in machine.path(SESSION_FILES).glob("*"):
        if path.name.isalnum():
            try:
                lines = path.read_text(encoding="utf-8").splitlines()
            except FileNotFoundError:
                continue  # it ended meanwhile
            fields = dict(line.split("=", 1) for line in lines if "=" in line)
            sessions.append({**fields, "ID": path.name})
    return sessions


class Session:
    """A login session that PAM and logind opened, with a process of the user in it.

    kind           "tty", "x11", "wayland" or None
    session_class  "user", "greeter", "background"
    terminal       a Terminal that the session is on
    command        what the user runs, for the shell
    env            what the user's environment holds besides
    """

    _opened = 0
    # The second process stays behind when the session is closed.
    _IDLE = "sleep infinity & exec sleep infinity"

    def __init__(self, machine, user, kind=None, session_class="user", terminal=None,
                 command=_IDLE, env=None):
        Session._opened += 1
        self._machine = machine
        self.user = user
        self.unit = f"tbx-session-{Session._opened}.service"
        options = [f"--setenv=XDG_SESSION_CLASS={session_class}"]
        options += [f"--setenv={name}={value}" for name, value in (env or {}).items()]
        if kind:
            options.append(f"--setenv=XDG_SESSION_TYPE={kind}")
        if terminal:
            options += ["-p", "StandardInput=tty", "-p", f"TTYPath={terminal.path}",
                        "-p", "StandardOutput=tty"]
        machine.run("systemd-run", "--quiet", "--collect", f"--unit={self.unit}",
                    "-p", "PAMName=login", f"--uid={user}", *options,
                    "sh", "-c", command)
        self.leader = self._main_process()
        self.id = await_condition(self._identifier, PATIENCE_SECONDS, f"a session of {user}")

    def _main_process(self):
        shown = self._machine.run("systemctl", "show", "-p", "MainPID", "--value", self.unit)
        return shown.stdout.strip()

    def _identifier(self):
        for session in login_sessions(self._machine):
            if session.get("LEADER") == self.leader and session["STATE"] in ("active", "online"):
                return session["ID"]
        return None

    def _has_idled(self):
        name = self._machine.path(f"/proc/{self.leader}/comm").read_text(encoding="ascii")
        return name == "sleep\n"

    def state(self):
        """The session's state as logind has it, or None when it is gone."""
        for session in login_sessions(self._machine):
            if session["ID"] == self.id:
                return session["STATE"]
        return None

    def await_end(self):
        await_condition(lambda: self.state() is None, PATIENCE_SECONDS, "the end of a session")

    def close(self):
        """Logs out. A process stays, so that the session does not end but is closing."""
        await_condition(self._has_idled, PATIENCE_SECONDS, "the process that is to stay")
        self._machine.run("kill", "-KILL", self.leader)
        await_condition(lambda: self.state() == "closing", PATIENCE_SECONDS, "a closing session")


class Terminal:
    """A terminal of the machine, seen from its keyboard and screen.

    path       its name in the machine
    session    the session on it, if there is one
    """

    session = None

    def __init__(self, machine, multiplexer="/dev/pts/ptmx"):
        self._machine = machine
        self._shown = b""
        self._picture = pyte.Screen(COLUMNS, ROWS)
        self._painter = pyte.ByteStream(self._picture)
        self._master, number = open_multiplexer(machine.path(multiplexer))
        self.path = str(pathlib.PurePosixPath(multiplexer).with_name(str(number)))
        self._screen = self._open(os.O_NOCTTY)  # as a shell would keep it
        self.resize(COLUMNS, ROWS)

    def give_to(self, user):
        """Makes the user its owner, as whatever opens a terminal for a user does."""
        uid = self._machine.uid(user)
        os.chown(self._machine.path(self.path), uid, -1)
        return self

    def resize(self, columns, rows):
        self._picture.resize(rows, columns)
        set_size(self._master, columns, rows)

    def type(self, keys):
        os.write(self._master, keys)

    def stop(self):
        """Ctrl+S: nothing is shown any more, and once the buffer is full nothing is taken."""
        self.type(b"\x13")
        await_condition(self._is_stopped, PATIENCE_SECONDS, "a stopped terminal")

    def resume(self):
        """Ctrl+Q"""
        self.type(b"\x11")
        await_condition(lambda: not self._is_stopped(), PATIENCE_SECONDS, "a running terminal")

    def make_raw(self):
        """What full-screen programs do: nothing is added to what they write."""
        attributes = self.attributes()
        attributes[1] &= ~termios.OPOST
        termios.tcsetattr(self._screen, termios.TCSANOW, attributes)

    def shown(self):
        """All that has been written to it."""
        while select.select([self._master], [], [], 0)[0]:
            output = os.read(self._master, 65536)
            self._painter.feed(output)
            self._shown += output
        return self._shown

    def await_shown(self, text):
        await_condition(lambda: text in self.shown(), PATIENCE_SECONDS, f"{text} on a terminal")

    def screen(self):
        """What a person sees of it: its rows, in one text."""
        self.shown()
        return "\n".join(self._picture.display)

    def await_seen(self, text):
        try:
            await_condition(lambda: text in self.screen(), PATIENCE_SECONDS, text)
        except TimeoutError as timeout:
            raise AssertionError(f"never seen: {text}\n{self.screen()}") from timeout

    def attributes(self):
        return termios.tcgetattr(self._screen)

    def close(self):
        """Takes the terminal away, as closing its window does."""
        if self._master is not None:
            os.close(self._screen)
            os.close(self._master)
            self._master = None

    def _open(self, flags):
        return os.open(self._machine.path(self.path), os.O_RDWR | os.O_CLOEXEC | flags)

    def _is_stopped(self):
        screen = self._open(os.O_NOCTTY | os.O_NONBLOCK)
        try:
            os.write(screen, b"?")
            return False
        except BlockingIOError:
            return True
        finally:
            os.close(screen)


class Console(Terminal):
    """A terminal that goes by the name of a console, as a user's who logs in at the machine.

    A container has no virtual consoles, and what it calls tty1 to tty63 logind takes for one.
    """

    DEVICE = "/dev/tty64"
    FOLDER = "/run/consoles"

    def __init__(self, machine):
        machine.run("mkdir", "-p", self.FOLDER)
        machine.run("mount", "-t", "devpts", "-o", "newinstance,ptmxmode=666", "devpts",
                    self.FOLDER)
        super().__init__(machine, f"{self.FOLDER}/ptmx")
        machine.run("touch", self.DEVICE)
        machine.run("mount", "--bind", self.path, self.DEVICE)
        self.path = self.DEVICE

    def close(self):
        super().close()
        # Lazily: whoever is logged in there still has it open.
        self._machine.run("umount", "--lazy", self.DEVICE, self.FOLDER)
        self._machine.run("rm", self.DEVICE)


class Agents:
    """The desktop agents of one user."""

    def __init__(self, machine, user):
        self._machine = machine
        self._user = user
        self._runtime = f"/run/user/{machine.uid(user)}"
        self.ready_file = machine.path(f"{self._runtime}/tellbox-agent.ready")

    def running(self):
        """The process ids, in the machine, of the user's agents."""
        found = self._machine.run("pgrep", "-u", self._user, "-xf", f"{AGENT} agent", check=False)
        return [int(pid) for pid in found.stdout.split()]

    def looks(self):
        """Why agents looked into the mailbox: (process id, "started" or "woken") each time."""
        try:
            path = self._machine.path(f"{self._runtime}/tellbox-agent.looks")
            lines = path.read_text(encoding="ascii").splitlines()
        except FileNotFoundError:
            return []
        return [(int(pid), reason) for pid, reason in map(str.split, lines)]

    def await_looks(self, count):
        """Waits until agents have looked that often; returns looks()."""
        await_condition(lambda: len(self.looks()) >= count, PATIENCE_SECONDS,
                        f"look {count} of an agent of {self._user}")
        return self.looks()

    def kill(self):
        """Ends the agents as a crash does, leaving the readiness file."""
        self._machine.run("pkill", "-KILL", "-u", self._user, "-xf", f"{AGENT} agent")
        await_condition(lambda: not self.running(), PATIENCE_SECONDS, "the end of the agents")
