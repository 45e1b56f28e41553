"""A directory service on a booted machine: while it is down nothing is taken for done."""

import errno
import os
import subprocess

import pytest
from furnished import STORE
from harness import flaky_accounts

DOWN = "/run/flaky-down"
SWITCH = "/etc/nsswitch.conf"


@pytest.fixture
def directory(machine, tmp_path):
    """The machine with a service beside its files; `fail(error)` takes it down for tbx."""
    folder = subprocess.run([flaky_accounts.COMPILER, "-print-multiarch"], check=True,
                            capture_output=True, text=True).stdout.strip()
    machine.install(flaky_accounts.build(tmp_path),
                    f"usr/lib/{folder}/{flaky_accounts.LIBRARY}")
    before = machine.path(SWITCH).read_text(encoding="ascii")
    machine.path(SWITCH).write_text("passwd: files flaky\ngroup: files flaky\n", encoding="ascii")
    yield machine
    machine.path(DOWN).unlink(missing_ok=True)
    machine.path(SWITCH).write_text(before, encoding="ascii")


def fail(machine, error):
    machine.path(DOWN).write_text(f"{error}\n", encoding="ascii")


def tbx(machine, *arguments):
    result = machine.tbx(*arguments, env={"FLAKY_DOWN": DOWN})
    return result.stdout, result.stderr, result.returncode


@pytest.mark.parametrize("error", [errno.ECONNREFUSED, errno.EAGAIN, errno.ETIMEDOUT],
                         ids=errno.errorcode.get)
def test_a_message_lives_through_a_service_that_is_down(directory, error):
    assert tbx(directory, "send", "--to", "dora,pat", "hello") == (
        "Message 1 sent to 2 users.\n", "", 0)
    copy = directory.mailbox("dora", "inbox", 1)
    assert copy.stat().st_uid == 2001
    fail(directory, error)
    reason = os.strerror(error)
    assert tbx(directory, "send", "--to", "all", "hello") == ("", f"tbx: all: {reason}\n", 1)
    assert tbx(directory, "status", "1") == ("", f"tbx: {STORE}/sent/1: {reason}\n", 1)
    assert tbx(directory, "revoke", "1")[2] == 1
    assert copy.exists() and not directory.mailbox("pat", "inbox", 1).exists()
    directory.path(DOWN).unlink()
    assert tbx(directory, "list")[2] == 0
    assert not copy.exists()
    assert not directory.sent(1, "revoking").exists()
