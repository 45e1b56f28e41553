"""The whole way: a message is sent, the user's own service manager has the real agent, the window
comes up on a display in the user's session, and what the user answers reaches the administrator."""

import pathlib
import re
import shutil
import time

import pytest

from displays import (GUARD_SECONDS, LATER, READ, WINDOW, Desktop, await_confirmed, confirmed_on,
                      prepare_displays)
from furnished import TOOLS
from harness.waiting import PATIENCE_SECONDS, await_condition
from prerequisites import skip
from residents import AGENT

HERE = pathlib.Path(__file__).resolve().parent
PACKAGING = HERE.parents[1] / "packaging" / "desktop"
TELLBOX = "/usr/local/bin/tellbox"
UNIT = "/usr/local/lib/systemd/user/tellbox-agent.service"


@pytest.fixture(scope="module")
def with_programs(booted):
    """The machine with the real programs in place of the stand-in."""
    missing = [name for name in ("Xvfb", "openbox", "xdotool") if not shutil.which(name)]
    window = booted.binary.with_name("tellbox-window")
    if missing or not window.exists():
        skip(f"needs {', '.join(missing) or 'tellbox-window'} (see tools/install-deps)")
    stand_in = booted.path(AGENT)
    kept = stand_in.with_name("stand-in")
    command = booted.path(TELLBOX)
    command.symlink_to(AGENT)
    stand_in.rename(kept)
    booted.install(booted.binary.with_name("tellbox-user"), AGENT.lstrip("/"))
    booted.install(window, WINDOW.lstrip("/"))
    booted.install(PACKAGING / "tellbox-agent.service", UNIT.lstrip("/"))
    booted.install(PACKAGING / "tellbox-agent.desktop", "etc/xdg/autostart/tellbox-agent.desktop")
    prepare_displays(booted)
    for name in (UNIT, "/etc/xdg/autostart/tellbox-agent.desktop"):
        booted.path(name).chmod(0o644)
    wants = booted.path(UNIT).parent / "graphical-session.target.wants"
    wants.mkdir()
    (wants / "tellbox-agent.service").symlink_to("../tellbox-agent.service")
    yield
    shutil.rmtree(wants)
    booted.path(UNIT).unlink()
    booted.path(WINDOW).unlink()
    command.unlink()
    kept.rename(stand_in)


@pytest.fixture
def desktop(machine, with_programs):
    """pat at a desktop."""
    return Desktop(machine, "pat")


def test_a_message_is_shown_read_and_reported(machine, desktop):
    machine.send("--to", "pat", "--title", "Tonight", "Please log out.")
    desktop.await_window()
    assert desktop.text() == "Please log out."
    desktop.press(READ)
    assert await_confirmed(machine) == "desktop"
    # No mark stands before the sentence: it is the user's own.
    sentence = "user pat: confirmed reading message 1 (desktop)"
    await_condition(lambda: machine.tbx("log", "1").stdout.splitlines()[-1][21:] == sentence,
                    PATIENCE_SECONDS, "the event")


def test_a_running_agent_shows_the_next_one_and_the_mouse_answers(machine, desktop):
    for number in (1, 2):
        machine.send("--to", "pat", "hello", message_id=number)
        desktop.await_window()
        assert len(desktop.agents()) == 1
        desktop.click_at_the_right()
        assert await_confirmed(machine, number) == "desktop"
        desktop.await_no_window()


def test_the_keyboard_alone_answers(machine, desktop):
    machine.send("--to", "pat", "hello")
    desktop.type("Tab", "Tab", "space")
    assert await_confirmed(machine) == "desktop"


def test_later_is_told_to_the_administrator(machine, desktop):
    machine.send("--to", "pat", "hello")
    desktop.await_window()
    desktop.press(LATER)
    sentence = "user pat: postponed message 1 (desktop)"
    await_condition(lambda: sentence in machine.tbx("log", "1").stdout, PATIENCE_SECONDS,
                    "the event")
    desktop.await_no_window()


def test_what_happens_elsewhere_is_seen_at_once(machine, desktop):
    machine.send("--to", "pat", "first")
    desktop.await_window()
    machine.tbx("revoke", "1")
    desktop.await_no_window()
    machine.send("--to", "pat", "second", message_id=2)
    desktop.await_window()
    before = desktop.window_processes()
    machine.tbx("remind", "2")
    await_condition(lambda: desktop.window_processes() not in ([], before) and desktop.windows(),
                    PATIENCE_SECONDS, "it comes up anew")
    machine.run("sh", "-c", "echo 1790000000 terminal >/var/lib/tellbox/users/pat/acks/2",
                user="pat")
    desktop.await_no_window()
    assert confirmed_on(machine, 2) == "terminal"


def test_the_agent_ends_with_the_session_and_the_next_login_has_its_own_display(machine, desktop):
    machine.send("--to", "pat", "hello")
    desktop.await_window()
    desktop.log_out()
    await_condition(lambda: not desktop.agents(), PATIENCE_SECONDS, "the agent ends")
    again = Desktop(machine, "pat")
    machine.tbx("remind", "1")
    again.await_window()
    again.click_at_the_right()
    assert await_confirmed(machine) == "desktop"


def test_an_old_display_in_the_agent_is_not_used(machine, desktop):
    machine.send("--to", "pat", "hello")
    desktop.await_window()
    desktop.press(READ)
    desktop.await_no_window()
    other = Desktop(machine, "pat")  # a second session of the same user
    machine.send("--to", "pat", "second", message_id=2)
    other.await_window()
    assert desktop.windows() == [] and len(other.agents()) == 1


def test_who_logs_in_right_after_logging_out_has_an_agent(machine, desktop):
    machine.send("--to", "pat", "hello")
    desktop.await_window()
    for number in (2, 3, 4):
        desktop.log_out()  # its agent is about to end while the next one starts
        desktop = Desktop(machine, "pat")
        machine.send("--to", "pat", "once more", message_id=number)
        desktop.await_window()
        assert len(desktop.agents()) == 1


def test_a_message_that_expires_while_its_window_is_open_goes(machine, desktop):
    machine.send("--to", "pat", "--expires", "1m", "hello")
    desktop.await_window()
    inbox = machine.path("/var/lib/tellbox/users/pat/inbox/1")
    soon = int(time.time()) + 2
    text = re.sub("^expires: .*$", f"expires: {soon}", inbox.read_text(encoding="utf-8"),
                  flags=re.MULTILINE)
    machine.run("sh", "-c", 'printf %s "$0" >/var/lib/tellbox/users/pat/inbox/1', text, user="pat")
    desktop.await_no_window()
    assert machine.tbx("status", "1").stdout.count("confirmed") == 0


def test_reading_at_the_prompt_closes_the_window(machine, desktop):
    machine.send("--to", "pat", "hello")
    desktop.await_window()
    machine.run(TELLBOX, "read", "1", user="pat")
    desktop.await_no_window()
    assert confirmed_on(machine) == "terminal"


@pytest.mark.parametrize("delay_ms", [0, 5, 20])
def test_an_agent_that_is_killed_while_it_answers_loses_nothing(machine, desktop, delay_ms):
    machine.send("--to", "pat", "hello")
    desktop.await_window()
    agent, = desktop.agents()
    time.sleep(GUARD_SECONDS)
    machine.run("sh", "-c", f"/usr/bin/python3 {TOOLS}/press.py '{READ}'; "
                f"sleep {delay_ms / 1000}; kill -KILL {agent}", user="pat",
                env=desktop.environment)
    desktop.await_no_window()
    machine.tbx("remind", "1")  # a new agent finishes what the other one began
    if not confirmed_on(machine):
        desktop.await_window()
        desktop.press(READ)
    assert await_confirmed(machine) == "desktop"
    await_condition(lambda: "confirmed reading message 1 (desktop)" in
                    machine.tbx("log", "1").stdout, PATIENCE_SECONDS, "the event")


def test_an_agent_that_is_killed_is_replaced_and_no_answer_is_lost(machine, desktop):
    machine.send("--to", "pat", "hello")
    desktop.await_window()
    machine.run("kill", "-KILL", *desktop.agents())
    desktop.await_no_window()
    machine.tbx("remind", "1")
    desktop.await_window()
    desktop.press(READ)
    assert await_confirmed(machine) == "desktop"


def test_the_unit_starts_it_with_the_graphical_session(machine, desktop):
    machine.send("--to", "pat", "hello", "--title", "x")
    for pid in desktop.agents():
        machine.run("kill", pid)
    await_condition(lambda: not desktop.agents(), PATIENCE_SECONDS, "no agent")
    target = machine.path("/home/pat/.config/systemd/user/desktop.target")
    machine.run("install", "-d", "-o", "pat", str(pathlib.Path("/home/pat/.config/systemd/user")))
    target.write_text("[Unit]\nBindsTo=graphical-session.target\n")
    try:
        desktop.systemctl("daemon-reload")
        desktop.systemctl("start", "desktop.target")
        await_condition(desktop.agents, PATIENCE_SECONDS, "the agent")
        assert desktop.systemctl("is-active", "tellbox-agent.service") == "active\n"
        desktop.systemctl("stop", "desktop.target")
        await_condition(lambda: not desktop.agents(), PATIENCE_SECONDS, "its end")
    finally:
        target.unlink()


def test_the_autostart_entry_starts_it_and_tells_the_display(machine, with_programs):
    desktop = Desktop(machine, "pat", announce=False)
    entry = machine.path("/etc/xdg/autostart/tellbox-agent.desktop").read_text(encoding="utf-8")
    command = re.search('^Exec=sh -c "(.*)"$', entry, re.MULTILINE)[1]
    desktop.run("sh", "-c", command)
    assert desktop.systemctl("is-active", "tellbox-agent.service") == "active\n"
    machine.send("--to", "pat", "hello")
    desktop.await_window()
    assert len(desktop.agents()) == 1


def ends_by_itself(machine, user):
    """Whether an agent that is started for a user has ended within a moment."""
    runtime = f"/run/user/{machine.uid(user)}"
    result = machine.run("timeout", "10", AGENT, "agent", user=user, check=False,
                         env={"XDG_RUNTIME_DIR": runtime,
                              "DBUS_SESSION_BUS_ADDRESS": f"unix:path={runtime}/bus"})
    return result.returncode == 0


def test_a_login_screen_has_no_agent(machine, with_programs):
    machine.open_session("pat", "x11", session_class="greeter")
    machine.send("--to", "pat", "hello")
    assert ends_by_itself(machine, "pat")
    assert not machine.path(f"/run/user/{machine.uid('pat')}/tellbox-agent.ready").exists()


def test_an_account_of_the_system_has_no_agent(machine, with_programs):
    machine.open_session("games", "x11")
    assert ends_by_itself(machine, "games")


def test_the_unit_is_well_formed(machine, with_programs):
    machine.open_session("pat", "x11")
    result = machine.run("systemd-analyze", "--user", "verify", UNIT, user="pat", check=False,
                         env={"XDG_RUNTIME_DIR": f"/run/user/{machine.uid('pat')}"})
    assert "tellbox" not in result.stderr, result.stderr
