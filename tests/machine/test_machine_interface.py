"""The interface on a real terminal, for root and for who becomes root through sudo."""

import time

import pytest

from furnished import banner
from harness.pseudo_terminal import GUARD_SECONDS
from harness.waiting import PATIENCE_SECONDS, await_condition

TERMINAL = {"TERM": "xterm-256color"}
LIST = "Tellbox · sent messages"
CTRL_E, CTRL_S, TAB, ENTER, ESCAPE = b"\x05", b"\x13", b"\t", b"\r", b"\x1b"

REPORT = "/tmp/editor.report"

# Tells as whom it runs, whose the file is, its path and what is in it.
TELLING_EDITOR = f"""
exec >{REPORT}
echo "$(id -un) $(id -u) $(id -g) $(id -G)"
stat -c "%U %a %h" "$1"
echo "$1"
cat "$1"
printf 'written in\\nthe editor\\n' >"$1"
"""


@pytest.fixture
def install_editor(machine):
    """install_editor(script) makes an editor of a shell script and returns its path."""
    installed = []

    def install(script, path="/usr/local/bin/stand-in-editor"):
        installed.append(machine.path(path))
        installed[-1].write_text(f"#!/bin/sh\n{script}\n", encoding="ascii")
        installed[-1].chmod(0o755)
        return path

    yield install
    for path in installed:
        path.unlink()
    machine.path(REPORT).unlink(missing_ok=True)


@pytest.fixture
def editor(install_editor):
    """The path of an editor that tells about itself and writes a text of its own."""
    return install_editor(TELLING_EDITOR)


def open_interface(machine, user, **env):
    """The interface on a terminal that the user has logged in on."""
    terminal = machine.log_in(user, command="exec tbx", env={**TERMINAL, **env})
    terminal.await_seen(LIST)
    terminal.await_seen("q quit")
    return terminal


def leave(terminal):
    terminal.type(b"q")
    terminal.session.await_end()


def open_form(terminal, to, text=b""):
    """The form for a new message with the recipients filled in."""
    terminal.type(b"n")
    terminal.await_seen("New message")
    terminal.type(to + TAB + TAB + TAB + text)


def reply(terminal, key):
    """Types the key once a question, or a result, takes it."""
    time.sleep(GUARD_SECONDS)
    terminal.type(key)


def send_form(terminal, message_id=1):
    terminal.type(CTRL_S)
    terminal.await_seen("Send the message?")
    reply(terminal, b"y")
    terminal.await_seen(f"Message {message_id} sent to 1 user.")
    reply(terminal, ENTER)
    terminal.await_seen(LIST)


def report(machine):
    """What the stand-in for the editor told: lines of text."""
    path = machine.path(REPORT)
    await_condition(lambda: path.exists() and path.read_text().count("\n") > 3, PATIENCE_SECONDS,
                    "the editor's report")
    return path.read_text().splitlines()


@pytest.mark.parametrize("user", ["root", "admin"])
def test_the_interface_shows_the_messages_and_q_leaves_it(machine, user):
    machine.send("--to", "pat,sam", "--title", "News", "hello", recipients=2)
    terminal = open_interface(machine, user)
    terminal.await_seen("News · hello")
    leave(terminal)
    assert terminal.session.state() is None


@pytest.mark.parametrize("user", ["root", "admin"])
def test_the_terminal_is_given_back_as_it_was(machine, user):
    shell = "PS1='ready> ' exec bash --norc -i"
    terminal = machine.log_in(user, command=shell, env=TERMINAL)
    terminal.await_seen("ready>")
    terminal.type(b"stty -a; tbx; stty -a; echo the end\n")
    terminal.await_seen("q quit")
    terminal.type(b"q")
    await_condition(lambda: terminal.shown().count(b"the end") == 2, PATIENCE_SECONDS, "the end")
    before, after = [part.split(b"the end")[0] for part in terminal.shown().split(b"speed ")[1:]]
    assert before.split(b"\x1b")[0].split() == after.split()
    assert terminal.shown().rfind(b"\x1b[?1049l") > terminal.shown().rfind(b"\x1b[?1049h")
    assert terminal.shown().rfind(b"\x1b[?25h") > terminal.shown().rfind(b"\x1b[?25l")


def test_the_interface_finishes_what_was_interrupted(machine):
    machine.send("--to", "pat", "hello")
    machine.sent(1, "delivery").unlink()
    machine.sent(1, "incomplete").touch()
    leave(open_interface(machine, "admin"))
    assert not machine.sent(1, "incomplete").exists()
    assert machine.terminals_written() == {"pat": 0}


def test_a_confirmation_shows_up_by_itself(machine):
    machine.send("--to", "pat", "hello")
    terminal = open_interface(machine, "admin")
    terminal.await_seen("  1 delivered")
    machine.answer("pat", "confirm", "1", "terminal")
    terminal.await_seen("all confirmed (1)")


@pytest.mark.parametrize("user", ["root", "admin"])
def test_a_message_is_written_and_sent(machine, user):
    recipient = machine.open_terminal("pat")
    terminal = open_interface(machine, user)
    open_form(terminal, b"pat", "Grüße\ran alle".encode())
    terminal.await_seen("1 recipient")
    send_form(terminal)
    assert machine.header(1, "from") == user
    assert machine.mailbox("pat", "inbox", 1).read_text().endswith("\n\nGrüße\nan alle\n")
    recipient.await_shown(banner("Grüße\nan alle", machine.date()))


def test_recipients_that_do_not_exist_are_told_before_sending(machine):
    terminal = open_interface(machine, "admin")
    open_form(terminal, b"nobody-here")
    terminal.await_seen("no such user: nobody-here")
    assert not machine.store().exists()


@pytest.mark.parametrize("key, title, result", [
    (b"m", "Remind", "Message 1: 1 recipient reminded."),
    (b"r", "Revoke", "Message 1 revoked.")])
def test_a_message_is_reminded_of_and_revoked(machine, key, title, result):
    machine.send("--to", "pat", "hello")
    terminal = open_interface(machine, "admin")
    terminal.type(key)
    terminal.await_seen(title)
    reply(terminal, b"y")
    terminal.await_seen(result)
    event = {b"m": "REMINDED", b"r": "REVOKED"}[key]
    assert [record["TBX_AUTHOR"] for record in machine.records(f"TBX_EVENT={event}")] == ["admin"]


def test_the_history_of_a_message_is_that_of_the_journal(machine):
    machine.send("--to", "pat", "hello")
    machine.answer("pat", "confirm", "1", "desktop")
    machine.run("journalctl", "--sync")
    terminal = open_interface(machine, "admin")
    terminal.type(ENTER)
    terminal.await_seen("confirmed on")
    terminal.type(TAB)
    terminal.await_seen("user pat: confirmed reading message 1 (desktop)")


# ---- The external editor ------------------------------------------------------------------

def test_the_editor_runs_as_the_sudo_user_on_a_file_of_theirs(machine, editor):
    terminal = open_interface(machine, "admin", VISUAL=editor)
    open_form(terminal, b"pat", b"first words")
    terminal.type(CTRL_E)
    who, file, path, *text = report(machine)
    uid, gid = machine.uid("admin"), machine.gid("admin")
    assert who == f"admin {uid} {gid} {gid}"
    assert file == "admin 600 1"
    assert path.startswith("/tmp/tellbox-testo-")
    assert text == ["first words"]


def test_root_s_editor_runs_as_root(machine, editor):
    terminal = open_interface(machine, "root", VISUAL=editor)
    open_form(terminal, b"pat")
    terminal.type(CTRL_E)
    assert report(machine)[:2] == ["root 0 0 0", "root 600 1"]


@pytest.mark.parametrize("user", ["root", "admin"])
def test_what_the_editor_wrote_is_sent_and_its_file_is_gone(machine, editor, user):
    terminal = open_interface(machine, user, VISUAL=editor)
    open_form(terminal, b"pat")
    terminal.type(CTRL_E)
    path = report(machine)[2]
    terminal.await_seen("written in")
    send_form(terminal)
    assert machine.mailbox("pat", "inbox", 1).read_text().endswith("\n\nwritten in\nthe editor\n")
    assert machine.run("ls", path, check=False).stdout == ""


def test_without_a_choice_nano_is_run_as_the_sudo_user(machine, install_editor):
    install_editor(TELLING_EDITOR, "/usr/local/bin/nano")
    terminal = open_interface(machine, "admin")
    open_form(terminal, b"pat")
    terminal.type(CTRL_E)
    assert report(machine)[0].startswith("admin ")


def test_an_editor_with_arguments_is_run_by_the_shell(machine, editor):
    terminal = open_interface(machine, "admin", VISUAL=f"env SHOWN=1 {editor}")
    open_form(terminal, b"pat")
    terminal.type(CTRL_E)
    assert report(machine)[0].startswith("admin ")


def test_the_editor_has_the_terminal(machine, install_editor):
    asking = install_editor("""printf says-the-editor: >/dev/tty
        read -r line </dev/tty; echo "$line" >"$1" """)
    terminal = open_interface(machine, "admin", VISUAL=asking)
    open_form(terminal, b"pat")
    terminal.type(CTRL_E)
    terminal.await_seen("says-the-editor:")
    terminal.type(b"typed into it\n")
    terminal.await_seen("│ typed into it ")


def test_an_editor_that_leaves_a_link_brings_nothing_of_root_s_back(machine, install_editor):
    machine.path("/root/secret").write_text("the secret of root\n")
    linking = install_editor('rm "$1"; ln -s /root/secret "$1"')
    terminal = open_interface(machine, "admin", VISUAL=linking)
    open_form(terminal, b"pat", b"my own words")
    terminal.type(CTRL_E)
    await_condition(lambda: terminal.shown().count(b"\x1b[?1049h") == 2, PATIENCE_SECONDS,
                    "the interface after the editor")
    terminal.await_seen("What it left is kept in /tmp/tellbox-testo-")
    reply(terminal, ENTER)
    terminal.await_seen("my own words")
    assert b"the secret of root" not in terminal.shown()
    machine.run("sh", "-c", "rm /tmp/tellbox-testo-*")


# ---- Ends ---------------------------------------------------------------------------------

@pytest.mark.parametrize("user", ["root", "admin"])
def test_a_window_that_is_closed_leaves_no_process(machine, user):
    terminal = open_interface(machine, user)
    terminal.close()
    await_condition(lambda: machine.run("pgrep", "-x", "tbx|sudo", check=False).stdout == "",
                    PATIENCE_SECONDS, "the end of the interface")


def test_a_window_that_is_too_small_shows_the_guide(machine):
    shell = "PS1='ready> ' exec bash --norc -i"
    terminal = machine.log_in("admin", command=shell, env={**TERMINAL, "PAGER": "cat"})
    terminal.resize(79, 24)
    terminal.await_seen("ready>")
    terminal.type(b"tbx\n")
    terminal.await_seen("tbx send --to DEST [options] [TEXT]")
    assert LIST.encode() not in terminal.shown()


def test_without_a_terminal_the_guide_is_printed(machine):
    result = machine.tbx(user="admin")
    assert (result.stderr, result.returncode) == ("", 0)
    assert "tbx send" in result.stdout
    assert not machine.store().exists()
