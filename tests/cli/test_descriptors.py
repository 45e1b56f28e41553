"""What the programs that tbx starts inherit of its descriptors."""

import pytest

LIST = "ls -l /proc/self/fd | awk '{print $9, $11}' | grep -v /proc/ >/run/gates/descriptors; "


@pytest.fixture
def leaky(machine):
    """Runs tbx as a shell does that keeps a secret open at descriptor 9."""
    machine.write("/run/secret", "secret\n", mode=0o600)

    def run(*arguments, **options):
        return machine.run(*arguments, wrap=["/bin/sh", "-c", 'exec 9</run/secret; exec "$@"',
                                             "sh"], **options)
    return run


def inherited(machine):
    """Number to name of the descriptors that a stand-in had; the listing's own are left out."""
    lines = machine.path("/run/gates/descriptors").read_text(encoding="utf-8").splitlines()
    pairs = dict(line.split(" ", 1) for line in lines if " " in line)
    return {int(number): name for number, name in pairs.items() if number in "0129" and number}


def test_date_has_a_pipe_and_the_null_device(machine, leaky):
    machine.stand_in("date", LIST + "echo 4000000000")
    result = leaky("send", "--to", "pat", "--expires", "some day", input=b"the text")
    assert result.status == 0
    found = inherited(machine)
    assert found.keys() <= {0, 1, 2}
    assert (found[0], found[2]) == ("/dev/null", "/dev/null")
    assert machine.store.sent(1, "msg").read_bytes().endswith(b"\n\nthe text\n")


def test_sudo_has_what_the_caller_gave_and_nothing_behind_it(machine, leaky):
    machine.write("/run/secret", "secret\n", mode=0o644)
    machine.stand_in("sudo", LIST)
    assert leaky("list", user="pat").status == 0
    assert inherited(machine).keys() == {0, 1, 2}


def test_the_starter_of_the_agent_has_the_null_device_alone(machine, leaky):
    machine.add_session("1", "pat", kind="wayland")
    machine.runtime_directory("pat")
    machine.stand_in("systemd-run", LIST)
    assert leaky("send", "--to", "pat", "hello").status == 0
    found = inherited(machine)
    del found[1]  # the listing's own
    assert found == {0: "/dev/null", 2: "/dev/null"}
