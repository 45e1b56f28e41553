"""The life of one message, told step by step: sent, confirmed by one, postponed by another,
reminded of, revoked, looked up and purged. After each step the whole store and every mailbox
are compared file by file."""

import os
import re
import stat

import pytest
from harness.clock import now, wait_until_after
from harness.history import History, need_journal_files, record
from harness.store import banner, message_file, parse_message_file, short_time

TITLE, TEXT = "Backup", "Tonight at ten.\nPlease log off.\n"
RECIPIENTS = ("alex", "pat", "sam")
FOLDERS = ("inbox", "read", "acks", "state")


class Place:
    """A machine on which the story happens, and what has to stand in its store."""

    def __init__(self, machine, terminal, author, *, has_real_accounts):
        self.machine, self.terminal, self.author = machine, terminal, author
        self._has_real_accounts = has_real_accounts
        self.started = now()
        self.expected = {}

    def _owner(self, user):
        if user is not None and self._has_real_accounts:
            return self.machine.uid(user), self.machine.uid(user)
        return os.getuid(), os.getgid()

    def folder(self, path, mode, user=None):
        self.expected[path] = (stat.S_IFDIR | mode, *self._owner(user), None)

    def file(self, path, mode, content, user=None):
        """A file with this content, bytes or a pattern of bytes."""
        self.expected[path] = (stat.S_IFREG | mode, *self._owner(user), content)

    def gone(self, *paths):
        for path in paths:
            del self.expected[path]

    def compare(self):
        """Compares the store, every file, owner, mode and byte, with what has to be there."""
        found = self.machine.store.tree()
        assert set(found) == set(self.expected)
        for path, (*facts, content) in self.expected.items():
            assert list(found[path][:3]) == facts, path
            if isinstance(content, re.Pattern):
                assert content.fullmatch(found[path][3]), path
            else:
                assert found[path][3] == content, path

    def tells(self, *arguments):
        """The output of a run that ends well."""
        result = self.machine.run(*arguments)
        assert (result.stderr, result.status) == ("", 0)
        return result.stdout

    def time_in(self, path):
        """The time that a file begins with, which lies within the story."""
        moment = int(self.machine.store.top.joinpath(path).read_text(encoding="ascii").split()[0])
        assert self.started <= moment <= now()
        return moment


@pytest.fixture
def real_machine(machine):
    terminal = machine.open_terminal("pat")
    return Place(machine, terminal.read, "root", has_real_accounts=True)


@pytest.fixture
def in_test_mode(box):
    return Place(box, box.terminal.read_bytes, box.account_running_tests(),
                 has_real_accounts=False)


@pytest.fixture(params=["in_test_mode", "real_machine"])
def place(request):
    need_journal_files()
    return request.getfixturevalue(request.param)


def send(place):
    assert place.tells("send", "--to", "sam,pat,alex", "--title", TITLE, TEXT) == (
        "Message 1 sent to 3 users.\n")
    fields = parse_message_file(place.machine.store.sent(1, "msg").read_bytes())
    date = int(fields["date"])
    assert place.started <= date <= now()
    message = message_file(1, TEXT, title=TITLE, date=date, author=place.author)
    place.folder("sent", 0o700)
    place.file("sent/.seq", 0o600, b"1\n")
    place.file("sent/.seq.lock", 0o600, b"")
    place.folder("sent/1", 0o700)
    place.file("sent/1/lock", 0o600, b"")
    place.file("sent/1/msg", 0o600, message)
    place.file("sent/1/recipients", 0o600, b"alex\npat\nsam\n")
    place.file("sent/1/delivery", 0o600, re.compile(rb"alex \d+ 0\npat \d+ 1\nsam \d+ 0\n"))
    place.folder("users", 0o755)
    for user in RECIPIENTS:
        place.folder(f"users/{user}", 0o700, user)
        for folder in FOLDERS:
            place.folder(f"users/{user}/{folder}", 0o755, user)
        place.file(f"users/{user}/inbox/1", 0o644, message, user)
    place.compare()
    assert place.terminal() == banner(TEXT, date, TITLE)
    assert place.tells("list").split("\n")[1] == (
        f"{1:<5} {short_time(date):<12} {'Tonight at ten.':<40}  3 delivered")
    return date


def pat_confirms(place, date):
    confirmation = f"{date} terminal\n".encode()
    place.machine.store.confirm("pat", 1, date)
    place.machine.store.mailbox("pat", "inbox", 1).unlink()
    place.file("users/pat/acks/1", 0o644, confirmation, "pat")
    place.gone("users/pat/inbox/1")
    assert f"pat              confirmed on {short_time(date)} (terminal)\n" in place.tells(
        "status", "1")
    place.compare()


def sam_postpones(place, date):
    place.machine.store.mark_shown("sam", 1, date + 5, "gui")
    place.file("users/sam/state/1.gui", 0o644, b"", "sam")
    assert f"sam              delivered, postponed on {short_time(date + 5)}\n" in place.tells(
        "status", "1")
    place.compare()


def remind(place):
    assert place.tells("remind", "1") == "Message 1: 2 recipients reminded.\n"
    place.gone("users/sam/state/1.gui")
    place.compare()
    assert "sam              delivered\n" in place.tells("status", "1")


def revoke(place):
    assert place.tells("revoke", "1") == "Message 1 revoked.\n"
    place.gone("users/alex/inbox/1", "users/sam/inbox/1")
    place.file("sent/1/revoked", 0o600, re.compile(rb"\d+\n"))
    place.compare()
    moment = place.time_in("sent/1/revoked")
    status = place.tells("status", "1")
    assert f"REVOKED on {short_time(moment)}\n" in status
    assert status.count("delivered, not confirmed (revoked)\n") == 2
    assert "pat              confirmed on" in status
    place.compare()


def look_up(place, date):
    """The history: what the program has recorded, and what the users' side would have."""
    uid = place.machine.uid
    History(place.machine).write_received(
        place.machine.journal.records(),
        record("CONFIRMED", when=date + 100, message=1, user="pat", uid=uid("pat"),
               channel="terminal"),
        record("POSTPONED", when=date + 101, message=1, user="sam", uid=uid("sam"),
               channel="desktop"),
        record("CONFIRMED", when=date + 102, message=1, user="sam", uid=uid("pat"),
               channel="terminal"),
        date=date)
    heading, *lines = place.tells("log", "1").removesuffix("\n").split("\n")
    assert heading == f"Message 1 · {TITLE} · {short_time(date)}"
    assert [line[len("2026-01-01 00:00:00  "):] for line in lines] == [
        "message 1 delivered to alex (terminals written: 0)",
        "message 1 delivered to pat (terminals written: 1)",
        "message 1 delivered to sam (terminals written: 0)",
        f"message 1 sent by {place.author} to: alex pat sam",
        f"message 1: 2 recipients reminded by {place.author}",
        f"message 1 revoked by {place.author}",
        "user pat: confirmed reading message 1 (terminal)",
        "user sam: postponed message 1 (desktop)",
        f"[not trustworthy: written by UID {uid('pat')}] user sam: confirmed reading message 1 "
        "(terminal)"]
    place.compare()


def purge(place, date):
    wait_until_after(date)
    place.machine.journal.clear()
    assert place.tells("purge", "0m") == "Deleted 1 message older than 0m.\n"
    place.gone("users/pat/acks/1", *(path for path in list(place.expected)
                                     if path.startswith("sent/1")))
    place.compare()
    [deleted] = place.machine.journal.records()
    assert deleted["MESSAGE"] == f"message 1 deleted by {place.author} (older than 0m)"
    assert place.tells("list") == "No messages sent.\n"
    assert tuple(place.machine.run("log", "1")) == ("", "tbx: no such message: 1\n", 1)
    place.compare()


def test_the_life_of_a_message(place):
    date = send(place)
    pat_confirms(place, date)
    sam_postpones(place, date)
    remind(place)
    revoke(place)
    look_up(place, date)
    purge(place, date)
    assert place.tells("send", "--to", "pat", "Next") == "Message 2 sent to 1 user.\n"
