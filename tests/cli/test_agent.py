"""The recipient's desktop agent is woken where it runs and started where it does not."""

import os

import pytest

from harness.agent import AGENT
from harness.outcome import assert_sent
from harness.store import replace_by

START = ["--user", "--machine=pat@.host", "--collect", "--quiet", AGENT, "agent"]


@pytest.fixture
def desktop(machine):
    """A machine on which pat has a graphical session."""
    machine.add_session("c1", "pat", kind="wayland")
    return machine


def send(machine, **options):
    assert_sent(machine, "--to", "pat", "hello", **options)


def assert_started(machine):
    send(machine)
    assert machine.systemd_run.calls() == [START]


@pytest.mark.parametrize("kind, state", [("x11", None), ("wayland", "online")])
def test_an_agent_is_started_for_a_live_graphical_session(machine, kind, state):
    machine.add_session("c1", "pat", kind=kind, state=state)
    assert_started(machine)


@pytest.mark.parametrize("session", [
    {"kind": "tty"}, {"kind": "wayland", "state": "closing"}])
def test_no_agent_is_started_without_a_live_graphical_session(machine, session):
    machine.add_session("c1", "pat", **session)
    machine.add_session("c2", "sam", kind="wayland")
    send(machine)
    assert machine.systemd_run.calls() == []


def test_no_agent_is_started_without_any_session(machine):
    send(machine)
    assert machine.systemd_run.calls() == []


def test_one_live_graphical_session_among_others_is_enough(machine):
    machine.add_session("a1", "pat", kind="tty", tty="tty2")
    machine.add_session("b1", "pat", kind="x11", state="closing")
    machine.add_session("c1", "pat", kind="x11")
    assert_started(machine)


@pytest.mark.parametrize("session_class", ["greeter", "background", None])
def test_the_class_of_a_graphical_session_does_not_matter(machine, session_class):
    machine.add_session("c1", "pat", kind="wayland", session_class=session_class)
    assert_started(machine)


def test_each_recipient_with_a_desktop_gets_an_agent_in_turn(machine):
    machine.add_session("c1", "sam", kind="wayland")
    machine.add_session("c2", "alex", kind="x11")
    assert_sent(machine, "--to", "sam,pat,alex", "hello", recipients=3)
    assert [call[1] for call in machine.systemd_run.calls()] == ["--machine=alex@.host",
                                                                 "--machine=sam@.host"]


def test_a_running_agent_is_woken_and_none_is_started(desktop):
    agent = desktop.start_agent("pat")
    desktop.write_readiness("pat", agent.pid)
    send(desktop)
    agent.wait_until_woken()
    assert desktop.systemd_run.calls() == []


def test_an_agent_is_woken_once_per_message(desktop):
    agent = desktop.start_agent("pat")
    desktop.write_readiness("pat", agent.pid)
    for number in (1, 2):
        send(desktop, message_id=number)
        agent.wait_until_woken(number)


def test_the_first_line_of_the_readiness_file_is_the_process(desktop):
    agent = desktop.start_agent("pat")
    desktop.write_readiness("pat", f"00{agent.pid}\nmore".encode())
    send(desktop)
    agent.wait_until_woken()
    assert desktop.systemd_run.calls() == []


def test_a_readiness_file_of_64_bytes_is_read(desktop):
    agent = desktop.start_agent("pat")
    desktop.write_readiness("pat", f"{agent.pid}\n".encode().ljust(64, b"x"))
    send(desktop)
    agent.wait_until_woken()


def test_a_readiness_file_without_a_number_starts_a_new_agent(desktop):
    agent = desktop.start_agent("pat")
    desktop.write_readiness("pat", f"{agent.pid}\0\n".encode())
    assert_started(desktop)
    assert agent.was_woken() == 0


def test_a_readiness_file_of_65_bytes_starts_a_new_agent(desktop):
    agent = desktop.start_agent("pat")
    desktop.write_readiness("pat", f"{agent.pid}\n".encode().ljust(65, b"x"))
    assert_started(desktop)
    assert agent.was_woken() == 0


def test_a_process_number_out_of_range_starts_a_new_agent(desktop):
    desktop.write_readiness("pat", 1)
    assert_started(desktop)


def test_a_process_that_is_gone_starts_a_new_agent(desktop):
    desktop.write_readiness("pat", 4194304)
    assert_started(desktop)


@pytest.mark.parametrize("arguments", [["extra"], [""]])
def test_a_process_with_one_more_argument_is_not_the_agent(desktop, arguments):
    agent = desktop.start_agent("pat", *arguments)
    desktop.write_readiness("pat", agent.pid)
    assert_started(desktop)
    assert agent.was_woken() == 0


@pytest.mark.parametrize("program", ["/usr/local/lib/other/tellbox-user",
                                     "/usr/local/lib/tellbox/./tellbox-user",
                                     "/usr/local/lib/tellbox/tellbox-userx"])
def test_a_program_of_another_name_is_not_the_agent(desktop, program):
    agent = desktop.start_agent("pat", program=program)
    desktop.write_readiness("pat", agent.pid)
    assert_started(desktop)
    assert agent.was_woken() == 0


def test_an_agent_of_someone_else_cannot_be_signalled(desktop):
    agent = desktop.start_agent("sam")
    desktop.write_readiness("pat", agent.pid)
    assert_started(desktop)
    assert agent.was_woken() == 0


def test_a_link_in_place_of_the_readiness_file_is_not_followed(desktop):
    agent = desktop.start_agent("pat")
    replace_by("link", desktop.write_readiness("pat", agent.pid))
    assert_started(desktop)
    assert agent.was_woken() == 0


@pytest.mark.parametrize("kind", ["pipe", "folder"])
def test_what_is_no_file_in_place_of_the_readiness_file_does_not_hold_a_send_up(desktop, kind):
    ready = desktop.runtime_directory("pat") / "tellbox-agent.ready"
    if kind == "pipe":
        os.mkfifo(ready)
    else:
        ready.mkdir()
    assert_started(desktop)


def test_a_readiness_file_that_the_user_cannot_read_is_not_read(desktop):
    agent = desktop.start_agent("pat")
    ready = desktop.write_readiness("pat", agent.pid)
    os.chown(ready, 0, 0)
    ready.chmod(0o600)
    assert_started(desktop)
    assert agent.was_woken() == 0


def test_the_readiness_file_is_read_and_the_signal_sent_as_the_user(desktop, strace):
    agent = desktop.start_agent("pat")
    desktop.write_readiness("pat", agent.pid)
    trace = desktop.trace("kill,setuid,openat", "send", "--to", "pat", "hello")
    child = [pid for pid, call in zip(trace.pids, trace.calls) if call[0] == "kill"][0]
    calls = [call for pid, call in zip(trace.pids, trace.calls) if pid == child]
    assert child != trace.parent
    assert ("setuid", "0", "-1 EPERM (Operation not permitted)") in calls
    assert ("kill", f"{agent.pid}, SIGUSR1", "0") == calls[-1]


def test_the_agent_is_started_after_copy_and_terminals(desktop):
    terminal = desktop.open_terminal("pat")
    gate = desktop.gate("start")
    desktop.stand_in("systemd-run", gate.body)
    process = desktop.start("send", "--to", "pat", "hello")
    gate.wait()
    assert terminal.read() != b""
    assert desktop.store.mailbox("pat", "inbox", 1).exists()
    assert process.is_running()
    gate.open()
    assert process.wait().status == 0


def test_the_starter_gets_nothing_but_the_null_device(desktop):
    gate = desktop.gate("start")
    desktop.stand_in("systemd-run",
                     f"echo $$ > /run/starter; echo lost; echo shown >&2; {gate.body}")
    process = desktop.start("send", "--to", "pat", "hello", input=b"unread")
    gate.wait()
    pid = desktop.path("/run/starter").read_text(encoding="ascii").strip()
    descriptors = {entry.name: os.readlink(entry)
                   for entry in desktop.path(f"/proc/{pid}/fd").iterdir()}
    gate.open()
    assert tuple(process.wait()) == ("Message 1 sent to 1 user.\n", "", 0)
    assert [descriptors[number] for number in "012"] == ["/dev/null"] * 3
    inherited = [number for number in descriptors if int(number) < 10]  # the shell's own are above
    assert sorted(inherited) == ["0", "1", "2"]


@pytest.mark.parametrize("body", ["exit 1", "exit 127", "kill -9 $$", "echo noise"])
def test_a_start_that_fails_is_silent(desktop, body):
    desktop.stand_in("systemd-run", body)
    assert_started(desktop)


def test_a_missing_starter_is_silent(desktop):
    send(desktop, env={"PATH": "/run/nothing"}, wrap=["/usr/bin/env"])


def test_recovery_starts_the_agent_too(desktop):
    desktop.store.make_message(1, to=["pat"], markers=["incomplete"])
    desktop.run("list")
    assert desktop.systemd_run.calls() == [START]


def test_recovery_wakes_an_agent_that_runs(desktop):
    agent = desktop.start_agent("pat")
    desktop.write_readiness("pat", agent.pid)
    desktop.store.make_message(1, to=["pat"], markers=["incomplete"])
    desktop.run("list")
    agent.wait_until_woken()
    assert desktop.systemd_run.calls() == []


def test_no_agent_is_started_for_a_copy_that_could_not_be_written(desktop):
    desktop.store.create()
    desktop.store.mailbox("pat").write_bytes(b"in the way")
    assert desktop.run("send", "--to", "pat", "hello").status == 1
    assert desktop.systemd_run.calls() == []
