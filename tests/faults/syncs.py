"""The order of writes and syncs: what a run relies on is on the disk before it does.

Replays the calls of a run, in the order in which they ended.
"""

import re

from rules import require

COPY = re.compile(r".*/users/[^/]+/inbox/(\d+)(?:\.tmp)?")


def folder_of(path):
    return path.rsplit("/", 1)[0]


def is_under(path, folder):
    return path.startswith(f"{folder}/")


class Disk:
    """What has changed since it was last synced."""

    def __init__(self, state, tree):
        self._state = state
        self._there = {f"{state}/{path}" for path in tree} | {state}
        self._contents = set()  # files whose content
        self._entries = set()  # paths that have come or gone

    def is_synced(self, path):
        return path not in self._contents | self._entries

    def has_synced_content(self, path):
        return path not in self._contents

    def has_synced_entry(self, path):
        return path not in self._entries

    def unsynced_under(self, folder):
        return {path for path in self._contents | self._entries if is_under(path, folder)}

    def _appears(self, path):
        self._there.add(path)
        self._entries.add(path)

    def _vanishes(self, path):
        self._there.discard(path)
        self._contents.discard(path)
        self._entries.add(path)

    def replay(self, call):
        if not call.succeeded or not call.path.startswith(self._state):
            return
        if call.name == "mkdir" or (call.creates and call.path not in self._there):
            self._appears(call.path)
            self._contents.add(call.path)
        elif call.name in ("write", "ftruncate"):
            self._contents.add(call.path)
        elif call.name == "rename":
            self._rename(*call.paths)
        elif call.name in ("unlink", "unlinkat", "rmdir"):
            self._vanishes(call.path)
        elif call.name == "fsync":
            self._contents.discard(call.path)
            self._entries -= {path for path in self._entries if folder_of(path) == call.path}
        elif call.name == "syncfs":
            for changed in (self._contents, self._entries):
                changed -= {path for path in changed if is_under(path, call.path)}

    def _rename(self, old, new):
        self._contents.discard(new)
        for known in (self._there, self._contents, self._entries):
            moved = {path for path in known if path == old or is_under(path, old)}
            known -= moved
            known |= {new + path[len(old):] for path in moved}
        self._entries |= {old, new}


class SyncRules:
    """Follows one run and complains where it goes on too early.

    purge_may_go_on  its sync of the store has failed, which the program ignores: a rename that
                     is lost leaves a whole message
    """

    def __init__(self, state, tree, purge_may_go_on=False):
        self._disk = Disk(state, tree)
        self._sent, self._users = f"{state}/sent", f"{state}/users"
        self._purge_may_go_on = purge_may_go_on
        self._created = set()  # folders of messages that the run has begun to send
        self._delivered = set()  # folders of messages that it has written a copy of
        self._marked = set()  # folders of messages that it has marked revoked
        self._moved = {}  # where it has moved messages, and from where

    def check(self, calls):
        for call in calls:
            if call.changes and (call.succeeded or call.outcome is None):
                self._check_before(call)
            self._disk.replay(call)
            if call.succeeded:
                self._note(call)

    def _require(self, paths, call):
        late = [path for path in paths if not self._disk.is_synced(path)]
        require(not late, f"not on the disk before {call}: {late}")

    def _check_before(self, call):
        if call.name == "rename" and call.path.endswith(".tmp") and is_under(call.path,
                                                                             self._sent):
            require(self._disk.has_synced_content(call.path), f"not on the disk before {call}")
        if match := COPY.fullmatch(call.path):
            self._check_mailbox_change(f"{self._sent}/{match[1]}", call)
        if call.name == "unlink" and call.path.endswith("/incomplete"):
            self._check_completion(folder_of(call.path), call)
        if call.path == "stdout":
            self._require([f"{folder}/incomplete" for folder in self._created], call)
        if call.name == "sendmsg":
            for folder in self._marked:
                self._require_marks(folder, call)
        if call.name in ("unlink", "unlinkat", "rmdir") and not self._purge_may_go_on:
            self._check_purge(call)

    def _check_mailbox_change(self, folder, call):
        if folder in self._created:  # saved before anybody gets it
            self._require([folder, *(f"{folder}/{name}" for name in
                                     ("incomplete", "msg", "recipients"))], call)
        if folder in self._marked and call.name == "unlink":
            self._require_marks(folder, call)

    def _require_marks(self, folder, call):
        self._require([f"{folder}/revoking", f"{folder}/revoked"], call)

    def _check_completion(self, folder, call):
        if folder in self._delivered:
            late = self._disk.unsynced_under(self._users)
            require(not late, f"not on the disk before {call}: {late}")
            require(self._disk.has_synced_entry(f"{folder}/delivery"),
                    f"the log is not on the disk before {call}")

    def _check_purge(self, call):
        for aside, original in self._moved.items():
            number = original.rsplit("/", 1)[1]
            if is_under(call.path, aside) or re.search(rf"/{number}(\.\w+)?$", call.path):
                self._require([aside, original], call)

    def _note(self, call):
        if call.name == "mkdir" and re.fullmatch(rf"{self._sent}/\d+", call.path):
            self._created.add(call.path)
        elif call.name == "unlink" and call.path.endswith("/revoked"):
            self._marked.discard(folder_of(call.path))
        elif call.name == "rename":
            self._note_rename(*call.paths)

    def _note_rename(self, old, new):
        if match := COPY.fullmatch(new):
            self._delivered.add(f"{self._sent}/{match[1]}")
        elif new.endswith("/revoked"):
            self._marked.add(folder_of(new))
        elif "/.deleting-" in new:
            self._moved[new] = old
