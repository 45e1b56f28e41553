"""The texts that the store and the mailboxes are made of, and stores written by hand."""

import os
import stat
import time


def short_time(moment):
    """A time as listings show it; machines run in UTC."""
    return time.strftime("%d/%m %H:%M", time.gmtime(moment))


def message_file(message_id, text="Hello\n", *, title="", date=1790000000, expires=0,
                 author="root"):
    """The bytes of a message file."""
    expiry = str(expires) if expires else ""
    return (f"format: 1\nid: {message_id}\nfrom: {author}\ndate: {date}\ntitle: {title}\n"
            f"expires: {expiry}\n\n{text}").encode("utf-8", "surrogateescape")


def banner(text, date, title=""):
    """What a terminal is shown of a message."""
    headline = f"{title} · {short_time(date)}" if title else short_time(date)
    plain = (f"\n── Tellbox · Message from the administrator · {headline} ──"
             f"\n{text.rstrip(chr(10))}\n{'─' * 40}\n")
    return plain.replace("\n", "\r\n").encode("utf-8", "surrogateescape")


def parse_message_file(data):
    """The header fields of a message file by name, and its text under "text"."""
    header, _, text = data.decode("utf-8", "surrogateescape").partition("\n\n")
    fields = dict(line.split(": ", 1) for line in header.split("\n"))
    return {**fields, "text": text}


def tree(top, without=()):
    """Everything under `top` but the folders `without`, which are named from there: relative path
    to (kind and mode, uid, gid, content)."""
    left_out = {os.path.join(top, str(folder).lstrip("/")) for folder in without}
    found = {}
    for folder, folders, files in os.walk(top):
        folders[:] = [name for name in folders if os.path.join(folder, name) not in left_out]
        for name in folders + files:
            path = os.path.join(folder, name)
            facts = os.lstat(path)
            content = None
            if stat.S_ISREG(facts.st_mode):
                with open(path, "rb") as file:
                    content = file.read()
            elif stat.S_ISLNK(facts.st_mode):
                content = os.readlink(path)
            found[os.path.relpath(path, top)] = (facts.st_mode, facts.st_uid, facts.st_gid,
                                                 content)
    return found


def replace_by(kind, path):
    """Moves what is at the path aside, and puts a "link" to it, a "pipe" or a "folder" there.

    Returns where it is now.
    """
    moved = path.with_name("moved")
    path.rename(moved)
    if kind == "link":
        path.symlink_to("moved")
    elif kind == "pipe":
        os.mkfifo(path)
    else:
        path.mkdir()
    return moved


class Store:
    """The state directory of a machine, as the tests see and prepare it.

    `top` is the directory as this process reaches it; `uid_of` maps an account name to
    the numeric owner of what stands in that account's mailbox (None: leave the owner).
    """

    def __init__(self, top, uid_of):
        self.top = top
        self._uid_of = uid_of

    def sent(self, message_id, name=""):
        return self.top / "sent" / str(message_id) / name

    def mailbox(self, user, *parts):
        return self.top.joinpath("users", user, *map(str, parts))

    def tree(self):
        return tree(self.top)

    def create(self):
        """The directories that the first send makes."""
        for path, mode in ((self.top, 0o755), (self.top / "users", 0o755),
                           (self.top / "sent", 0o700)):
            if not path.is_dir():
                path.mkdir(parents=True)
                path.chmod(mode)

    def make_message(self, message_id, text="Hello\n", *, to=("pat",), title="",
                     date=1790000000, expires=0, author="root", delivered=(), copies=(),
                     markers=(), revoked=None, failed=None, msg=None):
        """Writes one message of the store by hand.

        to          recipients, or None for no recipients file
        delivered   (user, time, terminals) lines of the delivery log
        copies      users whose inbox gets the copy
        markers     names of empty markers, such as "incomplete" and "revoking"
        revoked     time in the revoked marker; likewise failed
        msg         bytes of the message file instead of those of the other arguments;
                    False for no message file
        Returns the bytes of the message file.
        """
        self.create()
        self.sent(message_id).mkdir(mode=0o700)
        content = msg if msg is not None else message_file(
            message_id, text, title=title, date=date, expires=expires, author=author)
        if content is not False:
            self.write_private(self.sent(message_id, "msg"), content)
        if to is not None:
            self.write_private(self.sent(message_id, "recipients"),
                               "".join(f"{user}\n" for user in to).encode())
        if delivered:
            lines = "".join(f"{user} {when} {terminals}\n" for user, when, terminals in delivered)
            self.write_private(self.sent(message_id, "delivery"), lines.encode())
        for marker in markers:
            self.write_private(self.sent(message_id, marker), b"")
        for name, moment in (("revoked", revoked), ("failed", failed)):
            if moment is not None:
                self.write_private(self.sent(message_id, name), f"{moment}\n".encode())
        for user in copies:
            self.write_as(user, ("inbox", message_id), content)
        return content

    @staticmethod
    def write_private(path, content):
        path.write_bytes(content)
        path.chmod(0o600)

    def make_mailbox(self, user):
        """The mailbox with its four folders, owned by the user."""
        self.create()
        box = self.mailbox(user)
        if not box.is_dir():
            box.mkdir(mode=0o700)
            self._give(box, user)
        for folder in ("inbox", "read", "acks", "state"):
            if not (box / folder).is_dir():
                (box / folder).mkdir(mode=0o755)
                self._give(box / folder, user)
        return box

    def write_as(self, user, place, content):
        """Writes the mailbox file `place`, such as ("acks", 7), owned by the user."""
        self.make_mailbox(user)
        path = self.mailbox(user, *place)
        path.write_bytes(content)
        path.chmod(0o644)
        self._give(path, user)
        return path

    def confirm(self, user, message_id, when, detail="terminal"):
        """The user confirms: acks/ID gets "WHEN DETAIL"."""
        return self.write_as(user, ("acks", message_id), f"{when} {detail}\n".encode())

    def mark_read(self, user, message_id):
        return self.write_as(user, ("read", message_id), b"")

    def mark_shown(self, user, message_id, when, how="term"):
        """The message was shown at `when`; `how` is "term" or "gui"."""
        path = self.write_as(user, ("state", f"{message_id}.{how}"), b"")
        os.utime(path, (when, when))
        return path

    def _give(self, path, user):
        uid = self._uid_of(user)
        if uid is not None:
            os.chown(path, uid, uid, follow_symlinks=False)
