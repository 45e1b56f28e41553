"""Everything inside a mailbox is done by a child that has become the recipient for good."""

import re

import pytest

from harness.outcome import assert_sent

IDENTITY_CALLS = "setgroups,setresgid,setresuid,setuid,setgid,setregid,setreuid,chdir,umask"


@pytest.fixture
def traced(machine, strace):
    """A traced send to pat, who is in one more group."""
    machine.add_group("staff", 2000, ["pat"])

    def trace(calls, **options):
        return machine.trace(calls, "send", "--to", "pat", "hello", **options)
    trace.machine = machine
    return trace


def test_the_child_drops_groups_then_group_then_user(traced):
    calls = [(name, arguments) for name, arguments, _ in traced(IDENTITY_CALLS).of_children()]
    assert calls == [("setgroups", "2, [1001, 2000]"), ("setresgid", "1001, 1001, 1001"),
                     ("setresuid", "1001, 1001, 1001"), ("setuid", "0"), ("chdir", '"/"'),
                     ("umask", "022")]


def test_the_way_back_to_root_is_tried_and_closed(traced):
    outcomes = [outcome for name, _, outcome in traced("setuid").of_children() if name == "setuid"]
    assert outcomes == ["-1 EPERM (Operation not permitted)"]


def test_the_identity_is_asked_for_before_the_way_back_is_tried(traced):
    calls = [name for name, _, _ in
             traced("setresuid,getuid,geteuid,getegid,setuid").of_children()]
    after_drop = calls[calls.index("setresuid") + 1:calls.index("setuid")]
    assert sorted(set(after_drop)) == ["getegid", "geteuid", "getuid"]


def test_nothing_of_the_mailbox_is_touched_before_the_identity_is_dropped(traced):
    trace = traced("setuid,mkdir,mkdirat,open,openat,rename,renameat,renameat2,unlink,unlinkat")
    calls = trace.of_children()
    dropped = [name for name, _, _ in calls].index("setuid")
    assert not any("users/pat" in arguments for _, arguments, _ in calls[:dropped])
    assert any("users/pat" in arguments for _, arguments, _ in calls[dropped:])


def test_the_parent_touches_only_the_mailbox_directory_itself(traced):
    trace = traced("%file")
    touched = {(name, match) for name, arguments, _ in trace.of_parent()
               for match in re.findall(r'"([^"]*\bpat\b[^"]*)"', arguments)}
    assert touched == {("openat2", "pat"), ("mkdirat", "pat")}
    assert all("RESOLVE_NO_XDEV" in arguments for name, arguments, _ in trace.of_parent()
               if name == "openat2")


@pytest.mark.parametrize("failure", [
    "setgroups:error=EPERM", "setresgid:error=EPERM", "setresuid:error=EAGAIN",
    "setresuid:retval=0", "setresgid:retval=0", "setuid:retval=0",
    'chdir:error=EACCES'])
def test_a_drop_that_fails_in_any_step_fails_the_delivery(traced, failure):
    trace = traced("setgroups,setresgid,setresuid,setuid,chdir", inject=[failure])
    assert trace.result.stdout == "Message 1 delivered to 0 of 1 recipients.\n"
    assert list(traced.machine.store.mailbox("pat").iterdir()) == []


def test_the_child_makes_the_folders_then_the_copy_and_syncs_nothing(traced):
    trace = traced("mkdir,mkdirat,rename,renameat,renameat2,fsync,fdatasync,syncfs,sync")
    steps = [(name, re.findall(r'"([^"]*)"', arguments)) for name, arguments, _ in
             trace.of_children()]
    mailbox = "/var/lib/tellbox/users/pat"
    assert [name for name, _ in steps] == ["mkdir"] * 4 + ["rename"]
    assert [paths for _, paths in steps] == [
        *[[f"{mailbox}/{folder}"] for folder in ("inbox", "read", "acks", "state")],
        [f"{mailbox}/inbox/1.tmp", f"{mailbox}/inbox/1"]]


def test_the_temporary_copy_is_opened_anew_and_without_following_links(traced):
    opened = [arguments for _, arguments, _ in traced("openat").of_children()
              if "inbox/1.tmp" in arguments]
    assert len(opened) == 1
    assert opened[0].endswith("O_WRONLY|O_CREAT|O_EXCL|O_NOFOLLOW|O_CLOEXEC, 0644")


def test_the_child_has_no_descriptor_of_the_parent_left(traced):
    trace = traced("dup2,dup3,close_range,setresuid")
    steps = [(name, arguments) for name, arguments, _ in trace.of_children()]
    targets = [arguments.split(", ")[1].split("<")[0] for name, arguments in steps
               if name.startswith("dup")]
    assert targets == ["0", "1", "2"]
    assert [name for name, _ in steps][-2:] == ["close_range", "setresuid"]
    assert steps[-2][1].startswith("3, 4294967295")
    assert traced.machine.store.mailbox("pat", "inbox", 1).exists()


def test_a_recipient_s_groups_decide_what_the_child_may_write(machine):
    machine.add_group("staff", 2000, ["pat"])
    place = machine.store.make_mailbox("pat") / "inbox"
    machine.shell(f"chgrp 2000 {machine.state_name}/users/pat/inbox && "
                  f"chown root {machine.state_name}/users/pat/inbox && "
                  f"chmod 770 {machine.state_name}/users/pat/inbox")
    assert_sent(machine, "--to", "pat", "hello")
    assert (place / "1").exists()
