#!/usr/bin/python3
"""Feeds the whole interface, on a pseudo-terminal, with random keys over random stores.

    TBX_BINARY=build/asan/tbx tests/fuzz/interface_fuzz.py [--seconds N] [--seed N]

Everything is drawn from the seed, which is printed: the same seed types the same keys into the
same stores. Each round checks that

- every frame is exactly as large as the terminal was at some time of the round,
- nothing reaches the terminal but well-formed text, line ends and the interface's own sequences,
- the interface ends by itself, with status 0, when it is asked to, in whichever way,
- and gives the terminal back with the attributes that it found,
- no sanitizer has anything to report, of the program or of a child.
"""

import argparse
import fcntl
import os
import random
import re
import signal
import sys
import tempfile
import termios
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent), str(HERE.parent / "tui")]

from harness.pseudo_terminal import (  # noqa: E402
    BACK_TAB, BACKSPACE, CTRL_C, CTRL_E, CTRL_S, CTRL_Z, DELETE, DOWN, END, ENTER, ESCAPE,
    FRAME_ENDS, GUARD_SECONDS, HOME, LEAVE_SCREEN, LEFT, LFLAG, PAGE_DOWN, PAGE_UP, RIGHT, TAB, UP, Terminal, pasted)
from interface import BROKEN_CHARACTERS, MEANINGLESS, is_stopped  # noqa: E402
from messages import USERS, Store  # noqa: E402
from terminal_bytes import assert_harmless, assert_whole_frames  # noqa: E402

DEFAULT_BINARY = HERE.parent.parent / "build" / "asan" / "tbx"
FINDING = re.compile(r"SUMMARY: |runtime error: ")
FOUND_BY_SANITIZER = 99  # an exit status that the program never has

# ---- What is typed ------------------------------------------------------------------------

KEYS = [UP, DOWN, RIGHT, LEFT, HOME, END, PAGE_UP, PAGE_DOWN, ENTER, TAB, BACK_TAB, BACKSPACE,
        DELETE, CTRL_E, CTRL_S, CTRL_Z]
LETTERS = list("nrmp/?yY" + "abc@, 09")
WORDS = ["all", "daemon", "daemon,bin", "@daemon", "nosuch", "30m", "1d", "tomorrow", "90d", "0m",
         "é€😀", "\u0301", "Hello world ", "x" * 70, "再起動", "👩‍💻❤️🇩🇪", "\u200b\u1161"]
CTRL_Q = "\x11"
SCREEN_SIZES = [(80, 20), (80, 24), (109, 30), (110, 25), (200, 50), (81, 21)]
SMALL_SIZES = [(79, 24), (80, 19), (20, 6), (5, 5), (4, 4), (1, 1)]
PAUSE_SECONDS = 0.06  # longer than the keys of one sequence are waited for
TAKEN_SECONDS = GUARD_SECONDS + 0.05  # then a question takes a key


def some_keys(draw):
    """What is typed in one go."""
    kinds = [lambda: draw.choice(KEYS), lambda: draw.choice(LETTERS), lambda: draw.choice(WORDS),
             lambda: draw.choice(MEANINGLESS), lambda: draw.choice(BROKEN_CHARACTERS),
             lambda: bytes(byte for byte in draw.randbytes(4) if byte not in b"\x03\x1c"),
             lambda: pasted("".join(draw.choices([*WORDS, "\r\n", "\t", "y", "\x1b[A"], k=9)))]
    weights = [10, 10, 4, 3, 1, 1, 1]
    keys = b""
    for kind in draw.choices(kinds, weights, k=draw.randrange(1, 30)):
        typed = kind()
        keys += typed if isinstance(typed, bytes) else typed.encode()
    return keys.replace(b"q", b"").replace(b"Q", b"") + draw.choice([b"", ESCAPE.encode()])


# ---- What is in the store -----------------------------------------------------------------

HOSTILE = [b"\x1b[31m", b"\x1b]0;title\x07", b"\xc2\x9b2J", b"\x9b2J", b"\xc2\x07\x9b", b"\r",
           b"\x00", b"\x7f", b"\t", b"\n", b"\xff\xfe", b"\xe2\x82", b"\xcc\x81", b": ", b"%s%n"]


def some_text(draw, size):
    pieces = [b"Hello ", b"world", "é€😀".encode(), b"x" * 30, b" ", "再起動👩‍💻e\u0301".encode()]
    text = b"".join(draw.choice(pieces + HOSTILE) for _ in range(draw.randrange(size)))
    return draw.randbytes(draw.randrange(40)) + text if draw.random() < 0.2 else text


def some_message_file(draw):
    if draw.random() < 0.1:
        return some_text(draw, 60)
    expires = draw.choice([b"", b"1", b"4000000000", b"999999999999999999", b"x"])
    date = draw.choice([b"1790000000", b"0", b"999999999999999999", b"-5", b""])
    return (b"format: 1\nid: 1\nfrom: " + some_text(draw, 4).replace(b"\n", b"") + b"\ndate: "
            + date + b"\ntitle: " + some_text(draw, 8).replace(b"\n", b"") + b"\nexpires: "
            + expires + b"\n\n" + some_text(draw, 80))


def put_message(draw, store, number):
    users = draw.sample([*USERS, "gone", "é" * 10, "x" * 40, "../daemon"], draw.randrange(6))
    delivered = [(user, 1790000000, draw.randrange(4)) for user in users if draw.random() < 0.7]
    store.make_message(
        number, msg=some_message_file(draw), to=users if draw.random() < 0.95 else None,
        delivered=delivered,
        markers=draw.choice([(), (), (), ("incomplete",), ("revoking",), ("failed",)]),
        revoked=draw.choice([None, None, None, 1790000000, 0, "x"]))
    for user in users:
        if user in USERS and draw.random() < 0.5:
            store.write_as(user, ("acks", number), draw.choice(
                [b"", b"1790000001 desktop\n", b"x", b"9" * 300, b"1 " + some_text(draw, 9)]))
        if user in USERS and draw.random() < 0.3:
            store.mark_shown(user, number, draw.randrange(2**33))


def damage(draw, store):
    """Changes the store under the running program: a file is written to, or goes."""
    files = sorted(path for path in store.top.rglob("*") if path.is_file() and path.name != "lock")
    if not files:
        return
    path = draw.choice(files)
    if draw.random() < 0.3:
        path.unlink(missing_ok=True)
    elif path.parent.is_dir():
        path.write_bytes(some_text(draw, 20))


# ---- One round ----------------------------------------------------------------------------


def environment(draw, folder):
    editor = folder / "editor"
    editor.write_text("#!/bin/sh\nprintf 'edited\\033[31m\\n\\nline' >\"$1\"\nexit 3\n")
    editor.chmod(0o755)
    options = f"exitcode={FOUND_BY_SANITIZER}:log_path={folder}/report"
    colours = {} if draw.random() < 0.5 else {"NO_COLOR": "1"}
    return {"PATH": "/usr/bin:/bin", "HOME": str(folder), "TERM": "xterm-256color", "TZ": "UTC",
            "TBX_TEST": "1", "TBX_VAR": str(folder / "var"), "TBX_LIB": str(folder / "lib"),
            "TBX_CONF": str(folder / "conf"), "VISUAL": str(editor), "ASAN_OPTIONS": options,
            "UBSAN_OPTIONS": options, "LSAN_OPTIONS": f"exitcode={FOUND_BY_SANITIZER}", **colours}


def with_nothing_of_its_own(attributes):
    """The terminal itself would show what is typed while an editor has it, and would throw a part of
    a frame away when Ctrl+C or Ctrl+Z comes."""
    attributes[LFLAG] &= ~termios.ECHO
    attributes[LFLAG] |= termios.NOFLSH


def kill(process, number):
    try:
        os.kill(process, number)
    except ProcessLookupError:
        pass  # it has ended


def children_of(process):
    try:
        return [int(child) for child in
                Path(f"/proc/{process}/task/{process}/children").read_text().split()]
    except FileNotFoundError:
        return []  # it has ended


class Round:
    def __init__(self, draw, binary, folder):
        self.draw = draw
        self.folder = folder
        self.store = Store(folder / "var", lambda user: None)
        self.store.create()
        self.numbers = iter(range(1, 1000))
        for _ in range(draw.randrange(12)):
            put_message(draw, self.store, next(self.numbers))
        columns, rows = draw.choice(SCREEN_SIZES)
        self.sizes = {(columns, rows)}
        self.keys = 0
        self.ended_by = "not asked to end"
        self.tbx = Terminal([binary], columns, rows, env=environment(draw, folder),
                            attributes=with_nothing_of_its_own)

    def has_ended(self):
        return self.tbx._status is not None  # the end is no failure here

    def type(self, keys):
        """Types, and waits until the program has taken it all."""
        if self.has_ended():
            return
        self.tbx.send(keys)
        self.tbx.poll_for(self.has_taken_all)
        self.keys += len(keys)

    def goes_on(self):
        """Continues the program when a Ctrl+Z has stopped it, as its shell would.

        Returns whether it was running.
        """
        try:
            if not is_stopped(self.tbx):
                return True
            self.tbx.signal(signal.SIGCONT)
        except (FileNotFoundError, ProcessLookupError):
            pass  # it has just ended
        return False

    def has_taken_all(self):
        return self.has_ended() or self.goes_on() and self.tbx.unread() == 0

    def goes_on_and_has_ended(self):
        self.goes_on()
        return self.has_ended()

    def change_something(self):
        what = self.draw.random()
        if what < 0.1:
            size = self.draw.choice(SCREEN_SIZES + SMALL_SIZES)
            self.sizes.add(size)
            self.tbx.resize(*size)
        elif what < 0.2:
            damage(self.draw, self.store)
        elif what < 0.25:
            put_message(self.draw, self.store, next(self.numbers))

    def disturb_a_command(self):
        """Has a command wait for a lock that is held here, and does something to it meanwhile."""
        self.leave_pages()
        held = [os.open(path / "lock", os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
                for path in (self.folder / "var" / "sent").glob("[0-9]*")]
        for lock in held:
            fcntl.flock(lock, fcntl.LOCK_EX)
        self.type(HOME + DOWN * self.draw.randrange(3) + self.draw.choice(["r", "m", "\rr"]))
        time.sleep(TAKEN_SECONDS)
        if not self.has_ended():
            self.tbx.send("y")  # is not waited for: the command may leave what follows unread
            time.sleep(self.draw.choice([0, PAUSE_SECONDS, 0.6]))
            self.disturb(self.draw.choice(["keys", "size", SIGKILL, SIGTERM, CTRL_C, CTRL_Z, "end"]))
        for lock in held:
            os.close(lock)

    def disturb(self, how):
        if how == "keys":
            self.tbx.send(some_keys(self.draw))
        elif how == "size":
            self.sizes.add((100, 30))
            self.tbx.resize(100, 30)
        elif how == "end":
            kill(self.tbx.pid, SIGTERM)
            self.tbx.poll_for(self.goes_on_and_has_ended)
        elif isinstance(how, str):
            self.tbx.send(how)
        else:
            for child in children_of(self.tbx.pid):
                kill(child, how)

    def leave_pages(self):
        """Goes back to the list. In a form, Esc asks, and y means yes."""
        for _ in range(3):
            self.type(ESCAPE)
            time.sleep(TAKEN_SECONDS)
            self.type("y")
            time.sleep(PAUSE_SECONDS)

    def run(self):
        self.tbx.wait_for(lambda: FRAME_ENDS in self.tbx.raw or self.has_ended())
        for _ in range(self.draw.randrange(1, 25)):
            self.type(some_keys(self.draw))
            self.change_something()
        if self.draw.random() < 0.3:
            self.disturb_a_command()
        self.end()
        self.check()

    def end(self):
        how = self.draw.choice(["quit", "quit", SIGTERM, SIGHUP, "interrupt"])
        self.ended_by = how
        if how == "quit":
            self.quit()
        elif how == "interrupt":
            # While an editor runs, it is not heard.
            self.tbx.send_until(CTRL_C, self.goes_on_and_has_ended)
        elif not self.has_ended():
            self.tbx.signal(how)

    def quit(self):
        """Leaves whatever is open. In a form, Esc asks, and y means yes."""
        for _ in range(10):
            for keys, seconds in ((ESCAPE, TAKEN_SECONDS), ("y", PAUSE_SECONDS),
                                  ("q", PAUSE_SECONDS)):
                if not self.has_ended():
                    self.type(keys)
                    time.sleep(seconds)  # or the next key would belong to the Esc

    def check(self):
        self.tbx.poll_for(self.goes_on_and_has_ended)
        self.tbx.send(CTRL_Q)  # a Ctrl+S that was not read holds up what is written afterwards
        status = self.tbx.wait_exit()
        for kept in re.findall(rb"kept in (/tmp/tellbox-testo-\w{6})", self.tbx.raw):
            Path(kept.decode()).unlink(missing_ok=True)
        reports = "".join(path.read_text(errors="replace")
                          for path in self.folder.glob("report.*"))
        assert not FINDING.search(reports), reports
        assert status == 0, f"status {status}:\n{self.tbx.frame()}"
        assert LEAVE_SCREEN in self.tbx.raw
        assert self.tbx.attributes() == self.tbx.attributes_before
        assert_harmless(self.tbx.raw)
        assert_whole_frames(self.tbx.raw, self.sizes)


SIGTERM, SIGHUP, SIGKILL = signal.SIGTERM, signal.SIGHUP, signal.SIGKILL

# ---- All rounds ---------------------------------------------------------------------------


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=int, default=180)
    parser.add_argument("--seed", type=int, default=None)
    options = parser.parse_args()
    binary = Path(os.environ.get("TBX_BINARY", DEFAULT_BINARY)).resolve()
    first = random.randrange(2**32) if options.seed is None else options.seed
    deadline = time.monotonic() + options.seconds
    seed, keys = first, 0
    while seed == first or time.monotonic() < deadline:
        with tempfile.TemporaryDirectory(prefix="tbx-fuzz-") as folder:
            one = Round(random.Random(seed), binary, Path(folder))
            try:
                one.run()
            except BaseException:
                print(f"seed {seed}, {one.ended_by}; the last bytes written: {one.tbx.raw[-400:]!r}", flush=True)
                raise
            finally:
                one.tbx.close()
            keys += one.keys
        seed += 1
    print(f"{seed - first} rounds from seed {first}, {keys} bytes typed")


if __name__ == "__main__":
    main()
