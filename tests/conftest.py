"""Fixtures that more than one suite asks for."""

import shutil

import pytest

pytest.register_assert_rewrite("harness")

from prerequisites import program_under_test, skip  # noqa: E402


@pytest.fixture(scope="session")
def binary():
    """The program under test."""
    return program_under_test()


@pytest.fixture
def strace():
    """Asked for by tests that trace or disturb system calls."""
    if shutil.which("strace") is None:
        skip("needs strace")
