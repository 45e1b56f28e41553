"""The cases: what is run, on which store, and how it shows that both programs did their work."""

import contextlib
import os
import shutil

from .machine import FLOOR_STATE, PROGRAMS, STATE, USER_COUNT, user_name
from .stores import TEXT, write_store

TBX = f"{PROGRAMS}/tbx"


def floor_program(name):
    return f"{PROGRAMS}/bench/floor_{name}"


def require(condition, what):
    if not condition:
        raise RuntimeError(what)


class SendCase:
    """One message to every account, into mailboxes that are there already."""

    def __init__(self):
        self.name = "send"
        self.what = f"{USER_COUNT:,} recipients"
        self.tbx = [TBX, "send", "--to", "all", TEXT]
        self.floor = [floor_program("send"), FLOOR_STATE, TEXT]

    @contextlib.contextmanager
    def prepared(self, machine):
        """Each program has a store of its own: both grow alike."""
        stores = {STATE: machine.scratch / "tbx", FLOOR_STATE: machine.scratch / "floor"}
        for place, directory in stores.items():
            os.mkdir(directory, 0o755)
            machine.use_store(place, directory)
        yield
        for place, directory in stores.items():
            machine.release_store(place)
            shutil.rmtree(directory)

    def check(self, output, records):
        require(output.endswith(f" sent to {USER_COUNT} users.\n"), f"not sent: {output}")
        require(records == USER_COUNT + 1, f"{records} journal records")


class ListCase:
    """The list of a store."""

    def __init__(self, messages, recipients, users, confirmed):
        self.name = "list, confirmed" if confirmed else "list"
        self.what = f"{messages:,} messages x {recipients} recipients, {users:,} users"
        self._shape = (messages, recipients, users, confirmed)
        self._messages = messages
        self.tbx = [TBX, "list"]
        self.floor = [floor_program("list"), STATE, *map(user_name, range(users))]

    @contextlib.contextmanager
    def prepared(self, machine):
        directory = machine.scratch / "store"
        write_store(directory, *self._shape)
        machine.use_store(STATE, directory)
        yield
        machine.release_store(STATE)
        shutil.rmtree(directory)

    def check(self, output, records):
        heading = output.startswith("ID ")
        require(output.count("\n") == self._messages + heading, "messages are missing")
        require(records == 0, f"{records} journal records")


CASES = [
    SendCase(),
    ListCase(messages=1000, recipients=20, users=100, confirmed=False),
    ListCase(messages=1000, recipients=20, users=100, confirmed=True),
]
