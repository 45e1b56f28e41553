"""Fixtures that more than one suite asks for."""

import pytest

pytest.register_assert_rewrite("harness")

from prerequisites import need_programs, program_under_test  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--large", action="store_true",
                     help="only what is marked large, which takes minutes (tools/check all)")


def pytest_collection_modifyitems(config, items):
    large = config.getoption("--large")
    items[:] = [item for item in items if bool(item.get_closest_marker("large")) == large]


@pytest.fixture(scope="session")
def binary():
    """The program under test."""
    return program_under_test()


@pytest.fixture
def strace():
    """Asked for by tests that trace or disturb system calls."""
    need_programs("strace")
