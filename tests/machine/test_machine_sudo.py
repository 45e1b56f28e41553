"""Who may become root through sudo works as root does, and is named as the author."""

import pytest

from furnished import PEOPLE
from harness.store import short_time
from harness.waiting import PATIENCE_SECONDS, await_condition


def test_the_author_is_the_user_and_not_root(machine):
    machine.send("--to", "pat", "hello", user="admin")
    assert machine.header(1, "from") == "admin"
    assert f"Message 1 · {short_time(machine.date())} · from admin\n" in machine.tbx(
        "status", "1").stdout


def test_the_copy_is_that_of_root_s_messages(machine):
    machine.send("--to", "pat", "hello", user="admin")
    copy = machine.mailbox("pat", "inbox", 1)
    facts = copy.stat()
    assert (facts.st_mode, facts.st_uid, facts.st_gid) == (
        0o100644, machine.uid("pat"), machine.gid("pat"))
    assert copy.read_bytes() == machine.sent(1, "msg").read_bytes()


@pytest.mark.parametrize("to, recipients", [
    ("@crew", ["alex", "pat", "robot"]), ("all", PEOPLE), ("online", ["sam"]),
    ("pat,robot", ["pat", "robot"])])
def test_a_sudo_user_reaches_whom_root_reaches(machine, to, recipients):
    machine.open_session("sam", "wayland")
    machine.send("--to", to, "hello", recipients=len(recipients), user="admin")
    assert machine.recipients() == recipients


def test_a_sudo_user_who_is_logged_in_is_online_too(machine):
    machine.open_session("admin", "x11")
    machine.send("--to", "online", "hello", user="admin")
    assert machine.recipients() == ["admin"]


def test_arguments_pass_sudo_unchanged(machine):
    machine.send("--to", "pat", "--title", "it's \"$HOME\"", "--", "--a  b", "*", "\\n",
                 user="admin")
    assert machine.header(1, "title") == "it's \"$HOME\""
    assert machine.sent(1, "msg").read_text().endswith("\n\n--a  b * \\n\n")


def test_the_text_on_standard_input_passes_sudo(machine):
    machine.send("--to", "pat", input="from a\npipe\n", user="admin")
    assert machine.sent(1, "msg").read_text().endswith("\n\nfrom a\npipe\n")


def test_sudo_runs_the_program_itself_by_its_path(machine):
    machine.run("ln", "-sfn", "/usr/local/bin/tbx", "/home/admin/link")
    machine.run("/home/admin/link", "list", user="admin")
    machine.run("journalctl", "--sync")
    # By the name that it gives itself: the journal's own look may come when it has ended.
    logged = machine.run("journalctl", "-o", "cat", "-t", "sudo").stdout
    assert "admin : PWD=/ ; USER=root ; COMMAND=/usr/local/bin/tbx list\n" in logged


@pytest.mark.parametrize("arguments, output", [
    (["send", "--to", "nobody-here", "hello"], "tbx: no such user: nobody-here\n"),
    (["frobnicate"], "tbx: unknown command: frobnicate (tbx --help for the guide)\n"),
    (["status", "7"], "tbx: no such message: 7\n")])
def test_errors_and_their_status_come_back_through_sudo(machine, arguments, output):
    result = machine.tbx(*arguments, user="admin")
    assert (result.stdout, result.stderr, result.returncode) == ("", output, 1)


def test_who_may_not_use_sudo_gets_its_refusal_and_its_status(machine):
    result = machine.tbx("send", "--to", "sam", "hello", user="pat")
    refused = machine.run("sudo", "true", user="pat", check=False)
    assert (result.stdout, result.stderr) == ("", refused.stderr)
    assert result.returncode == refused.returncode == 1
    assert not machine.store().exists()


@pytest.mark.parametrize("command", ["list", "version", "help", ""])
def test_every_command_asks_sudo(machine, command):
    result = machine.tbx(*command.split(), user="pat")
    assert result.stderr.startswith("sudo: ")
    assert (result.stdout, result.returncode) == ("", 1)


def test_other_directories_in_the_environment_count_for_nothing(machine):
    elsewhere = {"TBX_VAR": "/home/admin/var"}
    machine.send("--to", "pat", "hello", user="admin", env=elsewhere)
    machine.send("--to", "pat", "hello", message_id=2, env=elsewhere)
    assert machine.sent(2, "msg").exists()
    assert not machine.path("/home/admin/var").exists()


def test_another_author_in_the_environment_counts_for_nothing(machine):
    machine.send("--to", "pat", "hello", user="admin", env={"SUDO_USER": "sam"})
    assert machine.header(1, "from") == "admin"


def test_every_command_of_a_life_works_through_sudo(machine):
    machine.send("--to", "pat,sam", "hello", recipients=2, user="admin")
    machine.answer("pat", "confirm", "1", "terminal")

    def as_admin(*arguments):
        result = machine.tbx(*arguments, user="admin")
        assert (result.stderr, result.returncode) == ("", 0)
        return result.stdout
    assert "1 confirmed · 1 delivered\n" in as_admin("list")
    assert as_admin("remind", "1") == "Message 1: 1 recipient reminded.\n"
    assert as_admin("revoke", "1") == "Message 1 revoked.\n"
    machine.run("journalctl", "--sync")
    assert as_admin("log", "1").endswith("message 1 revoked by admin\n")
    machine.make_older(1, 7200)
    assert as_admin("purge", "1h") == "Deleted 1 message older than 1h.\n"


def test_a_message_is_sent_from_a_shell_on_a_real_terminal(machine):
    terminal = machine.log_in("admin", command="PS1='ready> ' exec bash --norc -i")
    terminal.await_shown(b"ready> ")
    terminal.type(b"tbx send --to pat from my shell\n")
    terminal.await_shown(b"Message 1 sent to 1 user.")
    assert machine.header(1, "from") == "admin"
    assert machine.mailbox("pat", "inbox", 1).read_text().endswith("\n\nfrom my shell\n")


def await_root_tbx(machine):
    await_condition(lambda: machine.run("pgrep", "-u", "root", "-x", "tbx", check=False).stdout,
                    PATIENCE_SECONDS, "tbx as root, behind sudo")


def test_the_text_is_typed_on_a_real_terminal_and_ends_with_ctrl_d(machine):
    terminal = machine.log_in("admin", command="PS1='ready> ' exec bash --norc -i")
    terminal.await_shown(b"ready> ")
    terminal.type(b"tbx send --to pat\n")
    await_root_tbx(machine)  # what is typed before, sudo may leave on the outer terminal
    terminal.type(b"line one\nline two\n\x04")
    terminal.await_shown(b"Message 1 sent to 1 user.")
    assert machine.mailbox("pat", "inbox", 1).read_text().endswith("\n\nline one\nline two\n")
