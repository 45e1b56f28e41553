"""What a send leaves in the store, and how it gets its identifier."""

import fcntl
import os
import re
import stat
import time

import pytest

from harness.outcome import assert_fails, assert_sent
from harness.store import message_file
from harness.waiting import wait_for

STATE = "/var/lib/box/state"


def contents(box):
    """The regular files of the store and the mailboxes, by relative path."""
    return {name: facts[3] for name, facts in box.store.tree().items()
            if stat.S_ISREG(facts[0])}


def test_a_first_send_leaves_exactly_these_files(box):
    before = int(time.time())
    message = assert_sent(box, "--to", "sam,pat", "--title", "News", "--expires", "@5000000000",
                          "hello", "world", recipients=2)
    date = int(message["date"])
    assert before <= date <= int(time.time())
    files = contents(box)
    delivery = files.pop("sent/1/delivery").decode()
    copy = message_file(1, "hello world\n", title="News", date=date, expires=5000000000,
                        author=box.account_running_tests())
    assert files == {"sent/.seq": b"1\n", "sent/.seq.lock": b"", "sent/1/lock": b"",
                     "sent/1/msg": copy, "sent/1/recipients": b"pat\nsam\n",
                     "users/pat/inbox/1": copy, "users/sam/inbox/1": copy}
    first, second = re.fullmatch(r"pat (\d+) 1\nsam (\d+) 0\n", delivery).groups()
    assert date <= int(first) <= int(second) <= int(time.time())


def test_messages_are_numbered_from_one(box):
    for number in (1, 2, 3):
        assert_sent(box, "--to", "pat", "hello", message_id=number)
    assert (box.store.top / "sent/.seq").read_bytes() == b"3\n"
    assert sorted(os.listdir(box.store.mailbox("pat", "inbox"))) == ["1", "2", "3"]


def test_one_user_and_several_users_are_told_apart(box):
    assert box.run("send", "--to", "pat", "x").stdout == "Message 1 sent to 1 user.\n"
    assert box.run("send", "--to", "all", "x").stdout == "Message 2 sent to 4 users.\n"


def give_sequence(box, content, taken=()):
    box.store.create()
    if content is not None:
        box.store.write_private(box.store.top / "sent/.seq", content)
    for number in taken:
        box.store.sent(number).mkdir(mode=0o700)


@pytest.mark.parametrize("sequence,taken,expected", [
    (b"7\n", [8, 9], 10), (b"12\0\n", [], 1), (None, [1, 2], 3),
    (b"999999999999999998\n", [], 999999999999999999)])
def test_the_identifier_is_the_first_free_one_after_the_last(box, sequence, taken, expected):
    give_sequence(box, sequence, taken)
    assert_sent(box, "--to", "pat", "hello", message_id=expected)
    assert (box.store.top / "sent/.seq").read_bytes() == f"{expected}\n".encode()


@pytest.mark.parametrize("taken", [[], [999999999999999999]])
def test_the_identifiers_can_be_used_up(box, taken):
    give_sequence(box, b"999999999999999999\n" if not taken else b"999999999999999998\n", taken)
    before = box.store.tree()
    assert_fails(box, f"{STATE}/sent/.seq: Value too large for defined data type",
                 "send", "--to", "pat", "hello")
    assert {**box.store.tree(), "sent/.seq.lock": None} == {**before, "sent/.seq.lock": None}


def test_a_file_with_the_name_of_the_next_message_is_passed_over(box):
    box.store.create()
    box.store.sent(1).write_bytes(b"in the way")
    box.store.sent(2).symlink_to("nowhere")
    assert_sent(box, "--to", "pat", "hello", message_id=3)
    assert box.store.sent(1).read_bytes() == b"in the way"


def test_a_link_in_place_of_the_sequence_is_not_followed(box):
    box.store.create()
    box.path("/run/victim").write_bytes(b"41\n")
    (box.store.top / "sent/.seq").symlink_to("/run/victim")
    assert_sent(box, "--to", "pat", "hello", message_id=1)
    assert box.path("/run/victim").read_bytes() == b"41\n"
    assert not (box.store.top / "sent/.seq").is_symlink()


@pytest.mark.parametrize("name", ["sent/.seq.tmp", "users/pat/inbox/1.tmp"])
def test_a_link_in_place_of_a_temporary_file_is_removed_not_followed(box, name):
    box.store.make_mailbox("pat")
    box.path("/run/victim").write_bytes(b"precious")
    target = box.store.top / name
    target.symlink_to("/run/victim")
    assert_sent(box, "--to", "pat", "hello")
    assert box.path("/run/victim").read_bytes() == b"precious"
    assert not target.is_symlink()


def test_a_stale_temporary_file_does_not_stop_a_send(box):
    box.store.make_mailbox("pat")
    (box.store.top / "sent/.seq.tmp").write_bytes(b"half")
    box.store.write_as("pat", ("inbox", "1.tmp"), b"half")
    assert_sent(box, "--to", "pat", "hello")
    assert [name for name in box.store.tree() if name.endswith(".tmp")] == []


def test_a_link_in_place_of_the_sequence_lock_is_refused(box):
    box.store.create()
    box.path("/run/victim").write_bytes(b"")
    (box.store.top / "sent/.seq.lock").symlink_to("/run/victim")
    assert_fails(box, f"{STATE}/sent/.seq.lock: Too many levels of symbolic links",
                 "send", "--to", "pat", "hello")


def test_a_folder_in_place_of_the_sequence_lock_is_refused(box):
    box.store.create()
    (box.store.top / "sent/.seq.lock").mkdir()
    assert_fails(box, f"{STATE}/sent/.seq.lock: Is a directory", "send", "--to", "pat", "hello")


def test_a_pipe_in_place_of_the_sequence_lock_does_not_hold_a_send_up(box):
    box.store.create()
    os.mkfifo(box.store.top / "sent/.seq.lock")
    assert_fails(box, f"{STATE}/sent/.seq.lock: No such device or address",
                 "send", "--to", "pat", "hello", timeout=20)


def test_a_pipe_in_place_of_the_sequence_counts_as_none(box):
    box.store.create()
    os.mkfifo(box.store.top / "sent/.seq")
    assert_sent(box, "--to", "pat", "hello", message_id=1, timeout=20)
    assert (box.store.top / "sent/.seq").read_bytes() == b"1\n"


def test_a_folder_in_place_of_the_sequence_is_refused(box):
    box.store.create()
    (box.store.top / "sent/.seq").mkdir()
    assert_fails(box, f"{STATE}/sent/.seq: Is a directory", "send", "--to", "pat", "hello")
    assert not (box.store.top / "sent/.seq.tmp").exists()


@pytest.mark.parametrize("name", ["users", "sent"])
@pytest.mark.parametrize("kind", ["file", "link"])
def test_what_is_no_directory_in_place_of_users_or_sent_is_refused(box, name, kind):
    box.store.top.mkdir()
    box.path("/var/lib/box/other").mkdir()
    if kind == "file":
        (box.store.top / name).write_bytes(b"")
    else:
        (box.store.top / name).symlink_to("../other")
    result = box.run("send", "--to", "pat", "hello")
    assert re.fullmatch(rf"tbx: {STATE}: .+\n", result.stderr), result
    assert result.status == 1
    assert os.listdir(box.path("/var/lib/box/other")) == []


def test_a_state_directory_that_cannot_be_made_is_named(box):
    assert_fails(box, "/no/such/place: No such file or directory",
                 "send", "--to", "pat", "hello", env={"TBX_VAR": "/no/such/place"})


def test_a_state_directory_on_a_read_only_file_system_is_named(machine):
    machine.path("/run/frozen").mkdir()
    machine.shell("mount -t tmpfs -o ro tmpfs /run/frozen")
    assert_fails(machine, "/run/frozen/state: Read-only file system", "send", "--to", "pat",
                 "hello", env={"TBX_TEST": "1", "TBX_VAR": "/run/frozen/state"})


def test_directories_that_are_there_keep_their_modes(box):
    box.store.create()
    wanted = {"": 0o750, "users": 0o711, "sent": 0o755}
    for name, bits in wanted.items():
        (box.store.top / name).chmod(bits)
    assert_sent(box, "--to", "pat", "hello")
    assert {name: stat.S_IMODE((box.store.top / name).stat().st_mode) for name in wanted} == wanted


def test_a_state_directory_reached_through_a_link_is_used(box):
    box.path("/var/lib/box/real").mkdir()
    box.store.top.symlink_to("real")
    assert_sent(box, "--to", "pat", "hello")
    assert box.path("/var/lib/box/real/sent/1/msg").exists()


def test_foreign_files_in_the_store_are_left_alone(box):
    box.store.create()
    for name in ("notes", ".hidden", "12x", ".deleting-", ".deleting-abc"):
        (box.store.top / "sent" / name).write_bytes(b"foreign")
    before = box.store.tree()
    assert_sent(box, "--to", "pat", "hello")
    after = box.store.tree()
    assert {name: after[name] for name in before if name != "sent"} == {
        name: facts for name, facts in before.items() if name != "sent"}


def is_waiting_for_lock(process):
    with open("/proc/locks", encoding="ascii") as locks:
        return re.search(rf"-> FLOCK .* {process.pid()} ", locks.read())


def test_a_send_waits_for_another_one_to_take_its_identifier(box):
    box.store.create()
    with open(box.store.top / "sent/.seq.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        process = box.start("send", "--to", "pat", "hello")
        wait_for(lambda: is_waiting_for_lock(process))
        assert not box.store.sent(1).exists()
        fcntl.flock(lock, fcntl.LOCK_UN)
    assert process.wait().stdout == "Message 1 sent to 1 user.\n"


def test_sends_at_the_same_time_get_identifiers_of_their_own(box):
    processes = [box.start("send", "--to", "pat,sam", f"text {number}") for number in range(12)]
    lines = [process.wait().stdout for process in processes]
    assert sorted(lines) == sorted(f"Message {number} sent to 2 users.\n"
                                   for number in range(1, 13))
    assert (box.store.top / "sent/.seq").read_bytes() == b"12\n"
    texts = {box.store.mailbox("sam", "inbox", number).read_text(encoding="utf-8").split("\n")[-2]
             for number in range(1, 13)}
    assert texts == {f"text {number}" for number in range(12)}


# A send that cannot be marked.

@pytest.mark.parametrize("error, text", [("ENOSPC", "No space left on device"),
                                         ("EMFILE", "Too many open files"),
                                         ("EIO", "Input/output error")])
def test_a_send_that_cannot_be_marked_saves_nothing(box, strace, error, text):
    traced = box.trace("openat", "send", "--to", "pat", "hello", inject=[f"openat:error={error}"],
                       only_path=f"{box.state_name}/sent/1/incomplete")
    assert tuple(traced.result) == ("", f"tbx: {box.state_name}/sent/1: {text}\n", 1)
    assert [path.name for path in box.store.sent(1).iterdir()] == ["lock"]
    assert box.journal.events() == []
