"""The events of one machine are read on another, as the manual tells it.

The two machines are two network namespaces with a cable between them.
"""

import os
import re
import shlex
import shutil
import subprocess

import manual
import pytest
from conftest import run
from harness.history import SYSTEMD_PROGRAMS, record, write_journal_file
from harness.waiting import wait_for
from prerequisites import need_programs, need_root

REMOTE, UPLOAD = "systemd-journal-remote", "systemd-journal-upload"
COLLECTOR, SENDER = "192.0.2.1", "192.0.2.2"
PORT = 19532


def program(name):
    return shutil.which(name, path=SYSTEMD_PROGRAMS)


class Host:
    """A network namespace with one end of the cable."""

    def __init__(self):
        self._started = []
        self.holder = self._start(["setpriv", "--pdeathsig", "KILL", "unshare", "--net",
                                   "sleep", "infinity"])
        here = os.readlink("/proc/self/ns/net")
        wait_for(lambda: os.readlink(f"/proc/{self.holder.pid}/ns/net") != here, "a namespace")

    def _start(self, command):
        self._started.append(subprocess.Popen(command, stderr=subprocess.PIPE, text=True))
        return self._started[-1]

    def entering(self, *command):
        return ["nsenter", "-t", str(self.holder.pid), "-n", "--", *map(str, command)]

    def start(self, *command):
        return self._start(self.entering(*command))

    def close(self):
        for process in reversed(self._started):
            process.kill()
            process.communicate()


@pytest.fixture
def hosts():
    """The collecting host and a sending one."""
    need_root("network namespaces")
    need_programs("ip", "nsenter", "unshare", "journalctl")
    need_programs(REMOTE, UPLOAD, path=SYSTEMD_PROGRAMS)
    pair = Host(), Host()
    try:
        run(*pair[0].entering("ip", "link", "add", "cable", "type", "veth", "peer", "name",
                              "cable", "netns", pair[1].holder.pid))
        for host, address in zip(pair, (COLLECTOR, SENDER)):
            run(*host.entering("ip", "address", "add", f"{address}/24", "dev", "cable"))
            run(*host.entering("ip", "link", "set", "cable", "up"))
        yield pair
    finally:
        for host in pair:
            host.close()


def is_listening(host):
    return f":{PORT} " in run(*host.entering("ss", "-ltn"))


def query(folder):
    """What the manual's command shows, with the folder that it is to look into."""
    chapter = (manual.MANUAL / "50-fleet.html").read_text(encoding="utf-8")
    command = re.search(r'<pre id="fleet-query"><code>(.*?)</code></pre>', chapter)[1]
    words = shlex.split(command)
    words[words.index("/var/log/journal/remote")] = str(folder)
    return run(*words, "-o", "cat").splitlines()


def test_a_confirmation_on_one_machine_is_read_on_another(hosts, tmp_path):
    collector, sender = hosts
    collected = tmp_path / "remote"
    collected.mkdir()
    (tmp_path / "local").mkdir()
    write_journal_file(tmp_path / "local" / "system.journal", [
        record("SENT", details="pat", author="root", sentence="message 7 sent"),
        record("CONFIRMED", user="pat", uid=1001, usec=1, sentence="pat confirmed")])
    collector.start(program(REMOTE), f"--listen-http={COLLECTOR}:{PORT}", f"--output={collected}/")
    wait_for(lambda: is_listening(collector), "somebody listens")
    sender.start(program(UPLOAD), f"--url=http://{COLLECTOR}:{PORT}",
                 f"--directory={tmp_path}/local", f"--save-state={tmp_path}/state")
    wait_for(lambda: any(collected.iterdir()) and query(collected), "the record arrives")
    assert query(collected) == ["pat confirmed"]
