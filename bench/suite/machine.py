"""The machine that the cases run on: real accounts, real privilege drop, a real disk.

It lives in the mount, PID and network namespaces that tools/bench has entered: a few
directories are covered there, and all of it vanishes with the process.
"""

import contextlib
import os
import shutil
import socket
import subprocess
import threading
from pathlib import Path

STATE = "/var/lib/tellbox"  # of tbx
FLOOR_STATE = "/var/lib/floor"  # of the floor, where each has a store of its own
PROGRAMS = "/run/programs"
OUTPUT = "/run/output"

USER_COUNT = 1000  # in the account file throughout, whatever the case sends to
FIRST_UID = 2001
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
        self.scratch = Path("/run/scratch")
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
        users = [(user_name(number), user_id(number)) for number in range(USER_COUNT)]
        files = {
            "passwd": "root:x:0:0:root:/root:/bin/bash\n" + "".join(
                f"{name}:x:{uid}:{uid}:{name}:/home/{name}:/bin/bash\n" for name, uid in users),
            "group": "root:x:0:\n" + "".join(f"{name}:x:{uid}:\n" for name, uid in users),
            "nsswitch.conf": "passwd: files\ngroup: files\n",
            "login.defs": "UID_MIN 1000\nUID_MAX 60000\n",
        }
        for name, text in files.items():
            (place / name).write_text(text, encoding="ascii")
        mount("--bind", str(place), "/etc")

    def _open_session_of_root(self):
        """One login, the administrator's, on one pseudo-terminal."""
        self._terminal = os.open("/dev/pts/ptmx", os.O_RDWR | os.O_NOCTTY)
        Path("/run/systemd/sessions/c1").write_text(
            "UID=0\nUSER=root\nACTIVE=1\nSTATE=active\nREMOTE=0\nTYPE=tty\nCLASS=user\n"
            "SCOPE=session-c1.scope\nTTY=pts/0\nSERVICE=sshd\n", encoding="ascii")

    def use_store(self, place, directory):
        """Puts a directory of the scratch disk where a program looks for its state."""
        mount("--bind", str(directory), place)

    def release_store(self, place):
        subprocess.run(["umount", place], check=True)

    def settle(self):
        """Writes back what the last run left dirty, so that the next does not pay for it."""
        subprocess.run(["sync", "--file-system", str(self.scratch)], check=True)
