"""The store and the mailboxes, seen message by message."""

import re
import stat
from dataclasses import dataclass, field

MAILBOX_FILE = re.compile(r"users/([^/]+)/(inbox|read|acks|state)/(\d+)(\.tmp|\.term|\.gui)?")
STORE_FILE = re.compile(r"sent/(\.deleting-)?(\d+)(?:/(.+))?")
KINDS = {("inbox", None): "copy", ("inbox", ".tmp"): "copy.tmp", ("read", None): "read",
         ("acks", None): "confirmed", ("state", ".term"): "term", ("state", ".gui"): "gui"}
SHOWN = {"term", "gui"}


@dataclass
class View:
    """What there is of one message: its folder's files by name, and those in mailboxes."""

    folder: dict | None = None
    aside: dict | None = None  # the folder, where a purge has renamed it
    boxes: dict = field(default_factory=dict)  # user to {kind: content}

    def held(self, user):
        return self.boxes.get(user, {})

    def holders(self, *kinds):
        """Users who have a file of one of the kinds."""
        return {user for user, files in self.boxes.items() if files.keys() & set(kinds)}

    @property
    def is_nowhere(self):
        return self.folder is None and self.aside is None and not any(self.boxes.values())


def views(tree):
    """The messages in a tree by identifier. What belongs to none is left out."""
    found = {}
    for path, (_, _, _, content) in tree.items():
        if match := STORE_FILE.fullmatch(path):
            view = found.setdefault(int(match[2]), View())
            place = "aside" if match[1] else "folder"
            if getattr(view, place) is None:
                setattr(view, place, {})
            if match[3]:
                getattr(view, place)[match[3]] = content
        elif match := MAILBOX_FILE.fullmatch(path):
            view = found.setdefault(int(match[3]), View())
            view.boxes.setdefault(match[1], {})[KINDS.get((match[2], match[4]))] = content
    return found


LOG_LINE = re.compile(rb"(\S+) (\d+) (\d+)\n")


def log_users(content):
    """Whom a delivery log names, and what stands behind its last whole line."""
    users, rest = [], content or b""
    while match := LOG_LINE.match(rest):
        users.append(match[1].decode())
        rest = rest[match.end():]
    return users, rest


# What may stand where: path, kind, mode, and whether it is root's or the mailbox's user's.
NUMBER = r"[1-9]\d*"
SHAPES = [(re.compile(pattern), kind, mode, owner) for pattern, kind, mode, owner in (
    (r"users", stat.S_IFDIR, 0o755, "root"),
    (r"sent", stat.S_IFDIR, 0o700, "root"),
    (r"sent/\.seq(\.tmp|\.lock)?", stat.S_IFREG, 0o600, "root"),
    (rf"sent/(\.deleting-)?{NUMBER}", stat.S_IFDIR, 0o700, "root"),
    (rf"sent/(\.deleting-)?{NUMBER}/(lock|delivery|incomplete|revoking)", stat.S_IFREG, 0o600,
     "root"),
    (rf"sent/(\.deleting-)?{NUMBER}/(msg|recipients|revoked|failed)(\.tmp)?", stat.S_IFREG, 0o600,
     "root"),
    (r"users/[^/]+", stat.S_IFDIR, 0o700, "user"),
    (r"users/[^/]+/(inbox|read|acks|state)", stat.S_IFDIR, 0o755, "user"),
    (rf"users/[^/]+/(inbox/{NUMBER}(\.tmp)?|(read|acks)/{NUMBER}|state/{NUMBER}\.(term|gui))",
     stat.S_IFREG, 0o644, "user"),
)]


def shape_of(path):
    """(kind, mode, owner) that the path must have, or None where nothing may be."""
    for pattern, *shape in SHAPES:
        if pattern.fullmatch(path):
            return shape
    return None
