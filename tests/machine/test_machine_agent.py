"""The desktop agent is started by the user's own service manager, and woken where it runs."""

import pytest

from harness.waiting import PATIENCE_SECONDS, await_condition
from residents import AGENT


@pytest.fixture
def desktop(machine):
    """The machine with pat at a desktop."""
    machine.open_session("pat", "wayland")
    return machine


@pytest.fixture
def agents(desktop):
    """pat's agents, one of which has shown a first message."""
    desktop.send("--to", "pat", "first")
    agents = desktop.agents("pat")
    agents.await_looks(1)
    return agents


def assert_started(machine, user):
    """One agent of the user runs and has looked, once."""
    (pid, reason), = machine.agents(user).await_looks(1)
    assert (reason, machine.agents(user).running()) == ("started", [pid])


@pytest.mark.parametrize("kind", ["x11", "wayland"])
def test_a_message_starts_the_agent_of_a_graphical_session(machine, kind):
    machine.open_session("pat", kind)
    machine.send("--to", "pat", "hello")
    assert_started(machine, "pat")


def test_the_agent_runs_as_the_user_under_the_user_s_manager(desktop, agents):
    pid, = agents.running()
    status = desktop.path(f"/proc/{pid}/status").read_text()
    uid, gid = desktop.uid("pat"), desktop.gid("pat")
    assert f"Uid:\t{uid}\t{uid}\t{uid}\t{uid}\nGid:\t{gid}\t{gid}\t{gid}\t{gid}\n" in status
    groups = desktop.path(f"/proc/{pid}/cgroup").read_text()
    assert f"/user.slice/user-{uid}.slice/user@{uid}.service/" in groups
    assert desktop.path(f"/proc/{pid}/cmdline").read_bytes() == f"{AGENT}\0agent\0".encode()


def test_the_agent_sees_the_message_that_it_is_started_for(desktop, agents):
    assert desktop.mailbox("pat", "state", "1.gui").exists()


def test_the_unit_of_an_agent_that_has_ended_does_not_stay(desktop, agents):
    agents.kill()
    manager = ["systemctl", "--user", "--machine=pat@.host"]
    await_condition(lambda: AGENT not in desktop.run(*manager, "list-units", "--all").stdout,
                    PATIENCE_SECONDS, "the end of the unit")
    assert desktop.run(*manager, "is-system-running", check=False).stdout == "running\n"


def test_a_second_message_wakes_the_agent(desktop, agents):
    desktop.send("--to", "pat", "second", message_id=2)
    (first, _), (second, reason) = agents.await_looks(2)
    assert (second, reason) == (first, "woken")
    assert agents.running() == [first]
    assert desktop.mailbox("pat", "state", "2.gui").exists()


def test_a_reminder_wakes_the_agent_and_it_shows_the_message_again(desktop, agents):
    shown = desktop.mailbox("pat", "state", "1.gui")
    before = shown.stat().st_ino, shown.stat().st_mtime_ns
    assert desktop.tbx("remind", "1").stdout == "Message 1: 1 recipient reminded.\n"
    assert agents.await_looks(2)[1][1] == "woken"
    assert (shown.stat().st_ino, shown.stat().st_mtime_ns) != before


def test_a_completed_delivery_starts_the_agent(desktop):
    desktop.send("--to", "pat", "hello")
    agents = desktop.agents("pat")
    agents.await_looks(1)
    agents.kill()
    desktop.sent(1, "delivery").unlink()
    desktop.sent(1, "incomplete").touch()
    assert desktop.tbx("list").stderr == "tbx: completed delivery of message 1 to 1 recipients\n"
    assert agents.await_looks(2)[1][1] == "started"


def test_an_agent_that_died_is_started_again(desktop, agents):
    first, = agents.running()
    agents.kill()
    desktop.send("--to", "pat", "second", message_id=2)
    second, reason = agents.await_looks(2)[1]
    assert (reason, agents.running()) == ("started", [second])
    assert second != first


def test_an_agent_whose_number_another_program_took_is_started_again(desktop, agents):
    number, = agents.running()
    agents.kill()
    impostor = desktop.bystander("pat", number)
    desktop.send("--to", "pat", "second", message_id=2)
    assert agents.await_looks(2)[1][1] == "started"
    assert impostor.is_running()


@pytest.mark.parametrize("owner", ["root", "sam"])
def test_a_process_of_someone_else_is_not_signalled(desktop, agents, owner):
    agents.kill()
    victim = desktop.bystander(owner)
    agents.ready_file.write_text(f"{victim.number}\n")
    desktop.send("--to", "pat", "second", message_id=2)
    assert agents.await_looks(2)[1][1] == "started"
    assert victim.is_running()


def test_an_agent_of_someone_else_is_not_woken(desktop, agents):
    desktop.open_session("sam", "x11")
    desktop.send("--to", "sam", "hello", message_id=2)
    theirs = desktop.agents("sam")
    pid = theirs.await_looks(1)[0][0]
    agents.kill()
    agents.ready_file.write_text(f"{pid}\n")
    desktop.send("--to", "pat", "hello", message_id=3)
    assert agents.await_looks(2)[1][1] == "started"
    assert theirs.looks() == [(pid, "started")]


@pytest.mark.parametrize("kind", ["tty", None])
def test_no_agent_is_started_for_a_session_without_a_desktop(machine, kind):
    machine.open_session("pat", kind)
    machine.send("--to", "pat", "hello")
    assert machine.agents("pat").running() == []
    assert machine.agents("pat").looks() == []


def test_no_agent_is_started_for_a_desktop_that_is_closing(desktop):
    desktop.open_session("sam", "wayland").close()
    desktop.send("--to", "sam,pat", "hello", recipients=2)
    assert_started(desktop, "pat")
    assert desktop.agents("sam").looks() == []


@pytest.mark.parametrize("session_class", ["greeter", "background"])
def test_the_class_of_a_graphical_session_is_all_the_same(machine, session_class):
    machine.open_session("pat", "x11", session_class=session_class)
    machine.send("--to", "pat", "hello")
    assert_started(machine, "pat")


def test_who_cannot_log_in_has_an_agent_at_a_desktop(machine):
    machine.open_session("robot", "wayland")
    machine.send("--to", "robot", "hello")
    assert_started(machine, "robot")


def test_everyone_has_an_agent_of_their_own(machine):
    for user, kind in (("pat", "x11"), ("sam", "wayland")):
        machine.open_session(user, kind)
    machine.send("--to", "pat,sam,alex", "hello", recipients=3)
    assert_started(machine, "pat")
    assert_started(machine, "sam")


def test_a_sudo_user_s_message_starts_and_wakes_the_agent(desktop):
    desktop.send("--to", "pat", "hello", user="admin")
    assert_started(desktop, "pat")
    desktop.send("--to", "pat", "hello", user="admin", message_id=2)
    assert desktop.agents("pat").await_looks(2)[1][1] == "woken"


def test_without_the_program_a_send_goes_on_and_says_nothing(desktop):
    desktop.path(AGENT).rename(desktop.path(AGENT + ".away"))
    try:
        result = desktop.tbx("send", "--to", "pat,sam", "hello")
    finally:
        desktop.path(AGENT + ".away").rename(desktop.path(AGENT))
    assert (result.stdout, result.stderr, result.returncode) == (
        "Message 1 sent to 2 users.\n", "", 0)


def test_a_manager_that_does_not_finish_holds_a_send_up_for_its_bound_only(desktop):
    units = desktop.path("/home/pat/.config/systemd/user/service.d")
    desktop.run("install", "-d", "-o", "pat", "/home/pat/.config/systemd/user/service.d")
    (units / "never.conf").write_text("[Service]\nExecStartPre=sleep infinity\n"
                                      "TimeoutStartSec=infinity\n")
    try:
        desktop.run("systemctl", "--user", "--machine=pat@.host", "daemon-reload")
        desktop.open_session("sam", "x11")
        desktop.send("--to", "pat,sam", "hello", recipients=2, timeout=60)
        assert_started(desktop, "sam")
        assert desktop.run("pgrep", "-x", "systemd-run", check=False).stdout == ""
    finally:
        (units / "never.conf").unlink()
