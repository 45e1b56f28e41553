"""A scratch machine with the recipients' program, and people at its terminals."""

import os
import re

from harness.machine import Machine
from harness.pseudo_terminal import Terminal
from harness.user_program import (
    PROGRAM,
    TELLBOX,
    deliver,
    install_user_file,
    install_user_program,
)

QUESTION = "I have read it [r]   Later [l]   Quit [q]"
GUARD_SECONDS = 0.7
# Where the last is missing, fish reads every manual page of the machine at its first start.
FISH_COMPLETIONS = [".local", ".local/share", ".local/share/fish",
                    ".local/share/fish/generated_completions"]

ESCAPES = re.compile(rb"\x1b\[[0-9;?>=]*[ -/]*[@-~]|\x1b\][^\x07\x1b]*(\x07|\x1b\\)|\x1b[=>()78kM][B0]?")


def plain(raw):
    """What a program wrote, without escape sequences and carriage returns."""
    return ESCAPES.sub(b"", raw).replace(b"\r", b"").decode("utf-8", "replace")


class UserMachine(Machine):
    """Has /usr/local/lib/tellbox/tellbox-user, `tellbox` on the search path, the hooks that are
    installed, and a home for everybody."""

    def __init__(self, binary):
        self._build = binary.parent
        super().__init__(binary)
        self._terminals = []
        install_user_program(self, self._build)
        self.store.create()

    def close(self):
        self.kill()  # an interactive shell would not end with its terminal
        for terminal in self._terminals:
            terminal.close()
        super().close()

    # Accounts have homes here.

    @staticmethod
    def home_name(user):
        return "/root" if user == "root" else f"/run/home/{user}"

    def home(self, user):
        return self.path(self.home_name(user))

    def _write_accounts(self):
        for user, (uid, _, _) in self._users.items():
            home = self.home(user)
            if user != "root" and not home.is_dir():
                home.mkdir(parents=True)
                os.chown(home, uid, uid)
                for folder in FISH_COMPLETIONS:
                    self._make_own_folder(home / folder, uid)
        self.write("/etc/passwd", "".join(
            f"{name}:x:{uid}:{gid}:{name}:{self.home_name(name)}:{shell}\n"
            for name, (uid, gid, shell) in self._users.items()))
        self.write("/etc/group", "".join(
            f"{name}:x:{gid}:{','.join(members)}\n"
            for name, (gid, members) in self._groups.items()))

    @staticmethod
    def _make_own_folder(path, uid):
        path.mkdir()
        os.chown(path, uid, uid)

    def write_home(self, user, name, text):
        path = self.home(user) / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
        for entry in (path, *path.parents):
            if entry == self.home(user):
                break
            os.chown(entry, self.uid(user), self.uid(user))
        return path

    # Files that are installed.

    def install(self, kind, name):
        """Puts a file in its place that the build makes for the recipients' program."""
        return install_user_file(self, self._build, kind, name)

    # Messages.

    def deliver(self, message_id, text="Hello\n", user="pat", **header):
        deliver(self, message_id, text, user, **header)

    def withdraw(self, message_id, user="pat"):
        for name in (f"inbox/{message_id}", f"state/{message_id}.term", f"state/{message_id}.gui"):
            self.store.mailbox(user, name).unlink(missing_ok=True)

    def answers(self, user="pat"):
        """Identifier to channel of every answer."""
        folder = self.store.mailbox(user, "acks")
        return {int(path.name): path.read_text(encoding="ascii").split()[1]
                for path in folder.iterdir()}

    def files(self, user="pat"):
        """The names of all files in a mailbox."""
        top = self.store.mailbox(user)
        return sorted(str(path.relative_to(top)) for path in top.rglob("*") if not path.is_dir())

    def events(self):
        """(event, message, user, channel) of each record, in order."""
        return [(record.event, int(record["TBX_MESSAGE"]), record["TBX_USER"],
                 record["TBX_CHANNEL"]) for record in self.journal.records()]

    # Running.

    def environment(self, user, env=None):
        merged = {**self.env, "HOME": self.home_name(user), "USER": user, "LOGNAME": user,
                  "TERM": "xterm-256color", **(env or {})}
        return {name: value for name, value in merged.items() if value is not None}

    def tellbox(self, *arguments, user="pat", **options):
        """Runs tellbox without a terminal."""
        return self.run(*arguments, program=TELLBOX, user=user,
                        env={"USER": user, "LOGNAME": user, **options.pop("env", {})}, **options)

    def user_program(self, *arguments, user="pat", **options):
        return self.run(*arguments, program=PROGRAM, user=user, **options)

    def on_terminal(self, *argv, user="pat", env=None, **options):
        """A program on a terminal of its own."""
        command = [*self._enter(), *self._become(user), *argv]
        self._terminals.append(Terminal(command, env=self.environment(user, env), **options))
        return self._terminals[-1]

    def ask(self, *arguments, **options):
        """tellbox on a terminal."""
        return self.on_terminal(TELLBOX, *arguments, **options)
