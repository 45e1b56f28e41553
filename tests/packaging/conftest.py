"""Fixtures for tests of what is installed. They use the folder that the program was built in."""

import os
import subprocess
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
REPOSITORY = HERE.parent.parent


def run(*command, **options):
    """Runs a command that has to succeed; returns its standard output."""
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True,
                            check=False, **options)
    assert result.returncode == 0, f"{command}: {result.stdout}{result.stderr}"
    return result.stdout


def install(tree, destination, prefix="/usr/local", **options):
    """Installs what was built in `tree` below the folder `destination`."""
    return run("cmake", "--install", tree, "--prefix", prefix,
               env={**os.environ, "DESTDIR": str(destination)}, **options)


@pytest.fixture(scope="session")
def tree(binary):
    """The folder that everything was built in. Not for tests that run at the same time."""
    if not (binary.parent / "packaging" / "tbx.1").is_file():
        pytest.fail(f"{binary.parent} is not a whole build", pytrace=False)
    manifest = binary.parent / "install_manifest.txt"
    before = manifest.read_text() if manifest.is_file() else None
    yield binary.parent
    # What an administrator has installed from there can still be uninstalled.
    if before is None:
        manifest.unlink(missing_ok=True)
    elif manifest.read_text() != before:
        manifest.write_text(before)


@pytest.fixture(scope="session")
def installed(tree, tmp_path_factory):
    """A folder that everything has been installed below. Not to be changed by tests."""
    destination = tmp_path_factory.mktemp("installed")
    install(tree, destination)
    return destination
