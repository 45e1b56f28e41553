"""Journal files such as `log` reads, made from records in the journal's export format.

    history = History(machine)
    history.write(record("SENT", details="pat", author="root"),
                  record("CONFIRMED", when=1790000100, uid=1001, user="pat"))
    history.lines() == ["2026-09-21 14:13:20  message 7 sent by root to: pat", ...]
"""

import os
import shutil
import subprocess
from dataclasses import dataclass

from prerequisites import need_programs

# Where distributions put systemd-journal-remote, which turns the export format into a journal file.
SYSTEMD_PROGRAMS = "/lib/systemd:/usr/lib/systemd"
MACHINE_ID = "0123456789abcdef0123456789abcdef"
BOOT_ID = "fedcba9876543210fedcba9876543210"

SYSTEM_JOURNAL = "/var/log/journal"
RUNTIME_JOURNAL = "/run/log/journal"

MESSAGE_DATE = 1790000000  # of messages that harness.store makes
MESSAGE_STAMP = "2026-09-21 14:13:20"  # as the history shows it


def writer():
    """The path of systemd-journal-remote, or None where it is not installed."""
    return shutil.which("systemd-journal-remote", path=SYSTEMD_PROGRAMS)


def need_journal_files():
    """Skips the test where no journal files can be written."""
    need_programs("systemd-journal-remote", path=SYSTEMD_PROGRAMS)


@dataclass
class Entry:
    """One journal entry: its time in microseconds, and its fields as (name, bytes)."""

    usec: int
    fields: list


def record(event, *, when=MESSAGE_DATE, usec=0, message=7, uid=0, user="", channel="", details="",
           author="", sentence="as the writer put it", identifier="tbx", without=(), extra=()):
    """An event's record, every field present but those named in `without`.

    when, usec  its time: seconds since the epoch, and microseconds more
    uid         the trusted field _UID
    extra       further (name, value) fields
    """
    named = [("MESSAGE", sentence), ("SYSLOG_IDENTIFIER", identifier), ("PRIORITY", "6"),
             ("TBX_EVENT", event), ("TBX_MESSAGE", message), ("TBX_USER", user),
             ("TBX_CHANNEL", channel), ("TBX_DETAILS", details), ("TBX_AUTHOR", author),
             ("_UID", uid), *extra]
    return Entry(when * 1_000_000 + usec,
                 [(name, value if isinstance(value, bytes) else str(value).encode())
                  for name, value in named if name not in without])


def export_format(entries):
    """The entries in the export format, every value in the form that can hold any byte."""
    parts = []
    for entry in entries:
        parts.append(f"__REALTIME_TIMESTAMP={entry.usec}\n__MONOTONIC_TIMESTAMP={entry.usec}\n"
                     f"_BOOT_ID={BOOT_ID}\n".encode())
        for name, value in entry.fields:
            parts.append(name.encode() + b"\n" + len(value).to_bytes(8, "little") + value + b"\n")
        parts.append(b"\n")
    return b"".join(parts)


def write_journal_file(path, entries):
    """Adds the entries to a journal file."""
    subprocess.run([writer(), f"--output={path}", "-"], input=export_format(entries),
                   stderr=subprocess.DEVNULL, check=True)


class History:
    """The journal files of a machine, none at first, and what `log` makes of them.

    An ordinary user cannot make /var/log private: their machine has a runtime journal only,
    and `log` reads what it may of the host's files too.
    """

    def __init__(self, machine):
        self._machine = machine
        self._top = RUNTIME_JOURNAL
        if os.getuid() == 0:
            self._top = SYSTEM_JOURNAL
            machine.shell("mount -t tmpfs tmpfs /var/log")
        machine.write("/etc/machine-id", f"{MACHINE_ID}\n")

    def path(self, name="system", top=None, machine_id=MACHINE_ID):
        return self._machine.path(f"{top or self._top}/{machine_id}/{name}.journal")

    def write(self, *entries, name="system", top=None, machine_id=MACHINE_ID, options=()):
        """Adds the entries, in the order given, to the journal file `name`."""
        path = self.path(name, top, machine_id)
        path.parent.mkdir(parents=True, exist_ok=True)
        result = self._machine.run(
            *options, f"--output={top or self._top}/{machine_id}/{name}.journal", "-",
            program=writer(), input=export_format(entries))
        assert result.status == 0, result
        path.chmod(0o644)

    def lines(self, message_id=7, **options):
        """What `log` prints below the heading, line by line."""
        result = self._machine.run("log", str(message_id), **options)
        assert (result.stderr, result.status) == ("", 0)
        heading, *lines = result.stdout.removesuffix("\n").split("\n")
        assert heading.startswith("Message ")
        return lines

    def write_received(self, records, *further, date):
        """Writes what arrived at the machine's journal socket, one record a second from
        `date` on, and then `further` entries."""
        received = [Entry((date + second) * 1_000_000,
                          [(name, value.encode()) for name, value in each.fields]
                          + [("_UID", str(each.uid).encode())])
                    for second, each in enumerate(records)]
        self.write(*received, *further)
