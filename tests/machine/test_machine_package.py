"""The Debian package on a machine: installed, used, upgraded, removed and purged."""

import shutil
import subprocess
import sys
from pathlib import Path

import pytest
from prerequisites import need_programs

sys.path.append(str(Path(__file__).resolve().parent.parent / "packaging"))

import shells  # noqa: E402

DEB = "/srv/tellbox.deb"
NEWER_DEB = "/srv/tellbox-newer.deb"
CONFIGURATION = "/etc/tellbox/tellbox.conf"
BASE_FOLDERS = ("bin", "lib", "share", "share/man")
PREPARE = f"""
cp -a /usr/local/lib/tellbox /run/kept
mount -t tmpfs -o mode=755 tmpfs /usr/local
cd /usr/local
mkdir -m 755 {' '.join(BASE_FOLDERS)}
ln -s share/man man
mv /run/kept lib/tellbox
"""


@pytest.fixture(scope="module")
def debs(binary, tmp_path_factory):
    """The package, and one of a later version with another configuration file."""
    need_programs("cpack", "dpkg-deb", "man", "bash", "zsh", "fish")
    folder = tmp_path_factory.mktemp("package")
    subprocess.run(["cpack", "-G", "DEB", "-B", folder, "--config",
                    binary.parent / "CPackConfig.cmake"], check=True, capture_output=True)
    deb, = folder.glob("*.deb")
    content = folder / "content"
    subprocess.run(["dpkg-deb", "-R", deb, content], check=True)
    control = content / "DEBIAN/control"
    control.write_text(control.read_text().replace("\nVersion: ", "\nVersion: 1:"))
    (content / CONFIGURATION.lstrip("/")).write_text("# The newer one.\n")
    newer = folder / "newer.deb"
    subprocess.run(["dpkg-deb", "--root-owner-group", "-b", content, newer], check=True,
                   capture_output=True)
    return deb, newer


@pytest.fixture
def packaged(machine, debs):
    """The machine, with the package installed into a /usr/local that had the folders of the base
    system and the program of the users, and nothing else."""
    machine.run("sh", "-ec", PREPARE)
    try:
        for deb, inside in zip(debs, (DEB, NEWER_DEB)):
            shutil.copyfile(deb, machine.path(inside))
        dpkg(machine, "-i", DEB)
        yield machine
        dpkg(machine, "-P", "tellbox")
    finally:
        machine.run("umount", "/usr/local")


def dpkg(machine, *arguments):
    """Runs dpkg; returns what it says."""
    result = machine.run("dpkg", *arguments, env={"DEBIAN_FRONTEND": "noninteractive"},
                         timeout=120)
    return result.stdout + result.stderr


def test_a_message_can_be_sent(packaged):
    packaged.send("--to", "pat", "hello")
    assert packaged.mailbox("pat", "inbox", 1).read_text().endswith("\n\nhello\n")


def test_man_finds_the_page(packaged):
    env = {"MANPAGER": "cat", "MANWIDTH": "80"}
    found = packaged.run("man", "-w", "tbx").stdout.strip()
    assert packaged.run("readlink", "-f", found).stdout == "/usr/local/share/man/man1/tbx.1\n"
    assert packaged.run("man", "tbx", env=env, user="pat").stdout.startswith("TBX(1)")


def test_a_user_can_read_the_manual(packaged):
    manual = "/usr/local/share/doc/tellbox/User Manual.html"
    assert "<title>Tellbox User Manual</title>" in packaged.run("cat", manual, user="pat").stdout


@pytest.mark.parametrize("name", ["bash", "zsh", "fish"])
def test_a_command_is_completed(packaged, name):
    env = {"PATH": "/usr/local/bin:/usr/bin:/bin", "HOME": "/root", "TERM": "xterm",
           "LANG": "C.UTF-8"}
    shell = getattr(shells, name)(env, enter=packaged.entering())
    try:
        assert shell.completed("tbx stat").rstrip() == "tbx status"
        assert shell.completed("tbx send --to pa").rstrip(" ,") == "tbx send --to pat"
    finally:
        shell.close()


def test_an_upgrade_keeps_messages_and_a_configuration_that_was_changed(packaged):
    packaged.send("--to", "pat", "hello")
    packaged.path(CONFIGURATION).write_text("TBX_REMIND_MINUTES = 5\n")
    dpkg(packaged, "--force-confdef", "--force-confold", "-i", NEWER_DEB)
    assert packaged.path(CONFIGURATION).read_text() == "TBX_REMIND_MINUTES = 5\n"
    assert "hello" in packaged.tbx("list").stdout


def test_an_upgrade_replaces_a_configuration_that_was_not_changed(packaged):
    dpkg(packaged, "-i", NEWER_DEB)
    assert packaged.path(CONFIGURATION).read_text() == "# The newer one.\n"


def test_an_upgrade_says_nothing_of_messages_staying(packaged):
    packaged.send("--to", "pat", "hello")
    assert "messages" not in dpkg(packaged, "-i", NEWER_DEB)


def test_removing_keeps_messages_and_configuration_and_says_so(packaged):
    packaged.send("--to", "pat", "hello")
    said = dpkg(packaged, "-r", "tellbox")
    assert "The messages stay in /var/lib/tellbox; purging the package deletes them." in said
    assert packaged.mailbox("pat", "inbox", 1).exists()
    assert packaged.path(CONFIGURATION).exists()


def test_removing_takes_everything_else_away(packaged):
    listed = packaged.run("dpkg", "-L", "tellbox").stdout.splitlines()
    files = [name for name in listed if not packaged.path(name).is_dir()]
    assert len(files) == 8
    dpkg(packaged, "-r", "tellbox")
    assert [name for name in files if packaged.path(name).exists()] == [CONFIGURATION]


def test_removing_leaves_the_program_of_the_users(packaged):
    dpkg(packaged, "-r", "tellbox")
    assert packaged.path("/usr/local/lib/tellbox/tellbox-user").exists()


def test_removing_leaves_the_folders_of_the_base_system(packaged):
    dpkg(packaged, "-r", "tellbox")
    for folder in BASE_FOLDERS:
        status = packaged.path(f"/usr/local/{folder}").stat()
        assert (status.st_mode & 0o7777, status.st_uid) == (0o755, 0), folder


def test_purging_says_that_it_deletes_the_messages_and_does(packaged):
    packaged.send("--to", "pat", "hello")
    dpkg(packaged, "-r", "tellbox")
    said = dpkg(packaged, "-P", "tellbox")
    assert "Deleting all messages, mailboxes and confirmations in /var/lib/tellbox." in said
    assert not packaged.path("/var/lib/tellbox").exists()
    assert not packaged.path("/etc/tellbox").exists()


def test_a_package_that_comes_back_finds_its_messages(packaged):
    packaged.send("--to", "pat", "hello")
    dpkg(packaged, "-r", "tellbox")
    dpkg(packaged, "-i", DEB)
    assert "hello" in packaged.tbx("list").stdout
