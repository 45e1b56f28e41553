#!/usr/bin/python3
"""A message in a full desktop session: Xfce with its panel, its desktop and its notification service, on
a display without a screen. Takes a picture, and answers through the window.

    tests/desktop/full_session.py PICTURE.png

No suite runs it: it needs xfce4-session, xfce4-panel, xfdesktop4, xfwm4, xfce4-settings and
xfce4-notifyd, which the other tests do not. As root, for a /run of the agent's own.
"""

import os
import shutil
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.dont_write_bytecode = True
sys.path[:0] = [str(HERE), str(HERE.parent)]

from bus import SessionBus  # noqa: E402
from prerequisites import program_under_test  # noqa: E402
from recipient import Recipient  # noqa: E402
from screen import Screen  # noqa: E402

SERVICES = Path("/usr/share/dbus-1/services")
NEEDED = ["xfce4-session", "xfce4-panel", "xfdesktop", "xfwm4", "xfsettingsd"]
TITLE = "Maintenance tonight"
TEXT = "The machine restarts at 22:00.\nPlease save your work.\n"
COLOURS = 64  # in the picture: enough for a desktop, and a third of the size


# A desktop without a picture.
BACKDROP = """<channel name="xfce4-desktop" version="1.0">
  <property name="backdrop" type="empty"><property name="screen0" type="empty">
    <property name="monitorscreen" type="empty"><property name="workspace0" type="empty">
      <property name="color-style" type="int" value="0"/>
      <property name="image-style" type="int" value="0"/>
    </property></property>
  </property></property>
</channel>
"""


def furnish(folder):
    """The settings of the session's user, and the services that the bus may start."""
    settings = folder / ".config" / "xfce4" / "xfconf" / "xfce-perchannel-xml"
    settings.mkdir(parents=True)
    (settings / "xfce4-desktop.xml").write_text(BACKDROP, encoding="ascii")
    services = folder / "services"
    services.mkdir()
    for service in SERVICES.glob("*.service"):
        is_other = "Name=org.freedesktop.Notifications" in service.read_text(encoding="utf-8")
        if not is_other or "xfce" in service.name:
            shutil.copy(service, services)
    return services


def run_session(folder, picture):
    bus = SessionBus(folder, furnish(folder))
    screen = None
    try:
        os.environ["DBUS_SESSION_BUS_ADDRESS"] = bus.address
        screen = Screen(1024, 640, bus=bus.address, home=folder, manager=("xfce4-session",))
        os.environ["DISPLAY"] = screen.name
        screen.output("dbus-update-activation-environment", "DISPLAY")
        for part in ("Desktop", "xfce4-panel"):
            screen.await_window(part)
        answer_a_message(folder / "user", screen, picture)
    finally:
        if screen:
            screen.close()
        bus.close()


def answer_a_message(folder, screen, picture):
    folder.mkdir()
    user = Recipient(folder, program_under_test().parent, screen)
    try:
        agent = user.start_agent()
        number = user.send(TEXT, "--title", TITLE)
        agent.await_window(number)
        time.sleep(2)  # the panel and the notification are drawn
        screen.picture().quantize(COLOURS).save(picture, optimize=True)
        agent.answer("I have read it")
        print(f"answered on: {user.await_answer(number)}")
    finally:
        user.close()


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    if missing := [name for name in NEEDED if not shutil.which(name)]:
        sys.exit(f"needs {', '.join(missing)}")
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
        run_session(Path(folder), sys.argv[1])


main()
