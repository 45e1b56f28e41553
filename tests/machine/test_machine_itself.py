"""A machine boots, runs what it is asked to, and leaves nothing behind however it ends."""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

import pytest

from booted import REPOSITORY, children, own_control_groups, remove_control_group
from harness.waiting import PATIENCE_SECONDS, await_condition

TOOL = str(REPOSITORY / "tools" / "machine")
TESTS = REPOSITORY / "tests" / "machine"
RUN_TESTS = [sys.executable, "-m", "pytest", "-p", "no:cacheprovider", "-rs"]


class Footprint:
    """What a process that boots a machine could leave behind."""

    def __init__(self, process, folder):
        self._owner = process.pid
        self._folder = folder  # for its temporary files
        self._pids = set(descendants(process.pid))
        assert "systemd-nspawn" in {name_of(pid) for pid in self._pids}

    def left(self):
        """What there still is of it."""
        groups = [folder for parent in own_control_groups()
                  for folder in parent.glob(f"tbx-machine-{self._owner}-*")]
        mounts = [line for line in Path("/proc/self/mountinfo").read_text().splitlines()
                  if "upperdir=" in line and line not in MOUNTS_BEFORE]
        alive = [pid for pid in self._pids if name_of(pid)]
        return [*alive, *groups, *mounts, *self._folder.iterdir()]


MOUNTS_BEFORE = Path("/proc/self/mountinfo").read_text().splitlines()


def descendants(pid):
    for child in children(pid):
        yield child
        yield from descendants(child)


def name_of(pid):
    """The name of a process; empty when it has ended."""
    try:
        status = Path(f"/proc/{pid}/status").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return ""
    return "" if "\nState:\tZ" in status else status.split("\n")[0].split("\t")[1]


@pytest.fixture
def run(bootable, binary, tmp_path):
    """Starts a command that boots a machine, its temporary files in a folder of its own."""
    started = []

    def start(*command, **env):
        # Whoever runs the tests in the background has SIGINT ignored.
        started.append(subprocess.Popen(
            ["env", "--default-signal=INT", *command], text=True, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            env={**os.environ, "TBX_BINARY": str(binary), "TMPDIR": str(tmp_path), **env}))
        return started[-1]

    yield start
    for process in started:
        if process.poll() is None:
            process.terminate()  # so that it cleans up even here
            process.wait(PATIENCE_SECONDS)
        process.stdout.close()


def boot(run, tmp_path):
    """A machine that is up and idle, and what it could leave."""
    process = run(TOOL, "sh", "-c", "echo up; exec sleep infinity")
    assert process.stdout.readline() == "up\n"
    return process, Footprint(process, tmp_path)


def test_a_command_runs_on_a_machine_with_the_program(run):
    process = run(TOOL, "sh", "-c", "systemctl is-system-running; tbx version; exit 7")
    assert process.communicate()[0].startswith("running\nTellbox - ")
    assert process.returncode == 7


def test_what_is_done_in_the_machine_does_not_reach_the_host(run):
    process = run(TOOL, "sh", "-c", "touch /etc/tbx-was-here /usr/tbx-was-here; tbx list")
    assert process.communicate() == ("No messages sent.\n", None)
    assert not os.path.exists("/etc/tbx-was-here") and not os.path.exists("/usr/tbx-was-here")


def test_two_machines_run_side_by_side(run, tmp_path):
    first, _ = boot(run, tmp_path)
    second = run(TOOL, "systemctl", "is-system-running")
    assert second.communicate()[0] == "running\n"
    assert first.poll() is None


def test_a_machine_leaves_nothing_behind_its_command(run, tmp_path):
    process, footprint = boot(run, tmp_path)
    await_condition(lambda: "sleep" in map(name_of, descendants(process.pid)), PATIENCE_SECONDS,
                    "the command")
    sleeper, = [pid for pid in descendants(process.pid) if name_of(pid) == "sleep"]
    os.kill(sleeper, signal.SIGTERM)
    process.communicate()
    assert footprint.left() == []


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_machine_that_is_interrupted_leaves_nothing_behind(run, tmp_path, number):
    process, footprint = boot(run, tmp_path)
    process.send_signal(number)
    process.communicate()
    assert process.returncode == 130
    assert footprint.left() == []


def test_a_machine_ends_even_with_a_host_process_that_was_killed(run, tmp_path):
    process, footprint = boot(run, tmp_path)
    process.kill()
    process.communicate()
    await_condition(lambda: not any(isinstance(thing, int) for thing in footprint.left()),
                    PATIENCE_SECONDS, "the end of the machine's processes")
    for group in footprint.left():  # nobody was left to remove these
        assert remove_control_group(group)


def test_a_machine_that_does_not_come_up_says_so_and_leaves_nothing_behind(run, tmp_path):
    programs = tmp_path / "programs"
    programs.mkdir()
    (programs / "systemd-nspawn").write_text("#!/bin/sh\necho cannot boot today\nexit 1\n")
    (programs / "systemd-nspawn").chmod(0o755)
    process = run(TOOL, "true", PATH=f"{programs}:{os.environ['PATH']}")
    output = process.communicate()[0]
    assert output == "tools/machine: the machine did not come up\ncannot boot today\n\n"
    assert process.returncode == 1
    shutil.rmtree(programs)
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_tests_that_are_interrupted_leave_nothing_behind(run, tmp_path, number):
    process = run(*RUN_TESTS, "-k", "stopped_terminal_delays", str(TESTS))
    await_condition(lambda: "tbx" in map(name_of, descendants(process.pid)), PATIENCE_SECONDS,
                    "the program under test")
    footprint = Footprint(process, tmp_path)
    process.send_signal(number)
    assert "KeyboardInterrupt" in process.communicate()[0]
    assert [thing for thing in footprint.left() if "pytest-of" not in str(thing)] == []


@pytest.mark.parametrize("ci, outcome", [
    ("false", "1 skipped"), ("true", "cannot be skipped here: needs root")])
def test_without_root_the_tests_are_skipped_but_not_in_ci(ci, outcome):
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        shutil.copytree(TESTS.parent, Path(folder, "tests"))
        ordinary = subprocess.run(
            ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", *RUN_TESTS,
             "-k", "test_root_sends_to_a_user", f"{folder}/tests/machine/test_machine_send.py"],
            env={**os.environ, "CI": ci, "PYTHONDONTWRITEBYTECODE": "1"}, cwd=folder,
            stdout=subprocess.PIPE, text=True, check=False)
    assert outcome in ordinary.stdout
