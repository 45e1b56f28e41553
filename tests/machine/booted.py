"""A real systemd machine, booted from the host's own file system in about a second.

The machine sees the host's files through an overlay whose upper layer is a tmpfs, so that
nothing it does reaches the host. It is PID 1 and everything below: journald, logind, PAM, user
managers, sudo. It has no network.

Everything that it is made of (mounts, processes) lives in name spaces of its own, which end with
their first process; that one ends when this process does, however it does. Nothing has to be
unmounted, and nothing stays behind a test run that was killed.
"""

import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

from harness.waiting import await_condition

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]

# The only services that the machine is given; what else the host has enabled stays off.
KEPT_UNITS = {"dbus.service", "dbus.socket", "systemd-logind.service"}

MASKED_UNITS = [
    "getty.target", "console-getty.service", "systemd-resolved.service",
    "systemd-networkd.service", "systemd-timesyncd.service", "systemd-udevd.service",
    "systemd-homed.service", "systemd-userdbd.socket", "systemd-update-utmp.service",
    "systemd-update-utmp-runlevel.service", "ldconfig.service", "systemd-firstboot.service",
    "systemd-binfmt.service", "systemd-hwdb-update.service", "systemd-sysusers.service",
]

# Mounted over in the machine's own mount name space only.
BASE = pathlib.Path("/mnt")

# Runs with the machine's name spaces around it and its control groups as arguments. Between
# the two words that it exchanges with this process the machine's files are prepared.
START_SCRIPT = f"""
set -e
for group in "$@"; do echo 0 >"$group/cgroup.procs"; done
mount -t tmpfs -o mode=755 tmpfs {BASE}
mkdir {BASE}/upper {BASE}/work {BASE}/root
mount -t overlay -o lowerdir=/,upperdir={BASE}/upper,workdir={BASE}/work overlay {BASE}/root
echo mounted
read prepared
exec systemd-nspawn -q -D {BASE}/root --register=no --keep-unit --private-network --boot \
    --console=pipe --link-journal=no systemd.unit=multi-user.target </dev/null
"""

# --kill-child: when `unshare` ends, so does the first process of the machine's name space,
# and with it every other one there.
NAME_SPACES = ["setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--propagation", "private",
               "--pid", "--fork", "--kill-child=KILL", "--mount-proc"]

REQUIRED_PROGRAMS = ["systemd-nspawn", "nsenter", "unshare", "setpriv", "sudo", "dbus-daemon"]

# Of a command that is run in the machine
ENVIRONMENT = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
               "HOME": "/root", "LANG": "C.UTF-8", "TZ": "UTC"}

HUMAN_UIDS = range(1000, 60001)


class BootFailure(Exception):
    """The machine did not come up; says what it printed."""


def missing_for_boot():
    """What keeps a machine from being booted here, or None."""
    if os.geteuid() != 0:
        return "needs root: a machine is booted"
    search = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"
    missing = [name for name in REQUIRED_PROGRAMS if not shutil.which(name, path=search)]
    return f"needs {', '.join(missing)} (see tools/install-deps)" if missing else None


def end_on_signals():
    """Lets SIGTERM and SIGHUP unwind this process as Ctrl+C does, so that it cleans up."""
    def unwind(number, _):
        raise KeyboardInterrupt(signal.Signals(number).name)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, unwind)


def children(pid):
    """The process ids of a process's children; none when it has ended."""
    try:
        text = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii")
    except (FileNotFoundError, ProcessLookupError):
        return []
    return [int(child) for child in text.split()]


def process_name_space(pid):
    """What identifies a process's process name space, or None when it has ended."""
    try:
        return os.readlink(f"/proc/{pid}/ns/pid")
    except FileNotFoundError:
        return None


def own_control_groups():
    """The folders of the control groups of systemd's hierarchies that this process is in."""
    mounts = pathlib.Path("/sys/fs/cgroup")
    unified = mounts / "unified" if (mounts / "unified").is_dir() else mounts
    roots = {"name=systemd": mounts / "systemd", "": unified}
    for line in pathlib.Path("/proc/self/cgroup").read_text(encoding="utf-8").splitlines():
        _, controllers, path = line.split(":", 2)
        folder = roots.get(controllers, mounts / "none") / path.lstrip("/")
        if folder.is_dir():
            yield folder


class BootedMachine:
    """One booted machine. Use it as a context manager; leaving it ends it and all it had."""

    def __init__(self, binary=None):
        self.binary = pathlib.Path(binary or REPOSITORY / "build" / "release" / "tbx")
        self._groups = []
        self._outer = None  # process around the machine's name spaces
        self.holder = None  # first process in them; becomes systemd-nspawn
        self.first = None  # the machine's own process 1
        self._log = None

    def __enter__(self):
        try:
            self._make_control_groups()
            self._mount()
            self._prepare_files()
            self._boot()
        except BaseException:
            self.stop()
            raise
        return self

    def __exit__(self, *_):
        self.stop()

    # ---- Starting and stopping ------------------------------------------------------------

    def _make_control_groups(self):
        """One per hierarchy: nspawn would else share its own with other machines."""
        for parent in own_control_groups():
            self._groups.append(parent / f"tbx-machine-{os.getpid()}-{id(self)}")
            self._groups[-1].mkdir()

    def _mount(self):
        self._log = tempfile.TemporaryFile()
        self._outer = subprocess.Popen(
            [*NAME_SPACES, "sh", "-c", START_SCRIPT, "sh", *map(str, self._groups)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._log,
            # Ended by us and not by a Ctrl+C at the terminal, in our time.
            start_new_session=True)
        if self._outer.stdout.readline() != b"mounted\n":
            raise BootFailure(self.boot_messages())
        self.holder = children(self._outer.pid)[0]
        self.root = pathlib.Path(f"/proc/{self.holder}/root") / BASE.relative_to("/") / "root"

    def _prepare_files(self):
        self._prepare_units()
        self._forget_people()
        (self.root / "etc/machine-id").unlink(missing_ok=True)
        (self.root / "etc/machine-id").touch()
        for folder in ("var/lib/tellbox", "var/log/journal", "run", "usr/local/lib/tellbox"):
            shutil.rmtree(self.root / folder, ignore_errors=True)
        (self.root / "var/log/journal").mkdir(parents=True)
        (self.root / "run").mkdir()
        self.install(self.binary, "usr/local/bin/tbx")

    def _prepare_units(self):
        units = self.root / "etc/systemd/system"
        for folder in units.glob("*.wants"):
            for link in folder.iterdir():
                if link.name not in KEPT_UNITS:
                    link.unlink()
        for name in MASKED_UNITS:
            path = units / name
            if path.is_symlink() or path.exists():
                path.unlink()
            path.symlink_to("/dev/null")

    def _forget_people(self):
        """Takes the host's human users away: who there is shall not depend on the host."""
        passwd = self.root / "etc/passwd"
        fields = [line.split(":") for line in passwd.read_text(encoding="utf-8").splitlines()]
        people = {field[0] for field in fields if int(field[2]) in HUMAN_UIDS}
        for name in ("passwd", "shadow", "group", "gshadow"):
            path = self.root / "etc" / name
            if not path.exists():
                continue
            lines = path.read_text(encoding="utf-8").splitlines(keepends=True)
            kept = [line for line in lines if line.split(":", 1)[0] not in people]
            path.write_text("".join(kept), encoding="utf-8")

    def install(self, source, place):
        """Puts a program of the host at a place in the machine."""
        target = self.root / place
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, target)
        target.chmod(0o755)

    def _boot(self):
        self._outer.stdin.write(b"prepared\n")
        self._outer.stdin.close()
        try:
            self.first = await_condition(self._find_first_process, 30, "the machine's process 1")
            await_condition(self._is_running, 90, "the machine is up")
        except TimeoutError as timeout:
            raise BootFailure(f"{timeout}\n{self.boot_messages()}") from timeout

    def _find_first_process(self):
        if self._outer.poll() is not None:
            raise BootFailure(self.boot_messages())
        outside = (process_name_space(self.holder), None)
        inside = (child for child in children(self.holder)
                  if process_name_space(child) not in outside)
        return next(inside, None)

    def _is_running(self):
        result = self.run("systemctl", "is-system-running", check=False)
        return result.stdout.strip() in ("running", "degraded")

    def boot_messages(self):
        """What was printed while the machine came up."""
        self._kill()
        self._log.seek(0)
        printed = self._outer.stdout.read() + self._log.read()
        return printed.decode(errors="replace")

    def _kill(self):
        # The name spaces' first process, so that the one around them sees to its remains.
        if self.holder and self._outer.poll() is None:
            os.kill(self.holder, signal.SIGKILL)
        elif not self.holder:
            self._outer.kill()
        self._outer.wait()

    def stop(self):
        """Ends every process of the machine, and so its mounts. Harmless when done already."""
        if self._outer:
            self._kill()
            self._outer.stdout.close()
            self._log.close()
            self._outer = None
        while self._groups:
            await_condition(lambda: remove_control_group(self._groups[-1]), 30,
                            "the end of the machine's processes")
            self._groups.pop()

    # ---- Working in it --------------------------------------------------------------------

    def entering(self, *command):
        """The host's command line that runs `command` in the machine as root."""
        return ["nsenter", "-t", str(self.first), "-m", "-u", "-i", "-n", "-p", "-C", "--",
                *map(str, command)]

    def run(self, *command, check=True, user=None, input=None, env=None, timeout=60):
        """Runs a command in the machine as root or `user`; returns the CompletedProcess."""
        process = self.start(*command, user=user, env=env,
                             stdin=subprocess.DEVNULL if input is None else subprocess.PIPE)
        try:
            output, errors = process.communicate(input, timeout=timeout)
        finally:
            end_process(process)
        result = subprocess.CompletedProcess(command, process.returncode, output, errors)
        if check and result.returncode != 0:
            raise AssertionError(f"{command} ended with {result.returncode}: {errors}{output}")
        return result

    def start(self, *command, user=None, env=None, **options):
        """Starts a command in the machine; returns a Popen, to be given to end_process()."""
        if user:
            command = ["runuser", "-u", user, "--", *command]
        pipes = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        return subprocess.Popen(self.entering(*command), text=True, start_new_session=True,
                                env={**ENVIRONMENT, **(env or {})}, **{**pipes, **options})

    def tbx(self, *arguments, **options):
        """Runs the installed program as root; never raises for its exit status."""
        return self.run("/usr/local/bin/tbx", *arguments, check=False, **options)

    def path(self, inside):
        """The host's path of a file of the machine. No link to an absolute path leads there."""
        return pathlib.Path(f"/proc/{self.first}/root") / str(inside).lstrip("/")


def end_process(process):
    """Ends what BootedMachine.start() began, if it still runs: the command and not only nsenter,
    which would leave it with the pipes open."""
    if process.poll() is None:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()
    for stream in (process.stdin, process.stdout, process.stderr):
        if stream:
            stream.close()


def remove_control_group(group):
    """Removes a control group and those below. False while processes are in them."""
    try:
        for folder, folders, _ in os.walk(group, topdown=False):
            for name in folders:
                os.rmdir(os.path.join(folder, name))
        group.rmdir()
    except FileNotFoundError:
        pass  # gone already
    except OSError:
        return False
    return True
