"""The whole story, as the people of a machine live it: the packages are installed, a message is sent,
asked about at a prompt and in a window, confirmed, and the administrator sees who has read it."""

import html
import re
import time

import pytest

from booted import REPOSITORY
from displays import PROGRAMS, READ, Desktop, await_confirmed, prepare_displays
from harness.waiting import PATIENCE_SECONDS, await_condition
from packages import PACKAGES, dpkg, install, place_packages, take_away
from prerequisites import need_programs

SHELLS = "/usr/local/lib/tellbox/tellbox-user", "shells"
TEXT = "The machine restarts at 22:00.\nPlease save your work."


@pytest.fixture
def unpackaged(machine, debs):
    """A machine that nothing of it was ever installed on."""
    place_packages(machine, debs)
    try:
        yield machine
    finally:
        take_away(machine)


@pytest.fixture
def with_displays(packaged):
    """The machine with the packages, on which desktops can be opened."""
    need_programs(*PROGRAMS)
    prepare_displays(packaged)
    return packaged


def shell_of(machine, user, command, **env):
    """A terminal on which the user has just logged in and has an interactive shell."""
    machine.path(f"/home/{user}/.zshrc").touch()  # or zsh would ask what to put into it
    terminal = machine.log_in(user, command=f"cd; exec {command}", env={"TERM": "xterm", **env})
    terminal.type(b"printf 'rea%s\\n' dy\r")
    terminal.await_seen("ready")
    return terminal


def answer_alone(terminal, letter):
    """Presses a key at the question: in its first moment it takes none, and never one of many."""
    pressed = []

    def is_taken():
        if not pressed or time.monotonic() - pressed[-1] > 1:
            terminal.type(letter)
            pressed.append(time.monotonic())
        return "confirmado" in terminal.screen()

    await_condition(is_taken, PATIENCE_SECONDS, "the answer")


def history(machine, number=1):
    """What `tbx log` prints below its heading, without the times."""
    return [line[21:] for line in machine.tbx("log", str(number)).stdout.splitlines()[1:]]


def test_from_the_packages_to_two_confirmations(unpackaged):
    machine = unpackaged
    need_programs(*PROGRAMS)
    prepare_displays(machine)
    install(machine, *PACKAGES)
    machine.run(*SHELLS, "on")
    pat = shell_of(machine, "pat", "bash -l")
    sam = Desktop(machine, "sam")

    machine.send("--to", "pat,sam", "--title", "Maintenance tonight", TEXT, recipients=2)
    sam.await_window()
    pat.await_seen("Message from the administrator")
    pat.type(b"\r")
    pat.await_seen("Answer with: tellbox")
    pat.type(b"tellbox read\r")
    pat.await_seen("Message 1 confirmed.")
    assert sam.text() == TEXT
    sam.press(READ)

    await_condition(lambda: machine.tbx("status", "1").stdout.count("confirmed on") == 2,
                    PATIENCE_SECONDS, "both answers")
    told = machine.tbx("status", "1").stdout
    assert re.search(r"^pat +confirmed on .* \(terminal\)$", told, re.MULTILINE)
    assert re.search(r"^sam +confirmed on .* \(desktop\)$", told, re.MULTILINE)
    await_condition(lambda: {"user pat: confirmed reading message 1 (terminal)",
                             "user sam: confirmed reading message 1 (desktop)"}
                    <= set(history(machine)), PATIENCE_SECONDS, "both events, without a mark")
    assert "all confirmed (2)" in machine.tbx("list").stdout


@pytest.mark.parametrize("command", ["bash -l", "bash", "zsh -l", "zsh", "fish"])
def test_every_shell_of_the_machine_asks_once_the_hook_is_on(packaged, command):
    packaged.run(*SHELLS, "on")
    pat = shell_of(packaged, "pat", command)
    packaged.send("--to", "pat", "hello")
    pat.type(b"\r")
    pat.await_seen("Answer with: tellbox")
    pat.type(b"tellbox read 1\r")
    pat.await_seen("Message 1 confirmed.")
    assert await_confirmed(packaged) == "terminal"
    packaged.run(*SHELLS, "off")


def test_the_next_login_starts_the_agent_and_it_shows_what_waits(with_displays):
    machine = with_displays
    machine.send("--to", "pat", "hello")
    desktop = Desktop(machine, "pat")
    assert desktop.agents() == []
    target = "/run/systemd/user/desktop.target"
    machine.run("mkdir", "-p", "/run/systemd/user")
    machine.path(target).write_text("[Unit]\nBindsTo=graphical-session.target\n")
    try:
        desktop.systemctl("daemon-reload")
        desktop.systemctl("start", "desktop.target")  # as a desktop does when it has started
        desktop.await_window()
        desktop.press(READ)
        assert await_confirmed(machine) == "desktop"
    finally:
        machine.path(target).unlink()


def test_a_package_that_goes_takes_its_agents_with_it(with_displays):
    machine = with_displays
    desktop = Desktop(machine, "pat")
    machine.send("--to", "pat", "hello")
    desktop.await_window()
    dpkg(machine, "-r", "tellbox-desktop", "tellbox-user")
    await_condition(lambda: not desktop.agents(), PATIENCE_SECONDS, "the end of the agent")
    desktop.await_no_window()
    assert "delivered" in machine.tbx("status", "1").stdout


# What a hostile recipient makes of the own mailbox, to harm whoever looks into it.
TRAPS = """cd /var/lib/tellbox/users/mal
mkfifo inbox/5 acks/1 state/1.term
ln -s /etc/shadow inbox/6
truncate -s 1T inbox/7
mkdir inbox/8 state/1.gui
ln -s /home/pat read/1
touch -d 2099-01-01 state/.prompt inbox
"""


def test_a_hostile_recipient_harms_neither_the_administrator_nor_another_recipient(with_displays):
    machine = with_displays
    machine.send("--to", "mal", "first")
    machine.run("sh", "-ec", TRAPS, user="mal")
    Desktop(machine, "mal")  # with an agent, once there is a message
    desktop = Desktop(machine, "pat")
    machine.send("--to", "mal,pat", "second", recipients=2, message_id=2)
    desktop.await_window()
    desktop.press(READ)
    assert await_confirmed(machine, 2) == "desktop"
    assert re.search(r"^mal +delivered", machine.tbx("status", "2").stdout, re.MULTILINE)
    assert "root:" not in machine.run("tellbox", "list", user="mal", check=False).stdout
    mal = shell_of(machine, "mal", "bash -l")
    mal.type(b"tellbox read 2\r")
    mal.await_seen("Message 2 confirmed.")
    assert "all confirmed (2)" in machine.tbx("list").stdout


# ---- In the user's language -------------------------------------------------------------------

SPANISH = {"LANG": "C.UTF-8", "LANGUAGE": "es"}


def test_a_spanish_prompt_is_answered_and_the_administrator_reads_english(packaged):
    machine = packaged
    pat = shell_of(machine, "pat", "bash -l", **SPANISH)
    machine.send("--to", "pat", "hello")
    pat.type(b"\r")
    pat.await_seen("Responda con: tellbox")
    pat.type(b"tellbox\r")
    pat.await_seen("Lo he leído [r]   Más tarde [l]   Salir [q]")
    answer_alone(pat, b"r")
    pat.await_seen("Mensaje 1 confirmado.")
    assert await_confirmed(machine) == "terminal"
    await_condition(lambda: "user pat: confirmed reading message 1 (terminal)" in history(machine),
                    PATIENCE_SECONDS, "the event")


def test_a_spanish_window_is_answered(with_displays):
    machine = with_displays
    desktop = Desktop(machine, "pat")
    desktop.systemctl("set-environment", *(f"{name}={value}" for name, value in SPANISH.items()))
    machine.send("--to", "pat", "hello")
    await_condition(lambda: desktop.run("xdotool", "search", "--onlyvisible", "--name",
                                        "Mensaje del administrador").stdout,
                    PATIENCE_SECONDS, "the window")
    desktop.press("Lo he leído")
    assert await_confirmed(machine) == "desktop"


def test_the_manual_page_is_found_in_spanish(packaged):
    page = packaged.run("man", "tellbox", user="pat",
                        env={**SPANISH, "MANPAGER": "cat", "MANWIDTH": "80"})
    assert "NOMBRE" in page.stdout and "lee y confirma los mensajes" in page.stdout


# ---- The manual's list: nobody confirms -------------------------------------------------------

CHAPTER = REPOSITORY / "docs" / "manual" / "40-operation.html"
HOOK_FILES = {"/etc/bash.bashrc", "/etc/zsh/zshrc"}


def step(machine, name):
    """Runs the command of a step of the list; returns what it prints, errors included."""
    found = re.search(f'<pre id="nobody-{name}"><code>(.*?)</code></pre>',
                      CHAPTER.read_text(encoding="utf-8"))
    result = machine.run("bash", "-c", f"{html.unescape(found[1])} 2>&1", check=False)
    return result.stdout


def test_the_list_for_when_nobody_confirms_finds_nothing_where_all_is_well(with_displays):
    machine = with_displays
    machine.run(*SHELLS, "on")
    desktop = Desktop(machine, "pat")
    machine.send("--to", "pat", "hello")
    desktop.await_window()
    assert re.search(r"^pat +(delivered|postponed on)", step(machine, "delivered"), re.MULTILINE)
    assert step(machine, "installed").startswith("Tellbox ")
    assert "hello" in step(machine, "waiting") and "confirmed" not in step(machine, "waiting")
    assert HOOK_FILES <= set(step(machine, "shells").splitlines())
    assert step(machine, "silenced") == ""
    assert step(machine, "window") == "/usr/local/lib/tellbox/tellbox-window\n"
    assert len(step(machine, "agent").splitlines()) == 1
    assert step(machine, "failed") == ""
    assert "1 recipient reminded" in step(machine, "remind")


def test_the_list_for_when_nobody_confirms_finds_each_cause(packaged):
    machine = packaged
    machine.send("--to", "pat", "hello")
    assert not HOOK_FILES & set(step(machine, "shells").splitlines())
    assert step(machine, "agent") == ""

    profile = machine.path("/home/pat/.bashrc")
    kept = profile.read_text(encoding="utf-8")
    profile.write_text(f"{kept}TELLBOX_PROMPT=off\n", encoding="utf-8")
    assert "/home/pat/.bashrc:TELLBOX_PROMPT=off" in step(machine, "silenced")
    profile.write_text(kept, encoding="utf-8")

    machine.mailbox("pat", "acks").chmod(0o500)
    assert "Permission denied" in machine.run("tellbox", "read", "1", user="pat", check=False).stderr
    await_condition(lambda: "message 1" in step(machine, "failed"), PATIENCE_SECONDS, "the event")

    dpkg(machine, "-r", "tellbox-desktop", "tellbox-user")
    assert "No such file" in step(machine, "window")
    assert "No such file" in step(machine, "installed")
    machine.tbx("revoke", "1")
    assert re.search(r"^pat .*\(revoked\)$", step(machine, "delivered"), re.MULTILINE)
