"""A display of its own with a window manager on it, and what a person does at it."""

import os
import re
import subprocess

from PIL import ImageGrab

from processes import await_condition, end

PROGRAMS = ["Xvfb", "openbox", "xdotool", "xprop", "xterm", "xwininfo", "wmctrl"]


class Screen:
    """An X server without hardware. `name` is its DISPLAY; `bus` the session bus's address."""

    def __init__(self, width=1024, height=768, bus="disabled:", manager=("openbox",), home=None):
        self.width, self.height = width, height
        reading, writing = os.pipe()
        self._server = subprocess.Popen(
            ["Xvfb", "-displayfd", str(writing), "-screen", "0", f"{width}x{height}x24",
             "-nolisten", "tcp", "-noreset"],
            pass_fds=[writing], stderr=subprocess.DEVNULL, start_new_session=True)
        os.close(writing)
        with os.fdopen(reading) as number:
            self.name = f":{number.readline().strip()}"
        self.environment = {
            "PATH": "/usr/bin:/bin", "LANG": "C.UTF-8", "TZ": "UTC", "DISPLAY": self.name,
            "DBUS_SESSION_BUS_ADDRESS": bus, "HOME": str(home or "/nonexistent"),
            **{k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS")}}
        self._manager = self.start(*manager)
        await_condition(lambda: "window id" in self.output("xprop", "-root",
                                                           "_NET_SUPPORTING_WM_CHECK"),
                        "a window manager")

    def start(self, *command, env=None, **options):
        """Starts a program on this display; to be given to end()."""
        quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL,
                 "stderr": subprocess.DEVNULL}
        return subprocess.Popen(command, env={**self.environment, **(env or {})},
                                start_new_session=True, **{**quiet, **options})

    def output(self, *command):
        """What a program on this display prints; its status does not matter."""
        return subprocess.run(command, env=self.environment, capture_output=True, text=True,
                              timeout=60, check=False).stdout

    def close(self):
        end(self._manager)
        self.die()

    def die(self):
        """The display goes away under whatever is on it."""
        end(self._server)

    # ---- Windows ----------------------------------------------------------------------

    def windows(self, title):
        """The identifiers of the visible windows whose titles match."""
        found = self.output("xdotool", "search", "--onlyvisible", "--name", title)
        return [int(line) for line in found.splitlines()]

    def await_window(self, title):
        return await_condition(lambda: self.windows(title), f"a window {title!r}")[-1]

    def property(self, window, name):
        """A property of a window as xprop prints it, after the first separator."""
        printed = self.output("xprop", "-id", str(window), name)
        return re.split(r" = |: ", printed, maxsplit=1)[-1].strip()

    def place(self, window):
        """Left, top, width and height of a window's contents on the screen."""
        facts = self.output("xwininfo", "-id", str(window))
        names = ("Absolute upper-left X", "Absolute upper-left Y", "Width", "Height")
        return tuple(int(re.search(rf"{name}: +(-?\d+)", facts)[1]) for name in names)

    def focused(self):
        """The window that has the keyboard, or None."""
        found = self.output("xdotool", "getwindowfocus")
        return int(found) if found.strip().isdigit() else None

    def focus(self, window):
        """Gives a window the keyboard, as a task bar does."""
        self.output("xdotool", "windowactivate", "--sync", str(window))
        await_condition(lambda: self.focused() == window, "the focus")

    # ---- Hands and eyes ---------------------------------------------------------------

    def press(self, *keys):
        """Presses keys, named as xdotool names them; whoever has the focus gets them."""
        subprocess.run(["xdotool", "key", "--delay", "20", *keys], env=self.environment,
                       check=True, timeout=60)

    def hold(self, key):
        subprocess.run(["xdotool", "keydown", key], env=self.environment, check=True)

    def release(self, key):
        subprocess.run(["xdotool", "keyup", key], env=self.environment, check=True)

    def click(self, x, y):
        subprocess.run(["xdotool", "mousemove", str(x), str(y), "click", "1"],
                       env=self.environment, check=True, timeout=60)

    def picture(self):
        return ImageGrab.grab(xdisplay=self.name).convert("RGB")
