"""What tests do to the interface and say about it, over harness.pseudo_terminal.Terminal."""

import fcntl
import os
import re
from contextlib import contextmanager
from pathlib import Path

from expected_texts import assert_same
from harness.pseudo_terminal import CLOCKS, CTRL_Z, ESCAPE, FRAME_BEGINS, GUARD_SECONDS, assert_restored
from kept_frames import UPDATED, Frame

# With --update: a page that so much as begins to change is not taken for one that is shown.
SETTLED_SECONDS = 1.5

# Control bytes, and sequences, that are no key in any state. Not among them: Ctrl+C, Ctrl+Z and
# Ctrl+\, which are signals.
MEANINGLESS = [
    *"\x00\x01\x02\x04\x06\x07\x0b\x0c\x0e\x0f\x10\x11\x12\x14\x15\x16\x17\x18\x19\x1d\x1e\x1f",
    "\x1b[2~", "\x1b[0~", "\x1b[9~",  # numbered keys without a meaning
    "\x1b[15~", "\x1b[24~", "\x1b[201~", "\x1b[11~", "\x1b[66~",  # more digits: F5, F12, ...
    "\x1b[1;5B", "\x1b[1;2A", "\x1b[5;5~", "\x1b[3;2~", "\x1bO5B",  # with modifiers
    "\x1bOP", "\x1bO1~", "\x1bO5~", "\x1b[E", "\x1b[~", "\x1b[?1;2c", "\x1b[<0;10;10M", "\x1b[[A",
    "\x1bq", "\x1bn", "\x1b?", "\x1b\r", "\x1b\x7f", "\x1bé", "\x1b\x1b[B",  # with Alt
]
# Each byte is a character of its own, as far as the interface is concerned.
BROKEN_CHARACTERS = [b"\x80", b"\xff", b"\xc3", b"\xe6\x97"]


def seen(tbx):
    """The screen as a frame, with the time of day as the model has it."""
    return Frame(CLOCKS.sub(UPDATED, tbx.frame()), tbx.styles(), tbx.cursor())


class Expectations:
    """Whether pages are compared with what they have to show: not while that is written anew."""

    met = True


def expect(tbx, page, box=None):
    """Waits until the terminal shows the page, with the dialog `box` over it.

    The whole screen counts: characters, styles and cursor. Shows the difference if it never does.
    """
    if not Expectations.met:
        tbx.wait_until_still(seconds=SETTLED_SECONDS)
        return
    frame = page if isinstance(page, Frame) else page.frame(box)
    tbx.wait_until_still(
        lambda: CLOCKS.sub(UPDATED, tbx.frame()) == frame.text and seen(tbx) == frame)
    assert_same(seen(tbx).text, frame.text, "expected")
    assert_same(seen(tbx).styles, frame.styles, "expected styles")
    assert seen(tbx).cursor == frame.cursor


def asks(tbx):
    """Whether a question or a result is shown, which takes no key at first."""
    frame = tbx.frame()
    return "y  Confirm" in frame or "any key to continue" in frame and "tbx --help" not in frame


def reply(tbx, keys):
    """Types the keys, once a question or a result that is shown takes them."""
    if asks(tbx):
        tbx.wait_until_it_slept(GUARD_SECONDS)
    tbx.send(keys)


def press(tbx, keys, page, box=None):
    """Types the keys, and waits until the terminal shows the page with the dialog over it."""
    reply(tbx, keys)
    expect(tbx, page, box)


def frames_drawn(tbx):
    return tbx.raw.count(FRAME_BEGINS)


def press_in_vain(tbx, keys):
    """Types what does nothing, and waits until it has been dealt with.

    For an Esc, and for the beginning of a sequence: what is typed right behind it would belong
    to it. Only a frame that was begun before it was typed can come before that.
    """
    drawn = frames_drawn(tbx)
    tbx.send(keys)
    tbx.wait_for(lambda: frames_drawn(tbx) >= drawn + 2)


def read_again(tbx, page):
    """Makes the list read the store, as a cancelled dialog does, and show `page` then."""
    tbx.send("p")
    tbx.wait_for("Delete old messages")
    press(tbx, ESCAPE, page)


def frames_as_text(tbx):
    """All frames that were drawn, as they were written."""
    return tbx.raw.decode(errors="replace").split(FRAME_BEGINS.decode())[1:]


def frame_that_shows(tbx, text, after=0):
    """The number, from 0, of the first frame with this text, frames before `after` aside."""
    frames = frames_as_text(tbx)
    return next(number for number in range(after, len(frames)) if text in frames[number])


def clocks_shown(tbx):
    """What each frame says about the time of its data."""
    return [CLOCKS.search(frame)[0] for frame in frames_as_text(tbx)]


@contextmanager
def lock_held(store, message_id):
    """Whoever works on the message waits meanwhile, or until the given function is called."""
    held = os.open(store.sent(message_id, "lock"), os.O_RDWR | os.O_CREAT, 0o600)
    try:
        fcntl.flock(held, fcntl.LOCK_EX)
        yield lambda: fcntl.flock(held, fcntl.LOCK_UN)
    finally:
        os.close(held)


# ---- Ways out -----------------------------------------------------------------------------

# Where a text has been written that is not sent yet.
WITH_TEXT = ["form-filled-in", "form-error", "form-discard-question", "form-review",
             "form-sending-result"]
KEPT = r"tbx: the text of the new message is kept in (/tmp/tellbox-testo-\w{6})"


def assert_left(tbx, name):
    """The interface has restored the terminal, and says where it keeps the text, if any."""
    if name not in WITH_TEXT:
        assert_restored(tbx)
        return
    assert_restored(tbx, KEPT)
    take_kept_text(tbx)


def kept_file(tbx):
    """The file in which the interface says that it keeps the text."""
    return Path(re.search(KEPT, tbx.frame())[1])


def take_kept_text(tbx):
    """The text that the interface says it keeps; the file is removed."""
    path = kept_file(tbx)
    text = path.read_text(encoding="utf-8")
    assert path.stat().st_mode & 0o777 == 0o600
    path.unlink()
    return text


def is_stopped(tbx):
    return state_of(tbx.pid) == "T"


def stop(tbx):
    """Types Ctrl+Z, and waits until the interface has left the screen and stopped."""
    tbx.send(CTRL_Z)
    tbx.poll_for(lambda: is_stopped(tbx) and not tbx.screen.alternate)


def stopped_command(tbx):
    """Waits until a process that the program has started is stopped, and returns its number.

    A tracer stops it for a moment at every call: what stands still for several looks counts.
    """
    looks = []

    def stands():
        try:
            looks.append(stopped_below(tbx.pid))
        except (FileNotFoundError, ProcessLookupError):
            looks.append([])  # one of them has just ended
        return len(looks) > 3 and looks[-1] and looks[-1] == looks[-2] == looks[-3]

    tbx.poll_for(stands)
    return looks[-1][0]


def stopped_below(process):
    """The stopped processes that come from this one."""
    children = Path(f"/proc/{process}/task/{process}/children").read_text().split()
    stopped = [int(child) for child in children if state_of(child) in "Tt"]
    return stopped + [found for child in children for found in stopped_below(child)]


def state_of(process):
    return Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[0]
