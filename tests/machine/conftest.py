"""Fixtures for tests on a booted machine. See furnished.py for what a test does with it."""

import os
import signal

import pytest

from booted import BootFailure, end_on_signals, missing_for_boot
from furnished import Machine
from prerequisites import skip


@pytest.fixture(scope="session")
def bootable():
    """Asked for by what boots a machine."""
    reason = missing_for_boot()
    if reason:
        skip(reason)


@pytest.fixture(scope="session")
def booted(bootable, binary):
    """The machine of all tests, which comes up once."""
    before = {number: signal.getsignal(number) for number in (signal.SIGTERM, signal.SIGHUP)}
    end_on_signals()
    try:
        with Machine(binary) as machine:
            yield machine
    except BootFailure as failure:
        pytest.fail(f"the machine did not come up\n{failure}", pytrace=False)
    finally:
        for number, handler in before.items():
            signal.signal(number, handler)


@pytest.fixture
def machine(booted):
    """The machine as the program finds it at first: no state directory, nobody logged in."""
    booted.refresh()
    yield booted
    booted.tidy()


@pytest.fixture(scope="session")
def own_file_systems():
    """Asked for by tests in which a user mounts a file system of their own making."""
    if not os.path.exists("/dev/fuse"):
        skip("needs /dev/fuse")
