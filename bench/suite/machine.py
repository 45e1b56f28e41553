"""The machine that the cases run on: real accounts, real privilege drop, a real disk.

It lives in the mount, PID and network namespaces that tools/bench has entered: a few
directories are covered there, and all of it vanishes with the process.
"""

import contextlib
import os
import re
import shutil
import socket
import struct
import subprocess
import threading
from pathlib import Path

from harness.history import MACHINE_ID
from harness.terminals import open_multiplexer

STATE = "/var/lib/tellbox"  # of tbx
FLOOR_STATE = "/var/lib/floor"  # of the floor, where each has a store of its own
PROGRAMS = "/run/programs"
OUTPUT = "/run/output"

FIRST_UID = 2001
# Accounts stand in the file in this order, with steps that meet them all: the first so many of
# them by number are spread over the whole file, and looking one up costs the same for all.
FILE_STEP = 1847
PLENTY_OF_MEMORY = 8 << 30  # the largest store takes a third of it
DRAIN_INTERVAL_SECONDS = 0.02
KEPT_CONFIGURATION = ("ld.so.cache", "localtime")  # of /etc

# As an administrator's shell has it: no TZ, so the time zone is the machine's own.
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LANG": "C.UTF-8",
               "TERM": "xterm"}


def user_name(number):
    """The name of the account with this number, from 0."""
    return f"user{number:04d}"


def user_id(number):
    return FIRST_UID + number


def mount(*arguments, **options):
    subprocess.run(["mount", *arguments], check=True, **options)


def bind_descriptor(descriptor, target):
    """Mounts what the descriptor holds, wherever its path may be covered by now."""
    mount("--bind", f"/proc/self/fd/{descriptor}", target, pass_fds=[descriptor])


def available_memory():
    """Bytes that can be had without swapping."""
    text = Path("/proc/meminfo").read_text(encoding="ascii")
    return int(re.search(r"^MemAvailable: +(\d+) kB$", text, re.MULTILINE)[1]) * 1024


class JournalSink:
    """Takes the journal's place, and throws away what it is sent.

    It wakes by the clock and not for each record, so that it does not compete with the
    sender; the queue is made long enough for that.
    """

    def __init__(self, path):
        Path("/proc/sys/net/unix/max_dgram_qlen").write_text("100000\n", encoding="ascii")
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.setblocking(False)
        self._socket.bind(path)
        self._received = 0
        self._lock = threading.Lock()
        self._closing = threading.Event()
        self._reader = threading.Thread(target=self._drain_until_closed, daemon=True)
        self._reader.start()

    def take_count(self):
        """How many records have come since the last call."""
        self._drain()
        with self._lock:
            count, self._received = self._received, 0
        return count

    def close(self):
        self._closing.set()
        self._reader.join()
        self._socket.close()

    def _drain_until_closed(self):
        while not self._closing.wait(DRAIN_INTERVAL_SECONDS):
            self._drain()

    def _drain(self):
        with self._lock:
            while True:
                try:
                    self._socket.recv(1)
                except BlockingIOError:
                    return
                self._received += 1


def open_terminal(owner):
    """A new pseudo-terminal of that user: its master and its name."""
    master, number = open_multiplexer("/dev/pts/ptmx")
    os.set_blocking(master, False)
    name = f"/dev/pts/{number}"
    os.chown(name, owner, 0)
    return master, name


class Terminals:
    """Pseudo-terminals of one user, in the table of logins too. Nobody looks at them: what was
    written is thrown away by empty()."""

    # type, process, line, identifier, user, host, exit, session, time, address, unused
    UTMP = struct.Struct("=hxxi32s4s32s256shhiii16s20s")
    USER_PROCESS = 7

    def __init__(self, count, owner_number):
        opened = [open_terminal(user_id(owner_number)) for _ in range(count)]
        self._masters = [master for master, _ in opened]
        # A terminal that nobody has open hangs up.
        self._slaves = [os.open(name, os.O_RDWR | os.O_NOCTTY) for _, name in opened]
        user = user_name(owner_number).encode()
        Path("/run/utmp").write_bytes(b"".join(
            self.UTMP.pack(self.USER_PROCESS, os.getpid(), name.removeprefix("/dev/").encode(),
                           name[-4:].encode(), user, b"", 0, 0, 0, 0, 0, b"", b"")
            for _, name in opened))

    def empty(self):
        """Takes what was written; how many of the terminals had something."""
        return sum(1 for master in self._masters if drain(master))

    def close(self):
        for descriptor in self._slaves + self._masters:
            os.close(descriptor)
        os.unlink("/run/utmp")


def drain(descriptor):
    """Reads what there is, without waiting; its length."""
    size = 0
    with contextlib.suppress(BlockingIOError):
        while True:
            size += len(os.read(descriptor, 65536))
    return size


class Machine:
    """Built once per process, inside its namespaces; `scratch` is a directory on the disk."""

    def __init__(self, scratch, programs):
        scratch_fd, programs_fd = (os.open(place, os.O_PATH) for place in (scratch, programs))
        mount("-t", "tmpfs", "-o", "mode=755", "tmpfs", "/run")
        mount("-t", "tmpfs", "-o", "mode=755", "tmpfs", "/var/lib")
        mount("-t", "devpts", "-o", "newinstance,ptmxmode=0666,mode=620", "devpts", "/dev/pts")
        for place in (PROGRAMS, STATE, FLOOR_STATE, "/run/scratch", "/run/etc",
                      "/run/systemd/sessions", "/run/systemd/journal"):
            os.makedirs(place)
        bind_descriptor(programs_fd, PROGRAMS)
        bind_descriptor(scratch_fd, "/run/scratch")
        self.scratch = Path("/run/scratch")  # where stores are made
        self.results = self.scratch / "results.json"
        self._write_configuration()
        self._open_session_of_root()
        self.journal = JournalSink("/run/systemd/journal/socket")

    def close(self):
        self.journal.close()
        os.close(self._terminal)

    def _write_configuration(self):
        """An /etc of its own: what is installed on the host meanwhile replaces files there."""
        place = Path("/run/etc")
        for name in KEPT_CONFIGURATION:
            with contextlib.suppress(FileNotFoundError):
                shutil.copy(Path("/etc", name), place)
        files = {
            "group": "root:x:0:\n",
            "nsswitch.conf": "passwd: files\ngroup: files\n",
            "machine-id": f"{MACHINE_ID}\n",
        }
        for name, text in files.items():
            (place / name).write_text(text, encoding="ascii")
        mount("--bind", str(place), "/etc")
        mount("-t", "tmpfs", "-o", "mode=755", "tmpfs", "/var/log")

    def use_accounts(self, count, humans=0):
        """Writes an account file of so many users, of whom the first `humans` (all, for 0)
        count as such."""
        order = [place * FILE_STEP % count for place in range(count)]
        lines = [f"{user_name(number)}:x:{user_id(number)}:{user_id(number)}:"
                 f"{user_name(number)}:/home/{user_name(number)}:/bin/bash\n"
                 for number in order]
        Path("/etc/passwd").write_text("root:x:0:0:root:/root:/bin/bash\n" + "".join(lines),
                                       encoding="ascii")
        last = user_id((humans or count) - 1)
        Path("/etc/login.defs").write_text(f"UID_MIN {FIRST_UID}\nUID_MAX {last}\n",
                                           encoding="ascii")

    def _open_session_of_root(self):
        """One login, the administrator's, on one pseudo-terminal."""
        self._terminal = os.open("/dev/pts/ptmx", os.O_RDWR | os.O_NOCTTY)
        Path("/run/systemd/sessions/c1").write_text(
            "UID=0\nUSER=root\nACTIVE=1\nSTATE=active\nREMOTE=0\nTYPE=tty\nCLASS=user\n"
            "SCOPE=session-c1.scope\nTTY=pts/0\nSERVICE=sshd\n", encoding="ascii")

    def use_memory(self):
        """Makes stores in memory from now on: nothing waits for a disk."""
        self.scratch = self._place_in_memory()

    def place_to_read(self):
        """Where large stores that are only read are made: in memory if there is plenty of it. They
        are read from memory anyhow, but on a disk it takes longer to make them than to read them
        a dozen times."""
        return self._place_in_memory() if available_memory() >= PLENTY_OF_MEMORY else self.scratch

    @staticmethod
    def _place_in_memory():
        place = Path("/run/stores")
        if not place.exists():
            place.mkdir()
            mount("-t", "tmpfs", "-o", "mode=755,size=75%,nr_inodes=0", "tmpfs", str(place))
        return place

    def use_store(self, place, directory):
        """Puts a directory where a program looks for its state."""
        mount("--bind", str(directory), place)

    def release_store(self, place):
        subprocess.run(["umount", place], check=True)

    def settle(self):
        """Writes back what the last run left dirty, so that the next does not pay for it."""
        subprocess.run(["sync", "--file-system", str(self.scratch)], check=True)
