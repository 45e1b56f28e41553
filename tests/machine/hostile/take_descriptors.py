"""Makes the user's own bus mute, and takes every descriptor out of every process of this user."""

import ctypes
import os
import socket

from work import report, until_told

SYS_PIDFD_OPEN = 434
SYS_PIDFD_GETFD = 438

libc = ctypes.CDLL(None, use_errno=True)
taken = set()
looked_into = set()


def mute_bus():
    path = f"/run/user/{os.getuid()}/bus"
    os.unlink(path)
    bus = socket.socket(socket.AF_UNIX)
    bus.bind(path)
    bus.listen()
    return bus


def others():
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.stat(f"/proc/{name}").st_uid == os.getuid() and int(name) != os.getpid():
                yield int(name)
        except (FileNotFoundError, ProcessLookupError):
            pass  # it has ended


def take_all(pid):
    pidfd = libc.syscall(SYS_PIDFD_OPEN, pid, 0)
    if pidfd < 0:
        return
    try:
        with open(f"/proc/{pid}/comm", encoding="utf-8", errors="replace") as file:
            name = file.read().strip()
    except OSError:
        name = "?"
    for number in range(64):
        got = libc.syscall(SYS_PIDFD_GETFD, pidfd, number, 0)
        if got >= 0:
            looked_into.add(name)
            taken.add((name, number, os.readlink(f"/proc/self/fd/{got}")))
            os.close(got)
    os.close(pidfd)


def look():
    for pid in others():
        take_all(pid)


bus = mute_bus()
until_told(look)
report(looked_into=sorted(looked_into), taken=sorted(taken))
