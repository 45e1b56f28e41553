"""The first process of a scratch machine.

Started as `first_process.py BINARY`, it moves into private mount and PID namespaces
(and, for an ordinary user, a user namespace), covers every directory that a test may
change with an empty tmpfs, prints its process ID as the host sees it and stays until
its standard input closes. With it go the mounts and every process of the machine.
"""

import ctypes
import os
import signal
import sys

CLONE_NEWNS = 0x00020000
CLONE_NEWUSER = 0x10000000
CLONE_NEWPID = 0x20000000
MS_NOSUID, MS_NODEV, MS_NOEXEC, MS_BIND = 2, 4, 8, 4096
MS_REC, MS_PRIVATE = 16384, 1 << 18
PR_SET_PDEATHSIG = 1

COVERED = ("/dev", "/etc", "/run", "/usr/local/lib", "/var/lib")
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")

libc = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{what}: {os.strerror(error)}")


def mount(source, target, kind=None, flags=0, options=None):
    encoded = [None if text is None else text.encode() for text in (source, target, kind)]
    data = None if options is None else options.encode()
    check(libc.mount(*encoded, ctypes.c_ulong(flags), data), f"mount {target}")


def bind_descriptor(descriptor, target):
    with open(target, "w", encoding="ascii"):
        pass
    mount(f"/proc/self/fd/{descriptor}", target, flags=MS_BIND)


def map_only_myself(uid, gid):
    for name, text in (("setgroups", "deny"), ("uid_map", f"{uid} {uid} 1"),
                       ("gid_map", f"{gid} {gid} 1")):
        with open(f"/proc/self/{name}", "w", encoding="ascii") as out:
            out.write(text)


def build_devices(devices):
    for name, descriptor in devices.items():
        bind_descriptor(descriptor, f"/dev/{name}")
    os.mkdir("/dev/shm", 0o1777)
    for place in ("/dev/pts", "/dev/consoles"):
        os.mkdir(place)
        mount("devpts", place, "devpts", MS_NOSUID | MS_NOEXEC,
              "newinstance,ptmxmode=0666,mode=620")
    os.symlink("pts/ptmx", "/dev/ptmx")
    for number, name in enumerate(("stdin", "stdout", "stderr")):
        os.symlink(f"/proc/self/fd/{number}", f"/dev/{name}")
    os.symlink("/proc/self/fd", "/dev/fd")


def build_machine(binary):
    program = os.open(binary, os.O_PATH | os.O_CLOEXEC)
    devices = {name: os.open(f"/dev/{name}", os.O_PATH | os.O_CLOEXEC) for name in DEVICES}
    with open("/etc/ld.so.cache", "rb") as cache:
        linker_cache = cache.read()
    alternatives = {entry.name: os.readlink(entry.path)
                    for entry in os.scandir("/etc/alternatives") if entry.is_symlink()}
    mount(None, "/", flags=MS_REC | MS_PRIVATE)
    mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC)
    os.umask(0)
    for place in COVERED:
        mount("tmpfs", place, "tmpfs", MS_NOSUID, "mode=755")
    build_devices(devices)
    with open("/etc/ld.so.cache", "wb") as cache:
        cache.write(linker_cache)
    os.chmod("/etc/ld.so.cache", 0o644)
    os.mkdir("/etc/alternatives", 0o755)
    for name, target in alternatives.items():
        os.symlink(target, f"/etc/alternatives/{name}")
    os.mkdir("/run/tbx", 0o755)
    bind_descriptor(program, "/run/tbx/tbx")


def run_first_process(binary, ready):
    libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)  # orphans are reaped by the kernel
    try:
        build_machine(binary)
        os.write(ready, b"+")
    except OSError as error:
        os.write(ready, f"-{error}".encode())
    os.close(ready)
    while True:
        signal.pause()


def main():
    uid, gid = os.getuid(), os.getgid()
    own_user_space = CLONE_NEWUSER if uid != 0 else 0
    check(libc.unshare(CLONE_NEWNS | CLONE_NEWPID | own_user_space), "unshare")
    if own_user_space:
        map_only_myself(uid, gid)
    ready_out, ready_in = os.pipe()
    child = os.fork()
    if child == 0:
        os.close(ready_out)
        run_first_process(sys.argv[1], ready_in)
    os.close(ready_in)
    with os.fdopen(ready_out, "rb") as answer:
        outcome = answer.read()
    print(child if outcome == b"+" else outcome.decode(), flush=True)
    sys.stdin.read()
    os.kill(child, signal.SIGKILL)
    os.waitpid(child, 0)


main()
