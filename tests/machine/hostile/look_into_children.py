"""Stops whatever else runs as this user, tries to look into it, and lets it go on."""

import ctypes
import os
import signal

from work import report, until_told

PTRACE_ATTACH = 16
PTRACE_DETACH = 17
SECRETS = ["mem", "maps", "environ", "fd", "stack", "auxv"]

libc = ctypes.CDLL(None)
opened = set()
looked_into = set()


def others():
    own = os.getuid()
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.stat(f"/proc/{name}").st_uid == own or real_uid(name) == own:
                if int(name) != os.getpid():
                    yield int(name)
        except (FileNotFoundError, ProcessLookupError):
            pass  # it has ended


def real_uid(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        for line in status:
            if line.startswith("Uid:"):
                return int(line.split()[1])
    return None


def read_secret(pid, name):
    """What can be read there; nothing of a process that has just ended."""
    if name == "fd":
        return os.listdir(f"/proc/{pid}/fd")
    with open(f"/proc/{pid}/{name}", "rb") as file:
        return file.read(1)


def try_all(pid):
    for name in SECRETS:
        try:
            if read_secret(pid, name):
                opened.add(name)
        except OSError:
            pass
    if libc.ptrace(PTRACE_ATTACH, pid, 0, 0) == 0:
        opened.add("ptrace")
        libc.ptrace(PTRACE_DETACH, pid, 0, 0)
    looked_into.add(pid)


def stop_and_look():
    try:
        os.kill(-1, signal.SIGSTOP)
    except ProcessLookupError:
        return False
    for pid in others():
        try_all(pid)
    os.kill(-1, signal.SIGCONT)
    return True


until_told(stop_and_look)
report(looked_into=len(looked_into), opened=sorted(opened))
