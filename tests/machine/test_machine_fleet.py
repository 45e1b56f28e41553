"""Two machines with a cable between them, administered from the first one as the manual tells it."""

import html
import re
import subprocess

import pytest

from booted import REPOSITORY, end_process
from furnished import Machine
from harness.waiting import PATIENCE_SECONDS, await_condition
from packages import PACKAGES, place_packages, take_away

ADDRESSES = {"alpha": "192.0.2.1", "beta": "192.0.2.2"}
UNREACHABLE = {"gamma": "192.0.2.3"}

HOME = "/srv/fleet"
TEXT = "Reboot at 13:00.\nSave \"everything\", it's $(urgent) \\ now.\n"
PATIENCE_SECONDS = 300  # a play takes 15 on an idle machine
SOME_UNREACHABLE = 4  # exit status of ansible-playbook


def from_manual(name):
    """What stands under that name in the manual's chapter on many machines."""
    chapter = (REPOSITORY / "docs" / "manual" / "50-fleet.html").read_text(encoding="utf-8")
    found = re.search(f'<pre id="{name}"><code>(.*?)</code></pre>', chapter, re.DOTALL)
    return html.unescape(found[1]) + "\n"


class Fleet:
    """The machines alpha and beta. From alpha, ssh reaches both, and nobody at gamma."""

    def __init__(self, alpha, beta):
        self.alpha, self.beta = alpha, beta
        self._servers = []
        self._connect()
        self._give_root_a_key()
        for machine in (alpha, beta):
            self._start_ssh_server(machine)
        for name in ADDRESSES:
            await_condition(lambda: self.run(f"ssh -o BatchMode=yes {name} true").returncode == 0,
                            PATIENCE_SECONDS, f"ssh to {name}")

    def _connect(self):
        enter = ["nsenter", "-t", str(self.alpha.first), "-n"]
        # From outside, where the number of beta's first process means something.
        run_here(*enter, "ip", "link", "add", "cable", "type", "veth",
                 "peer", "name", "cable", "netns", str(self.beta.first))
        for machine, address in zip((self.alpha, self.beta), ADDRESSES.values()):
            machine.run("ip", "address", "add", f"{address}/24", "dev", "cable")
            machine.run("ip", "link", "set", "cable", "up")
            machine.run("ip", "link", "set", "lo", "up")
        with open(self.alpha.path("/etc/hosts"), "a", encoding="ascii") as hosts:
            for name, address in {**ADDRESSES, **UNREACHABLE}.items():
                hosts.write(f"{address} {name}\n")

    def _give_root_a_key(self):
        for machine in (self.alpha, self.beta):
            machine.run("rm", "-rf", "/root/.ssh")  # the host's root may have one
            machine.run("mkdir", "-m", "700", "/root/.ssh", HOME)
        self.alpha.run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", "/root/.ssh/id_ed25519")
        self.alpha.path("/root/.ssh/config").write_text(
            "StrictHostKeyChecking accept-new\nLogLevel ERROR\n", encoding="ascii")
        key = self.alpha.path("/root/.ssh/id_ed25519.pub").read_text(encoding="ascii")
        for machine in (self.alpha, self.beta):
            machine.path("/root/.ssh/authorized_keys").write_text(key, encoding="ascii")

    def _start_ssh_server(self, machine):
        key = f"{HOME}/host-key"
        machine.run("dropbearkey", "-t", "ed25519", "-f", key)
        self._servers.append(machine.start("dropbear", "-F", "-E", "-s", "-r", key))

    def write(self, name, text, mode=0o644):
        path = self.alpha.path(f"{HOME}/{name}")
        path.write_text(text, encoding="utf-8")
        path.chmod(mode)

    def run(self, script):
        """Runs a shell script on alpha."""
        return self.alpha.run("sh", "-c", f"cd {HOME} && {script}", check=False,
                              timeout=PATIENCE_SECONDS)

    def refresh(self):
        for machine in (self.alpha, self.beta):
            machine.refresh()

    def tidy(self):
        for machine in (self.alpha, self.beta):
            machine.tidy()

    def close(self):
        for server in self._servers:
            end_process(server)


def run_here(*command):
    subprocess.run(command, check=True)


@pytest.fixture(scope="module")
def joined(bootable, binary):
    with Machine(binary) as alpha, Machine(binary) as beta:
        fleet = Fleet(alpha, beta)
        fleet.write("fleet-send", from_manual("fleet-script"), mode=0o755)
        fleet.write("play.yml", from_manual("fleet-play"))
        fleet.write("notice.txt", TEXT)
        fleet.write("hosts", "".join(f"{name}\n" for name in {**ADDRESSES, **UNREACHABLE}))
        yield fleet
        fleet.close()


@pytest.fixture
def fleet(joined):
    """Nobody is logged in anywhere, and no message has been sent."""
    joined.refresh()
    yield joined
    joined.tidy()


def text_of(machine, user):
    return machine.mailbox(user, "inbox", 1).read_text(encoding="utf-8").split("\n\n", 1)[1]


# ---- With ssh -----------------------------------------------------------------------------


def test_the_script_reaches_every_host_and_names_the_one_that_it_does_not(fleet):
    result = fleet.run("./fleet-send hosts notice.txt --to pat >result; sort result")
    alpha, beta, gamma = result.stdout.splitlines()
    assert (alpha, beta) == ("0 alpha Message 1 sent to 1 user.", "0 beta Message 1 sent to 1 user.")
    assert gamma.startswith("255 gamma ssh: connect to host gamma port 22: ")
    assert [text_of(machine, "pat") for machine in (fleet.alpha, fleet.beta)] == [TEXT, TEXT]


def test_the_script_tells_which_host_refused_and_why(fleet):
    fleet.beta.log_in("sam")
    result = fleet.run("./fleet-send hosts notice.txt --to online --expires 15m | sort")
    assert result.stdout.splitlines()[:2] == ["0 beta Message 1 sent to 1 user.",
                                              "1 alpha tbx: no recipients"]
    assert not fleet.alpha.store("sent", 1).exists()
    assert text_of(fleet.beta, "sam") == TEXT


def test_a_title_quoted_twice_arrives_whole(fleet):
    result = fleet.run("""./fleet-send hosts notice.txt --to pat --title "'Maintenance tonight'" """)
    assert "0 beta Message 1 sent to 1 user.\n" in result.stdout
    assert fleet.beta.header(1, "title") == "Maintenance tonight"


# ---- With Ansible -------------------------------------------------------------------------


def play(fleet, *options):
    return fleet.run("ANSIBLE_NOCOLOR=1 ansible-playbook --inventory alpha,beta,gamma "
                     f"{' '.join(options)} play.yml")


def test_the_play_reaches_whoever_is_logged_in_anywhere(fleet):
    fleet.alpha.log_in("pat")
    fleet.beta.log_in("sam")
    result = play(fleet)
    recap = re.findall(r"^(\w+) +: ok=(\d) +changed=\d +unreachable=(\d) +failed=(\d)",
                       result.stdout, re.MULTILINE)
    assert recap == [("alpha", "1", "0", "0"), ("beta", "1", "0", "0"), ("gamma", "0", "1", "0")]
    assert result.returncode == SOME_UNREACHABLE
    assert text_of(fleet.alpha, "pat") == "Reboot at 13:00.\n"
    assert text_of(fleet.beta, "sam") == "Reboot at 13:00.\n"


def test_the_play_does_not_fail_where_nobody_is_logged_in(fleet):
    fleet.beta.log_in("sam")
    result = play(fleet, "--limit", "alpha,beta")
    assert result.returncode == 0, result.stdout
    assert not fleet.alpha.store("sent", 1).exists()
    assert text_of(fleet.beta, "sam") == "Reboot at 13:00.\n"


def test_the_play_fails_where_a_message_cannot_be_sent(fleet):
    fleet.beta.log_in("sam")
    fleet.beta.store().mkdir()
    fleet.beta.store("sent").write_text("in the way")
    result = play(fleet, "--limit", "beta")
    assert re.search(r"^beta +: ok=0 .* failed=1 ", result.stdout, re.MULTILINE), result.stdout


# ---- Both sides on every host -----------------------------------------------------------------


@pytest.fixture
def unpackaged(fleet, debs):
    """The machines without Tellbox, and the packages beside the playbook on alpha."""
    version = re.search(r"^Version: (.*)$", subprocess.run(
        ["dpkg-deb", "-f", debs / "tellbox.deb"], capture_output=True, text=True,
        check=True).stdout, re.MULTILINE)[1]
    fleet.write("install.yml", from_manual("fleet-install").replace("@VERSION@", version))
    placed = []
    try:
        for machine in (fleet.alpha, fleet.beta):
            place_packages(machine, debs)
            placed.append(machine)
        for part in PACKAGES:
            fleet.run(f"ln -sf /srv/{part}.deb {part}_{version}_amd64.deb")
        yield fleet
    finally:
        for machine in placed:
            take_away(machine)
            machine.run("rm", "-rf", "/var/cache/tellbox")


def play_installation(fleet, *options):
    """Runs the manual's playbook; returns how many tasks were ok and changed on each host."""
    fleet.write("inventory", "alpha\nbeta\n[desktops]\nbeta\n")
    result = fleet.run("ANSIBLE_NOCOLOR=1 ANSIBLE_PIPELINING=1 ansible-playbook --inventory inventory "
                       f"{' '.join(options)} install.yml")
    assert result.returncode == 0, result.stdout + result.stderr
    found = re.findall(r"^(\w+) +: ok=(\d) +changed=(\d)", result.stdout, re.MULTILINE)
    return {name: (int(ok), int(changed)) for name, ok, changed in found}


def test_the_playbook_installs_both_sides_and_messages_are_confirmed(unpackaged):
    fleet = unpackaged
    assert play_installation(fleet) == {"alpha": (3, 3), "beta": (3, 3)}
    assert [machine.path("/usr/local/lib/tellbox/tellbox-window").exists()
            for machine in (fleet.alpha, fleet.beta)] == [False, True]
    sent = fleet.run("grep -v gamma hosts >there; ./fleet-send there notice.txt --to pat | sort")
    assert sent.stdout.splitlines() == ["0 alpha Message 1 sent to 1 user.",
                                        "0 beta Message 1 sent to 1 user."]
    for machine in (fleet.alpha, fleet.beta):
        pat = machine.log_in("pat", command="cd; exec bash", env={"TERM": "xterm"})
        pat.await_seen("Answer with: tellbox")
        pat.type(b"tellbox read\r")
        pat.await_seen("Message 1 confirmed.")
        assert re.search(r"^pat +confirmed on .* \(terminal\)$", machine.tbx("status", "1").stdout,
                         re.MULTILINE)
    assert play_installation(fleet, "--limit", "alpha") == {"alpha": (3, 0)}
