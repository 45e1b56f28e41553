"""A journal as a busy machine has it, in which a message's history is sought."""

import shutil
from pathlib import Path

from harness.history import MACHINE_ID, Entry, writer, write_journal_file

from .stores import FIRST_DATE

TOP = Path("/run/log/journal")
HISTORY_RECORDS = 100  # of the message, among the foreign ones


def foreign_record(number):
    return {"MESSAGE": f"Accepted publickey for user{number % 997} from 10.0.{number % 251}.7",
            "PRIORITY": 6, "SYSLOG_IDENTIFIER": f"program{number % 40}", "_PID": number % 32768,
            "_UID": number % 1000, "_COMM": f"program{number % 40}",
            "_SYSTEMD_UNIT": f"program{number % 40}.service"}


def history_record(number):
    user = f"user{number:04d}"
    return {"MESSAGE": f"message 1 delivered to {user} (terminals written: 1)", "PRIORITY": 6,
            "SYSLOG_IDENTIFIER": "tbx", "_UID": 0, "TBX_EVENT": "DELIVERED", "TBX_MESSAGE": 1,
            "TBX_USER": user, "TBX_CHANNEL": "", "TBX_DETAILS": 1, "TBX_AUTHOR": ""}


def entry(number, record):
    return Entry(FIRST_DATE * 1_000_000 + number * 1000,
                 [(name, str(value).encode()) for name, value in record.items()])


def records(foreign):
    """The foreign records, and at even distances between them those of the message."""
    distance = max(1, foreign // HISTORY_RECORDS)
    for number in range(foreign):
        yield foreign_record(number)
        if number % distance == 0 and number // distance < HISTORY_RECORDS:
            yield history_record(number // distance)


def clear():
    shutil.rmtree(TOP, ignore_errors=True)


def write(foreign):
    """Makes the journal hold just these records."""
    if writer() is None:
        raise RuntimeError("systemd-journal-remote is not installed: see tools/install-deps")
    clear()
    place = TOP / MACHINE_ID
    place.mkdir(parents=True)
    write_journal_file(place / "system.journal",
                       [entry(*numbered) for numbered in enumerate(records(foreign))])
