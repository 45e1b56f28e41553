"""One agent serves a user, and `tbx` finds it by its readiness file."""

import os
import pathlib
import re
import signal
import subprocess

import pytest

from processes import await_condition, end


def has_open(agent, name):
    """Whether the agent holds a file of this name open."""
    try:
        entries = list(pathlib.Path(f"/proc/{agent.process.pid}/fd").iterdir())
        return any(os.readlink(entry).endswith(f"/{name}") for entry in entries)
    except FileNotFoundError:  # closed while it was looked at
        return False


def test_a_second_agent_ends_and_tells_the_first_to_look(recipient):
    tries = recipient.folder / "tries"
    recipient.use_window(f"echo x >>{tries}; exit 1")
    recipient.send()
    first = recipient.start_agent()
    await_condition(tries.exists, "the first try")
    first.await_no_window()
    assert recipient.no_window_comes()
    second = recipient.start_agent(wait=False)
    assert second.status() == 0
    await_condition(lambda: tries.read_text() == "x\nx\n", "the first agent tries again")
    first.await_ready()


def test_of_agents_that_start_at_once_one_stays(recipient):
    agents = [recipient.start_agent(wait=False) for _ in range(8)]
    await_condition(lambda: sum(agent.process.poll() is None for agent in agents) == 1,
                    "one is left")
    assert {agent.process.poll() for agent in agents} == {None, 0}
    left, = [agent for agent in agents if agent.process.poll() is None]
    left.await_ready()


@pytest.mark.parametrize("display", ["", ":987"])
def test_an_agent_without_a_display_makes_way_for_one_that_has_one(recipient, display):
    number = recipient.send()
    first = recipient.start_agent(env={"DISPLAY": display})
    assert recipient.no_window_comes()
    assert recipient.mark(number) is None
    second = recipient.start_agent()
    assert first.status() == 0
    second.await_window(number)


def test_an_agent_that_is_about_to_end_is_waited_for(recipient):
    recipient.use_window("trap '' TERM; echo shown; while :; do sleep 0.1; done")
    number = recipient.send()
    first = recipient.start_agent()
    recipient.await_mark(number, "shown")
    first.signal(signal.SIGTERM)  # its window takes half a second to go
    await_condition(lambda: not recipient.ready_file.exists(), "it has begun to end")
    assert first.process.poll() is None
    second = recipient.start_agent()
    assert first.status() == 0
    assert second.process.poll() is None


HOLDER = """import fcntl, sys
lock = open(sys.argv[1], "w")
fcntl.lockf(lock, fcntl.LOCK_EX)
print("held", flush=True)
sys.stdin.read()
"""


@pytest.fixture
def stranger(recipient, screen):
    """Another program that holds the agent's lock until its input ends."""
    process = screen.start("/usr/bin/python3", "-c", HOLDER,
                           str(recipient.runtime / "tellbox-agent.lock"),
                           stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    assert process.stdout.readline() == b"held\n"
    yield process
    end(process)


def test_another_program_that_holds_the_lock_gets_no_signal(recipient, stranger):
    agent = recipient.start_agent(wait=False)
    with pytest.raises(subprocess.TimeoutExpired):
        agent.process.wait(0.5)
    stranger.stdin.close()
    assert stranger.wait(20) == 0, "it ended by itself"
    agent.await_ready()


def test_an_agent_that_waits_for_the_lock_can_be_ended(recipient, stranger):
    agent = recipient.start_agent(wait=False)
    await_condition(lambda: has_open(agent, "tellbox-agent.lock"), "it waits")
    agent.signal(signal.SIGTERM)
    assert agent.status() == 0  # 1 if it had waited to the end
    assert stranger.poll() is None


def test_the_readiness_file_goes_with_the_agent(recipient):
    agent = recipient.start_agent()
    agent.signal(signal.SIGTERM)
    assert agent.status() == 0
    assert not recipient.ready_file.exists()


def test_a_readiness_file_that_somebody_removed_comes_back(recipient):
    agent = recipient.start_agent()
    recipient.ready_file.unlink()
    recipient.wake()
    agent.await_ready()


def test_the_readiness_file_of_another_agent_stays(recipient):
    agent = recipient.start_agent()
    recipient.ready_file.write_text("12345\n")
    agent.signal(signal.SIGINT)
    assert agent.status() == 0
    assert recipient.ready_file.read_text() == "12345\n"


def test_signals_at_any_moment_do_no_harm(recipient):
    agent = recipient.start_agent(wait=False)
    program = str(recipient.lib / "tellbox-user").encode()
    command = pathlib.Path(f"/proc/{agent.process.pid}/cmdline")
    await_condition(lambda: command.read_bytes() == program + b"\0agent\0", "the agent")
    while not recipient.ready_file.exists():
        if re.search(r"^SigBlk:\s+0+$", pathlib.Path(
                f"/proc/{agent.process.pid}/status").read_text(), re.MULTILINE):
            continue  # `tbx` has no name to signal before the readiness file
        agent.signal(signal.SIGUSR1)
    number = recipient.send()
    agent.await_window(number)


def test_the_end_of_the_agent_closes_the_window(recipient):
    agent = recipient.start_agent()
    number = recipient.send()
    window = agent.await_window(number)
    agent.signal(signal.SIGTERM)
    assert agent.status() == 0
    assert not pathlib.Path(f"/proc/{window.pid}").exists()
    assert recipient.is_unanswered(number)


def test_the_window_of_an_agent_that_was_killed_goes(recipient):
    agent = recipient.start_agent()
    number = recipient.send()
    window = agent.await_window(number)
    agent.signal(signal.SIGKILL)
    await_condition(lambda: not pathlib.Path(f"/proc/{window.pid}").exists(), "the window goes")
    again = recipient.start_agent()
    recipient.make_due(number)
    again.await_window(number)


def test_it_needs_its_runtime_folder(recipient):
    recipient.runtime.rmdir()
    agent = recipient.start_agent(wait=False, errors=subprocess.PIPE)
    assert agent.status() == 1
    assert agent.process.stderr.read().decode().startswith("tellbox: cannot lock")


def test_a_mute_bus_does_not_hold_up_the_end(recipient, mute_bus):
    agent = recipient.start_agent(env={"DBUS_SESSION_BUS_ADDRESS": mute_bus})
    recipient.await_mark(recipient.send(), "shown")
    agent.signal(signal.SIGTERM)
    assert agent.status() == 0  # the bus library would wait longer than this test does
