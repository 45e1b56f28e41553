"""Fixtures for tests of the built binary. See tests/harness for what they return."""

import pytest

from harness.history import History, need_journal_files
from harness.machine import Box, CannotBuild, Machine
from prerequisites import need_root, skip


@pytest.fixture
def machine(binary):
    """A scratch machine where tbx runs as root and not in test mode."""
    need_root("real users and owners")
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
def history(machine):
    """The journal files of a machine that has message 7."""
    need_journal_files()
    machine.store.make_message(7)
    return History(machine)


@pytest.fixture
def box_history(box):
    """The same in test mode."""
    need_root("a journal that holds nothing else")
    need_journal_files()
    box.store.make_message(7)
    return History(box)
