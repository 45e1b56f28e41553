"""A desktop agent: a real process with the agent's exact command line."""

import os
import time

from .waiting import wait_for

LIBRARY = "/usr/local/lib/tellbox"
AGENT = f"{LIBRARY}/tellbox-user"

# Read by a copy of the shell that is called tellbox-user and given the argument
# "agent", the name of this script in its working directory.
SCRIPT = """\
trap 'echo woken >> woken' USR1
echo $$ > started
while :; do sleep 600 & wait; kill $!; done
"""


class Agent:
    """Runs as `user` until the machine ends. `pid` is its process ID on the machine."""

    def __init__(self, machine, user, *extra_arguments, program=AGENT):
        folder = f"/run/agents/{user}.{time.monotonic_ns()}"
        self._place = machine.path(folder)
        self._place.mkdir(parents=True)
        (self._place / "agent").write_text(SCRIPT, encoding="ascii")
        os.chown(self._place, machine.uid(user), -1)
        machine.path(os.path.dirname(program)).mkdir(parents=True, exist_ok=True)
        if not machine.path(program).exists():
            machine.shell(f"cp /bin/sh {program}")
        machine.start("agent", *extra_arguments, program=program, user=user,
                      wrap=["env", "-C", folder])
        self.pid = int(wait_for(self._read_started))

    def was_woken(self):
        """How many SIGUSR1 it has got."""
        woken = self._place / "woken"
        return woken.read_text(encoding="ascii").count("\n") if woken.exists() else 0

    def wait_until_woken(self, times=1):
        wait_for(lambda: self.was_woken() >= times)

    def _read_started(self):
        started = self._place / "started"
        return started.exists() and started.read_text(encoding="ascii").strip()
