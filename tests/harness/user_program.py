"""The recipients' program on a scratch machine, and messages in its mailboxes."""

import os
import shutil
import subprocess

from .machine import STAND_INS
from .store import message_file

PROGRAM = "/usr/local/lib/tellbox/tellbox-user"
TELLBOX = f"{STAND_INS}/tellbox"


def install_user_program(machine, build):
    """Puts the program in its place, and `tellbox` on the search path."""
    machine.path("/usr/local/lib/tellbox").mkdir()
    shutil.copy(build / "tellbox-user", machine.path(PROGRAM))
    machine.path(TELLBOX).symlink_to(PROGRAM)


def install_user_file(machine, build, kind, name):
    """Puts a file in its place that the build makes for the program."""
    path = machine.path(name)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(subprocess.run([build / "tellbox-user-files", kind], check=True,
                                    capture_output=True).stdout)
    return path


def deliver(machine, message_id, text="Hello\n", user="pat", **header):
    """A message in the user's inbox, as the administrator's command puts it there."""
    machine.store.make_mailbox(user)
    inbox = machine.store.mailbox(user, "inbox")
    fresh = inbox / f"{message_id}.tmp"
    fresh.write_bytes(message_file(message_id, text, **header))
    fresh.chmod(0o644)
    os.chown(fresh, machine.uid(user), machine.uid(user))
    fresh.rename(inbox / str(message_id))
