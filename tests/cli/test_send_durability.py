"""What a send has put on the disk at each step, and what a failing disk does to it."""

import re

import pytest

STATE = "/var/lib/box/state"
MESSAGE = f"{STATE}/sent/1"
SYNCS = "fsync,fdatasync,syncfs,sync"
CHANGES = "mkdir,mkdirat,open,openat,rename,renameat,renameat2,unlink,unlinkat,flock"


def short(path):
    return path.replace(f"{STATE}/", "").replace(STATE, ".")


def steps(trace):
    """The parent's changes and syncs as "name path" words, reads left out."""
    found = []
    for name, arguments, outcome in trace.of_parent():
        if outcome.startswith("-1"):
            continue
        if name in ("open", "openat"):
            path = re.search(r'"([^"]*)"', arguments)[1]
            if path.startswith(STATE) and "O_CREAT" in arguments:
                found.append(f"create {short(path)}")
        elif name in ("fsync", "syncfs", "flock"):
            path = re.match(r"\d+<([^>]*)>", arguments)[1]
            found.append(f"{name} {short(path)}")
            assert name != "flock" or arguments.endswith(", LOCK_EX")
        else:
            found.append(f"{name} " + " ".join(map(short, re.findall(r'"([^"]*)"', arguments))))
    return found


def written(path):
    """The steps of an atomic replacement."""
    return [f"create {path}.tmp", f"fsync {path}.tmp", f"rename {path}.tmp {path}"]


def test_every_step_is_on_the_disk_before_the_next_one_relies_on_it(box, strace):
    trace = box.trace(f"{CHANGES},{SYNCS}", "send", "--to", "pat", "hello")
    assert trace.result.status == 0
    assert steps(trace) == [
        "mkdir .", "mkdir users", "mkdir sent", "create sent/.seq.lock", "flock sent/.seq.lock",
        "mkdir sent/1", *written("sent/.seq"), "create sent/1/lock", "flock sent/1/lock",
        "create sent/1/incomplete", *written("sent/1/msg"), *written("sent/1/recipients"),
        "fsync sent/1/incomplete", "fsync sent/1", "fsync sent",
        "mkdirat pat", "create sent/1/delivery",
        "syncfs users", "fsync sent/1", "unlink sent/1/incomplete", "fsync sent/1"]


def test_files_of_the_store_are_created_privately_and_without_following_links(box, strace):
    trace = box.trace("openat", "send", "--to", "pat", "hello")
    created = [arguments.split(", ", 2) for _, arguments, _ in trace.of_parent()
               if STATE in arguments and "O_CREAT" in arguments]
    assert [short(path.strip('"')) for _, path, _ in created] == [
        "sent/.seq.lock", "sent/.seq.tmp", "sent/1/lock", "sent/1/incomplete", "sent/1/msg.tmp",
        "sent/1/recipients.tmp", "sent/1/delivery"]
    for _, path, how in created:
        flags, permissions = how.split(", ")
        wanted = {"O_WRONLY", "O_CREAT", "O_NOFOLLOW", "O_CLOEXEC"}
        if path.endswith('.tmp"'):
            wanted.add("O_EXCL")
        if path.endswith('/delivery"'):
            wanted.add("O_APPEND")
        # O_NONBLOCK may be there besides: it says what a pipe in the place does.
        assert (set(flags.split("|")) - {"O_NONBLOCK"}, permissions) == (wanted, "0600"), path


def test_the_sequence_lock_is_released_before_the_message_is_written(box, strace):
    trace = box.trace("close,openat", "send", "--to", "pat", "hello")
    order = [name if name == "close" else "open" for name, arguments, _ in trace.of_parent()
             if f"<{STATE}/sent/.seq.lock>" in arguments or f"{MESSAGE}/lock\"" in arguments]
    assert order == ["close", "open"]


def failing_send(box, calls, failure, path=None):
    """A send during which `failure` is injected; returns its Result."""
    return box.trace(calls, "send", "--to", "pat", "hello", inject=[failure],
                     only_path=path).result


def assert_cancelled_by_the_next_command(box):
    assert box.store.sent(1, "incomplete").exists()
    result = box.run("list")
    assert result.stderr == (
        "tbx: message 1 was interrupted before being saved and has been cancelled\n")
    assert box.journal.events()[-1] == ("CANCELLED", "", "")
    assert not box.store.mailbox("pat").exists()


@pytest.mark.parametrize("path", [f"{MESSAGE}/incomplete", MESSAGE, f"{STATE}/sent"])
def test_a_message_that_cannot_be_synced_is_taken_back(box, strace, path):
    result = failing_send(box, "fsync", "fsync:error=EIO:when=1", path)
    assert tuple(result) == ("", f"tbx: {MESSAGE}: Input/output error\n", 1)
    assert not box.store.sent(1, "msg").exists()
    assert box.store.sent(1, "recipients").exists()
    assert box.journal.records() == []
    assert_cancelled_by_the_next_command(box)


@pytest.mark.parametrize("path", [f"{MESSAGE}/msg.tmp", f"{MESSAGE}/recipients.tmp"])
@pytest.mark.parametrize("call,error,words", [
    ("fsync", "EIO", "Input/output error"), ("write", "ENOSPC", "No space left on device"),
    ("openat", "EDQUOT", "Disk quota exceeded"), ("rename", "EROFS", "Read-only file system")])
def test_a_message_that_cannot_be_written_is_cancelled(box, strace, path, call, error, words):
    result = failing_send(box, call, f"{call}:error={error}", path)
    assert tuple(result) == ("", f"tbx: {MESSAGE}: {words}\n", 1)
    assert not any(name.endswith(".tmp") for name in box.store.tree())
    assert_cancelled_by_the_next_command(box)


def assert_completed_by_the_next_command(box):
    """Everyone has the message already, so the recovery only removes the marker."""
    assert box.store.sent(1, "incomplete").exists()
    assert box.run("list").stderr == ""
    assert not box.store.sent(1, "incomplete").exists()
    assert box.journal.events() == [("DELIVERED", "pat", "1"), ("SENT", "", "pat")]


def test_copies_that_cannot_be_synced_leave_the_message_incomplete(box, strace):
    result = failing_send(box, "syncfs", "syncfs:error=EIO")
    assert tuple(result) == ("", f"tbx: {MESSAGE}: Input/output error\n", 1)
    assert_completed_by_the_next_command(box)


def test_a_delivery_log_that_cannot_be_synced_leaves_the_message_incomplete(box, strace):
    result = failing_send(box, "fsync", "fsync:error=EIO:when=2", MESSAGE)
    assert tuple(result) == ("", f"tbx: {MESSAGE}: Input/output error\n", 1)
    assert_completed_by_the_next_command(box)


def test_a_removed_marker_that_cannot_be_synced_is_an_error_all_the_same(box, strace):
    result = failing_send(box, "fsync", "fsync:error=EIO:when=3", MESSAGE)
    assert tuple(result) == ("", f"tbx: {MESSAGE}: Input/output error\n", 1)
    assert not box.store.sent(1, "incomplete").exists()
    assert box.journal.events() == [("DELIVERED", "pat", "1"), ("SENT", "", "pat")]


@pytest.mark.parametrize("call,error,words", [
    ("fsync", "EIO", "Input/output error"), ("write", "ENOSPC", "No space left on device"),
    ("openat", "EACCES", "Permission denied"), ("rename", "EIO", "Input/output error")])
def test_a_sequence_that_cannot_be_written_is_named(box, strace, call, error, words):
    result = failing_send(box, call, f"{call}:error={error}", f"{STATE}/sent/.seq.tmp")
    assert tuple(result) == ("", f"tbx: {STATE}/sent/.seq: {words}\n", 1)
    assert not (box.store.top / "sent/.seq.tmp").exists()
    assert not box.store.sent(1, "msg").exists()


@pytest.mark.parametrize("call,error,words", [
    ("openat", "EMFILE", "Too many open files"), ("newfstatat", "ENOMEM", "Cannot allocate memory"),
    ("read", "EIO", "Input/output error")])
def test_a_sequence_that_cannot_be_read_gives_no_identifier_twice(box, strace, call, error, words):
    box.store.create()
    box.store.write_private(box.store.sent(".seq"), b"7\n")
    result = failing_send(box, call, f"{call}:error={error}", f"{STATE}/sent/.seq")
    assert tuple(result) == ("", f"tbx: {STATE}/sent/.seq: {words}\n", 1)
    assert not box.store.sent(1).exists()
    assert box.run("send", "--to", "pat", "hello").stdout == "Message 8 sent to 1 user.\n"


@pytest.mark.parametrize("call,error,words", [
    ("openat", "EMFILE", "Too many open files"), ("flock", "ENOLCK", "No locks available")])
@pytest.mark.parametrize("lock,named", [("sent/.seq.lock", "sent/.seq.lock"),
                                        ("sent/1/lock", "sent/1")])
def test_a_lock_that_cannot_be_had_is_an_error(box, strace, call, error, words, lock, named):
    result = failing_send(box, call, f"{call}:error={error}", f"{STATE}/{lock}")
    assert tuple(result) == ("", f"tbx: {STATE}/{named}: {words}\n", 1)


@pytest.mark.parametrize("lock", ["sent/.seq.lock", "sent/1/lock"])
def test_an_interrupted_wait_for_a_lock_is_taken_up_again(box, strace, lock):
    result = failing_send(box, "flock", "flock:error=EINTR:when=1", f"{STATE}/{lock}")
    assert tuple(result) == ("Message 1 sent to 1 user.\n", "", 0)


@pytest.mark.parametrize("error,words", [("ENOSPC", "No space left on device"),
                                         ("EACCES", "Permission denied")])
def test_a_message_directory_that_cannot_be_made_is_named(box, strace, error, words):
    result = failing_send(box, "mkdir", f"mkdir:error={error}", MESSAGE)
    assert tuple(result) == ("", f"tbx: {MESSAGE}: {words}\n", 1)
    assert not (box.store.top / "sent/.seq").exists()


def test_a_failing_delivery_log_does_not_stop_the_send(box, strace):
    result = failing_send(box, "openat", "openat:error=EIO", f"{MESSAGE}/delivery")
    assert tuple(result) == ("Message 1 sent to 1 user.\n", "", 0)
    assert box.journal.events() == [("DELIVERED", "pat", "1"), ("SENT", "", "pat")]


def test_short_and_interrupted_writes_are_continued(box, strace):
    result = failing_send(box, "write", "write:error=EINTR:when=1..2+2", f"{MESSAGE}/msg.tmp")
    assert result.status == 0
    assert box.store.sent(1, "msg").read_bytes().endswith(b"\n\nhello\n")


@pytest.mark.parametrize("call", ["pipe2", "clone,clone3,fork,vfork"])
def test_a_child_that_cannot_be_started_fails_the_delivery(box, strace, call):
    result = failing_send(box, call, f"{call}:error=EAGAIN")
    assert result.stdout == "Message 1 delivered to 0 of 1 recipients.\n"
    assert box.journal.events() == [("NOT_DELIVERED", "pat", ""), ("SENT", "", "pat")]


def test_interrupted_waits_for_a_child_are_taken_up_again(box, strace):
    trace = box.trace("poll,ppoll,wait4,waitid", "send", "--to", "pat", "hello",
                      inject=["poll,ppoll:error=EINTR:when=1", "wait4,waitid:error=EINTR:when=1"])
    assert tuple(trace.result) == ("Message 1 sent to 1 user.\n", "", 0)


def test_the_copies_of_many_recipients_are_synced_once(box, strace):
    trace = box.trace(SYNCS, "send", "--to", "all", "hello")
    assert [name for name, _, _ in trace.calls].count("syncfs") == 1
    assert trace.of_children() == []
