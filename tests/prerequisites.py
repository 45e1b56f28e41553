"""What every suite needs, and what it says where something is missing."""

import os
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent
RELEASE_BUILD = ROOT / "build" / "release" / "tbx"


def skip(reason):
    """Skips the test; where every test has to run, fails it instead."""
    if os.environ.get("CI") == "true":
        pytest.fail(f"cannot be skipped here: {reason}", pytrace=False)
    pytest.skip(reason)


def program_under_test():
    """TBX_BINARY, else the release build."""
    path = Path(os.environ.get("TBX_BINARY", RELEASE_BUILD)).resolve()
    if not path.is_file():
        pytest.fail(f"{path} is missing: build the program first", pytrace=False)
    return path
