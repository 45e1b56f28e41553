"""What each recipient, user, message and key costs now, counted once for all tests."""

import json
import os
import shutil
import subprocess
import sys

import pytest

from prerequisites import ROOT, program_under_test, skip


@pytest.fixture(scope="session")
def counted(tmp_path_factory):
    """The costs of the program under test. The programs of bench/ are built beside it."""
    if os.geteuid() != 0:
        skip("needs root: real users and owners")
    if missing := [tool for tool in ("strace", "valgrind") if shutil.which(tool) is None]:
        skip(f"needs {' and '.join(missing)}")
    tree = program_under_test().parent
    folder = tmp_path_factory.mktemp("cost")
    counting = subprocess.run(
        [sys.executable, ROOT / "tools" / "bench", "--count", "--tree", tree, "--scratch", folder,
         "--json", folder / "cost.json"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        text=True, check=False)
    assert counting.returncode == 0, counting.stdout
    return json.loads((folder / "cost.json").read_text(encoding="ascii"))
