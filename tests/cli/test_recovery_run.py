"""What an interrupted run left is finished by the next command."""

import fcntl
import os

import pytest
from harness.stopped import Call, run_failing
from harness.store import message_file, replace_by

DATE = 1790000000
FUTURE = 4000000000
CANCELLED = "tbx: message 7 was interrupted before being saved and has been cancelled\n"


def warned(machine, *arguments):
    """Runs a command (list by default) that must succeed; returns what recovery said."""
    machine.journal.clear()
    result = machine.run(*(arguments or ("list",)))
    assert result.status == 0
    return result.stderr


def marker_stands(machine, name="incomplete"):
    return machine.store.sent(7, name).exists()


# An interrupted send.

def test_a_saved_message_is_delivered_to_whoever_lacks_it(box):
    content = box.store.make_message(7, to=("alex", "pat", "sam"), markers=["incomplete"],
                                     delivered=[("alex", DATE, 1)], copies=["alex"])
    assert warned(box) == "tbx: completed delivery of message 7 to 2 recipients\n"
    assert not marker_stands(box)
    for user in ("alex", "pat", "sam"):
        assert box.store.mailbox(user, "inbox", 7).read_bytes() == content
    log = box.store.sent(7, "delivery").read_text().split("\n")
    assert [row.split()[::2] for row in log[:-1]] == [["alex", "1"], ["pat", "0"], ["sam", "0"]]
    assert box.journal.events() == [("DELIVERED", "pat", ""), ("DELIVERED", "sam", ""),
                                    ("RECOVERED", "", "2")]


def test_recovery_writes_to_no_terminal(box):
    box.store.make_message(7, markers=["incomplete"])
    assert warned(box) == "tbx: completed delivery of message 7 to 1 recipients\n"
    assert box.terminal.read_bytes() == b""


def test_a_second_run_finds_nothing_to_do(box):
    box.store.make_message(7, markers=["incomplete"])
    warned(box)
    before = box.store.tree()
    assert warned(box) == ""
    assert (box.store.tree(), box.journal.events()) == (before, [])


def test_where_the_log_names_everybody_only_the_mark_goes(box):
    content = box.store.make_message(7, to=("alex", "pat"), markers=["incomplete"],
                                     delivered=[("alex", DATE, 0), ("pat", DATE, 0)])
    assert warned(box) == ""
    assert not marker_stands(box)
    assert box.store.mailbox("pat", "inbox", 7).read_bytes() == content
    assert box.journal.events() == []


def test_half_a_copy_of_one_who_is_named_is_made_whole(box):
    content = box.store.make_message(7, markers=["incomplete"], delivered=[("pat", DATE, 0)])
    box.store.write_as("pat", ("inbox", 7), content[:10])
    box.store.write_as("pat", ("inbox", "7.tmp"), content[:20])
    warned(box)
    assert box.store.mailbox("pat", "inbox", 7).read_bytes() == content
    assert not box.store.mailbox("pat", "inbox", "7.tmp").exists()


@pytest.mark.parametrize("folder", ["read", "acks"])
def test_who_has_read_it_does_not_get_it_again(box, folder):
    box.store.make_message(7, markers=["incomplete"])
    box.store.write_as("pat", (folder, 7), b"")
    assert warned(box) == "tbx: completed delivery of message 7 to 1 recipients\n"
    assert not box.store.mailbox("pat", "inbox", 7).exists()


def test_a_deleted_account_keeps_the_mark_and_is_told_each_time(box):
    box.store.make_message(7, to=("gone", "pat"), markers=["incomplete"])
    still = "tbx: message 7 still not delivered to 1 recipients (see tbx status 7)\n"
    assert warned(box) == "tbx: completed delivery of message 7 to 1 recipients\n" + still
    assert box.journal.events() == [("DELIVERED", "pat", ""), ("RECOVERED", "", "1")]
    assert marker_stands(box)
    assert warned(box) == still
    assert box.journal.events() == []
    assert marker_stands(box)


@pytest.mark.parametrize("options", [{"revoked": DATE + 1}, {"expires": DATE + 1}],
                         ids=["revoked", "expired"])
def test_what_is_over_is_not_delivered_any_more(box, options):
    box.store.make_message(7, markers=["incomplete"], **options)
    assert warned(box) == ""
    assert not marker_stands(box)
    assert not box.store.mailbox("pat").exists()
    assert box.journal.events() == []


def test_a_message_that_expires_later_is_delivered(box):
    box.store.make_message(7, markers=["incomplete"], expires=FUTURE)
    assert warned(box) == "tbx: completed delivery of message 7 to 1 recipients\n"


@pytest.mark.parametrize("msg, to", [
    (False, ("pat",)), (b"", ("pat",)), (b"no date\n\n", ("pat",)),
    (message_file(7, "x" * 73728), ("pat",)), (None, None), (None, ()),
], ids=["no message", "empty", "undated", "oversized", "no recipients file", "no recipients"])
def test_what_was_not_saved_is_cancelled(box, msg, to):
    box.store.make_message(7, msg=msg, to=to, markers=["incomplete"])
    assert warned(box) == CANCELLED
    assert not marker_stands(box)
    assert box.store.sent(7, "failed").read_text().strip().isdigit()
    assert box.store.sent(7, "failed").stat().st_mode & 0o777 == 0o600
    assert box.journal.events() == [("CANCELLED", "", "")]


def test_a_cancellation_is_told_once_and_not_before_it_is_done(box, strace):
    box.store.make_message(7, to=None, markers=["incomplete"])
    stuck = Call("unlink", f"{box.state_name}/sent/7/incomplete")
    assert run_failing(box, stuck, "EIO", "list").stderr == ""
    assert box.journal.events() == []
    assert warned(box) == CANCELLED
    assert box.journal.events() == [("CANCELLED", "", "")]


def test_a_cancelled_message_stays_cancelled(box):
    box.store.make_message(7, msg=b"", markers=["incomplete"])
    assert "[send cancelled: interrupted before it was saved]" in box.run("list").stdout
    assert warned(box) == ""


@pytest.mark.parametrize("kind", ["link", "pipe", "folder"])
def test_a_message_file_that_is_none_cancels(box, kind):
    box.store.make_message(7, markers=["incomplete"])
    replace_by(kind, box.store.sent(7, "msg"))
    assert warned(box) == CANCELLED


def test_a_torn_last_line_of_the_log_spoils_no_later_one(box):
    box.store.make_message(7, to=("alex", "pat"), markers=["incomplete"])
    box.store.write_private(box.store.sent(7, "delivery"), f"alex {DATE} 1\npa".encode())
    assert warned(box) == "tbx: completed delivery of message 7 to 1 recipients\n"
    rows = box.store.sent(7, "delivery").read_text().split("\n")
    assert [row.split()[:1] for row in rows] == [["alex"], ["pat"], []]


@pytest.mark.parametrize("error", ["EIO", "EMFILE", "ENFILE", "ENOMEM"])
@pytest.mark.parametrize("name", ["msg", "recipients", "delivery"])
def test_a_read_that_fails_for_want_of_resources_decides_nothing(box, strace, name, error):
    box.store.make_message(7, to=("alex", "pat"), markers=["incomplete"],
                           delivered=[("alex", DATE, 1)])
    before = box.store.tree()
    path = f"{box.state_name}/sent/7/{name}"
    traced = box.trace("openat", "list", inject=[f"openat:error={error}"], only_path=path)
    assert traced.result.status == 1 # list cannot read it either
    assert traced.result.stderr.startswith(f"tbx: {box.state_name}/sent/7: ")
    after = box.store.tree()
    after.pop("sent/7/lock")
    assert after == before


def test_the_copies_are_on_the_disk_before_the_mark_goes(box, strace):
    box.store.make_message(7, markers=["incomplete"])
    calls = box.trace("syncfs,fsync,unlink", "list").calls
    ends = [(name, arguments) for name, arguments, _ in calls
            if name == "syncfs" or "sent/7" in arguments]
    assert [name for name, _ in ends] == ["syncfs", "fsync", "unlink"]
    assert "sent/7/incomplete" in ends[-1][1]


@pytest.mark.parametrize("call", ["syncfs", "fsync"])
def test_a_sync_that_fails_keeps_the_mark(box, strace, call):
    box.store.make_message(7, markers=["incomplete"])
    box.trace(call, "list", inject=[f"{call}:error=EIO"])
    assert marker_stands(box)
    assert warned(box) == ""
    assert not marker_stands(box)


def test_recovered_copies_belong_to_their_users(machine):
    content = machine.store.make_message(7, to=("pat", "sam"), markers=["incomplete"])
    assert warned(machine) == "tbx: completed delivery of message 7 to 2 recipients\n"
    for user in ("pat", "sam"):
        copy = machine.store.mailbox(user, "inbox", 7)
        assert copy.read_bytes() == content
        assert copy.stat().st_uid == machine.uid(user)
        assert copy.stat().st_mode & 0o777 == 0o644


def test_the_agent_is_started_for_who_newly_has_it(machine):
    machine.store.make_message(7, to=("pat", "sam"), markers=["incomplete"],
                               delivered=[("pat", DATE, 0)])
    for number, user in enumerate(("pat", "sam")):
        machine.add_session(f"c{number}", user, kind="wayland")
    warned(machine)
    assert [call[1] for call in machine.systemd_run.calls()] == ["--machine=sam@.host"]


# Which commands recover.

@pytest.mark.parametrize("arguments", [
    ("list",), ("status", "8"), ("revoke", "8"), ("remind", "8"), ("log", "8"),
    ("send", "--to", "pat", "hello")], ids=lambda arguments: arguments[0])
def test_these_commands_recover_first(box, arguments):
    box.store.make_message(7, markers=["incomplete"])
    box.store.make_message(8, delivered=[("pat", DATE, 0)])
    assert warned(box, *arguments) == "tbx: completed delivery of message 7 to 1 recipients\n"
    assert not marker_stands(box)


@pytest.mark.parametrize("arguments", [("purge", "9d"), ("version",), ("help",), ()],
                         ids=["purge", "version", "help", "no command"])
def test_these_do_not(box, arguments):
    box.store.make_message(7, markers=["incomplete"])
    before = box.store.tree()
    assert tuple(box.run(*arguments))[1:] == ("", 0)
    assert box.store.tree() == before


@pytest.mark.parametrize("arguments", [("list", "x"), ("status", "8", "9"), ("nosuch",)])
def test_a_mistake_on_the_command_line_recovers_nothing(box, arguments):
    box.store.make_message(7, markers=["incomplete"])
    before = box.store.tree()
    assert box.run(*arguments).status == 1
    assert box.store.tree() == before


# Locks.

def test_a_message_that_another_run_holds_is_left_alone(box):
    box.store.make_message(7, markers=["incomplete", "revoking"])
    box.store.make_message(8, markers=["incomplete"])
    with open(box.store.sent(7, "lock"), "wb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        assert warned(box) == "tbx: completed delivery of message 8 to 1 recipients\n"
        assert marker_stands(box)
        assert marker_stands(box, "revoking")
    assert warned(box) == "tbx: completed delivery of message 7 to 1 recipients\n"


def test_a_lock_that_cannot_be_opened_leaves_the_message_alone(box):
    box.store.make_message(7, markers=["incomplete"])
    box.store.sent(7, "lock").symlink_to("elsewhere")
    assert warned(box) == ""
    assert marker_stands(box)
    assert not box.store.sent(7, "elsewhere").exists()


# Interrupted revocations and purges.

def test_a_revocation_is_finished(box):
    box.store.make_message(7, to=("alex", "gone", "pat"), copies=["alex", "pat"], revoked=DATE,
                           delivered=[("alex", DATE, 0), ("pat", DATE, 0)], markers=["revoking"])
    box.store.mark_shown("pat", 7, DATE)
    box.store.confirm("pat", 7, DATE)
    assert warned(box) == ""
    assert not marker_stands(box, "revoking")
    for user in ("alex", "pat"):
        assert not box.store.mailbox(user, "inbox", 7).exists()
    assert not box.store.mailbox("pat", "state", "7.term").exists()
    assert box.store.mailbox("pat", "acks", 7).exists()
    assert box.journal.events() == []


def test_a_copy_that_cannot_be_removed_keeps_the_mark(machine):
    machine.store.make_message(7, copies=["pat"], delivered=[("pat", DATE, 0)], revoked=DATE,
                               markers=["revoking"])
    machine.store.mailbox("pat", "inbox").chmod(0o555)
    assert warned(machine) == ""
    assert marker_stands(machine, "revoking")
    machine.store.mailbox("pat", "inbox").chmod(0o755)
    assert warned(machine) == ""
    assert not marker_stands(machine, "revoking")


def test_a_send_and_a_revocation_are_finished_in_one_pass(box):
    box.store.make_message(7, copies=["pat"], revoked=DATE, markers=["incomplete", "revoking"])
    assert warned(box) == ""
    assert not marker_stands(box)
    assert not marker_stands(box, "revoking")
    assert not box.store.mailbox("pat", "inbox", 7).exists()


def test_a_purge_is_finished(box):
    box.store.make_message(7, to=("gone", "pat"), copies=["pat"], delivered=[("pat", DATE, 0)])
    box.store.confirm("pat", 7, DATE)
    box.store.confirm("pat", 8, DATE)
    box.store.sent(7).rename(box.store.top / "sent" / ".deleting-7")
    assert warned(box) == ""
    assert os.listdir(box.store.top / "sent") == []
    assert not box.store.mailbox("pat", "inbox", 7).exists()
    assert not box.store.mailbox("pat", "acks", 7).exists()
    assert box.store.mailbox("pat", "acks", 8).exists()


@pytest.mark.parametrize("name", [".deleting-abc", ".deleting-", ".deleting-7x", ".deleting--7",
                                  ".deleting-" + "1" * 19, "deleting-7", ".deleting7"])
def test_a_folder_that_only_looks_like_it_is_left_alone(box, name):
    box.store.create()
    folder = box.store.top / "sent" / name
    folder.mkdir()
    (folder / "msg").write_bytes(b"")
    assert warned(box) == ""
    assert (folder / "msg").exists()


def test_a_link_with_such_a_name_is_not_followed(box):
    box.store.create()
    elsewhere = box.store.top / "elsewhere"
    elsewhere.mkdir()
    (elsewhere / "precious").write_bytes(b"")
    (box.store.top / "sent" / ".deleting-7").symlink_to("../elsewhere")
    assert warned(box) == ""
    assert (elsewhere / "precious").exists()


def test_a_purge_waits_for_the_recipients_to_be_readable(box, strace):
    box.store.make_message(7, copies=["pat"], delivered=[("pat", DATE, 0)])
    box.store.sent(7).rename(box.store.top / "sent" / ".deleting-7")
    path = f"{box.state_name}/sent/.deleting-7/recipients"
    box.trace("openat", "list", inject=["openat:error=EIO"], only_path=path)
    assert box.store.mailbox("pat", "inbox", 7).exists()
    assert warned(box) == ""
    assert not box.store.mailbox("pat", "inbox", 7).exists()
    assert not (box.store.top / "sent" / ".deleting-7").exists()
