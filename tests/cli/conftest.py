"""Fixtures for tests of the built binary. See harness/ for what they return."""

import os
import shutil
import sys
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent)]

from harness.machine import Box, CannotBuild, Machine  # noqa: E402
from prerequisites import program_under_test, skip  # noqa: E402


@pytest.fixture(scope="session")
def binary():
    """The program under test."""
    return program_under_test()


@pytest.fixture
def machine(binary):
    """A scratch machine where tbx runs as root and not in test mode."""
    if os.geteuid() != 0:
        skip("needs root: real users and owners")
    with_namespaces = Machine(binary)
    yield with_namespaces
    with_namespaces.close()


@pytest.fixture
def box(binary):
    """A scratch machine where tbx runs in test mode."""
    try:
        in_test_mode = Box(binary)
    except CannotBuild as error:
        skip(f"needs root or user namespaces: {error}")
    yield in_test_mode
    in_test_mode.close()


@pytest.fixture
def strace():
    """Asked for by tests that trace or disturb system calls."""
    if shutil.which("strace") is None:
        skip("needs strace")
