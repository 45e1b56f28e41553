"""Fixtures for tests on a booted machine. See furnished.py for what a test does with it."""

import os
import signal

import pytest

from booted import BootFailure, end_on_signals, missing_for_boot
from furnished import Machine
from packages import PACKAGES, install, make_packages, place_packages, take_away
from prerequisites import need_programs, skip


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
def debs(binary, tmp_path_factory):
    """The folder that has the packages."""
    need_programs("cpack", "dpkg-deb", "man", "bash", "zsh", "fish")
    return make_packages(binary.parent, tmp_path_factory.mktemp("packages"))


@pytest.fixture
def packaged(machine, debs):
    """The machine with the packages installed, and without the stand-ins of other tests."""
    place_packages(machine, debs)
    try:
        install(machine, *PACKAGES)
        yield machine
    finally:
        take_away(machine)


@pytest.fixture(scope="session")
def own_file_systems():
    """Asked for by tests in which a user mounts a file system of their own making."""
    if not os.path.exists("/dev/fuse"):
        skip("needs /dev/fuse")
