"""A message that root sends reaches the people it is for, and nobody else."""

import pytest

from furnished import PEOPLE
from harness.store import short_time


def facts(machine, user, *parts):
    """Permission bits, owner and group of a file of a mailbox."""
    status = machine.mailbox(user, *parts).lstat()
    return oct(status.st_mode & 0o7777), status.st_uid, status.st_gid


def test_root_sends_to_a_user(machine):
    machine.send("--to", "pat", "hello")
    assert machine.mailbox("pat", "inbox", 1).read_bytes() == (
        f"format: 1\nid: 1\nfrom: root\ndate: {machine.date()}\ntitle: \nexpires: \n\nhello\n"
        .encode())
    assert machine.terminals_written() == {"pat": 0}


def test_the_copy_is_the_reference_copy_byte_for_byte(machine):
    machine.send("--to", "pat", "--title", "Größe", "--expires", "2h", "two\nlines\t✓")
    copy = machine.mailbox("pat", "inbox", 1).read_bytes()
    assert copy == machine.sent(1, "msg").read_bytes()
    assert copy.endswith("title: Größe\nexpires: {}\n\ntwo\nlines\t✓\n".format(
        machine.date() + 7200).encode())


def test_a_text_of_the_greatest_size_arrives_whole(machine):
    text = "x" * 65536
    machine.send("--to", "pat", input=text)
    assert machine.mailbox("pat", "inbox", 1).read_text().endswith(f"\n\n{text}\n")


def test_the_mailbox_and_all_in_it_belong_to_the_recipient(machine):
    machine.send("--to", "pat", "hello")
    owner = (machine.uid("pat"), machine.gid("pat"))
    assert facts(machine, "pat") == ("0o700", *owner)
    for folder in ("inbox", "read", "acks", "state"):
        assert facts(machine, "pat", folder) == ("0o755", *owner)
    assert facts(machine, "pat", "inbox", 1) == ("0o644", *owner)


def test_the_group_of_a_mailbox_is_the_recipient_s_primary_group(machine):
    machine.send("--to", "alex", "hello")
    crew = int(machine.run("getent", "group", "crew").stdout.split(":")[2])
    assert facts(machine, "alex") == ("0o700", machine.uid("alex"), crew)
    assert facts(machine, "alex", "inbox", 1) == ("0o644", machine.uid("alex"), crew)


def test_the_store_is_readable_by_root_alone(machine):
    machine.send("--to", "pat", "hello")
    assert machine.run("cat", "/var/lib/tellbox/sent/1/msg", user="pat", check=False).stdout == ""
    assert machine.run("ls", "/var/lib/tellbox/sent", user="pat", check=False).stdout == ""
    assert (machine.store("sent").stat().st_mode, machine.store("users").stat().st_mode) == (
        0o40700, 0o40755)


def test_the_recipient_reads_the_copy_and_others_do_not(machine):
    machine.send("--to", "pat", "hello")
    copy = "/var/lib/tellbox/users/pat/inbox/1"
    assert machine.run("cat", copy, user="pat").stdout.endswith("\n\nhello\n")
    assert machine.run("cat", copy, user="sam", check=False).stdout == ""


def test_a_mask_of_the_caller_changes_no_mode(machine):
    machine.run("sh", "-c", "umask 077; exec tbx send --to pat hello")
    assert facts(machine, "pat", "inbox", 1)[0] == "0o644"
    assert machine.store("users").stat().st_mode == 0o40755


def test_a_group_is_its_members_and_those_whose_primary_group_it_is(machine):
    machine.send("--to", "@crew", "hello", recipients=3)
    assert machine.recipients() == ["alex", "pat", "robot"]


def test_all_is_every_human_user_and_no_other(machine):
    machine.send("--to", "all", "hello", recipients=len(PEOPLE))
    assert machine.recipients() == PEOPLE
    assert sorted(path.name for path in machine.store("users").iterdir()) == PEOPLE


@pytest.mark.parametrize("user", ["robot", "mute", "daemon"])
def test_who_is_not_human_can_be_named(machine, user):
    machine.send("--to", user, "hello")
    assert machine.mailbox(user, "inbox", 1).exists()


def test_root_can_be_named_but_nothing_is_written_with_root_s_rights(machine):
    result = machine.tbx("send", "--to", "root,pat", "hello")
    assert result.stdout == "Message 1 delivered to 1 of 2 recipients.\n"
    assert result.returncode == 1
    assert list(machine.mailbox("root").iterdir()) == []


def test_online_is_who_has_a_session_of_class_user(machine):
    for user, kind in (("pat", "tty"), ("sam", "x11"), ("alex", "wayland")):
        machine.open_session(user, kind)
    machine.send("--to", "online", "hello", recipients=3)
    assert machine.recipients() == ["alex", "pat", "sam"]


@pytest.mark.parametrize("session_class", ["greeter", "background", "lock-screen"])
def test_online_is_not_who_has_a_session_of_another_class(machine, session_class):
    machine.open_session("sam", "wayland", session_class=session_class)
    machine.open_session("pat", "wayland")
    machine.send("--to", "online", "hello")
    assert machine.recipients() == ["pat"]


def test_online_is_not_who_cannot_log_in(machine):
    machine.open_session("robot", "tty")
    machine.open_session("mute", "x11")
    machine.open_session("pat", "tty")
    machine.send("--to", "online", "hello")
    assert machine.recipients() == ["pat"]


def test_online_is_not_root(machine):
    machine.open_session("root", "tty")
    machine.open_session("pat", "tty")
    machine.send("--to", "online", "hello")
    assert machine.recipients() == ["pat"]


def test_online_is_still_who_has_a_session_that_is_closing(machine):
    machine.open_session("pat", "tty").close()
    machine.send("--to", "online", "hello")
    assert machine.recipients() == ["pat"]


def test_someone_with_two_sessions_gets_one_message(machine):
    machine.open_session("pat", "tty")
    machine.open_session("pat", "x11")
    machine.send("--to", "online", "hello")
    assert machine.terminals_written() == {"pat": 0}


def test_with_nobody_online_nothing_is_written(machine):
    result = machine.tbx("send", "--to", "online", "hello")
    assert (result.stdout, result.stderr, result.returncode) == ("", "tbx: no recipients\n", 1)
    assert not machine.store().exists()


def test_a_recipient_without_an_account_keeps_nobody_else_from_the_message(machine):
    result = machine.tbx("send", "--to", "@haunted", "hello")
    assert (result.stdout, result.returncode) == (
        "Message 1 delivered to 1 of 2 recipients.\n", 1)
    assert result.stderr == ("tbx: message 1 not delivered to: ghost (see the log; "
                             "the next tbx command will retry)\n")
    assert machine.mailbox("pat", "inbox", 1).exists()


def test_list_and_status_tell_who_has_the_message(machine):
    machine.send("--to", "pat,sam", "--title", "News", "hello", recipients=2)
    when = short_time(machine.date())
    assert machine.tbx("list").stdout.splitlines()[1].split() == [
        "1", *when.split(), "hello", "2", "delivered"]
    assert machine.tbx("status", "1").stdout == (
        f"Message 1 · News · {when} · from root\n  │ hello\n\n"
        "USER             STATE\npat              delivered\nsam              delivered\n")
