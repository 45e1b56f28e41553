"""Notification services as distributions ship them: the notification appears, goes with the
message, and no click on it confirms anything."""

import shutil
from pathlib import Path

import pytest

from bus import SessionBus
from prerequisites import skip
from processes import await_condition, end

SERVICES = Path("/usr/share/dbus-1/services")
# What the bus starts for whoever asks, and the class of the windows.
ACTIVATED = {
    "xfce4-notifyd": ("org.xfce.xfce4-notifyd.Notifications.service", "xfce4-notifyd"),
    "mate": ("org.freedesktop.mate.Notifications.service", "mate-notification-daemon"),
    "dunst": ("org.knopwob.dunst.service", "dunst"),
    "notification-daemon": (None, "notification-daemon"),
}
DAEMON = "/usr/lib/notification-daemon/notification-daemon"


class Desktop:
    """A display and a bus with one notification service on them."""

    def __init__(self, screen, bus, window_class):
        self.screen, self.bus, self._class = screen, bus, window_class

    def bubbles(self):
        """The windows of the service that can be seen."""
        found = self.screen.output("xdotool", "search", "--onlyvisible", "--class",
                                   f"^{self._class}$")
        return [int(window) for window in found.split()]

    def await_bubble(self):
        return await_condition(self.bubbles, "the notification on the screen")[0]

    def await_closed(self):
        if self._class != "notification-daemon":  # that one leaves it there, whoever closes it
            await_condition(lambda: not self.bubbles(), "the notification is gone")

    def click_bubble(self):
        left, top, width, height = self.screen.place(self.await_bubble())
        self.screen.click(left + width // 3, top + height // 2)


@pytest.fixture(params=list(ACTIVATED))
def desktop(request, new_screen, tmp_path):
    """A desktop with one of the services."""
    file, window_class = ACTIVATED[request.param]
    place = SERVICES / file if file else Path(DAEMON)
    if not place.exists():
        skip(f"needs {request.param} (see tools/install-deps)")
    shown = new_screen()
    (tmp_path / "services").mkdir()
    if file:
        shutil.copy(place, tmp_path / "services")
    bus = SessionBus(tmp_path, env={"DISPLAY": shown.name, "GSETTINGS_BACKEND": "memory"})
    daemon = shown.start(DAEMON, env={"DBUS_SESSION_BUS_ADDRESS": bus.address}) if not file else None
    yield Desktop(shown, bus, window_class)
    if daemon:
        end(daemon)
    bus.close()


@pytest.fixture
def agent(recipient, desktop):
    """An agent whose windows say that they are shown, and stay."""
    recipient.use_window("echo shown; exec sleep 60")
    return recipient.start_agent(env={"DISPLAY": desktop.screen.name,
                                      "DBUS_SESSION_BUS_ADDRESS": desktop.bus.address})


def test_the_notification_appears_and_goes_with_the_message(recipient, desktop, agent):
    number = recipient.send("Please log out.", "--title", "5 < 6 & <b>bold</b>")
    desktop.await_bubble()
    recipient.await_mark(number, "shown")
    recipient.tbx("revoke", str(number))
    desktop.await_closed()
    second = recipient.send("second")
    desktop.await_bubble()
    recipient.await_mark(second, "shown")


def test_a_click_on_it_confirms_nothing(recipient, desktop, agent):
    number = recipient.send()
    desktop.click_bubble()
    recipient.await_mark(number, "shown")
    assert recipient.is_unanswered(number)
    assert recipient.events() == []


def test_without_a_window_the_message_stands_in_it_and_is_marked(recipient, desktop, agent):
    recipient.remove_window()
    number = recipient.send()
    desktop.await_bubble()
    recipient.await_mark(number, "shown")
    desktop.click_bubble()
    assert recipient.is_unanswered(number)
