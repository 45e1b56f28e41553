"""Fixtures for tests of what is installed. They use the folder that the program was built in."""

import os
import shutil
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


def install(tree, destination, *parts, prefix="/usr/local", **options):
    """Installs what was built in `tree`, or these parts of it, below the folder `destination`."""
    for part in parts or (None,):
        run("cmake", "--install", tree, "--prefix", prefix, *(["--component", part] if part else []),
            env={**os.environ, "DESTDIR": str(destination)}, **options)


def manifests(tree):
    """The lists of what was installed from a build folder."""
    return list(tree.glob("install_manifest*.txt"))


@pytest.fixture(scope="session")
def tree(binary):
    """The folder that everything was built in. Not for tests that run at the same time."""
    if not (binary.parent / "packaging" / "tbx.1").is_file():
        pytest.fail(f"{binary.parent} is not a whole build", pytrace=False)
    before = {path: path.read_text() for path in manifests(binary.parent)}
    yield binary.parent
    # What an administrator has installed from there can still be uninstalled.
    for path in manifests(binary.parent):
        path.unlink()
    for path, text in before.items():
        path.write_text(text)


@pytest.fixture(scope="session")
def installed(tree, tmp_path_factory):
    """A folder that everything has been installed below. Not to be changed by tests."""
    destination = tmp_path_factory.mktemp("installed")
    install(tree, destination)
    return destination


BUILD_ELSEWHERE = """cd "$1" && cmake --preset release -B "$2" -DTBX_TESTS=OFF -DTBX_WINDOW=ON &&
umask 077 && exec nice cmake --build "$2" -j "$3"
"""


@pytest.fixture(scope="session", autouse=True)
def building_elsewhere(request, tmp_path_factory):
    """The same source at another place while it is built there, into a folder of another name.
    It begins before the first test, so that the other tests run meanwhile."""
    if not any("built_elsewhere" in item.fixturenames for item in request.session.items):
        yield None
        return
    folder = tmp_path_factory.mktemp("elsewhere")
    source = folder / "a copy"
    source.mkdir()
    for name in ("CMakeLists.txt", "CMakePresets.json", "CHANGELOG.md"):
        shutil.copyfile(REPOSITORY / name, source / name)
    for name in ("src", "packaging", "docs", "po"):
        shutil.copytree(REPOSITORY / name, source / name, copy_function=shutil.copyfile)
    with open(folder / "log", "w", encoding="utf-8") as log:
        build = subprocess.Popen(["sh", "-ec", BUILD_ELSEWHERE, "sh", source, folder / "built",
                                  str(os.cpu_count())], stdout=log, stderr=subprocess.STDOUT)
    yield build, folder
    build.terminate()
    build.wait()


@pytest.fixture(scope="session")
def built_elsewhere(building_elsewhere):
    """The folder that another copy of the source was built in."""
    build, folder = building_elsewhere
    assert build.wait() == 0, (folder / "log").read_text(encoding="utf-8")
    return folder / "built"
