"""Where the program looks for its files, and how far test mode reaches."""

import os

import pytest

from harness.outcome import assert_refused, assert_sent, mode

ELSEWHERE = "/run/elsewhere/state"
OVERRIDES = {"TBX_VAR": ELSEWHERE, "TBX_LIB": "/run/elsewhere/lib", "TBX_CONF": "/run/elsewhere/c"}


@pytest.fixture
def elsewhere(machine):
    machine.path("/run/elsewhere").mkdir()
    machine.path("/run/elsewhere").chmod(0o777)
    return machine


@pytest.mark.parametrize("test", [None, ""])
def test_the_overrides_do_nothing_outside_test_mode(elsewhere, test):
    elsewhere.add_session("c1", "pat", kind="wayland")
    assert_sent(elsewhere, "--to", "pat", "hello", env={**OVERRIDES, "TBX_TEST": test})
    assert not elsewhere.path(ELSEWHERE).exists()
    assert elsewhere.systemd_run.calls()[0][-2:] == ["/usr/local/lib/tellbox/tellbox-user", "agent"]


@pytest.mark.parametrize("test", ["1", "0", "no"])
def test_any_text_in_the_variable_switches_test_mode_on(elsewhere, test):
    assert elsewhere.run("send", "--to", "pat", "hello",
                         env={**OVERRIDES, "TBX_TEST": test}).status == 0
    assert elsewhere.path(f"{ELSEWHERE}/sent/1/msg").exists()
    assert not elsewhere.store.top.exists()


@pytest.mark.parametrize("value", [None, ""])
def test_an_unset_or_empty_override_leaves_the_default_in_test_mode(machine, value):
    assert machine.run("send", "--to", "pat", "hello",
                       env={"TBX_TEST": "1", "TBX_VAR": value}).status == 0
    assert machine.store.sent(1, "msg").exists()


def test_the_state_directory_is_named_as_it_was_given(box):
    given = "/var/lib/box//nowhere/../nowhere/./state/"
    assert_refused(box, f"{given}: No such file or directory", "send", "--to", "pat", "hello",
                   env={"TBX_VAR": given})


def test_an_ordinary_user_works_in_test_mode_without_sudo(elsewhere):
    result = elsewhere.run("send", "--to", "pat", "hello", user="sam",
                           env={**OVERRIDES, "TBX_TEST": "1"})
    assert tuple(result) == ("Message 1 sent to 1 user.\n", "", 0)
    assert elsewhere.sudo.calls() == []
    copy = elsewhere.path(f"{ELSEWHERE}/users/pat/inbox/1")
    assert copy.stat().st_uid == elsewhere.uid("sam")


def test_in_test_mode_root_keeps_mailbox_and_copy(elsewhere):
    elsewhere.run("send", "--to", "pat", "hello", env={**OVERRIDES, "TBX_TEST": "1"})
    owners = {path.lstat().st_uid for path in elsewhere.path(f"{ELSEWHERE}/users").rglob("*")}
    assert owners == {0}
    assert mode(elsewhere.path(f"{ELSEWHERE}/users/pat")) == 0o700


def test_in_test_mode_a_mailbox_of_root_receives_a_copy(elsewhere):
    result = elsewhere.run("send", "--to", "root", "hello", env={**OVERRIDES, "TBX_TEST": "1"})
    assert result.status == 0
    assert elsewhere.path(f"{ELSEWHERE}/users/root/inbox/1").exists()


def test_in_test_mode_no_agent_is_started_or_woken(elsewhere):
    elsewhere.add_session("c1", "pat", kind="wayland")
    agent = elsewhere.start_agent("pat")
    elsewhere.write_readiness("pat", agent.pid)
    elsewhere.run("send", "--to", "pat", "hello", env={"TBX_TEST": "1", "TBX_VAR": ELSEWHERE})
    assert elsewhere.systemd_run.calls() == []
    assert agent.was_woken() == 0


@pytest.mark.parametrize("command", [["list"], ["send", "--to", "pat", "hello"], ["version"]])
def test_no_command_looks_at_the_configuration_file(box, command):
    os.mkfifo(box.path("/var/lib/box/tellbox.conf"))  # reading it would block
    assert box.run(*command, env={"TBX_CONF": "/var/lib/box/tellbox.conf"}).status == 0
