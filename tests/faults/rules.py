"""What the store and the mailboxes may look like, whatever went wrong. See docs/reliability.md.

The rules are written from what the program promises, never from how it keeps the promise.
"""

import copy
import re
import time

from cases import TEXT
from harness.store import parse_message_file
from views import SHOWN, log_users, shape_of, views

TEMPORARY = ("seq", "msg", "recipients", "revoked", "failed", r"inbox/\d+")
PURGE_AGE_SECONDS = 90 * 86400
EXPIRY_MAX_SECONDS = 2 * 86400
NUMBER_FILE = re.compile(rb"\d+\n")


class Broken(AssertionError):
    """A rule is broken."""


def require(condition, text):
    if not condition:
        raise Broken(text)


def is_journal_call(call):
    return call.name == "sendmsg" or "journal" in call.path or (
        call.name == "socket" and call.process == 0)


class Excuses:
    """What the faults of a trial excuse: the exceptions that docs/reliability.md names."""

    def __init__(self, faults):
        self._faults = faults

    def _any(self, test):
        return any(test(fault) for fault in self._faults)

    @property
    def sign(self):
        """The same for faults that excuse the same."""
        return (self.none, self.program_killed, self.anything_killed, self.events_may_be_lost,
                self.mailbox_may_be_passed_over, self.shown_mark_may_stay,
                *(self.cannot_write(name) for name in ("failed", "incomplete", "delivery")),
                *(self.temporary_may_stay(name) for name in TEMPORARY), self.store_not_synced)

    @property
    def none(self):
        return not self._faults

    @property
    def program_killed(self):
        return self._any(lambda fault: fault.kills and fault.call.process == 0)

    @property
    def anything_killed(self):
        return self._any(lambda fault: fault.kills)

    @property
    def events_may_be_lost(self):
        return self.program_killed or self._any(lambda fault: is_journal_call(fault.call))

    def cannot_write(self, name):
        """A file whose writing fails in silence, by design."""
        return self._any(lambda fault: fault.call.process == 0 and not fault.kills and
                         fault.is_at(rf"/{name}(\.tmp)?"))

    @property
    def mailbox_may_be_passed_over(self):
        """A purge goes on past a mailbox whose child fails, or is lost sight of."""
        return self._any(lambda fault: fault.call.process > 0 or (
            not fault.call.path.startswith("/") and
            fault.call.name not in ("pipe2", "fork", "fcntl")))

    @property
    def shown_mark_may_stay(self):
        """Only of the copy is it said that it is gone."""
        return self._any(lambda fault: fault.is_at(r"/state/\d+\.(term|gui)"))

    @property
    def store_not_synced(self):
        """A purge ignores a sync of the store that fails."""
        return self._any(lambda fault: not fault.kills and fault.is_at(r"/tellbox/sent"))

    def temporary_may_stay(self, name):
        return self.anything_killed or self._any(
            lambda fault: fault.call.name == "unlink" and fault.is_at(rf"{name}\.tmp"))


class Judge:
    """Compares what a trial leaves with the rules. `before` is the tree that it began with."""

    def __init__(self, case, machine, before, contents, faults=()):
        self.case, self.contents = case, contents
        self.known = {message.id: message for message in case.messages}
        self.before = before
        self.excuses = Excuses(faults)
        self._uid = machine.uid
        self._accounts = {"pat", "alex", "sam", "kim"}
        self._began = int(time.time())

    def with_faults(self, *faults):
        """The same judge, for a trial that goes on with these faults."""
        other = copy.copy(self)
        other.contents, other.excuses = dict(self.contents), Excuses(faults)
        return other

    # ---- Whatever holds at every moment ---------------------------------------------------

    def check_always(self, tree):
        """The rules that hold even right behind a crash."""
        for path, (mode, uid, _, content) in tree.items():
            self._check_shape(path, mode, uid, tree)
            if re.search(r"/(\.seq|revoked|failed)$", path):
                require(NUMBER_FILE.fullmatch(content), f"{path} holds {content!r}")
        for message_id, view in views(tree).items():
            self._check_contents(message_id, view)

    def _check_shape(self, path, mode, uid, tree):
        if self.before.get(path) == tree[path]:
            return
        shape = shape_of(path)
        require(shape is not None, f"{path} has no place there")
        kind, bits, owner = shape
        require(mode == kind | bits, f"{path} has mode {mode:o}")
        expected = 0 if owner == "root" else self._uid(path.split("/")[1])
        is_fresh_mailbox = path.count("/") == 1 and not any(
            other.startswith(f"{path}/") for other in tree)
        require(uid == expected or (uid == 0 and is_fresh_mailbox), f"{path} belongs to {uid}")

    def _check_contents(self, message_id, view):
        folder = view.folder if view.folder is not None else view.aside or {}
        if "msg" in folder and message_id not in self.known:
            self._check_new_message(message_id, folder["msg"])
        content = self.contents.get(message_id)
        recipients = self._recipients(message_id)
        if "msg" in folder:
            require(folder["msg"] == content, f"message {message_id} is not the one it was")
        if "recipients" in folder:
            require(folder["recipients"] == "".join(f"{user}\n" for user in recipients).encode(),
                    f"message {message_id} has other recipients")
        for user, files in view.boxes.items():
            require(user in recipients, f"{user} holds message {message_id}: {sorted(files)}")
            require(files.get("copy", content) == content,
                    f"{user} holds a wrong copy of message {message_id}")
            before = views(self.before).get(message_id)
            had = before.held(user) if before else {}
            for kind in files.keys() - {"copy", "copy.tmp"}:
                require(had.get(kind) == files[kind],
                        f"{kind} of {user} for message {message_id} was made up")
        if view.holders("copy", "copy.tmp") and view.folder is not None:
            require({"msg", "recipients"} <= folder.keys(),
                    f"message {message_id} is delivered and not saved")
        if "failed" in folder:
            require(not {"msg", "recipients"} <= folder.keys(),
                    f"message {message_id} is whole and marked failed")

    def _check_new_message(self, message_id, content):
        fields = parse_message_file(content)
        age = int(fields["date"]) - self._began
        require(int(fields["id"]) == message_id and fields["format"] == "1" and 0 <= age < 60,
                f"header of message {message_id}: {fields}")
        require((fields["title"], fields["text"]) == (self.case.title, f"{TEXT}\n"),
                f"text of message {message_id}: {fields}")
        require(bool(fields["expires"]) == self.case.expires, f"expiry: {fields}")
        self.contents.setdefault(message_id, content)

    def _recipients(self, message_id):
        message = self.known.get(message_id)
        return message.to if message else self.case.recipients

    # ---- What the next command leaves -----------------------------------------------------

    def settled(self, tree, run, at_once):
        """What became of each message once the next command has run, by identifier.

        run      the disturbed run
        at_once  the tree that it left
        """
        self.check_always(tree)
        self._check_temporary_files(tree)
        found = views(tree)
        outcome = {}
        for message_id in sorted(found.keys() | self.known.keys()):
            view = found.get(message_id)
            message = self.known.get(message_id)
            if message is None:
                outcome[message_id] = self._became_of_new(message_id, view)
            else:
                outcome[message_id] = self._became_of(message, view, run, at_once)
        numbers = [number for number in found if number not in self.known]
        seq = tree.get("sent/.seq")
        if seq and numbers and "lock" in (found[max(numbers)].folder or {}):
            require(int(seq[3]) >= max(numbers), f".seq says {seq[3]!r}, {numbers} are taken")
        return outcome

    def _check_temporary_files(self, tree):
        for path in tree:
            if path.endswith(".tmp") and path not in self.before:
                name = path.rsplit("/", 1)[1].removesuffix(".tmp")
                require(self.excuses.temporary_may_stay(name), f"{path} was left behind")

    def _became_of_new(self, message_id, view):
        folder = view.folder
        require(view.aside is None and folder is not None,
                f"message {message_id} is nowhere, but for {view}")
        names = folder.keys() - {"lock"}
        if not names:
            require(not view.boxes, f"message {message_id} was never saved, and delivered")
            return "empty directory"
        if "failed" in names:
            return self._cancelled(message_id, view)
        if not {"msg", "recipients"} <= names:
            require(not view.boxes, f"message {message_id} was never saved, and delivered")
            require("incomplete" not in names, f"message {message_id} is not cancelled")
            if self.excuses.cannot_write("failed"):
                return "cancelled without mark"
            require(self.excuses.cannot_write("incomplete"),
                    f"message {message_id} is half saved: {sorted(names)}")
            return "never marked"
        return self._delivered(message_id, view, self.case.recipients, ())

    def _cancelled(self, message_id, view):
        require("incomplete" not in view.folder, f"message {message_id} is still marked")
        require(not view.holders("copy"), f"message {message_id} is cancelled and delivered")
        return "cancelled"

    def _delivered(self, message_id, view, recipients, logged_before):
        reachable = [user for user in recipients if user in self._accounts and
                     user not in self.case.unreachable]
        missing = [user for user in reachable
                   if not view.held(user).keys() & {"copy", "read", "confirmed"}]
        require(not missing, f"message {message_id} is not delivered to {missing}")
        require(not view.holders("copy.tmp"), f"half a copy of message {message_id} stays")
        users, torn = log_users(view.folder.get("delivery"))
        require(not torn, f"the log of message {message_id} ends with {torn!r}")
        require(len(set(users)) == len(users), f"the log of message {message_id}: {users}")
        unlogged = set(reachable) - set(users) - set(logged_before)
        require(not unlogged or self.excuses.cannot_write("delivery"),
                f"message {message_id}: {unlogged} are not in the log")
        is_waiting = reachable != list(recipients)
        require(("incomplete" in view.folder) == is_waiting,
                f"message {message_id} is {'not ' if is_waiting else ''}marked")
        if is_waiting:
            return "waiting"
        return "delivered without log line" if unlogged else "delivered"

    # ---- Messages that were there ---------------------------------------------------------

    def _became_of(self, message, view, run, at_once):
        is_purged = self.case.verb == "purge" and self._is_old(message) and message.kind not in (
            "saved", "unsaved")
        if view is None or view.folder is None:
            require(is_purged or message.kind == "moved", f"message {message.id} is lost")
            return self._gone(message, view)
        require(message.kind != "moved", f"message {message.id} is back")
        require(view.aside is None, f"message {message.id} is there twice")
        if self.case.target == message.id and self.case.verb == "revoke":
            return self._maybe_revoked(message, view, run, at_once)
        if message.kind == "saved" and not (message.expires or message.revoked):
            outcome = self._delivered(message.id, view, message.to, message.logged_users)
        else:
            outcome = self._kept(message, view)
        self._check_boxes(message, view)
        return outcome

    @staticmethod
    def _is_old(message):
        return message.date < time.time() - PURGE_AGE_SECONDS

    def _gone(self, message, view):
        if view is None or view.is_nowhere:
            return "gone"
        require(view.aside is None, f"message {message.id} is still moved aside")
        require(len(view.boxes) == 1 and self.excuses.mailbox_may_be_passed_over,
                f"of message {message.id} stays {view.boxes}")
        return "gone but for a mailbox passed over"

    def _kept(self, message, view):
        """A message that nothing was to be done to, or that recovery has done with."""
        names = view.folder.keys() - {"lock", "failed.tmp"}
        before = views(self.before)[message.id].folder
        unchanged = {name: content for name, content in before.items()
                     if name not in ("incomplete", "revoking", "lock")}
        if message.kind == "unsaved":
            marked = "failed" in names
            require(marked or self.excuses.cannot_write("failed"),
                    f"message {message.id} is not cancelled")
            require(names - {"failed"} == unchanged.keys(), f"message {message.id}: {names}")
            return "cancelled" if marked else "cancelled without mark"
        require(names == unchanged.keys(), f"message {message.id} has {sorted(names)}")
        for name, content in unchanged.items():
            require(view.folder[name] == content, f"{name} of message {message.id} has changed")
        if message.kind == "revoking":
            return "withdrawn"
        return "dropped" if message.kind == "saved" else "untouched"

    def _check_boxes(self, message, view):
        """Nobody's files of the message have changed, but where that is due."""
        before = views(self.before)[message.id]
        for user in set(before.boxes) | set(view.boxes):
            had, has = set(before.held(user)), set(view.held(user)) - {"copy.tmp"}
            if message.kind == "revoking":
                had -= {"copy"} | SHOWN
            elif message.kind == "saved":
                had -= {"copy"}
                has -= {"copy"}
            if self.case.target == message.id and self.case.verb == "remind":
                had -= SHOWN
                has -= SHOWN
            require(has == had, f"{user} has {has} of message {message.id}, and had {had}")

    def _maybe_revoked(self, message, view, run, at_once):
        folder = view.folder
        require("revoking" not in folder and "incomplete" not in folder,
                f"message {message.id} is still marked: {sorted(folder)}")
        if "revoked" in folder:
            self._check_withdrawn(message, view)
            if message.revoked:
                require(int(folder["revoked"]) == message.revoked, "the time of revocation")
            return "revoked"
        if view.holders("copy") or not self._holders_before(message):
            if message.kind == "saved":
                return self._delivered(message.id, view, message.to, message.logged_users)
            outcome = self._kept(message, view)
            self._check_boxes(message, view)
            return outcome
        marks = views(at_once)[message.id].folder
        require("revoking" in marks and "revoked" not in marks and run.status != 0,
                f"message {message.id} is withdrawn and not marked")
        self._check_withdrawn(message, view)
        return "withdrawn without mark"

    def _holders_before(self, message):
        return views(self.before)[message.id].holders("copy")

    def _check_withdrawn(self, message, view):
        kinds = {"copy"} if self.excuses.shown_mark_may_stay else {"copy"} | SHOWN
        held = view.holders(*kinds) & self._accounts
        require(not held, f"message {message.id} is revoked, and {held} still have it")
        before = views(self.before)[message.id]
        for user in before.boxes:
            kept = before.held(user).keys() & {"read", "confirmed"}
            require(kept <= view.held(user).keys(), f"{user} has lost {kept} of {message.id}")

    # ---- Once the command has been repeated -----------------------------------------------

    def repeated(self, tree, result, earlier):
        """The same command again, undisturbed, does what it would have done at first."""
        require(result.status in (0, self.case.told[1] if self.case.told else 0),
                f"the repeated command: {result}")
        found = views(tree)
        if self.case.verb == "send":
            fresh = [number for number in found if number not in views(earlier)]
            require(len(fresh) == 1 and fresh[0] == max(found),
                    f"the repeated send made {fresh}: {result}")
            self.check_always(tree)
            view = found[fresh[0]]
            require(self._delivered(fresh[0], view, self.case.recipients, ()) ==
                    ("waiting" if self.case.unreachable else "delivered"), "the repeated send")
        elif self.case.verb == "revoke":
            require("revoked" in found[self.case.target].folder, "the repeated revocation")
            self._check_withdrawn(self.known[self.case.target], found[self.case.target])
        elif self.case.verb == "purge":
            left = [number for number, message in self.known.items()
                    if self._is_old(message) and number in found and
                    (found[number].folder is not None or found[number].aside is not None)]
            require(not left, f"the repeated purge left {left}")
        else:
            self.check_always(tree)
