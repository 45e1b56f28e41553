"""What every suite needs, and what it says where something is missing."""

import os
import shutil
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent
RELEASE_BUILD = ROOT / "build" / "release" / "tbx"


def skip(reason):
    """Skips the test; where every test has to run, fails it instead."""
    if os.environ.get("CI") == "true":
        pytest.fail(f"cannot be skipped here: {reason}", pytrace=False)
    pytest.skip(reason)


def need_root(reason):
    """Skips the test for an ordinary user."""
    if os.geteuid() != 0:
        skip(f"needs root: {reason}")


def need_programs(*names, path=None):
    """Skips the test where one of the programs is missing from the search path."""
    if missing := [name for name in names if shutil.which(name, path=path) is None]:
        skip(f"needs {', '.join(missing)} (see tools/install-deps)")


def program_under_test():
    """TBX_BINARY, else the release build."""
    path = Path(os.environ.get("TBX_BINARY", RELEASE_BUILD)).resolve()
    if not path.is_file():
        pytest.fail(f"{path} is missing: build the program first", pytrace=False)
    return path
