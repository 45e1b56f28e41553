"""What each recipient, user, message and key costs now, counted once for all tests."""

import json
import subprocess
import sys

import pytest

from prerequisites import ROOT, need_programs, need_root, program_under_test


@pytest.fixture(scope="session")
def counted(tmp_path_factory):
    """The costs of the program under test. The programs of bench/ are built beside it."""
    need_root("real users and owners")
    need_programs("strace", "valgrind")
    tree = program_under_test().parent
    folder = tmp_path_factory.mktemp("cost")
    counting = subprocess.run(
        [sys.executable, ROOT / "tools" / "bench", "--count", "--tree", tree, "--scratch", folder,
         "--json", folder / "cost.json"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        text=True, check=False)
    assert counting.returncode == 0, counting.stdout
    return json.loads((folder / "cost.json").read_text(encoding="ascii"))
