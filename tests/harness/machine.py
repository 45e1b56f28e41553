"""A scratch machine: its own accounts, login sessions, journal, terminals and state.

Everything lives in mount and PID namespaces of its own and vanishes with them.
"""

import os
import shutil
import subprocess
import sys
from pathlib import Path

from .agent import Agent
from .journal import DatagramSink, Journal
from .process import Gate, Process, StandIn, Trace
from .store import Store
from .terminals import Terminal

FIRST_PROCESS = Path(__file__).with_name("first_process.py")
NSENTER = shutil.which("nsenter") or "nsenter"

STAND_INS = "/run/stand-in"
SEARCH_PATH = f"{STAND_INS}:/usr/sbin:/usr/bin:/sbin:/bin"
BINARY = "/run/tbx/tbx"
STATE = "/var/lib/tellbox"

# Kept from the caller's environment: what sanitizers and coverage need.
PASSED_ON = ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "LLVM_PROFILE_FILE")

# The ordinary accounts of every machine. An ordinary user who runs the tests is "pat".
USERS = ("pat", "alex", "sam", "kim")
FIRST_UID = 1001


class CannotBuild(Exception):
    """The namespaces of a machine cannot be made here."""


class Machine:
    """A machine on which tbx runs as it does in earnest: as root, not in test mode."""

    state_name = STATE  # the state directory as the program names it

    def __init__(self, binary):
        self._helper = subprocess.Popen(
            [sys.executable, "-I", "-S", str(FIRST_PROCESS), str(binary)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        answer = self._helper.stdout.readline().strip()
        if not answer.isdigit():
            _, errors = self._helper.communicate()
            raise CannotBuild(answer or errors.strip().split("\n")[-1])
        self._first = int(answer)
        self._open, self._started = [], []
        self.env = {"PATH": SEARCH_PATH, "HOME": "/root", "LANG": "C.UTF-8", "TZ": "UTC",
                    "TERM": "xterm",
                    **{name: os.environ[name] for name in PASSED_ON if name in os.environ}}
        self._users, self._groups = {}, {}
        self._furnish()
        self.store = Store(self.path(self.state_name), self._owner_in_mailbox)

    # Building the machine.

    def _furnish(self):
        for place, mode in (("/run/systemd/sessions", 0o755), ("/run/systemd/journal", 0o755),
                            ("/run/user", 0o755), (STAND_INS, 0o755),
                            (f"{STAND_INS}/calls", 0o777), ("/run/gates", 0o777)):
            self.path(place).mkdir(parents=True)
            self.path(place).chmod(mode)
        self.journal = self._keep(Journal(self.path("/run/systemd/journal/socket")))
        self.write("/etc/nsswitch.conf", "passwd: files\ngroup: files\n")
        self.write("/etc/login.defs", "UID_MIN 1000\nUID_MAX 60000\n")
        self._groups["root"] = (0, [])
        self._users["root"] = (0, 0, "/bin/bash")
        first = FIRST_UID if os.getuid() == 0 else os.getuid()
        for offset, name in enumerate(USERS):
            self.add_user(name, first + offset)
        self.systemd_run = self.stand_in("systemd-run")
        self.sudo = self.stand_in("sudo")

    def _keep(self, resource):
        self._open.append(resource)
        return resource

    def close(self):
        for resource in reversed(self._open):
            resource.close()
        self.kill()
        for process in self._started:
            process.reap()
        self._helper.stdout.close()
        self._helper.stderr.close()

    def kill(self):
        """Ends every process of the machine."""
        if self._helper.poll() is None:
            self._helper.stdin.close()
            self._helper.wait()

    # Files of the machine.

    def path(self, name):
        """The machine's file `name`, as this process reaches it.

        An absolute symbolic link would be followed on the host: use readlink on those.
        """
        return Path(f"/proc/{self._first}/root{name}")

    def write(self, name, text, mode=0o644):
        """Replaces the file as the tools that manage accounts do: by a rename."""
        data = text.encode() if isinstance(text, str) else text
        fresh = self.path(f"{name}.new")
        fresh.write_bytes(data)
        fresh.chmod(mode)
        fresh.rename(self.path(name))
        return self.path(name)

    # Accounts and sessions.

    def add_user(self, name, uid, *, gid=None, shell="/bin/bash"):
        """An account; with no `gid`, its primary group is a group of its own."""
        if gid is None:
            gid = uid
            self._groups.setdefault(name, (gid, []))
        self._users[name] = (uid, gid, shell)
        self._write_accounts()

    def remove_user(self, name):
        del self._users[name]
        self._write_accounts()

    def add_group(self, name, gid, members=()):
        self._groups[name] = (gid, list(members))
        self._write_accounts()

    def uid(self, name):
        return self._users[name][0]

    def _owner_in_mailbox(self, name):
        return self._users[name][0] if name in self._users else 0

    def _write_accounts(self):
        self.write("/etc/passwd", "".join(
            f"{name}:x:{uid}:{gid}:{name}:/:{shell}\n"
            for name, (uid, gid, shell) in self._users.items()))
        self.write("/etc/group", "".join(
            f"{name}:x:{gid}:{','.join(members)}\n"
            for name, (gid, members) in self._groups.items()))

    def add_session(self, session_id, user, *, kind="tty", session_class="user",
                    state="active", tty=None):
        """A login session; an argument that is None leaves its line out."""
        lines = {"UID": str(self.uid(user)), "ACTIVE": "1", "STATE": state, "TYPE": kind,
                 "CLASS": session_class, "TTY": tty}
        self.write(f"/run/systemd/sessions/{session_id}",
                   "".join(f"{key}={value}\n" for key, value in lines.items()
                           if value is not None))

    def end_session(self, session_id):
        self.path(f"/run/systemd/sessions/{session_id}").unlink()

    def runtime_directory(self, user):
        """/run/user/UID, made when missing and owned by the user."""
        place = self.path(f"/run/user/{self.uid(user)}")
        if not place.is_dir():
            place.mkdir(mode=0o700)
            os.chown(place, self.uid(user), self.uid(user))
        return place

    def start_agent(self, user, *extra_arguments, **options):
        """A desktop agent of the user that runs already; it writes no readiness file."""
        return Agent(self, user, *extra_arguments, **options)

    def write_readiness(self, user, content):
        """The readiness file of the user's desktop agent."""
        data = content if isinstance(content, bytes) else f"{content}\n".encode()
        ready = self.runtime_directory(user) / "tellbox-agent.ready"
        ready.write_bytes(data)
        os.chown(ready, self.uid(user), -1)
        return ready

    # Terminals, stand-ins, logs.

    def open_terminal(self, user):
        """A new pseudo-terminal /dev/pts/N of the user."""
        return self._keep(Terminal(self.path("/dev/pts"), "/dev/pts", self.uid(user)))

    def open_console(self, user, name):
        """A virtual console, such as "tty2"."""
        console = self._keep(Terminal(self.path("/dev/consoles"), "/dev/consoles",
                                      self.uid(user)))
        self.path(f"/dev/{name}").touch()
        self.shell(f"mount --bind {console.path} /dev/{name}")
        console.path = f"/dev/{name}"
        return console

    def stand_in(self, name, body="exit 0"):
        """A program `name`, first on the search path: logs its arguments, runs `body`."""
        return StandIn(self, STAND_INS, name, body)

    def gate(self, name):
        """A place where a stand-in waits until the test lets it through."""
        return Gate(self, name)

    def system_log(self):
        """Starts receiving /dev/log; `.messages()` gives what has arrived."""
        return self._keep(DatagramSink(self.path("/dev/log")))

    def without_journal(self):
        """From now on nobody listens at the journal's socket."""
        self.path("/run/systemd/journal/socket").unlink()

    # Running programs.

    def run(self, *arguments, **options):
        """Runs tbx to its end. Options as for `start`, and `timeout` in seconds."""
        timeout = options.pop("timeout", 60)
        return self.start(*arguments, **options).wait(timeout)

    def start(self, *arguments, input=b"", env=None, user=None, umask=0o022, wrap=(),
              program=BINARY, stdin=None, stdout=None, stderr=None):
        """Starts tbx and returns a Process.

        input    bytes or text for its standard input (stdin: a descriptor instead)
        env      changes to `self.env`; None removes a variable
        user     account to run as, with no supplementary groups; root when not given
        wrap     command line put before the program's own, such as ["strace", ...]
        """
        command = [*self._enter(), *self._become(user), *wrap, program, *arguments]
        environment = {**self.env, **(env or {})}
        child = subprocess.Popen(
            command, umask=umask,
            env={name: value for name, value in environment.items() if value is not None},
            stdin=subprocess.PIPE if stdin is None else stdin,
            stdout=subprocess.PIPE if stdout is None else stdout,
            stderr=subprocess.PIPE if stderr is None else stderr)
        data = input.encode("utf-8", "surrogateescape") if isinstance(input, str) else input
        self._started.append(Process(self, child, data))
        return self._started[-1]

    def send_held_at(self, user, *arguments):
        """Starts a send that waits in the start of the user's desktop agent until the gate opens.

        Returns the Process and the Gate.
        """
        self.add_session("c1", user, kind="wayland")
        gate = self.gate(f"agent-of-{user}")
        self.stand_in("systemd-run", gate.body)
        send = self.start("send", *arguments)
        gate.wait()
        return send, gate

    def start_on_terminal(self, terminal, *arguments, **options):
        """Starts tbx as a login shell would: the terminal is its controlling terminal."""
        return self.start(*arguments, stdin=terminal.slave, stdout=terminal.slave,
                          stderr=terminal.slave, wrap=["setsid", "-c", "-w"], **options)

    def shell(self, script, *, user=None, check=True):
        """Runs a shell script on the machine."""
        result = self.run("-c", script, program="/bin/sh", user=user)
        assert not check or result.status == 0, f"{script}: {result}"
        return result

    def trace(self, calls, *arguments, inject=(), only_path=None, **options):
        """Runs tbx under strace and returns a Trace of the named system calls.

        calls      names for -e trace=, comma-separated; injected calls must be among them
        inject     expressions for -e inject=, such as "fsync:error=EIO:when=1"
        only_path  looks only at calls that concern this file
        """
        log = self.path("/run/trace")
        log.write_bytes(b"")
        log.chmod(0o666)  # whoever runs the program writes it
        wrap = ["strace", "-f", "-qq", "-y", "-s", "200", "-o", "/run/trace",
                "-e", f"trace=execve,{calls}", "-e", "signal=none"]
        if only_path is not None:
            wrap += ["-P", only_path, "-P", BINARY]  # the start of the program is always logged
        for expression in inject:
            wrap += ["-e", f"inject={expression}"]
        # Leak checking needs ptrace for itself.
        env = {"ASAN_OPTIONS": self.env.get("ASAN_OPTIONS", "") + ":detect_leaks=0",
               **options.pop("env", {})}
        result = self.run(*arguments, wrap=wrap, env=env, **options)
        return Trace(result, log.read_text(encoding="utf-8", errors="surrogateescape"), calls)

    def _enter(self):
        enter = [NSENTER, "-t", str(self._first), "-m", "-p"]
        if os.getuid() != 0:
            enter += ["-U", "--preserve-credentials"]
        return [*enter, "--"]

    def _become(self, user):
        if user is None:
            return []
        uid, gid, _ = self._users[user]
        return ["setpriv", f"--reuid={uid}", f"--regid={gid}", "--clear-groups", "--"]


class Box(Machine):
    """A machine on which tbx runs in test mode, by whoever runs the tests.

    pat's terminal is a regular file; nobody else has one.
    """

    state_name = "/var/lib/box/state"
    terminal_name = "/var/lib/box/terminal"

    def __init__(self, binary):
        super().__init__(binary)
        self.path("/var/lib/box").mkdir()
        self.path("/var/lib/box").chmod(0o777)
        self.terminal = self.path(self.terminal_name)
        self.terminal.touch()
        if os.getuid() == 0:
            os.chown(self.terminal, self.uid("pat"), -1)
        self.env.update(TBX_TEST="1", TBX_VAR=self.state_name,
                        TBX_TEST_TTY=self.terminal_name)

    def _owner_in_mailbox(self, name):
        return None  # test mode hands nothing over

    def account_running_tests(self):
        """The account that the program runs as."""
        return "root" if os.getuid() == 0 else "pat"
