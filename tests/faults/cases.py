"""The commands that are tried, each on its store."""

from collections.abc import Callable
from dataclasses import dataclass, field

DATE = 1500000000
YOUNG = 4000000000
TEXT = "Hello"
NEVER_REACHED = "alex"  # in the stores where a plain file stands in place of that mailbox


@dataclass(frozen=True)
class Message:
    """A message that the store holds before the command.

    kind is one of
      delivered  sent to everyone, in peace
      saved      the send was interrupted once the message was saved
      unsaved    ... before it was saved
      revoking   a revocation was interrupted
      moved      a purge was interrupted
      failed     cancelled long ago
    """

    id: int
    to: tuple = ("pat",)
    kind: str = "delivered"
    logged: tuple | None = None  # whom the delivery log names; all recipients by default
    copies: tuple | None = None  # who has the copy; whom the log names by default
    read: tuple = ()
    confirmed: tuple = ()
    shown: tuple = ()
    date: int = DATE
    expires: int = 0
    revoked: int | None = None
    torn: bytes = b""  # stands behind the last line of the log

    @property
    def logged_users(self):
        return self.to if self.logged is None else self.logged

    @property
    def holders(self):
        return self.logged_users if self.copies is None else self.copies


@dataclass(frozen=True)
class Case:
    """One command on one store."""

    name: str
    command: tuple
    messages: tuple = ()
    recipients: tuple = ()  # of the message that the command sends
    unreachable: tuple = ()  # users whose mailbox is a plain file
    mailboxes: tuple = ()  # users who have one, besides those who hold something
    title: str = ""
    expires: bool = False
    furnish: Callable | None = field(default=None, compare=False)  # furnishes the machine
    told: tuple = ()  # (standard output, status) where nothing goes wrong

    @property
    def verb(self):
        return self.command[0]

    @property
    def target(self):
        """The message that the command is about, or None."""
        if self.verb in ("revoke", "remind"):
            return int(self.command[1])
        return None


# ---- Furnishing ---------------------------------------------------------------------------

def with_terminal_and_agent(machine):
    """pat sits at two terminals and a desktop whose agent runs already."""
    machine.add_session("1", "pat", kind="wayland")
    machine.add_session("2", "pat", kind="tty", tty="tty2")
    machine.fault_terminals = [machine.open_terminal("pat"), machine.open_console("pat", "tty2")]
    machine.write_readiness("pat", machine.start_agent("pat").pid)


def with_new_agent(machine):
    """kim sits at a desktop where no agent runs yet."""
    machine.add_session("1", "kim", kind="x11")


def with_group(machine):
    machine.add_group("crew", 2000, ("pat", "sam"))
    machine.write("/etc/login.defs", "UID_MIN 1002\nUID_MAX 60000\n")  # pat is too low
    machine.add_session("1", "kim", kind="tty")
    machine.write("/run/text", TEXT + "\n")


def set_up_store(machine, case):
    """Writes the case's store anew; returns the message files by identifier."""
    store = machine.store
    contents = {}
    if case.messages or case.unreachable or case.mailboxes:
        store.create()
        last = max((message.id for message in case.messages), default=0)
        store.write_private(store.sent(".seq"), f"{last}\n".encode())
        store.write_private(store.sent(".seq.lock"), b"")
    for user in case.mailboxes:
        store.make_mailbox(user)
    for user in case.unreachable:
        store.mailbox(user).write_bytes(b"")
    for message in case.messages:
        contents[message.id] = make_message(store, message)
    return contents


def make_message(store, message):
    markers = {"saved": ["incomplete"], "unsaved": ["incomplete"],
               "revoking": ["revoking"]}.get(message.kind, [])
    unsaved = message.kind in ("unsaved", "failed")
    content = store.make_message(
        message.id, to=None if unsaved else message.to, date=message.date,
        expires=message.expires, delivered=[] if unsaved else
        [(user, message.date + 1, 1) for user in message.logged_users],
        copies=() if unsaved else message.holders, markers=markers, revoked=message.revoked,
        failed=DATE if message.kind == "failed" else None)
    if message.torn:
        with open(store.sent(message.id, "delivery"), "ab") as log:
            log.write(message.torn)
        store.sent(message.id, "delivery").chmod(0o600)
    for user in message.read:
        store.mark_read(user, message.id)
    for user in message.confirmed:
        store.confirm(user, message.id, message.date + 50)
    for user in message.shown:
        store.mark_shown(user, message.id, message.date + 10, "term")
        store.mark_shown(user, message.id, message.date + 20, "gui")
    if message.kind == "moved":
        store.sent(message.id).rename(store.sent(f".deleting-{message.id}"))
    return content


# ---- The stores ---------------------------------------------------------------------------

TWO = ("pat", "sam")


def seen(message_id, *users, **options):
    """A message with every file that a mailbox may have of it."""
    return Message(message_id, users, read=users, confirmed=users[:1], shown=users, **options)


INTERRUPTED = (
    Message(2, TWO, "saved", logged=("pat",), torn=b"sa"),
    Message(3, TWO, "unsaved"),
    Message(4, TWO, "revoking", revoked=DATE + 100, shown=("sam",)),
    Message(5, TWO, "moved", read=("pat",)),
)

SEND = (
    Case("send to one user, nothing there yet", ("send", "--to", "pat", TEXT),
         recipients=("pat",), told=("Message 1 sent to 1 user.\n", 0)),
    Case("send to two users, one without a mailbox",
         ("send", "--to", "pat,sam", "--title", "Lunch", "--expires", "2h", TEXT),
         messages=(seen(7, "sam"),), recipients=TWO, title="Lunch", expires=True,
         told=("Message 8 sent to 2 users.\n", 0)),
    Case("send to two users, one with a plain file for a mailbox",
         ("send", "--to", "alex,pat", TEXT), recipients=("alex", "pat"),
         unreachable=(NEVER_REACHED,),
         told=("Message 1 delivered to 1 of 2 recipients.\n", 1)),
    Case("send to terminals and a running agent", ("send", "--to", "pat", TEXT),
         recipients=("pat",), mailboxes=("pat",), furnish=with_terminal_and_agent,
         told=("Message 1 sent to 1 user.\n", 0)),
    Case("send to a desktop without an agent", ("send", "--to", "kim", TEXT),
         recipients=("kim",), mailboxes=("kim",), furnish=with_new_agent,
         told=("Message 1 sent to 1 user.\n", 0)),
    Case("send to all, a group and those online, text from a file",
         ("send", "--to", "@crew,online,all", "--expires", "tomorrow", "--file", "/run/text"),
         recipients=("alex", "kim", "pat", "sam"), expires=True, furnish=with_group,
         told=("Message 1 sent to 4 users.\n", 0)),
    Case("send beside one interrupted message of each kind", ("send", "--to", "pat", TEXT),
         messages=INTERRUPTED, recipients=("pat",), told=("Message 6 sent to 1 user.\n", 0)),
)

REVOKE = (
    Case("revoke what two users have", ("revoke", "7"), messages=(seen(7, *TWO), seen(8, "pat")),
         told=("Message 7 revoked.\n", 0)),
    Case("revoke with a lost account and a user without mailbox", ("revoke", "7"),
         messages=(Message(7, ("gone", "kim", "pat"), copies=("pat",), confirmed=("pat",)),),
         told=("Message 7 revoked.\n", 0)),
    Case("revoke what is being sent, beside the interrupted", ("revoke", "2"),
         messages=INTERRUPTED, told=("Message 2 revoked.\n", 0)),
    Case("revoke again", ("revoke", "4"), messages=(INTERRUPTED[2],),
         told=("Message 4 revoked.\n", 0)),
)

REMIND = (
    Case("remind two users, one at a desktop", ("remind", "7"),
         messages=(Message(7, ("kim", "pat", "sam"), logged=("kim", "pat"), shown=("kim", "pat")),
                   seen(8, "pat")), furnish=with_new_agent,
         told=("Message 7: 2 recipients reminded.\n", 0)),
    Case("remind where one has confirmed and one has no mailbox", ("remind", "7"),
         messages=(Message(7, ("kim", "pat", "sam"), copies=TWO, confirmed=("sam",),
                           shown=TWO),),
         told=("Message 7: 1 recipient reminded.\n", 0)),
    Case("remind of what is being sent", ("remind", "2"), messages=INTERRUPTED[:1],
         told=("Message 2: 2 recipients reminded.\n", 0)),
)

PURGE = (
    Case("purge two of three messages", ("purge", "90d"),
         messages=(seen(7, *TWO), seen(8, "pat"), seen(9, "pat", date=YOUNG)),
         told=("Deleted 2 messages older than 90d.\n", 0)),
    Case("purge with a lost account, a user without mailbox and the cancelled", ("purge", "90d"),
         messages=(Message(6, kind="failed"),
                   Message(7, ("gone", "kim", "pat"), copies=("pat",), shown=("pat",))),
         told=("Deleted 2 messages older than 90d.\n", 0)),
    Case("purge beside the interrupted", ("purge", "90d"),
         messages=(*INTERRUPTED[:2], INTERRUPTED[3], seen(7, "pat")),
         told=("Deleted 1 message older than 90d.\n", 0)),
)

RECOVERY = (
    Case("recover a send", ("list",), messages=INTERRUPTED[:1]),
    Case("recover a send to a plain file for a mailbox and to a desktop", ("list",),
         messages=(Message(2, ("alex", "kim"), "saved", logged=()),),
         unreachable=(NEVER_REACHED,), furnish=with_new_agent),
    Case("recover sends of no more use", ("list",),
         messages=(Message(2, TWO, "unsaved"), Message(3, TWO, "saved", logged=("pat",),
                                                      expires=DATE + 60),
                   Message(4, TWO, "saved", logged=("pat",), revoked=DATE + 60))),
    Case("recover a revocation", ("list",), messages=INTERRUPTED[2:3]),
    Case("recover a purge", ("list",), messages=INTERRUPTED[3:4]),
)

LIST = (
    Case("list messages of every kind", ("list",),
         messages=(Message(1, kind="failed"), seen(2, *TWO), Message(3, TWO, revoked=DATE + 60,
                                                                    copies=()),
                   Message(4, TWO, expires=DATE + 60), Message(5, ("kim", "pat"), logged=()))),
)

GROUPS = {"send": SEND, "revoke": REVOKE, "remind": REMIND, "purge": PURGE,
          "recovery": RECOVERY, "list": LIST}
CASES = {case.name: case for group in GROUPS.values() for case in group}
