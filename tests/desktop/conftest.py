"""Fixtures for tests of the desktop side: a display, a bus, the window and the agent."""

import os
import shutil
import socket
import sys
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent)]

pytest.register_assert_rewrite("dialog", "screen", "accessible", "recipient")

from prerequisites import program_under_test, skip  # noqa: E402

try:
    import accessible  # noqa: F401
    import screen as screens
    from bus import SessionBus
    from dialog import Dialog, message
    from editor import Editor
    from recipient import Recipient
    LIBRARIES_MISSING = None
except ImportError as error:
    LIBRARIES_MISSING = str(error)

ACCESSIBILITY_SERVICES = ["org.a11y.Bus.service", "org.a11y.atspi.Registry.service"]


@pytest.fixture(scope="session")
def display_programs():
    """Asked for by whatever puts something on a display."""
    missing = [name for name in [*getattr(screens, "PROGRAMS", []), "dbus-daemon"]
               if not shutil.which(name)] if not LIBRARIES_MISSING else [LIBRARIES_MISSING]
    if missing:
        skip(f"needs {', '.join(missing)} (see tools/install-deps)")


@pytest.fixture(scope="session")
def window_program():
    """The window, built beside the program under test."""
    program = program_under_test().parent / "tellbox-window"
    if not program.is_file():
        skip("tellbox-window is not built: there is no gtkmm-4.0")
    return str(program)


@pytest.fixture(scope="session")
def bus(display_programs, tmp_path_factory):
    """The session bus of a worker's tests, which may start the accessibility services."""
    folder = tmp_path_factory.mktemp("bus")
    services = folder / "services"
    services.mkdir()
    for name in ACCESSIBILITY_SERVICES[:1]:
        shutil.copy(Path("/usr/share/dbus-1/services") / name, services)
    running = SessionBus(folder, services)
    os.environ["DBUS_SESSION_BUS_ADDRESS"] = running.address
    yield running
    running.close()


@pytest.fixture(scope="session")
def screen(bus, tmp_path_factory):
    """A display of 1024x768 with openbox, shared by a worker's tests."""
    shown = screens.Screen(bus=bus.address, home=tmp_path_factory.mktemp("home"))
    os.environ["DISPLAY"] = shown.name
    yield shown
    shown.close()


@pytest.fixture
def new_screen(bus, tmp_path):
    """Makes a display of another kind; the arguments are Screen's."""
    opened = []

    def start(*arguments, **options):
        opened.append(screens.Screen(*arguments, bus=bus.address, home=tmp_path, **options))
        return opened[-1]

    yield start
    for shown in reversed(opened):
        shown.close()


@pytest.fixture
def open_dialog(window_program, screen):
    """Opens the window: open_dialog(text, place=..., title=...); on another screen with `on`."""
    opened = []

    def start(text="Please log out.", on=None, env=None, wait=True, **fields):
        data = text if fields.pop("raw", False) else message(text, **fields)
        opened.append(Dialog(window_program, on or screen, data, env=env, wait=wait))
        return opened[-1]

    yield start
    for dialog in opened:
        dialog.close()


@pytest.fixture
def editor(screen, tmp_path):
    """A window with the focus, in which somebody writes."""
    opened = Editor(screen, tmp_path)
    yield opened
    opened.close()


@pytest.fixture
def recipient(window_program, screen, tmp_path):
    """A user with a mailbox, for whom agents are started."""
    if os.geteuid() != 0:
        skip("needs root: a /run of the test's own")
    user = Recipient(tmp_path, Path(window_program).parent, screen)
    yield user
    user.close()


@pytest.fixture
def mute_bus(tmp_path):
    """The address of a bus that takes connections and says nothing."""
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(tmp_path / "mute"))
        listener.listen(64)
        yield f"unix:path={tmp_path}/mute"
