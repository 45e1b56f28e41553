"""A user at a display: Xvfb, a window manager, and the message's window on it."""

import itertools
import pathlib
import re
import time

from booted import end_process
from furnished import TOOLS
from harness.waiting import PATIENCE_SECONDS, await_condition
from residents import AGENT

HERE = pathlib.Path(__file__).resolve().parent
PROGRAMS = ("Xvfb", "openbox", "xdotool")
WINDOW = "/usr/local/lib/tellbox/tellbox-window"
GUARD_SECONDS = 0.8
READ, LATER = "I have read it", "Later"


def prepare_displays(machine):
    """What the displays of a machine need, once."""
    machine.install(HERE / "desktop" / "press.py", f"{TOOLS.lstrip('/')}/press.py")
    machine.run("mkdir", "-p", "/tmp/.X11-unix")
    machine.run("chmod", "1777", "/tmp/.X11-unix")


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


def confirmed_on(machine, number=1):
    """The channel that `tbx status` tells, "" while there is no answer."""
    found = re.search(r"confirmed on .* \((\w+)\)", machine.tbx("status", str(number)).stdout)
    return found[1] if found else ""


def await_confirmed(machine, number=1):
    return await_condition(lambda: confirmed_on(machine, number), PATIENCE_SECONDS, "the answer")
