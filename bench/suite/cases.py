"""The cases: what is run, on which store, and how it shows that the programs did their work.

Each group is a generator: it makes a place ready, yields the cases that are measured there, and
clears up."""

from dataclasses import dataclass, field

from . import journal
from .interface import PASTES, InterfaceCase, PasteCase
from .machine import FLOOR_STATE, PROGRAMS, STATE, Terminals, user_name
from .measure import compare
from .stores import FIRST_DATE, TEXT, Shape, mounted

TBX = f"{PROGRAMS}/tbx"
ACCOUNTS = 1000  # in the account file
SEND_ACCOUNTS = 5000  # where messages are sent, whatever the number of recipients


def floor_program(name):
    return f"{PROGRAMS}/bench/floor_{name}"


def require(condition, what):
    if not condition:
        raise RuntimeError(what)


def nothing(_program):
    """For cases that leave everything as it was."""


@dataclass
class Case:
    """One command beside its floor, at one size of what grows."""

    name: str
    axis: str  # what grows from case to case; "" for nothing
    size: int
    what: str
    tbx: list
    floor: list
    lines: int  # that tbx prints
    last_line: str  # what its last line holds
    records: int = 0  # that reach the journal, from either
    writes: bool = True  # so that the disk must come to rest before
    make_ready: callable = nothing  # before each run of a program
    beside: dict = field(default_factory=dict)  # other programs, as side figures
    was_done: callable = lambda: True  # what else shows that a program did its work

    @property
    def programs(self):
        return {"tbx": self.tbx, "floor": self.floor, **self.beside}

    def check(self, program, output, records):
        """The floor fails by itself where it cannot do its work."""
        require(self.was_done(), f"{self.name}, {program}: its work is missing")
        if program in self.beside:
            return
        require(records == self.records, f"{self.name}, {program}: {records} journal records")
        if program == "tbx":
            lines = output.splitlines()
            require(len(lines) == self.lines and self.last_line in lines[-1],
                    f"{self.name}: {len(lines)} lines: {output[-500:]}")

    def measure(self, machine, runs):
        return compare(machine, self, runs)


def start(_machine):
    """The program and its libraries, and nothing done."""
    yield Case("start", "", 0, "tbx version", [TBX, "version"], [floor_program("start")], lines=1,
               last_line="Tellbox", writes=False)


# ---- Sending ------------------------------------------------------------------------------

SEND_SIZES = (1, 10, 100, 1000, 5000)
TERMINAL_SIZES = (1, 10, 100)


def send(machine):
    """One message to so many users, into mailboxes that are there already. Each program has a
    store of its own: both grow alike."""
    mailboxes = Shape(0, 1, max(SEND_SIZES))
    with mounted(machine, mailboxes), mounted(machine, mailboxes, FLOOR_STATE):
        for size in SEND_SIZES:
            machine.use_accounts(SEND_ACCOUNTS, humans=size)
            yield Case("send", "recipients", size, f"of {SEND_ACCOUNTS:,} accounts",
                       [TBX, "send", "--to", "all", TEXT],
                       [floor_program("send"), FLOOR_STATE, TEXT], lines=1,
                       last_line=f" sent to {size} user", records=size + 1)
    machine.use_accounts(ACCOUNTS)


def terminals(machine):
    """One message to one user who has so many terminals open, beside the distribution's wall."""
    machine.use_accounts(ACCOUNTS, humans=1)
    with mounted(machine, Shape(0, 1, 1)), mounted(machine, Shape(0, 1, 1), FLOOR_STATE):
        for size in TERMINAL_SIZES:
            opened = Terminals(size, owner_number=0)
            yield Case("send", "terminals", size, "1 recipient",
                       [TBX, "send", "--to", "all", TEXT],
                       [floor_program("send"), FLOOR_STATE, TEXT], lines=1,
                       last_line=" sent to 1 user", records=2,
                       was_done=lambda opened=opened, size=size: opened.empty() == size,
                       beside={"wall": ["/usr/bin/wall", TEXT]})
            opened.close()
    machine.use_accounts(ACCOUNTS)


# ---- Reading ------------------------------------------------------------------------------

def list_case(axis, size, shape, confirmed=""):
    users = map(user_name, range(shape.users))
    return Case(f"list{confirmed}", axis, size, str(shape), [TBX, "list"],
                [floor_program("list"), STATE, *users], lines=shape.messages + 1,
                last_line="confirmed" if confirmed else "delivered", writes=False)


def status_case(axis, size, shape, confirmed=""):
    return Case(f"status{confirmed}", axis, size, str(shape), [TBX, "status", "1"],
                [floor_program("status"), STATE, "1"], lines=shape.recipients + 4,
                last_line="confirmed on" if confirmed else "delivered", writes=False)


MESSAGE_SIZES = (100, 1000, 10_000, 20_000)


# Each axis alone. Where the base of 100 users or 20 recipients cannot hold what grows, the other
# number is another, but the same throughout.
def shapes(message_sizes, words=()):
    for messages in message_sizes:
        yield "messages", messages, Shape(messages, 20, 100, words)
    for recipients in (1, 20, 200):
        yield "recipients", recipients, Shape(1000, recipients, 200, words)
    for users in (10, 100, 1000):
        yield "users", users, Shape(1000, 10, users, words)


def reading(machine):
    """list, status and the interface, with nothing confirmed."""
    for axis, size, shape in shapes(MESSAGE_SIZES):
        with mounted(machine, shape):
            yield list_case(axis, size, shape)
            yield status_case(axis, size, shape)
            if axis == "messages":
                yield InterfaceCase(size, shape, [TBX, "list"])
    years = Shape(10_000, 20, 1000)
    with mounted(machine, years):
        yield list_case("", 0, years)


def reading_confirmed(machine):
    """list and status, with everything shown and confirmed."""
    place = machine.place_to_read()
    for axis, size, shape in shapes(MESSAGE_SIZES, ("confirmed",)):
        with mounted(machine, shape, scratch=place):
            yield list_case(axis, size, shape, ", confirmed")
            yield status_case(axis, size, shape, ", confirmed")


PASTE_SIZES = (1000, 10_000, 60_000)


def pasting(machine):
    """What a pasted character costs: the same, however many there are."""
    with mounted(machine, Shape(1, 1, 1)):
        for pasted in PASTES:
            for marked in (True, False):
                for size in PASTE_SIZES:
                    yield PasteCase(size, pasted, marked)


# ---- Changing -----------------------------------------------------------------------------

RECIPIENT_SIZES = (10, 100, 1000)
PURGE_SIZES = (10, 100, 1000)
PURGE_RECIPIENTS = 5


def changing(machine, shape, **case):
    """The case on a store that is made anew for each run."""
    with mounted(machine, shape) as directory:
        yield Case(what=str(shape), make_ready=lambda _program: shape.write(directory), **case)


def one_message(recipients, *words):
    return Shape(1, recipients, recipients, words)


def revoke(machine):
    """A message that is in every mailbox, and was shown."""
    for size in RECIPIENT_SIZES:
        yield from changing(machine, one_message(size, "copies", "shown"), name="revoke",
                            axis="recipients", size=size, tbx=[TBX, "revoke", "1"],
                            floor=[floor_program("revoke"), STATE, "1"], lines=1,
                            last_line="Message 1 revoked.", records=1)


def remind(machine):
    """A message that nobody has confirmed, and everybody was shown."""
    for size in RECIPIENT_SIZES:
        yield from changing(machine, one_message(size, "copies", "shown"), name="remind",
                            axis="recipients", size=size, tbx=[TBX, "remind", "1"],
                            floor=[floor_program("remind"), STATE, "1"], lines=1,
                            last_line=f"{size} recipients reminded", records=1)


def recovery(machine):
    """A send that was cut off half-way, finished by the next command."""
    for size in RECIPIENT_SIZES:
        yield from changing(machine, one_message(size, "copies", "cut"), name="recovery",
                            axis="recipients", size=size, tbx=[TBX, "log", "1"],
                            floor=[floor_program("recovery"), STATE], lines=2,
                            last_line="Message 1", records=size // 2 + 1)


def purge(machine):
    """Messages that are in every mailbox."""
    for size in PURGE_SIZES:
        yield from changing(machine, Shape(size, PURGE_RECIPIENTS, 100, ("copies",)),
                            name="purge", axis="messages", size=size, tbx=[TBX, "purge", "1d"],
                            floor=[floor_program("purge"), STATE, "1d"], lines=1,
                            last_line=f"Deleted {size} messages", records=size)


# ---- The journal --------------------------------------------------------------------------

FOREIGN_SIZES = (1000, 100_000)


def log(machine):
    """The history of a message, among so many records of other programs."""
    with mounted(machine, Shape(1, 1, 1)):
        for size in FOREIGN_SIZES:
            journal.write(foreign=size)
            yield Case("log", "foreign records", size,
                       f"{journal.HISTORY_RECORDS} records of the message", [TBX, "log", "1"],
                       [floor_program("log"), STATE, "1", str(FIRST_DATE)],
                       lines=1 + journal.HISTORY_RECORDS, last_line="delivered to",
                       writes=False)
    journal.clear()


GROUPS = (start, send, terminals, reading, reading_confirmed, pasting, revoke, remind, recovery,
          purge, log)
