"""Fixtures that more than one suite asks for."""

import pytest

pytest.register_assert_rewrite("harness")

from prerequisites import need_programs, program_under_test  # noqa: E402


@pytest.fixture(scope="session")
def binary():
    """The program under test."""
    return program_under_test()


@pytest.fixture
def strace():
    """Asked for by tests that trace or disturb system calls."""
    need_programs("strace")
