"""Pseudo-terminals on a machine, with the test at their other end."""

import fcntl
import os
import struct
import termios
import tty

# Of <asm/ioctls.h>; the termios module does not name them.
TIOCGPTN = 0x80045430
TIOCSPTLCK = 0x40045431


def open_multiplexer(path):
    """A new pseudo-terminal: the descriptor of its master, and the number that is its name."""
    master = os.open(path, os.O_RDWR | os.O_NOCTTY | os.O_CLOEXEC)
    fcntl.ioctl(master, TIOCSPTLCK, struct.pack("i", 0))
    number, = struct.unpack("i", fcntl.ioctl(master, TIOCGPTN, bytes(4)))
    return master, number


def set_size(descriptor, columns, rows):
    fcntl.ioctl(descriptor, termios.TIOCSWINSZ, struct.pack("4H", rows, columns, 0, 0))


class Terminal:
    """A terminal in raw mode. `path` is its name on the machine, `slave` its descriptor."""

    def __init__(self, devpts, mounted_at, uid):
        self.master, number = open_multiplexer(devpts / "ptmx")
        self.number = number
        self.path = f"{mounted_at}/{number}"
        self.host_path = devpts / str(number)
        # Held open, so that nothing written is lost when the writer closes.
        self.slave = os.open(self.host_path, os.O_RDWR | os.O_NOCTTY | os.O_CLOEXEC)
        tty.setraw(self.slave)
        os.set_blocking(self.master, False)
        if uid is not None:
            os.chown(self.host_path, uid, -1)

    def read(self):
        """Everything that was written to the terminal since the last call."""
        received = b""
        while True:
            try:
                received += os.read(self.master, 65536)
            except BlockingIOError:
                return received

    def set_size(self, columns, rows):
        set_size(self.slave, columns, rows)

    def stop_output(self):
        """As Ctrl-S does: whatever is written from now on waits."""
        termios.tcflow(self.slave, termios.TCOOFF)

    def close(self):
        os.close(self.slave)
        os.close(self.master)
