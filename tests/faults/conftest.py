"""Fixtures of the trials."""

import pytest

from harness.machine import Machine
from prerequisites import need_root, program_under_test, skip
from tracing import built_tracer, install_tracer
from trials import Bench, kept_benches


@pytest.fixture(scope="session")
def binary():
    """The program under test."""
    path = program_under_test()
    need_root("real users and owners")
    if not built_tracer(path).exists():
        skip("needs the tracer, which is built with the tests, on x86-64, without sanitizers")
    return path


@pytest.fixture
def new_bench(binary):
    """Makes a Bench for a case; all of them go with the test."""
    yield from kept_benches(lambda case: Bench(binary, case))


@pytest.fixture
def machine(binary):
    """A scratch machine with the tracer on it."""
    with_tracer = Machine(binary)
    install_tracer(with_tracer, binary)
    yield with_tracer
    with_tracer.close()
