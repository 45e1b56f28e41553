"""The recipient's mailbox: made by root, filled by the recipient."""

import os
import stat

import pytest

from harness.outcome import assert_sent, mode

FOLDERS = ["inbox", "read", "acks", "state"]


def owner(path):
    facts = path.lstat()
    return facts.st_uid, facts.st_gid


def assert_not_delivered(machine, *, to="pat", **options):
    """The send reports the recipient as not reached and records it so."""
    result = machine.run("send", "--to", to, "hello", **options)
    assert result.status == 1
    assert result.stderr == (f"tbx: message 1 not delivered to: {to} "
                             "(see the log; the next tbx command will retry)\n")
    assert machine.journal.events()[-2:] == [("NOT_DELIVERED", to, ""), ("SENT", "", to)]
    assert machine.store.sent(1, "incomplete").exists()
    assert not machine.store.sent(1, "delivery").exists()


@pytest.mark.parametrize("umask", [0o022, 0o077, 0o000])
def test_a_new_mailbox_and_its_copy_belong_to_the_user(machine, umask):
    machine.add_user("dora", 1500, gid=1700)
    assert_sent(machine, "--to", "dora", "hello", umask=umask)
    mailbox = machine.store.mailbox("dora")
    expected = {"": 0o700, "inbox/1": 0o644, **dict.fromkeys(FOLDERS, 0o755)}
    assert {name: mode(mailbox / name) for name in expected} == expected
    assert {owner(mailbox / name) for name in expected} == {(1500, 1700)}
    assert sorted(os.listdir(mailbox)) == sorted(FOLDERS)


def test_root_keeps_the_store_and_the_folder_of_mailboxes(machine):
    assert_sent(machine, "--to", "pat", "hello")
    assert owner(machine.store.top) == owner(machine.store.top / "users") == (0, 0)
    assert {facts[1] for name, facts in machine.store.tree().items()
            if name.startswith("sent")} == {0}


def test_the_copy_is_the_message_file_byte_for_byte(machine):
    assert_sent(machine, "--to", "pat", "--title", "T é", "--", input=b"one\n\n\xff two" * 3000)
    assert machine.store.mailbox("pat", "inbox", 1).read_bytes() == (
        machine.store.sent(1, "msg").read_bytes())
    assert os.listdir(machine.store.mailbox("pat", "inbox")) == ["1"]


def test_a_mailbox_of_root_is_given_to_the_user(machine):
    machine.store.create()
    machine.store.mailbox("pat").mkdir(mode=0o755)
    machine.store.mailbox("pat").chmod(0o755)
    assert_sent(machine, "--to", "pat", "hello")
    assert owner(machine.store.mailbox("pat")) == (1001, 1001)
    assert mode(machine.store.mailbox("pat")) == 0o755


def test_a_mailbox_of_someone_else_is_left_to_them(machine):
    machine.store.make_mailbox("pat")
    os.chown(machine.store.mailbox("pat"), machine.uid("sam"), 5)
    machine.store.mailbox("pat").chmod(0o755)
    assert_sent(machine, "--to", "pat", "hello")
    assert owner(machine.store.mailbox("pat")) == (machine.uid("sam"), 5)


def test_a_mailbox_that_shuts_its_user_out_gets_nothing(machine):
    machine.store.make_mailbox("pat")
    os.chown(machine.store.mailbox("pat"), machine.uid("sam"), machine.uid("sam"))
    assert_not_delivered(machine)
    assert list(machine.store.mailbox("pat", "inbox").iterdir()) == []


@pytest.mark.parametrize("kind", ["link", "dangling link", "file", "pipe"])
def test_what_is_no_directory_in_place_of_a_mailbox_is_refused(machine, kind):
    machine.store.create()
    place = machine.store.mailbox("pat")
    machine.path("/run/target").mkdir()
    os.chown(machine.path("/run/target"), machine.uid("pat"), -1)
    if kind == "file":
        place.write_bytes(b"in the way")
    elif kind == "pipe":
        os.mkfifo(place)
    else:
        place.symlink_to("/run/target" if kind == "link" else "/run/nothing")
    before = machine.store.tree()["users/pat"]
    assert_not_delivered(machine)
    assert machine.store.tree()["users/pat"] == before
    assert os.listdir(machine.path("/run/target")) == []
    assert not machine.path("/run/nothing").exists()


@pytest.mark.parametrize("folder", ["read", "acks"])
@pytest.mark.parametrize("kind", ["file", "dangling link", "folder"])
def test_a_message_that_was_read_or_confirmed_is_not_put_back(machine, folder, kind):
    mark = machine.store.make_mailbox("pat") / folder / "1"
    if kind == "file":
        mark.write_bytes(b"")
    elif kind == "folder":
        mark.mkdir()
    else:
        mark.symlink_to("nowhere")
    assert_sent(machine, "--to", "pat", "hello")
    assert list(machine.store.mailbox("pat", "inbox").iterdir()) == []
    assert machine.journal.events()[0] == ("DELIVERED", "pat", "0")


def test_a_long_copy_that_nobody_reads_does_not_end_the_send(machine):
    machine.store.mark_read("pat", 1)  # so the child ends without reading its input
    message = assert_sent(machine, "--to", "pat", "--title", "t" * 8000, input=b"a" * 65536)
    assert len(message["text"]) == 65537


def test_a_missing_folder_of_the_mailbox_is_made_again(machine):
    machine.store.make_mailbox("pat")
    for folder in FOLDERS:
        machine.store.mailbox("pat", folder).rmdir()
    assert_sent(machine, "--to", "pat", "hello")
    assert sorted(os.listdir(machine.store.mailbox("pat"))) == sorted(FOLDERS)


def test_an_earlier_copy_is_replaced_whole(machine):
    machine.store.write_as("pat", ("inbox", 1), b"an older and longer copy" * 1000)
    assert_sent(machine, "--to", "pat", "hello")
    assert machine.store.mailbox("pat", "inbox", 1).read_bytes() == (
        machine.store.sent(1, "msg").read_bytes())


@pytest.mark.parametrize("name", ["inbox/1", "inbox/1.tmp"])
def test_a_link_in_place_of_the_copy_is_replaced_not_followed(machine, name):
    victim = machine.write("/run/victim", "precious", 0o666)
    (machine.store.make_mailbox("pat") / name).symlink_to("/run/victim")
    assert_sent(machine, "--to", "pat", "hello")
    assert victim.read_bytes() == b"precious"
    assert stat.S_ISREG(machine.store.mailbox("pat", "inbox", 1).lstat().st_mode)
    assert os.listdir(machine.store.mailbox("pat", "inbox")) == ["1"]


def test_an_inbox_that_leads_elsewhere_is_written_with_the_user_s_rights_only(machine):
    machine.path("/run/roots").mkdir(mode=0o755)
    machine.store.make_mailbox("pat").joinpath("inbox").rmdir()
    machine.store.mailbox("pat", "inbox").symlink_to("/run/roots")
    assert_not_delivered(machine)
    assert os.listdir(machine.path("/run/roots")) == []


def test_a_folder_in_place_of_the_temporary_file_fails_the_delivery(machine):
    (machine.store.make_mailbox("pat") / "inbox/1.tmp").mkdir()
    assert_not_delivered(machine)


def test_a_folder_in_place_of_the_copy_fails_the_delivery_and_nothing_is_left(machine):
    (machine.store.make_mailbox("pat") / "inbox/1").mkdir()
    (machine.store.mailbox("pat", "inbox", 1) / "filled").write_bytes(b"")
    assert_not_delivered(machine)
    assert os.listdir(machine.store.mailbox("pat", "inbox")) == ["1"]


@pytest.mark.parametrize("folder", FOLDERS)
def test_a_file_in_place_of_a_folder(machine, folder):
    machine.store.make_mailbox("pat").joinpath(folder).rmdir()
    machine.store.mailbox("pat", folder).write_bytes(b"in the way")
    if folder == "inbox":
        assert_not_delivered(machine)
    else:  # an entry that is there is enough for making the folders
        assert_sent(machine, "--to", "pat", "hello")
    assert machine.store.mailbox("pat", folder).read_bytes() == b"in the way"


def test_a_mailbox_without_the_right_to_write_fails_the_delivery(machine):
    machine.store.make_mailbox("pat").joinpath("inbox").chmod(0o555)
    assert_not_delivered(machine)


def test_a_full_file_system_fails_the_delivery_and_leaves_no_half_copy(machine):
    machine.store.make_mailbox("pat")
    inbox = "/var/lib/tellbox/users/pat/inbox"
    machine.shell(f"mount -t tmpfs -o size=4096,mode=777 tmpfs {inbox}")
    result = machine.run("send", "--to", "pat", input=b"a" * 20000)
    assert result.stdout == "Message 1 delivered to 0 of 1 recipients.\n"
    assert machine.shell(f"ls -A {inbox}").stdout == ""


@pytest.mark.parametrize("failure", ["openat:error=EDQUOT", "write:error=ENOSPC:when=1",
                                     "close:error=EIO", "rename:error=EIO"])
def test_a_copy_whose_writing_fails_in_any_step_is_taken_away(machine, strace, failure):
    temporary = f"{machine.state_name}/users/pat/inbox/1.tmp"
    trace = machine.trace("openat,write,close,rename", "send", "--to", "pat", "hello",
                          inject=[failure], only_path=temporary)
    assert trace.result.stdout == "Message 1 delivered to 0 of 1 recipients.\n"
    assert os.listdir(machine.store.mailbox("pat", "inbox")) == []


def test_a_copy_that_does_not_stand_in_its_place_was_not_delivered(machine, strace):
    trace = machine.trace("rename", "send", "--to", "pat", "hello", inject=["rename:retval=0"],
                          only_path=f"{machine.state_name}/users/pat/inbox/1.tmp")
    assert trace.result.stdout == "Message 1 delivered to 0 of 1 recipients.\n"


def test_root_never_receives_a_copy(machine):
    assert_not_delivered(machine, to="root")
    assert os.listdir(machine.store.mailbox("root")) == []


def test_an_account_that_is_gone_when_its_turn_comes_is_not_reached(machine):
    process, gate = machine.send_held_at("alex", "--to", "alex,pat", "hello")
    machine.remove_user("pat")
    gate.open()
    assert tuple(process.wait()) == (
        "Message 1 delivered to 1 of 2 recipients.\n",
        "tbx: message 1 not delivered to: pat (see the log; the next tbx command will retry)\n", 1)
    assert not machine.store.mailbox("pat").exists()
