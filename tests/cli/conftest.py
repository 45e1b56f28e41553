"""Fixtures for tests of the built binary. See tests/harness for what they return."""

import os

import pytest

from harness.machine import Box, CannotBuild, Machine
from prerequisites import skip


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
