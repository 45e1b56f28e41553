"""On Wayland the window comes up and the answer comes back."""

import shutil
import time

import pytest

from dialog import GUARD_SECONDS
from prerequisites import skip
from processes import await_condition, end


class Compositor:
    """A Wayland server without a screen. `environment` is that of a session on it."""

    def __init__(self, screen, folder):
        runtime = {"XDG_RUNTIME_DIR": str(folder)}
        self.environment = {**runtime, "WAYLAND_DISPLAY": "wayland-tests", "DISPLAY": ""}
        self._server = screen.start("weston", "--backend=headless-backend.so",
                                    "--socket=wayland-tests", "--idle-time=0", env=runtime)
        await_condition((folder / "wayland-tests").exists, "the compositor")

    def die(self):
        end(self._server)


@pytest.fixture
def compositor(screen, tmp_path):
    if not shutil.which("weston"):
        skip("needs weston (see tools/install-deps)")
    tmp_path.chmod(0o700)
    running = Compositor(screen, tmp_path)
    yield running
    running.die()


@pytest.mark.parametrize("button, word", [("I have read it", "read"), ("Later", "later")])
def test_the_window_is_shown_and_answered(open_dialog, compositor, button, word):
    dialog = open_dialog("Please log out.", env=compositor.environment)
    assert dialog.text == "Please log out."
    dialog.outlast_guard().button(button).activate()
    assert dialog.answer() == (word, None, 0)


def test_the_agent_opens_it_there(recipient, compositor):
    agent = recipient.start_agent(env=compositor.environment)
    number = recipient.send()
    window = agent.await_window(number)
    time.sleep(GUARD_SECONDS + 0.1)
    window.button("I have read it").activate()
    assert recipient.await_answer(number) == "desktop"


def test_a_compositor_that_goes_away_is_no_answer(recipient, compositor):
    agent = recipient.start_agent(env=compositor.environment)
    number = recipient.send()
    recipient.await_mark(number, "shown")
    assert agent.windows()
    compositor.die()
    agent.await_no_window()
    assert recipient.is_unanswered(number)
    recipient.make_due(number)
    assert recipient.no_window_comes()
    assert agent.process.poll() is None


def test_without_its_compositor_no_window_is_opened(recipient, compositor):
    agent = recipient.start_agent(env={**compositor.environment,
                                       "WAYLAND_DISPLAY": "wayland-none"})
    recipient.send()
    assert recipient.no_window_comes()
    assert agent.process.poll() is None
