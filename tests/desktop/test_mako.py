"""A notification service that exists on Wayland only, draws no actions though it says so."""

import json
import os
import pathlib
import shutil
import tempfile
import time

import pytest

from bus import SessionBus
from dialog import GUARD_SECONDS
from prerequisites import need_root, skip
from processes import await_condition, end

NOBODY = 65534  # the compositor refuses to run as root
HEADLESS = {"WLR_BACKENDS": "headless", "WLR_LIBINPUT_NO_DEVICES": "1", "WLR_RENDERER": "pixman"}


class Desktop:
    """A compositor without a screen, and mako on it."""

    def __init__(self, screen, folder):
        self._screen = screen
        folder.chmod(0o700)
        self.bus = SessionBus(folder)
        self.environment = {"XDG_RUNTIME_DIR": str(folder), "WAYLAND_DISPLAY": "wayland-1",
                            "DISPLAY": "", "DBUS_SESSION_BUS_ADDRESS": self.bus.address}
        (folder / "sway.conf").write_text("xwayland disable\n")
        os.chown(folder, NOBODY, NOBODY)
        self._started = [screen.start("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}",
                                      "--clear-groups", "sway", "--config", str(folder / "sway.conf"),
                                      env={**HEADLESS, **self.environment,
                                           "WAYLAND_DISPLAY": ""})]
        await_condition((folder / "wayland-1").exists, "the compositor")
        self._started.append(screen.start("mako", env=self.environment))
        await_condition(lambda: self.shown() is not None, "the service")

    def makoctl(self, *words):
        """The user does something with the notification on the screen."""
        process = self._screen.start("makoctl", *words, env=self.environment, stdout=-1, text=True)
        output = process.communicate(timeout=20)[0]
        return output if process.returncode == 0 else ""

    def shown(self):
        """(title, text) of each notification on the screen; None if the service does not answer."""
        listed = self.makoctl("list")
        return [(each["summary"]["data"], each["body"]["data"])
                for each in json.loads(listed)["data"][0]] if listed else None

    def close(self):
        for process in reversed(self._started):
            end(process)
        self.bus.close()


@pytest.fixture
def desktop(screen):
    if missing := [name for name in ("sway", "mako") if not shutil.which(name)]:
        skip(f"needs {', '.join(missing)} (see tools/install-deps)")
    need_root("a compositor of another user")
    with tempfile.TemporaryDirectory() as folder:  # everybody can reach it
        running = Desktop(screen, pathlib.Path(folder))
        yield running
        running.close()


def test_the_notification_appears_and_goes_with_the_message(recipient, desktop):
    recipient.use_window("echo shown; exec sleep 60")
    recipient.start_agent(env=desktop.environment)
    number = recipient.send("Please log out.", "--title", "5 < 6")
    await_condition(lambda: desktop.shown() == [
        ("Message from the administrator", "5 &lt; 6\nPlease log out.")], "the notification")
    recipient.await_mark(number, "shown")
    recipient.tbx("revoke", str(number))
    await_condition(lambda: desktop.shown() == [], "it goes")


def test_without_a_window_it_tells_how_to_answer_and_no_click_answers(recipient, desktop):
    recipient.remove_window()
    recipient.start_agent(env=desktop.environment)
    number = recipient.send("Please log out.")
    await_condition(lambda: desktop.shown() == [
        ("Message from the administrator",
         "Please log out.\nAnswer in a terminal with: tellbox")], "the notification")
    recipient.await_mark(number, "shown")
    time.sleep(GUARD_SECONDS + 0.1)
    desktop.makoctl("invoke")
    desktop.makoctl("dismiss")
    await_condition(lambda: desktop.shown() == [], "it is dismissed")
    assert recipient.is_unanswered(number)
    assert recipient.events() == []
