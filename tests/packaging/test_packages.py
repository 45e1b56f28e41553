"""The packages hold what an installation holds, and are always the same bytes."""

import hashlib
import os
import re
import shutil
import subprocess

import pytest
from conftest import REPOSITORY, run
from prerequisites import need_programs, need_root
from test_install import FILES, FISH_LINK

TOOLS = {"DEB": "dpkg-deb", "RPM": "rpmbuild"}


def pack(kind, tree, folder, **options):
    """Makes a package of a built tree in the folder; returns its path."""
    need_programs("cpack", TOOLS[kind])
    # In a folder whose name is not always the same.
    run("cpack", "-G", kind, "-B", folder, "--config", tree / "CPackConfig.cmake", **options)
    found = [path for path in folder.iterdir() if path.suffix == f".{kind.lower()}"]
    assert len(found) == 1
    return found[0]


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


@pytest.fixture(scope="module")
def deb(tree, tmp_path_factory):
    return pack("DEB", tree, tmp_path_factory.mktemp("deb"))


@pytest.fixture(scope="module")
def rpm(tree, tmp_path_factory):
    return pack("RPM", tree, tmp_path_factory.mktemp("rpm"))


@pytest.fixture(scope="module")
def built_elsewhere(tree, tmp_path_factory):
    """The same source at another place, built there into a folder of another name."""
    folder = tmp_path_factory.mktemp("elsewhere")
    source = folder / "a copy"
    source.mkdir()
    for name in ("CMakeLists.txt", "CMakePresets.json", "CHANGELOG.md"):
        shutil.copyfile(REPOSITORY / name, source / name)
    for name in ("src", "packaging", "docs"):
        shutil.copytree(REPOSITORY / name, source / name, copy_function=shutil.copyfile)
    other = folder / "built"
    run("cmake", "--preset", "release", "-B", other, "-DTBX_TESTS=OFF", cwd=source)
    run("cmake", "--build", other, "-j", str(os.cpu_count()), umask=0o077)
    return other


# ---- Debian -----------------------------------------------------------------------------------


def test_the_deb_holds_what_is_installed(deb):
    lines = [line.split(None, 5) for line in run("dpkg-deb", "-c", deb).splitlines()]
    files = {name.split(" -> ")[0].lstrip(".") for mode, *_, name in lines
             if not mode.startswith("d")}
    assert files == {*FILES, FISH_LINK}
    assert {owner for _, owner, *_ in lines} == {"root/root"}
    assert {mode for mode, *_ in lines} == {"drwxr-xr-x", "-rwxr-xr-x", "-rw-r--r--", "lrwxrwxrwx"}


def test_the_deb_has_the_folder_of_the_users_program(deb):
    assert re.search(r"^d.* \./usr/local/lib/tellbox/$", run("dpkg-deb", "-c", deb), re.MULTILINE)


def test_the_configuration_is_one_for_dpkg(deb):
    assert run("dpkg-deb", "-I", deb, "conffiles") == "/etc/tellbox/tellbox.conf\n"


def test_the_deb_depends_on_libsystemd(deb):
    assert "libsystemd0" in run("dpkg-deb", "-f", deb, "Depends")


# ---- RPM --------------------------------------------------------------------------------------


def test_the_rpm_lists_what_is_installed(rpm):
    own_folders = {"/etc/tellbox", "/usr/local/lib/tellbox", "/usr/local/share/doc/tellbox"}
    assert set(run("rpm", "-qpl", rpm).splitlines()) == {*FILES, FISH_LINK, *own_folders}


def test_the_configuration_is_never_replaced_by_rpm(rpm):
    listed = run("rpm", "-qp", "--qf", "[%{FILENAMES} %{FILEFLAGS:fflags}\n]", rpm)
    assert re.findall(r"^(.*) cn$", listed, re.MULTILINE) == ["/etc/tellbox/tellbox.conf"]


def test_the_rpm_installs_and_goes_again(rpm, tmp_path):
    need_root("rpm --root")
    root = ["rpm", "--root", tmp_path, "--nodeps"]
    run(*root, "-i", rpm)
    assert run(tmp_path / "usr/local/bin/tbx", "version").startswith("Tellbox - ")
    configuration = tmp_path / "etc/tellbox/tellbox.conf"
    configuration.write_text("TBX_AGENT_POLL = 5\n")
    message = tmp_path / "var/lib/tellbox/sent/1/msg"
    message.parent.mkdir(parents=True)
    message.touch()
    run(*root, "-e", "tellbox")
    assert not (tmp_path / "usr/local/bin/tbx").exists()
    assert configuration.with_suffix(".conf.rpmsave").read_text() == "TBX_AGENT_POLL = 5\n"
    assert message.exists()


# ---- Always the same --------------------------------------------------------------------------


@pytest.mark.parametrize("kind", ["DEB", "RPM"])
def test_packing_again_gives_the_same_bytes(kind, tree, tmp_path, request):
    first = request.getfixturevalue(kind.lower())
    again = pack(kind, tree, tmp_path, umask=0o027)
    assert digest(again) == digest(first)


@pytest.mark.timeout(900)  # everything is compiled for it
@pytest.mark.parametrize("kind", ["DEB", "RPM"])
def test_building_elsewhere_gives_the_same_bytes(kind, built_elsewhere, tmp_path, request):
    first = request.getfixturevalue(kind.lower())
    other = pack(kind, built_elsewhere, tmp_path)
    assert digest(other) == digest(first)


@pytest.mark.parametrize("kind", ["DEB", "RPM"])
def test_the_version_of_the_package_is_the_program_s(kind, binary, request):
    package = request.getfixturevalue(kind.lower())
    version = subprocess.run([binary, "version"], capture_output=True, text=True, check=True,
                             env={"TBX_TEST": "1"}).stdout.split()[-1]
    assert re.match(rf"tellbox[-_]{re.escape(version)}[-_]", package.name)
