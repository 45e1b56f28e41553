"""A terminal for tests of what the program draws.

`Terminal` runs a program on a pseudo-terminal of its own, as the foreground job of a session
whose leader stays behind like a shell, and shows what the program wrote as a terminal of that
size would. Tests wait for what they expect to see; nothing here sleeps for a fixed time.

    def test_q_leaves(terminal):
        tbx = terminal("help", columns=80, rows=24)
        tbx.wait_for("q quit")
        tbx.send("q")
        assert tbx.wait_exit() == 0
"""

import copy
import fcntl
import os
import pty
import re
import select
import signal
import struct
import termios
import time
from pathlib import Path

import pyte

# How long a condition may take before the test fails. Never waited for in full by a test that
# passes, so it is generous: sanitizers on a busy machine are slow.
DEADLINE_SECONDS = 30
# A screen that nothing changes for so long, with nothing left to be read of what was typed, does
# not become another one by itself: twice as long as the interface waits before it looks at the
# store again.
STILL_SECONDS = 6
CLOCKS = re.compile(r"updated at \d\d:\d\d:\d\d")  # they alone change by themselves
RETRY_SECONDS = 0.1
SHORTLY_SECONDS = 0.02
GUARD_SECONDS = 0.4  # for so long a question or a result of the interface takes no key
GRACE_SECONDS = 1  # at the end of a test: what is killed tells no coverage

UP, DOWN, RIGHT, LEFT = "\x1b[A", "\x1b[B", "\x1b[C", "\x1b[D"
HOME, END, PAGE_UP, PAGE_DOWN = "\x1b[H", "\x1b[F", "\x1b[5~", "\x1b[6~"
ENTER, TAB, BACK_TAB, ESCAPE, BACKSPACE, DELETE = "\r", "\t", "\x1b[Z", "\x1b", "\x7f", "\x1b[3~"
CTRL_C, CTRL_E, CTRL_S, CTRL_Z, CTRL_BACKSLASH = "\x03", "\x05", "\x13", "\x1a", "\x1c"

ENTER_SCREEN, LEAVE_SCREEN = b"\x1b[?1049h\x1b[?25l", b"\x1b[?25h\x1b[?1049l"
PASTE_ON, PASTE_OFF = b"\x1b[?2004h", b"\x1b[?2004l"  # the interface's alone
FRAME_BEGINS, FRAME_ENDS = b"\x1b[H", b"\x1b[J"

# What stands on a screen before the program starts, for assert_restored().
EARLIER = "administrator$ tbx\r\n"

# In the list of termios.tcgetattr.
IFLAG, LFLAG, CC = 0, 3, 6

# Written by the session's leader when the program has ended, so that everything before it is
# known to have arrived. An operating system command, which shows nothing.
EXIT_MARK = b"\x1b]777;exited\x07"


class Screen(pyte.Screen):
    """Adds to pyte what it does not know.

    The alternate screen (mode 1049): `alternate` says whether it is shown.
    Dim: kept in the attribute `italics`, which the program never uses.
    Grey: a colour of its own, which pyte takes for bold black.
    """

    ALTERNATE_SCREEN = 1049
    DIM, GREY = 2, 90

    def __init__(self, columns, rows):
        self.alternate = False
        self._main = None
        super().__init__(columns, rows)

    def set_mode(self, *modes, **kwargs):
        super().set_mode(*modes, **kwargs)
        if kwargs.get("private") and self.ALTERNATE_SCREEN in modes and not self.alternate:
            self._main = (copy.deepcopy(self.buffer), copy.copy(self.cursor))
            self.erase_in_display(2)
            self.alternate = True

    def reset_mode(self, *modes, **kwargs):
        super().reset_mode(*modes, **kwargs)
        if kwargs.get("private") and self.ALTERNATE_SCREEN in modes and self.alternate:
            hidden = self.cursor.hidden
            self.buffer, self.cursor = self._main
            self.cursor.hidden = hidden
            self.alternate = False

    def select_graphic_rendition(self, *attributes):
        others = [attribute for attribute in attributes
                  if attribute not in (self.DIM, self.GREY)]
        if others or not attributes:
            super().select_graphic_rendition(*others)
        if self.DIM in attributes:
            self.cursor.attrs = self.cursor.attrs._replace(italics=True)
        if self.GREY in attributes:
            self.cursor.attrs = self.cursor.attrs._replace(fg="grey")


# One letter per style, for the style picture: (foreground, bold, reverse, dim).
STYLE_LETTERS = {
    ("default", False, False, False): ".",
    ("default", False, False, True): "d",
    ("default", True, False, False): "B",
    ("default", False, True, False): "r",
    ("default", True, True, False): "R",
    ("red", False, False, False): "e",
    ("red", True, False, False): "E",
    ("green", False, False, False): "g",
    ("green", True, False, False): "G",
    ("brown", False, False, False): "y",
    ("brown", True, False, False): "Y",
    ("cyan", False, False, False): "c",
    ("cyan", True, False, False): "C",
    ("grey", False, False, False): "x",
}


def pasted(text):
    """What a terminal with bracketed paste sends when this is pasted."""
    return f"\x1b[200~{text}\x1b[201~"


def style_letter(cell):
    return STYLE_LETTERS.get((cell.fg, cell.bold, cell.reverse, cell.italics), "?")


def unusual(attributes):
    """Gives a terminal attributes that no program would set by default."""
    attributes[LFLAG] &= ~termios.ECHOE
    attributes[CC][termios.VMIN] = 5
    attributes[CC][termios.VTIME] = 2
    attributes[CC][termios.VERASE] = b"#"


def assert_restored(terminal, *said):
    """The terminal is as it was before the program, which was started with earlier=EARLIER.

    said  regular expressions of the lines that the program left there
    """
    assert terminal.attributes() == terminal.attributes_before
    assert not terminal.screen.alternate
    rows = [row.rstrip() for row in terminal.rows()]
    assert rows[0] == EARLIER.rstrip()
    for row, line in zip(rows[1:], said):
        assert re.fullmatch(line, row)
    assert not any(rows[1 + len(said):])
    assert terminal.cursor() == (1 + len(said), 0)
    assert PASTE_ON not in terminal.raw or terminal.raw.endswith(PASTE_OFF + LEAVE_SCREEN) or said


class Terminal:
    """A program on a terminal.

    argv         the program and its arguments
    columns      size of the terminal, which resize() changes
    rows
    env          the program's whole environment
    earlier      what stands on the screen when the program starts
    attributes   function that changes the terminal's attributes (the list of
                 termios.tcgetattr) before the program starts
    bytes_taken  how much it takes of the program's output at once; what waits for it blocks the
                 program, as a slow line does
    """

    def __init__(self, argv, columns=80, rows=24, env=None, earlier="", attributes=None,
                 bytes_taken=65536):
        self.raw = b""  # everything that the program wrote
        self._bytes_taken = bytes_taken
        self.screen = Screen(max(columns, 1), max(rows, 1))
        self._stream = pyte.ByteStream(self.screen)
        self._stream.feed(earlier.encode())
        self._status = None
        self._exit_mark_seen = False
        self._master, slave = pty.openpty()
        self._set_size(columns, rows)
        if attributes:
            wanted = termios.tcgetattr(slave)
            attributes(wanted)
            termios.tcsetattr(slave, termios.TCSANOW, wanted)
        self.attributes_before = self.attributes()
        self.tty_name = os.ttyname(slave)
        self._start([str(argument) for argument in argv], env or {}, self.tty_name)
        os.close(slave)

    # ---- What is seen ---------------------------------------------------------------------
    # As far as it has arrived: wait for something first.

    @property
    def size(self):
        """Columns and rows."""
        return (self.screen.columns, self.screen.lines)

    def rows(self):
        """The screen's rows, top to bottom, each as wide as the screen."""
        return list(self.screen.display)

    def frame(self):
        """The whole screen as one text, every row ended by a newline."""
        return "".join(row + "\n" for row in self.screen.display)

    def styles(self):
        """The whole screen with a letter of STYLE_LETTERS in place of each character."""
        lines = (self.screen.buffer[row] for row in range(self.screen.lines))
        columns = range(self.screen.columns)
        return "".join("".join(style_letter(line[x]) for x in columns) + "\n" for line in lines)

    def cursor(self):
        """Row and column of the cursor, from 0, or None while it is hidden."""
        return None if self.screen.cursor.hidden else (self.screen.cursor.y, self.screen.cursor.x)

    def attributes(self):
        """The terminal's attributes as they are now, as from termios.tcgetattr."""
        return termios.tcgetattr(self._master)

    def set_attributes(self, change):
        """Changes the terminal's attributes under the program; `change` as in the constructor."""
        wanted = self.attributes()
        change(wanted)
        termios.tcsetattr(self._master, termios.TCSANOW, wanted)

    def unread(self):
        """How many bytes were typed that the program has not read. Only in raw mode."""
        tty = os.open(self.tty_name, os.O_RDWR | os.O_NOCTTY)
        try:
            return struct.unpack("i", fcntl.ioctl(tty, termios.FIONREAD, bytes(4)))[0]
        finally:
            os.close(tty)

    # ---- Waiting --------------------------------------------------------------------------

    def wait_for(self, condition):
        """Waits until a text is on the screen, or until condition() is true.

        While the alternate screen is shown this looks at whole frames only: a frame can arrive
        in pieces, and what a condition sees is all of one or all of the next. Frames of tbx that
        stand still without it are the end of waiting: nothing that was typed is left to be read.
        Others, such as a shell, may write after any time.
        """
        came = self._wait_while_it_changes(self._holds(condition), self._shows_frames)
        assert came, self._in_vain(condition)

    def wait_for_frame(self, frame):
        """Waits until the whole screen is `frame`; shows the difference once it stands still."""
        self.wait_until_still(lambda: self.frame() == frame)
        assert self.frame() == frame

    def wait_until_still(self, condition=lambda: False, seconds=STILL_SECONDS):
        """Waits until the condition holds, or until the screen stands still for so long."""
        self._wait_while_it_changes(self._holds(condition), lambda: True, seconds)

    def wait_until_it_slept(self, seconds):
        """Waits until the program has waited for a key for so long, and written nothing.

        It has then read its clock before that time began, however busy the machine is.
        """
        since = None
        while self._status is None:
            if self._take_what_arrives(SHORTLY_SECONDS) or not self._waits_for_a_key():
                since = None
            elif since is None:
                since = time.monotonic()
            elif time.monotonic() > since + seconds:
                return

    def _waits_for_a_key(self):
        status = Path(f"/proc/{self.pid}/stat").read_text(encoding="ascii", errors="replace")
        return status.rpartition(")")[2].split()[0] == "S" and self.unread() == 0

    def poll_for(self, condition):
        """Like wait_for(), for what changes without anything written on the terminal."""
        self._wait(self._holds(condition), condition, retry=lambda: None)

    def wait_status(self):
        """Waits until the program has ended; its last output may still be on its way.

        Returns its exit status, or the negative number of the signal that ended it.
        """
        self._wait(lambda: self._status is not None, "the program's end")
        return self._status

    def wait_exit(self):
        """Like wait_status(), and waits until all that the program wrote has arrived."""
        self.wait_status()
        if self._master is not None:
            self._wait(lambda: self._exit_mark_seen, "the program's last output")
        return self._status

    # ---- What is done to the program ------------------------------------------------------

    def send(self, keys):
        """Types text, or bytes, in one piece."""
        os.write(self._master, keys if isinstance(keys, bytes) else keys.encode())

    def type(self, keys):
        """Types more than the terminal holds, as fast as the program takes it."""
        rest = keys if isinstance(keys, bytes) else keys.encode()
        os.set_blocking(self._master, False)
        deadline = time.monotonic() + DEADLINE_SECONDS
        while rest:
            assert time.monotonic() < deadline, f"{len(rest)} bytes were not taken"
            try:
                rest = rest[os.write(self._master, rest):]
            except BlockingIOError:
                self._take_what_arrives(RETRY_SECONDS)
        os.set_blocking(self._master, True)

    def send_until(self, keys, condition):
        """Types the keys, again and again, until the condition of wait_for() holds.

        For programs of others, of which nothing shows when they are ready for a key.
        """
        self._wait(self._holds(condition), condition, retry=lambda: self.send(keys))

    def resize(self, columns, rows):
        """Gives the terminal another size, as dragging its window does.

        A size of 0 is one that the terminal does not tell: the screen stays as it is.
        """
        self.screen.resize(rows, columns)
        self._set_size(columns, rows)

    def change_attributes(self, change):
        """Changes the terminal's attributes, as another program on it could."""
        wanted = self.attributes()
        change(wanted)
        termios.tcsetattr(self._master, termios.TCSANOW, wanted)

    def signal(self, number):
        """Sends a signal to the program alone, not to its children."""
        os.kill(self.pid, number)

    def hang_up(self):
        """Takes the terminal away, as closing its window or losing the line does.

        The session's leader ignores the hang-up, so that no signal reaches the program.
        """
        os.close(self._master)
        self._master = None

    def close(self):
        """Ends what is left: the program, if it still runs, and the session's leader."""
        self._end_and_take_kept_text()
        if self._master is not None:
            self.hang_up()
        if self._status is None:
            self._take_what_arrives(GRACE_SECONDS)  # most programs end with their terminal
        if self._status is None:
            try:
                os.killpg(self.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass  # it ended without being waited for
        os.close(self._hold)
        os.close(self._report)
        os.waitpid(self._leader, 0)

    def _end_and_take_kept_text(self):
        """Asks the program to end; a text that it says it keeps is of no use to anybody."""
        deadline = time.monotonic() + GRACE_SECONDS
        try:
            if self._status is None:
                os.kill(self.pid, signal.SIGTERM)
            while self._master is not None and not self._exit_mark_seen:
                if time.monotonic() > deadline:
                    break
                self._take_what_arrives(RETRY_SECONDS)
        except OSError:
            pass  # it has gone, and its terminal with it
        for path in re.findall(rb"kept in (/tmp/tellbox-testo-\w{6})", self.raw):
            try:
                os.unlink(path)
            except FileNotFoundError:
                pass  # the test has taken it

    # ---- Inside ---------------------------------------------------------------------------

    def _set_size(self, columns, rows):
        fcntl.ioctl(self._master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def _start(self, argv, env, tty_name):
        self._report, report = os.pipe()  # the leader tells the process id and the status
        hold, self._hold = os.pipe()  # closing this lets the leader go
        self._leader = os.fork()
        if self._leader == 0:
            try:
                lead_session(argv, env, tty_name, report, hold)
            finally:
                os._exit(1)
        os.close(report)
        os.close(hold)
        self.pid = struct.unpack("i", os.read(self._report, 4))[0]

    def _frame_is_whole(self):
        if not self.screen.alternate:
            return True
        return self.raw.rfind(FRAME_ENDS) > self.raw.rfind(FRAME_BEGINS)

    def _holds(self, condition):
        holds = condition if callable(condition) else lambda: condition in self.frame()
        return lambda: self._frame_is_whole() and holds()

    def _shows_frames(self):
        """Whether a page or the guide is shown: no other program enters the screen as they do."""
        return self.screen.alternate and ENTER_SCREEN in self.raw

    def _wait_while_it_changes(self, wanted, can_stand_still, still_seconds=STILL_SECONDS):
        """Returns whether `wanted` came true before the screen stood still."""
        seen, since = None, time.monotonic()
        deadline = since + DEADLINE_SECONDS
        while not wanted():
            if time.monotonic() > deadline:
                return False
            if self._take_what_arrives(RETRY_SECONDS):
                continue
            shown = (CLOCKS.sub("", self.frame()), self.styles(), self.cursor())
            if shown != seen or not can_stand_still() or self._master is None or self.unread():
                seen, since = shown, time.monotonic()
            elif time.monotonic() > since + still_seconds:
                return False
        return True

    def _wait(self, holds, what, retry=None):
        deadline = time.monotonic() + DEADLINE_SECONDS
        while not holds():
            left = deadline - time.monotonic()
            assert left > 0, self._in_vain(what)
            if retry:
                retry()
            self._take_what_arrives(RETRY_SECONDS if retry else left)

    def _in_vain(self, what):
        return f"waited in vain for {what!r}:\n{self.frame()}"

    def _take_what_arrives(self, seconds):
        """Returns whether the program wrote something."""
        sources = [] if self._master is None else [self._master]
        if self._status is None:
            sources.append(self._report)
        ready = select.select(sources, [], [], seconds)[0]
        if self._report in ready:
            self._status = struct.unpack("i", os.read(self._report, 4))[0]
        if self._master not in ready:
            return False
        output = os.read(self._master, self._bytes_taken)
        self._stream.feed(output)
        self.raw += output
        self._exit_mark_seen = self.raw.endswith(EXIT_MARK)
        if self._exit_mark_seen:
            self.raw = self.raw.removesuffix(EXIT_MARK)
        return True


def lead_session(argv, env, tty_name, report, hold):
    """In a child: what a shell does for its foreground job, and no more."""
    close_all_but(report, hold)  # another terminal's master here would keep it from hanging up
    os.setsid()
    tty = os.open(tty_name, os.O_RDWR)  # the first one opened becomes the controlling terminal
    ignored = (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT, signal.SIGTTOU)
    for number in ignored:
        signal.signal(number, signal.SIG_IGN)
    child = os.fork()
    if child == 0:
        os.setpgid(0, 0)
        os.tcsetpgrp(tty, os.getpid())
        for number in (*ignored, signal.SIGPIPE):
            signal.signal(number, signal.SIG_DFL)
        for fd in (0, 1, 2):
            os.dup2(tty, fd)
        os.execvpe(argv[0], argv, env)
    os.write(report, struct.pack("i", child))
    os.write(report, struct.pack("i", os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])))
    try:
        os.tcsetpgrp(tty, os.getpid())
        os.write(tty, EXIT_MARK)
    except OSError:
        pass  # hung up: nobody is there to read it
    os.read(hold, 1)
    os._exit(0)


def close_all_but(*kept):
    for fd in map(int, os.listdir("/proc/self/fd")):
        if fd > 2 and fd not in kept:
            try:
                os.close(fd)
            except OSError:
                pass  # the one that read the list
