"""The whole way: a message is sent, the user's own service manager has the real agent, the window
comes up on a display in the user's session, and what the user answers reaches the administrator."""

import itertools
import pathlib
import re
import shutil
import time

import pytest

from booted import end_process
from furnished import TOOLS
from harness.waiting import PATIENCE_SECONDS, await_condition
from prerequisites import skip
from residents import AGENT

HERE = pathlib.Path(__file__).resolve().parent
PACKAGING = HERE.parents[1] / "packaging" / "desktop"
WINDOW = "/usr/local/lib/tellbox/tellbox-window"
UNIT = "/usr/local/lib/systemd/user/tellbox-agent.service"
GUARD_SECONDS = 0.8
READ, LATER = "I have read it", "Later"


class Desktop:
    """A user at a display of their own, with a window manager, in a graphical session."""

    _numbers = itertools.count(31)  # of displays: one that has just ended may still answer

    def __init__(self, machine, user, announce=True):
        self.machine, self.user = machine, user
        display = f":{next(self._numbers)}"
        self.session = machine.open_session(user, "x11")
        self.environment = {
            "DISPLAY": display, "XDG_RUNTIME_DIR": f"/run/user/{machine.uid(user)}",
            "HOME": f"/home/{user}",
            "DBUS_SESSION_BUS_ADDRESS": f"unix:path=/run/user/{machine.uid(user)}/bus"}
        self._server = self._start("Xvfb", display, "-noreset", "-nolisten", "tcp")
        await_condition(lambda: self.run("xprop", "-root").returncode == 0, PATIENCE_SECONDS,
                        "the display")
        self._manager = self._start("openbox")
        await_condition(lambda: "window id" in self.run("xprop", "-root",
                                                        "_NET_SUPPORTING_WM_CHECK").stdout,
                        PATIENCE_SECONDS, "the window manager")
        if announce:
            self.systemctl("set-environment", f"DISPLAY={display}")

    def _start(self, *command):
        process = self.machine.start(*command, user=self.user, env=self.environment)
        self.machine.keep(process)
        return process

    def run(self, *command):
        return self.machine.run(*command, user=self.user, env=self.environment, check=False)

    def systemctl(self, *arguments):
        return self.machine.run("systemctl", "--user", *arguments, user=self.user,
                                env=self.environment).stdout

    def windows(self):
        found = self.run("xdotool", "search", "--onlyvisible", "--name",
                         "Message from the administrator").stdout
        return [int(line) for line in found.split()]

    def await_window(self):
        return await_condition(self.windows, PATIENCE_SECONDS, "the window on the screen")[-1]

    def window_processes(self):
        return self.machine.run("pgrep", "-u", self.user, "-xf", WINDOW,
                                check=False).stdout.split()

    def await_no_window(self):
        await_condition(lambda: not self.windows(), PATIENCE_SECONDS, "the window is gone")

    def text(self):
        return self.run("/usr/bin/python3", f"{TOOLS}/press.py", "text").stdout.rstrip("\n")

    def press(self, button):
        time.sleep(GUARD_SECONDS)
        result = self.run("/usr/bin/python3", f"{TOOLS}/press.py", button)
        assert result.returncode == 0, result.stderr

    def click_at_the_right(self):
        """Clicks with the mouse where the last button is."""
        time.sleep(GUARD_SECONDS)
        facts = self.run("xwininfo", "-id", str(self.await_window())).stdout
        left, top, width, height = (
            int(re.search(rf"{name}: +(-?\d+)", facts)[1])
            for name in ("Absolute upper-left X", "Absolute upper-left Y", "Width", "Height"))
        self.run("xdotool", "mousemove", str(left + width - 60), str(top + height - 30),
                 "click", "1")

    def type(self, *keys):
        self.run("xdotool", "windowactivate", "--sync", str(self.await_window()))
        time.sleep(GUARD_SECONDS)
        self.run("xdotool", "key", "--delay", "30", *keys)

    def agents(self):
        found = self.machine.run("pgrep", "-u", self.user, "-xf", f"{AGENT} agent", check=False)
        return found.stdout.split()

    def log_out(self):
        """Everything of the session ends, the display too."""
        for process in (self._manager, self._server):
            end_process(process)
        self.run("pkill", "-u", self.user, "Xvfb")
        self.session.close()


@pytest.fixture(scope="module")
def with_programs(booted):
    """The machine with the real programs in place of the stand-in."""
    missing = [name for name in ("Xvfb", "openbox", "xdotool") if not shutil.which(name)]
    window = booted.binary.with_name("tellbox-window")
    if missing or not window.exists():
        skip(f"needs {', '.join(missing) or 'tellbox-window'} (see tools/install-deps)")
    stand_in = booted.path(AGENT)
    kept = stand_in.with_name("stand-in")
    stand_in.rename(kept)
    booted.install(booted.binary.with_name("tellbox-user"), AGENT.lstrip("/"))
    booted.install(window, WINDOW.lstrip("/"))
    booted.install(PACKAGING / "tellbox-agent.service", UNIT.lstrip("/"))
    booted.install(PACKAGING / "tellbox-agent.desktop", "etc/xdg/autostart/tellbox-agent.desktop")
    booted.install(HERE / "desktop" / "press.py", f"{TOOLS.lstrip('/')}/press.py")
    for name in (UNIT, "/etc/xdg/autostart/tellbox-agent.desktop"):
        booted.path(name).chmod(0o644)
    booted.run("mkdir", "-p", "/tmp/.X11-unix")
    booted.run("chmod", "1777", "/tmp/.X11-unix")
    wants = booted.path(UNIT).parent / "graphical-session.target.wants"
    wants.mkdir()
    (wants / "tellbox-agent.service").symlink_to("../tellbox-agent.service")
    yield
    shutil.rmtree(wants)
    booted.path(UNIT).unlink()
    booted.path(WINDOW).unlink()
    kept.rename(stand_in)


@pytest.fixture
def desktop(machine, with_programs):
    """pat at a desktop."""
    return Desktop(machine, "pat")


def confirmed_on(machine, number=1):
    """The channel that `tbx status` tells, "" while there is no answer."""
    found = re.search(r"confirmed on .* \((\w+)\)", machine.tbx("status", str(number)).stdout)
    return found[1] if found else ""


def await_confirmed(machine, number=1):
    return await_condition(lambda: confirmed_on(machine, number), PATIENCE_SECONDS, "the answer")


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


def test_a_login_screen_has_no_agent(machine, with_programs):
    machine.open_session("pat", "x11", session_class="greeter")
    machine.send("--to", "pat", "hello")
    await_condition(lambda: not machine.run("pgrep", "-u", "pat", "-xf", f"{AGENT} agent",
                                            check=False).stdout, PATIENCE_SECONDS, "no agent")
    assert not machine.path(f"/run/user/{machine.uid('pat')}/tellbox-agent.ready").exists()


def test_the_unit_is_well_formed(machine, with_programs):
    machine.open_session("pat", "x11")
    result = machine.run("systemd-analyze", "--user", "verify", UNIT, user="pat", check=False,
                         env={"XDG_RUNTIME_DIR": f"/run/user/{machine.uid('pat')}"})
    assert "tellbox" not in result.stderr, result.stderr
