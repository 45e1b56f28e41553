"""A booted machine with people on it, and what tests do there."""

import contextlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile

import harness.store
from booted import BASE, BootedMachine, children, end_process
from harness.waiting import PATIENCE_SECONDS, await_condition
from residents import AGENT, Agents, Console, Session, Terminal

HERE = pathlib.Path(__file__).resolve().parent

SHELLS = {"pat": "/bin/bash", "sam": "/bin/bash", "alex": "/bin/bash", "mal": "/bin/bash",
          "admin": "/bin/bash", "robot": "/usr/sbin/nologin", "mute": "/bin/false"}
PEOPLE = sorted(user for user, shell in SHELLS.items() if shell == "/bin/bash")

# Service accounts, and so not among "all".
CROWD = [f"crowd{number:03}" for number in range(1, 201)]
CROWD_UIDS_FROM = 3000

STORE = "/var/lib/tellbox"
TOOLS = "/srv/tests"  # programs of the tests
TELLBOX = f"{TOOLS}/tellbox"  # the recipients' program, under the name of the user's command


def banner(text, date, title=""):
    """What a terminal shows of a message: it adds a carriage return of its own to each line."""
    return harness.store.banner(text, date, title).replace(b"\r\n", b"\r\r\n")


def process_state(pid):
    """The letter of a process's state, such as "S" for one that waits; "" when it is gone."""
    try:
        status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="utf-8")
    except (FileNotFoundError, ProcessLookupError):
        return ""
    return re.search(r"^State:\t(.)", status, re.MULTILINE)[1]


class Machine(BootedMachine):
    """A booted machine with the accounts of SHELLS and the groups "crew" (pat, robot and, by the
    primary group, alex), "crowd" (200) and "haunted" (pat and ghost, who has no account).

    admin reaches root through sudo; mal means no good.
    """

    def __enter__(self):
        super().__enter__()
        try:
            self._furnish()
        except BaseException:
            self.stop()
            raise
        return self

    def _furnish(self):
        self._add_accounts()
        self._install_programs()
        sudoers = self.path("/etc/sudoers.d/tests")
        sudoers.write_text("admin ALL=(ALL) NOPASSWD: ALL\n"
                           "Defaults:admin env_keep += \"VISUAL EDITOR\"\n", encoding="ascii")
        sudoers.chmod(0o440)

    def _add_accounts(self):
        self.run("groupadd", "crew")
        for user, shell in SHELLS.items():
            options = ["-g", "crew"] if user == "alex" else ["-U"]
            self.run("useradd", "-m", "-s", shell, *options, user)
        self.run("gpasswd", "-M", "pat,robot", "crew")
        crowd = "".join(f"{name}:x:{CROWD_UIDS_FROM + i}:65534::/nonexistent:/bin/false\n"
                        for i, name in enumerate(CROWD))
        self._append("/etc/passwd", crowd)
        self._append("/etc/group", f"crowd:x:{CROWD_UIDS_FROM}:{','.join(CROWD)}\n"
                                   f"haunted:x:{CROWD_UIDS_FROM + 1}:ghost,pat\n")
        passwd = self.path("/etc/passwd").read_text(encoding="utf-8")
        accounts = [line.split(":") for line in passwd.splitlines()]
        self._ids = {fields[0]: (int(fields[2]), int(fields[3])) for fields in accounts}

    def _append(self, inside, text):
        with open(self.path(inside), "a", encoding="utf-8") as file:
            file.write(text)

    def _install_programs(self):
        with tempfile.TemporaryDirectory() as folder:
            program = pathlib.Path(folder) / "tellbox-user"
            subprocess.run(["g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", "-o", program,
                            HERE / "user_side" / "tellbox-user.cpp", "-lsystemd"], check=True)
            self.install(program, AGENT.lstrip("/"))
        self.install(self.binary.with_name("tellbox-user"), TELLBOX.lstrip("/"))
        for script in (HERE / "hostile").glob("*.py"):
            self.install(script, f"{TOOLS.lstrip('/')}/{script.name}")

    # ---- Between tests --------------------------------------------------------------------

    def refresh(self):
        """A state directory that does not exist yet, and a journal without records."""
        self._in_use = contextlib.ExitStack()
        shutil.rmtree(self.path(STORE), ignore_errors=True)
        self.run("journalctl", "--rotate")
        for archived in self.path("/var/log/journal").glob("*/*@*.journal"):
            archived.unlink()

    def tidy(self):
        """Ends what a test began: processes, sessions and all else of the users."""
        self._in_use.close()
        self.run("systemctl", "stop", "user.slice")  # all sessions and user managers
        self.run("pkill", "-KILL", "-u", ",".join(SHELLS), check=False)

    # ---- People ---------------------------------------------------------------------------

    def uid(self, user):
        return self._ids[user][0]

    def gid(self, user):
        return self._ids[user][1]

    def open_session(self, user, kind=None, **options):
        return Session(self, user, kind, **options)

    def open_terminal(self, user):
        """A pseudo terminal that belongs to the user and to no session."""
        return self._used(Terminal(self)).give_to(user)

    def log_in(self, user, terminal_class=Terminal, **options):
        """A terminal with a session of the user on it."""
        terminal = self._used(terminal_class(self))
        terminal.session = Session(self, user, "tty", terminal=terminal, **options)
        return terminal

    def log_in_at_console(self, user):
        return self.log_in(user, Console)

    def agents(self, user):
        return Agents(self, user)

    def answer(self, user, command, *arguments):
        """The user confirms or postpones, through the program that users run."""
        self.run(AGENT, command, *arguments, user=user)

    def attack(self, name, *arguments):
        """Starts hostile/NAME.py as mal; returns once it is at work."""
        attack = self._used(Attack(self, name, *arguments))
        attack.await_start()
        return attack

    def launch(self, *arguments, **options):
        """Starts the installed program; returns a Run."""
        return self._used(Run(self, *arguments, **options))

    def keep(self, process):
        """Sees to the end of a process that start() returned."""
        self._in_use.callback(end_process, process)

    def bystander(self, user, number=None):
        """A process of the user that any signal ends; `number` is the process id to give it."""
        for _ in range(100):
            process = self._used(Bystander(self, user, number))
            if number in (None, process.number):
                return process
            process.close()  # another process was started in between
        raise AssertionError(f"process id {number} was never free")

    def _used(self, thing):
        self._in_use.callback(thing.close)
        return thing

    # ---- The store ------------------------------------------------------------------------

    def store(self, *parts):
        return self.path(STORE).joinpath(*map(str, parts))

    def sent(self, message_id, *parts):
        return self.store("sent", message_id, *parts)

    def mailbox(self, user, *parts):
        return self.store("users", user, *parts)

    def lines(self, message_id, name):
        """The lines of a file of a message in the store; none when there is no such file."""
        path = self.sent(message_id, name)
        return path.read_text(encoding="utf-8").splitlines() if path.exists() else []

    def recipients(self, message_id=1):
        return self.lines(message_id, "recipients")

    def terminals_written(self, message_id=1):
        """Whom the delivery log names, with the number of terminals written to."""
        fields = [line.split() for line in self.lines(message_id, "delivery")]
        return {user: int(terminals) for user, _, terminals in fields}

    def header(self, message_id, name):
        """A header field of a stored message."""
        return harness.store.parse_message_file(self.sent(message_id, "msg").read_bytes())[name]

    def date(self, message_id=1):
        return int(self.header(message_id, "date"))

    def send(self, *arguments, recipients=1, message_id=1, **options):
        """Sends, and checks that everyone was reached."""
        result = self.tbx("send", *arguments, **options)
        whom = "1 user" if recipients == 1 else f"{recipients} users"
        assert (result.stdout, result.stderr, result.returncode) == (
            f"Message {message_id} sent to {whom}.\n", "", 0)

    def disk(self, *without):
        """All that was ever written to the machine's disk, without the journal and the folders
        `without`: path to (kind and mode, uid, gid, content)."""
        top = pathlib.Path(f"/proc/{self.holder}/root") / BASE.relative_to("/") / "upper"
        return harness.store.tree(top, without=("/var/log/journal", *without))

    def make_older(self, message_id, seconds):
        """Moves the date of a stored message back."""
        path = self.sent(message_id, "msg")
        date = self.date(message_id)
        text = path.read_text(encoding="utf-8")
        path.write_text(text.replace(f"\ndate: {date}\n", f"\ndate: {date - seconds}\n"))

    # ---- The journal ----------------------------------------------------------------------

    def records(self, *matches):
        """The program's records in the journal, oldest first, each a dict of its fields."""
        self.run("journalctl", "--sync")
        printed = self.run("journalctl", "-o", "json", "SYSLOG_IDENTIFIER=tbx", *matches).stdout
        return [json.loads(line) for line in printed.splitlines()]

    def forge(self, user, **fields):
        """An ordinary user writes any record into the journal."""
        lines = "".join(f"{name}={value}\n" for name, value in fields.items())
        self.run("logger", "--journald", user=user, input=lines)
        self.run("journalctl", "--sync")


class Bystander:
    """A process that has nothing to do with the program.

    number    its process id in the machine
    """

    # The file decides over the next process of the writer's process name space. It is the host's,
    # since the machine may not write to its own.
    _SCRIPT = 'test -z "$1" || echo $(($1 - 1)) >/proc/sys/kernel/ns_last_pid; shift; "$@" & wait'

    def __init__(self, machine, user, number):
        inside = machine.entering("setpriv", f"--reuid={machine.uid(user)}", "--clear-groups",
                                  "sleep", "infinity")
        inside.remove("-p")  # the shell is there already
        self._starter = subprocess.Popen(
            ["nsenter", "-t", str(machine.first), "-p", "--", "sh", "-c", self._SCRIPT, "sh",
             str(number or ""), *inside], start_new_session=True)
        self._pid = await_condition(self._find, PATIENCE_SECONDS, "a bystander")
        status = pathlib.Path(f"/proc/{self._pid}/status").read_text(encoding="ascii")
        self.number = int(re.search(r"^NSpid:.*\t(\d+)$", status, re.MULTILINE)[1])

    def _find(self):
        shells = children(self._starter.pid)
        started = children(shells[0]) if shells else []
        return started[0] if started and self._name(started[0]) == "sleep" else None

    def _name(self, pid):
        return pathlib.Path(f"/proc/{pid}/comm").read_text(encoding="ascii").strip()

    def is_running(self):
        return process_state(self._pid) == "S"

    def close(self):
        end_process(self._starter)


class Run:
    """The installed program while it runs."""

    def __init__(self, machine, *arguments, **options):
        self._machine = machine
        self._process = machine.start("/usr/local/bin/tbx", *arguments, **options)

    def kill(self):
        """kill -9 of the program itself, as running out of memory does it."""
        self._signal("KILL")
        self._process.wait(PATIENCE_SECONDS)

    def pause(self):
        """Stops the program. The nsenter before it stops too, and lets it go on again."""
        self._signal("STOP")
        await_condition(lambda: process_state(self._process.pid) == "T", PATIENCE_SECONDS,
                        "a stopped program")

    def resume(self):
        os.kill(self._process.pid, signal.SIGCONT)

    def _signal(self, name):
        """Signals the program itself, and not its child that acts as a user."""
        self._machine.run("pkill", f"-{name}", "-u", "root", "-x", "tbx")

    def has_ended(self):
        return self._process.poll() is not None

    def wait(self, timeout=60):
        """Its standard output, standard error and exit status."""
        output, errors = self._process.communicate(timeout=timeout)
        return output, errors, self._process.returncode

    def close(self):
        end_process(self._process)


class Attack:
    """A program of hostile/ at work, run by mal."""

    def __init__(self, machine, name, *arguments):
        self._name = name
        self._process = machine.start("python3", "-B", f"{TOOLS}/{name}.py", *arguments,
                                      user="mal", stdin=subprocess.PIPE, env={"USER": "mal"})

    def await_start(self):
        line = self._process.stdout.readline()
        assert line == "at work\n", f"{self._name}: {line}{self._process.stderr.read()}"

    def finish(self):
        """Lets it stop; returns what it has to say, a dict."""
        output, errors = self._process.communicate("", timeout=PATIENCE_SECONDS)
        assert self._process.returncode == 0, errors
        return json.loads(output)

    def close(self):
        end_process(self._process)

