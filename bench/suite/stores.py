"""Stores as years of use would leave them, written without tbx."""

import os

from .machine import user_id, user_name

FIRST_DATE = 1_700_000_000
TEXT = "The machine will be restarted tonight at ten. Please save your work.\n"
CONFIRMATION = "{date} terminal\n"


def make_folder(path, mode, uid=0):
    os.mkdir(path, mode)
    os.chown(path, uid, uid)


def write_file(path, text, uid=0):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    os.chown(path, uid, uid)


def recipients_of(message, count, user_count):
    """`count` of the users, evenly spread, and others for each message."""
    step = max(1, user_count // count)
    return sorted((message + place * step) % user_count for place in range(count))


def write_message(sent, number, recipients):
    place = sent / str(number)
    names = [user_name(recipient) for recipient in recipients]
    date = FIRST_DATE + number
    make_folder(place, 0o700)
    write_file(place / "msg", f"format: 1\nid: {number}\nfrom: root\ndate: {date}\ntitle: \n"
                              f"expires: \n\n{TEXT}")
    write_file(place / "recipients", "".join(f"{name}\n" for name in names))
    write_file(place / "delivery", "".join(f"{name} {date} 1\n" for name in names))
    write_file(place / "lock", "")


def confirm(users, number, recipients):
    """What the user side leaves of a message that was shown on a terminal and confirmed."""
    for recipient in recipients:
        mailbox = users / user_name(recipient)
        uid = user_id(recipient)
        write_file(mailbox / "state" / f"{number}.term", "", uid)
        write_file(mailbox / "acks" / str(number), CONFIRMATION.format(date=FIRST_DATE + number),
                   uid)


def write_store(top, messages, recipients, users, confirmed):
    """A store of so many messages, with so many recipients each of so many users.

    The mailboxes hold no copies: nothing that only reads looks at those.
    """
    make_folder(top, 0o755)
    make_folder(top / "users", 0o755)
    make_folder(top / "sent", 0o700)
    for number in range(users):
        mailbox = top / "users" / user_name(number)
        make_folder(mailbox, 0o700, user_id(number))
        for folder in ("inbox", "read", "acks", "state"):
            make_folder(mailbox / folder, 0o755, user_id(number))
    for number in range(1, messages + 1):
        chosen = recipients_of(number, recipients, users)
        write_message(top / "sent", number, chosen)
        if confirmed:
            confirm(top / "users", number, chosen)
