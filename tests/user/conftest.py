"""Fixtures for tests of the recipients' program. See recipient.py and shells.py for what they
return."""

import sys
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

pytest.register_assert_rewrite("recipient", "shells")

from prerequisites import need_programs, need_root  # noqa: E402
from recipient import UserMachine  # noqa: E402


@pytest.fixture
def machine(binary):
    """A scratch machine on which the recipients' program is installed."""
    need_root("real users and owners")
    scratch = UserMachine(binary)
    yield scratch
    scratch.close()


@pytest.fixture(params=["bash", "zsh", "fish"])
def shell_name(request):
    need_programs(request.param)
    return request.param
