"""An ordinary user reaches root through sudo."""

import pytest

TBX = "/run/tbx/tbx"


@pytest.mark.parametrize("arguments", [
    ["list"], [], [""], ["version"], ["--help"], ["no-such-command"],
    ["send", "--to", "pat", "", "two words", "--", "-n", "*", "$HOME", "\n"]])
def test_the_program_is_run_again_with_the_same_arguments(machine, arguments):
    machine.run(*arguments, user="pat")
    assert machine.sudo.calls() == [["--", TBX, *arguments]]


def test_nothing_happens_before_sudo(machine):
    machine.stand_in("sudo", "exit 1")
    machine.store.make_message(7, msg=b"", markers=["incomplete"])
    before = machine.store.tree()
    assert tuple(machine.run("list", user="pat")) == ("", "", 1)
    assert machine.store.tree() == before


@pytest.mark.parametrize("status", [0, 1, 7, 255])
def test_the_exit_status_is_that_of_sudo(machine, status):
    machine.stand_in("sudo", f"echo out; echo err >&2; exit {status}")
    assert tuple(machine.run("list", user="pat")) == ("out\n", "err\n", status)


def test_the_name_it_was_called_by_is_replaced_by_its_path(machine):
    machine.run("list", user="pat", wrap=["/bin/bash", "-c", 'exec -a other "$0" "$@"'])
    assert machine.sudo.calls() == [["--", TBX, "list"]]


def test_a_link_to_the_program_is_resolved(machine):
    machine.path("/run/link").symlink_to(TBX)
    machine.run("list", user="pat", program="/run/link")
    assert machine.sudo.calls() == [["--", TBX, "list"]]


def test_the_environment_is_kept(machine):
    machine.stand_in("sudo", 'echo "$MARK"')
    assert machine.run("list", user="pat", env={"MARK": "kept"}).stdout == "kept\n"


@pytest.mark.parametrize("environment", [{"TBX_VAR": "/run/elsewhere"},
                                         {"TBX_TEST": "", "TBX_VAR": "/run/elsewhere"}])
def test_overrides_without_test_mode_do_not_save_from_sudo(machine, environment):
    machine.run("list", user="pat", env=environment)
    assert machine.sudo.calls() == [["--", TBX, "list"]]


def test_a_missing_sudo_is_an_error(machine):
    result = machine.run("list", user="pat", wrap=["/usr/bin/env", "PATH=/nonexistent"])
    assert tuple(result) == ("", "tbx: sudo: No such file or directory\n", 1)


def test_a_sudo_that_cannot_be_executed_is_an_error(machine):
    machine.path("/run/stand-in/sudo").chmod(0o644)
    result = machine.run("list", user="pat", wrap=["/usr/bin/env", "PATH=/run/stand-in"])
    assert tuple(result) == ("", "tbx: sudo: Permission denied\n", 1)


def test_an_executable_whose_path_cannot_be_read_is_an_error(machine, strace):
    traced = machine.trace("readlink,readlinkat", "list", user="pat",
                           inject=["readlink,readlinkat:error=EACCES"])
    # A sanitizer wants to know the path too, and complains first.
    assert traced.result.stderr.splitlines()[-1] == "tbx: /proc/self/exe: Permission denied"
    assert (traced.result.stdout, traced.result.status) == ("", 1)
    assert machine.sudo.calls() == []


def test_root_does_not_call_sudo(machine):
    assert machine.run("list").status == 0
    assert machine.sudo.calls() == []


def test_a_user_with_root_as_effective_identity_does_not_call_sudo(machine):
    result = machine.run("list", wrap=["setpriv", f"--ruid={machine.uid('pat')}", "--"])
    assert (result.stdout, result.status) == ("No messages sent.\n", 0)
    assert machine.sudo.calls() == []
