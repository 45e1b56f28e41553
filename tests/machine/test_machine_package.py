"""The Debian packages on a machine: installed, used, upgraded, removed and purged."""

import sys
from pathlib import Path

import pytest

from booted import end_process
from furnished import STORE
from harness.waiting import wait_for
from packages import BASE_FOLDERS, PACKAGES, dpkg, install

sys.path.append(str(Path(__file__).resolve().parent.parent / "packaging"))

import shells  # noqa: E402

CONFIGURATION = "/etc/tellbox/tellbox.conf"
PROFILE = "/etc/profile.d/tellbox.sh"
AUTOSTART = "/etc/xdg/autostart/tellbox-agent.desktop"
BLOCK = "# >>> tellbox >>>\n"
SHELLS = "/usr/local/lib/tellbox/tellbox-user", "shells"


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
    install(packaged, "tellbox", version="newer")
    assert packaged.path(CONFIGURATION).read_text() == "TBX_REMIND_MINUTES = 5\n"
    assert "hello" in packaged.tbx("list").stdout


def test_an_upgrade_replaces_a_configuration_that_was_not_changed(packaged):
    install(packaged, "tellbox", version="newer")
    assert packaged.path(CONFIGURATION).read_text() == "# The newer one.\n"


def test_an_upgrade_says_nothing_of_messages_staying(packaged):
    packaged.send("--to", "pat", "hello")
    assert "messages" not in install(packaged, "tellbox", version="newer")


def test_removing_keeps_messages_and_configuration_and_says_so(packaged):
    packaged.send("--to", "pat", "hello")
    said = dpkg(packaged, "-r", "tellbox")
    assert "The messages stay in /var/lib/tellbox; purging the package deletes them." in said
    assert packaged.mailbox("pat", "inbox", 1).exists()
    assert packaged.path(CONFIGURATION).exists()


def test_removing_takes_everything_else_away(packaged):
    listed = packaged.run("dpkg", "-L", *PACKAGES).stdout.split("\n")
    files = {name for name in listed if name and not packaged.path(name).is_dir()}
    assert len(files) == 22
    dpkg(packaged, "-r", *PACKAGES)
    assert {name for name in files if packaged.path(name).exists()} == {CONFIGURATION, PROFILE,
                                                                        AUTOSTART}


@pytest.mark.parametrize("gone, kept", [
    (["tellbox"], ["/usr/local/bin/tellbox", "/usr/local/lib/tellbox/tellbox-window"]),
    (["tellbox-desktop"], ["/usr/local/bin/tellbox", "/usr/local/bin/tbx"]),
    (["tellbox-user", "tellbox-desktop"], ["/usr/local/bin/tbx"])])
def test_one_part_goes_and_the_others_work(packaged, gone, kept):
    dpkg(packaged, "-r", *gone)
    for program in kept:
        assert packaged.path(program).exists()
    for program in set(kept) - {"/usr/local/lib/tellbox/tellbox-window"}:
        assert "Tellbox " in packaged.run(program, "version").stdout


def test_the_window_needs_the_program_that_opens_it(packaged):
    result = packaged.run("dpkg", "-r", "tellbox-user", check=False)
    assert result.returncode != 0
    assert "tellbox-desktop depends on tellbox-user" in result.stderr


def test_removing_leaves_the_folders_of_the_base_system(packaged):
    for part in reversed(PACKAGES):
        dpkg(packaged, "-r", part)
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


def test_users_who_write_meanwhile_cannot_keep_their_mailboxes_from_being_purged(packaged):
    packaged.send("--to", "pat,sam", "hello", recipients=2)
    state = packaged.mailbox("pat", "state")
    writer = packaged.start("sh", "-c", f"cd {STORE}/users/pat/state; i=0; "
                            "while :; do true >$((i += 1)); done 2>/dev/null", user="pat")
    try:
        wait_for((state / "100").exists, "the user writes")
        dpkg(packaged, "-P", "tellbox")
        assert not packaged.path(STORE).exists()
    finally:
        packaged.run("pkill", "-KILL", "-u", "pat")
        end_process(writer)


def test_purging_touches_nothing_that_a_user_s_link_leads_to(packaged):
    packaged.send("--to", "pat", "hello")
    packaged.mailbox("pat", "acks").rmdir()
    packaged.run("ln", "-s", "/etc/skel", f"{STORE}/users/pat/acks", user="pat")
    before = packaged.path("/etc/skel").stat()
    dpkg(packaged, "-P", "tellbox")
    assert not packaged.path(STORE).exists()
    after = packaged.path("/etc/skel").stat()
    assert (after.st_mode, after.st_uid, after.st_ctime) == (
        before.st_mode, before.st_uid, before.st_ctime)


def test_a_package_that_comes_back_finds_its_messages(packaged):
    packaged.send("--to", "pat", "hello")
    dpkg(packaged, "-r", "tellbox")
    install(packaged, "tellbox")
    assert "hello" in packaged.tbx("list").stdout


# ---- The users' part --------------------------------------------------------------------------


def shell_files(machine):
    """The files that every bash and zsh reads, with their text."""
    paths = ("/etc/bash.bashrc", "/etc/zsh/zshrc")
    return {path: machine.path(path).read_text() for path in paths}


def test_removing_the_users_part_takes_the_hook_out_of_the_shells(packaged):
    before = shell_files(packaged)
    packaged.run(*SHELLS, "on")
    assert all(BLOCK in text for text in shell_files(packaged).values())
    said = dpkg(packaged, "-r", "tellbox-desktop", "tellbox-user")
    assert shell_files(packaged) == before
    assert "bash: now off (/etc/bash.bashrc)" in said


def test_upgrading_the_users_part_leaves_the_hook_in_the_shells(packaged):
    packaged.run(*SHELLS, "on")
    before = shell_files(packaged)
    install(packaged, "tellbox-user", version="newer")
    assert shell_files(packaged) == before
    packaged.run(*SHELLS, "off")


def test_a_damaged_shell_file_does_not_keep_the_package_from_going(packaged):
    kept = shell_files(packaged)["/etc/bash.bashrc"]
    packaged.path("/etc/bash.bashrc").write_text(kept + BLOCK)
    try:
        said = dpkg(packaged, "-r", "tellbox-desktop", "tellbox-user")
        assert "/etc/bash.bashrc: the tellbox block is damaged" in said
        assert not packaged.path("/usr/local/bin/tellbox").exists()
        assert packaged.path("/etc/bash.bashrc").read_text() == kept + BLOCK
    finally:
        packaged.path("/etc/bash.bashrc").write_text(kept)


def test_after_removing_login_shells_start_without_a_word(packaged):
    dpkg(packaged, "-r", "tellbox-desktop", "tellbox-user")
    assert packaged.path(PROFILE).exists()
    result = packaged.run("bash", "-lic", "echo fine", user="pat", env={"HOME": "/home/pat"})
    assert result.stdout == "fine\n" and "tellbox" not in result.stderr


def test_purging_the_users_part_deletes_no_message(packaged):
    packaged.send("--to", "pat", "hello")
    dpkg(packaged, "-P", "tellbox-desktop", "tellbox-user")
    assert packaged.mailbox("pat", "inbox", 1).exists()
    assert not packaged.path(PROFILE).exists() and not packaged.path(AUTOSTART).exists()


def test_the_one_package_of_before_is_upgraded_by_the_three(packaged):
    dpkg(packaged, "-P", *PACKAGES)
    install(packaged, "tellbox", version="older")
    packaged.send("--to", "pat", "hello")
    install(packaged, *PACKAGES)
    assert packaged.run("tellbox", "read", "1", user="pat").stdout == "Message 1 confirmed.\n"
    assert "confirmed on" in packaged.tbx("status", "1").stdout
