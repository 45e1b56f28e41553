"""Stores as years of use would leave them, written without tbx."""

import contextlib
import subprocess
from dataclasses import dataclass

from .machine import FIRST_UID, PROGRAMS, STATE

FIRST_DATE = 1_700_000_000
TEXT = "The machine will be restarted tonight at ten. Please save your work."


@dataclass
class Shape:
    """So many messages, with so many recipients each, of so many users. `words` say what is in
    the mailboxes (see bench/store.cpp)."""

    messages: int
    recipients: int
    users: int
    words: tuple = ()

    def __str__(self):
        return (f"{self.messages:,} messages x {self.recipients:,} recipients, "
                f"{self.users:,} users")

    def write(self, directory):
        """Makes the store, or brings it back to what it was."""
        numbers = (self.messages, self.recipients, self.users, FIRST_UID, FIRST_DATE)
        subprocess.run([f"{PROGRAMS}/bench/store", str(directory), *map(str, numbers), TEXT,
                        *self.words], check=True)


def remove(directory):
    subprocess.run(["rm", "-rf", str(directory)], check=True)


@contextlib.contextmanager
def mounted(machine, shape, place=STATE, scratch=None):
    """A new store of that shape where a program looks for its state; yields its directory.
    `scratch` is where it is made, by default the machine's own."""
    directory = (scratch or machine.scratch) / place.rpartition("/")[2]
    shape.write(directory)
    machine.use_store(place, directory)
    try:
        yield directory
    finally:
        machine.release_store(place)
        remove(directory)
