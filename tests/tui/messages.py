"""Messages as the tests put them into the store, and as the pages show them."""

import time
from dataclasses import dataclass, replace

from harness.store import Store, short_time

# Accounts that every Debian has, in test mode as good as any; an account is what it takes to
# confirm. Nothing is kept of them but files in the test's own directory.
USERS = ("daemon", "bin", "sys", "games", "man", "lp", "mail", "news", "uucp", "proxy",
         "www-data", "backup", "list", "nobody")

DATE = 1790000000
PAST, FUTURE = 1000000000, 4000000000  # as an expiry

# How far a message got, in twelve cells: by the numbers of confirmed, delivered and sent.
BARS = {
    (1, 0, 0): "████████████",
    (0, 1, 0): "▒▒▒▒▒▒▒▒▒▒▒▒",
    (0, 0, 1): "░░░░░░░░░░░░",
    (1, 1, 1): "████▒▒▒▒░░░░",
    (1, 1, 0): "██████▒▒▒▒▒▒",
    (0, 1, 1): "▒▒▒▒▒▒░░░░░░",
    (1, 0, 1): "██████░░░░░░",
    (0, 2, 1): "▒▒▒▒▒▒▒▒░░░░",
    (1, 2, 0): "████▒▒▒▒▒▒▒▒",
    (2, 1, 0): "████████▒▒▒▒",
    (2, 0, 1): "████████░░░░",
    (2, 3, 0): "████▒▒▒▒▒▒▒▒",
    (4, 2, 0): "████████▒▒▒▒",
    (3, 2, 1): "██████▒▒▒▒░░",
    (1, 2, 1): "███▒▒▒▒▒▒░░░",
    (3, 4, 4): "███▒▒▒▒▒░░░░",
    (0, 2, 3): "▒▒▒▒▒░░░░░░░",
    (1, 1, 5): "█▒▒▒░░░░░░░░",
    (1, 2, 5): "█▒▒▒▒░░░░░░░",
    (2, 0, 3): "████▒░░░░░░░",  # 4.8 and 7.2 are both cut
    (1, 0, 12): "▒░░░░░░░░░░░",
    (12, 0, 1): "███████████░",
    (0, 24, 1): "▒▒▒▒▒▒▒▒▒▒▒░",  # one of 25 would be no cell
    (11, 1, 1): "██████████▒░",
    (13, 0, 1): "███████████░",
    (0, 1, 99): "▒░░░░░░░░░░░",
    (0, 99, 1001): "▒▒░░░░░░░░░░",
    (10, 90, 0): "█▒▒▒▒▒▒▒▒▒▒▒",
}


@dataclass(frozen=True)
class Message:
    """A message in the store.

    confirmed, delivered, sent  recipients by state
    revoked                     the time of the revocation, or None
    percentage                  of the recipients who confirmed, if their numbers are too long
    """

    id: int
    text: str = "Hello\n"
    title: str = ""
    date: int = DATE
    expires: int = 0
    author: str = "root"
    confirmed: tuple = ()
    delivered: tuple = ("daemon",)
    sent: tuple = ()
    revoked: int = None
    percentage: str = ""

    @property
    def counts(self):
        return len(self.confirmed), len(self.delivered), len(self.sent)

    @property
    def bar(self):
        """Its cells. Where all recipients are in one state, all cells are."""
        if self.counts.count(0) == 2:
            return BARS[tuple(min(count, 1) for count in self.counts)]
        return BARS[self.counts]

    @property
    def share(self):
        """How many recipients confirmed, as the list says it in few columns."""
        return self.percentage or f"{self.counts[0]}/{sum(self.counts)}"

    @property
    def is_revoked(self):
        return self.revoked is not None

    @property
    def is_expired(self):
        return 0 < self.expires <= time.time()

    @property
    def short_date(self):
        return short_time(self.date)

    @property
    def short_expiry(self):
        return short_time(self.expires)

    @property
    def short_revocation(self):
        return short_time(self.revoked)

    @property
    def recipients(self):
        """(user, state, text) of each recipient, in the order of the recipients file."""
        ending = " (revoked)" if self.is_revoked else " (expired)" if self.is_expired else ""
        delivered = f"delivered, not confirmed{ending}" if ending else "delivered"
        confirmed = f"confirmed on {short_time(self.confirmed_at)} (terminal)"
        return ([(user, "confirmed", confirmed) for user in self.confirmed]
                + [(user, "delivered", delivered) for user in self.delivered]
                + [(user, "sent", "sent, not delivered") for user in self.sent])

    @property
    def confirmed_at(self):
        """In time: neither after the expiry nor after the revocation."""
        return min(limit for limit in (self.date + 60, self.expires, self.revoked) if limit)

    def put(self, store):
        """Writes it into a store that does not have it, and returns it."""
        got_it = (*self.confirmed, *self.delivered)
        store.make_message(self.id, self.text, to=(*got_it, *self.sent), title=self.title,
                           date=self.date, expires=self.expires, author=self.author,
                           delivered=[(user, self.date, 0) for user in got_it],
                           revoked=self.revoked)
        for user in self.confirmed:
            store.confirm(user, self.id, self.confirmed_at)
        return self

    def after(self, **changes):
        """The message as it is after something happened to it."""
        return replace(self, **changes)


OVER = {"expires": PAST, "date": PAST - 60}
# By name: a message, whether it can be revoked, whether a reminder is of use.
MESSAGE_STATES = {
    "delivered": (Message(1, title="Plain", sent=("bin",)), True, True),
    "several delivered": (Message(1, delivered=("daemon", "sys")), True, True),
    "all confirmed": (Message(1, confirmed=("daemon",), delivered=()), True, False),
    "none delivered": (Message(1, delivered=(), sent=("bin",)), True, False),
    "confirmed or sent": (
        Message(1, confirmed=("daemon",), delivered=(), sent=("bin",)), True, False),
    "revoked": (Message(1, revoked=DATE), False, False),
    "expired": (Message(1, **OVER), True, False),
    "expired and revoked": (Message(1, **OVER, revoked=PAST), False, False),
}


def people(count, name="user"):
    """Recipients without an account: they can be sent to and delivered to in a store only."""
    return tuple(f"{name}{number:02}" for number in range(1, count + 1))
