"""The packages hold what an installation holds, and are always the same bytes."""

import hashlib
import re
import signal
import subprocess

import pytest
from conftest import REPOSITORY, run
from prerequisites import need_programs, need_root
from test_install import PARTS

TOOLS = {"DEB": "dpkg-deb", "RPM": "rpmbuild"}
every_part = pytest.mark.parametrize("part", PARTS)


def pack(kind, tree, folder, **options):
    """Makes the packages of a built tree in the folder; returns their paths by part."""
    need_programs("cpack", TOOLS[kind])
    # In a folder whose name is not always the same.
    run("cpack", "-G", kind, "-B", folder, "--config", tree / "CPackConfig.cmake", **options)
    found = [path for path in folder.iterdir() if path.suffix == f".{kind.lower()}"]
    packages = {re.split(r"[-_]\d", path.name)[0]: path for path in found}
    assert set(packages) == set(PARTS) and len(found) == len(PARTS)
    return packages


def digests(packages):
    return {part: hashlib.sha256(path.read_bytes()).hexdigest() for part, path in packages.items()}


@pytest.fixture(scope="module")
def deb(tree, tmp_path_factory):
    return pack("DEB", tree, tmp_path_factory.mktemp("deb"))


@pytest.fixture(scope="module")
def rpm(tree, tmp_path_factory):
    return pack("RPM", tree, tmp_path_factory.mktemp("rpm"))


# ---- Debian -----------------------------------------------------------------------------------


@every_part
def test_a_deb_holds_what_is_installed(deb, part):
    lines = [line.split(None, 5) for line in run("dpkg-deb", "-c", deb[part]).splitlines()]
    files = {name.split(" -> ")[0].lstrip(".") for mode, *_, name in lines
             if not mode.startswith("d")}
    assert files == set(PARTS[part])
    assert {owner for _, owner, *_ in lines} == {"root/root"}
    modes = {mode for mode, *_ in lines}
    assert modes <= {"drwxr-xr-x", "-rwxr-xr-x", "-rw-r--r--", "lrwxrwxrwx"}


def test_the_deb_has_the_folder_of_the_users_program(deb):
    assert re.search(r"^d.* \./usr/local/lib/tellbox/$", run("dpkg-deb", "-c", deb["tellbox"]),
                     re.MULTILINE)


@pytest.mark.parametrize("part", ["tellbox", "tellbox-user"])
def test_what_is_in_etc_is_configuration_for_dpkg(deb, part):
    listed = run("dpkg-deb", "-I", deb[part], "conffiles").splitlines()
    assert listed == [path for path in PARTS[part] if path.startswith("/etc/")]


def field(package, name):
    """The names of packages in a field of a .deb."""
    return {item.split()[0] for item in run("dpkg-deb", "-f", package, name).split(",") if item.split()}


def test_each_deb_depends_on_what_its_program_needs(deb):
    depends = {part: field(package, "Depends") for part, package in deb.items()}
    assert "libsystemd0" in depends["tellbox"] & depends["tellbox-user"]
    assert {"tellbox-user", "libgtkmm-4.0-0"} <= depends["tellbox-desktop"]
    graphical = re.compile("gtk|x11|pango|glib")
    assert [name for name in depends["tellbox"] | depends["tellbox-user"]
            if graphical.search(name)] == []


def test_the_administrator_s_package_recommends_that_of_the_users_and_needs_it_not(deb):
    assert "tellbox-user" in field(deb["tellbox"], "Recommends")
    assert "tellbox-desktop" in field(deb["tellbox-user"], "Suggests")
    for part in ("tellbox", "tellbox-user"):
        assert not [name for name in field(deb[part], "Depends") if name.startswith("tellbox")]


@every_part
def test_lintian_finds_nothing_but_what_is_explained(deb, part):
    need_programs("lintian")
    expected = REPOSITORY / "packaging" / "lintian-expected"
    found = subprocess.run(["lintian", "--allow-root", "--suppress-tags-from-file", expected,
                            deb[part]], capture_output=True, text=True, check=False)
    assert (found.stdout, found.stderr) == ("", "")


# ---- RPM --------------------------------------------------------------------------------------

OWN_FOLDERS = {
    "tellbox": {"/etc/tellbox", "/usr/local/lib/tellbox", "/usr/local/share/doc/tellbox"},
    "tellbox-user": {"/usr/local/lib/tellbox",
                     "/usr/local/lib/systemd/user/graphical-session.target.wants"},
    "tellbox-desktop": {"/usr/local/lib/tellbox"},
}


@every_part
def test_an_rpm_lists_what_is_installed(rpm, part):
    listed = set(run("rpm", "-qpl", rpm[part]).splitlines())
    assert listed == set(PARTS[part]) | OWN_FOLDERS[part]


@pytest.mark.parametrize("part", ["tellbox", "tellbox-user"])
def test_what_is_in_etc_is_never_replaced_by_rpm(rpm, part):
    listed = run("rpm", "-qp", "--qf", "[%{FILENAMES} %{FILEFLAGS:fflags}\n]", rpm[part])
    assert re.findall(r"^(.*) cn$", listed, re.MULTILINE) == [
        path for path in PARTS[part] if path.startswith("/etc/")]


def test_each_rpm_names_the_others_that_it_wants(rpm):
    def names(query, part):
        return set(run("rpm", "-qp", query, rpm[part]).split())
    assert "tellbox-user" in names("--recommends", "tellbox")
    assert "tellbox-desktop" in names("--suggests", "tellbox-user")
    assert "tellbox-user" in names("--requires", "tellbox-desktop")
    assert "tellbox" not in names("--requires", "tellbox-user")


def test_rpmlint_finds_nothing_but_what_is_explained(rpm):
    need_programs("rpmlint")
    said = run("rpmlint", "-c", REPOSITORY / "packaging" / "rpmlint-expected.toml", *rpm.values())
    assert "3 packages and 0 specfiles checked; 0 errors, 0 warnings" in said


def test_the_rpms_install_and_go_again(rpm, tmp_path):
    need_root("rpm --root")
    root = ["rpm", "--root", tmp_path, "--nodeps"]
    run(*root, "-i", *rpm.values())
    assert run(tmp_path / "usr/local/bin/tbx", "version").startswith("Tellbox - ")
    assert run(tmp_path / "usr/local/bin/tellbox", "version").startswith("Tellbox ")
    configuration = tmp_path / "etc/tellbox/tellbox.conf"
    configuration.write_text("TBX_AGENT_POLL = 5\n")
    message = tmp_path / "var/lib/tellbox/sent/1/msg"
    message.parent.mkdir(parents=True)
    message.touch()
    run(*root, "--noscripts", "-e", *rpm)  # there is no shell in this root
    assert not (tmp_path / "usr/local/bin/tbx").exists()
    assert not (tmp_path / "usr/local/lib/tellbox").exists()
    assert not (tmp_path / "etc/profile.d/tellbox.sh").exists()
    assert configuration.with_suffix(".conf.rpmsave").read_text() == "TBX_AGENT_POLL = 5\n"
    assert message.exists()


@pytest.mark.parametrize("remaining, off", [("0", ["shells off"]), ("1", [])])
def test_the_rpm_takes_the_hook_out_of_the_shells_when_it_goes_for_good(rpm, tmp_path, remaining,
                                                                        off):
    script = run("rpm", "-qp", "--qf", "%{PREUN}", rpm["tellbox-user"])
    program = tmp_path / "tellbox-user"
    program.write_text(f"#!/bin/sh\necho \"$@\" >>{tmp_path}/called\nexit 1\n")
    program.chmod(0o755)
    (tmp_path / "called").touch()
    run("sh", "-ec", script.replace("/usr/local/lib/tellbox/tellbox-user", str(program)), "sh",
        remaining)
    assert (tmp_path / "called").read_text().splitlines() == off


# ---- Always the same --------------------------------------------------------------------------


@pytest.mark.parametrize("kind", ["DEB", "RPM"])
def test_packing_again_gives_the_same_bytes(kind, tree, tmp_path, request):
    first = request.getfixturevalue(kind.lower())
    again = pack(kind, tree, tmp_path, umask=0o027)
    assert digests(again) == digests(first)


@pytest.mark.timeout(900)  # everything is compiled for it
@pytest.mark.parametrize("kind", ["DEB", "RPM"])
def test_building_elsewhere_gives_the_same_bytes(kind, built_elsewhere, tmp_path, request):
    first = request.getfixturevalue(kind.lower())
    other = pack(kind, built_elsewhere, tmp_path)
    assert digests(other) == digests(first)


@pytest.mark.parametrize("kind", ["DEB", "RPM"])
def test_the_version_of_the_packages_is_the_program_s(kind, binary, request):
    packages = request.getfixturevalue(kind.lower())
    version = subprocess.run([binary, "version"], capture_output=True, text=True, check=True,
                             env={"TBX_TEST": "1"}).stdout.split()[-1]
    for part, package in packages.items():
        assert re.match(rf"{part}[-_]{re.escape(version)}[-_]", package.name)


# A root of its own, with the programs of the real one.
IN_A_CHROOT = """set -e
mount -t tmpfs none "$1"
for folder in bin lib lib64 proc usr; do
    [ ! -e "/$folder" ] || { mkdir "$1/$folder" && mount --rbind "/$folder" "$1/$folder"; }
done
exec chroot "$1" sh -s "$2"
"""


@pytest.mark.parametrize("script, word", [("debian/tellbox-user.prerm", "remove"),
                                          ("rpm/tellbox-user.preun", "0")])
def test_a_package_that_goes_ends_the_agents_of_its_own_root_alone(script, word, tmp_path):
    need_root("a chroot")
    program = tmp_path / "tellbox-user"  # not there: the real one would change this machine's files
    text = (REPOSITORY / "packaging" / script).read_text(encoding="utf-8")
    text = text.replace("program=/usr/local/lib/tellbox/tellbox-user", f"program={program}")
    assert str(program) in text
    root = tmp_path / "root"
    root.mkdir()
    with subprocess.Popen([f"{program} agent"], executable="/bin/cat",
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE) as agent:
        run("unshare", "--mount", "sh", "-c", IN_A_CHROOT, "sh", root, word, input=text)
        agent.stdin.write(b"still there\n")
        agent.stdin.flush()
        assert agent.stdout.readline() == b"still there\n"
        run("sh", "-s", word, input=text)
        assert agent.wait(10) == -signal.SIGTERM
