"""A look-up or read that fails says nothing: no command acts on it, whatever the error."""

import pytest

DATE = 1790000000
# Errors of a call on a path that say nothing about what stands there.
ERRORS = {"EIO": "Input/output error", "ENOMEM": "Cannot allocate memory",
          "EMFILE": "Too many open files", "ENFILE": "Too many open files in system",
          "EUCLEAN": "Structure needs cleaning", "ESTALE": "Stale file handle",
          "EAGAIN": "Resource temporarily unavailable", "ETIMEDOUT": "Connection timed out",
          "EPERM": "Operation not permitted", "EACCES": "Permission denied"}
every_error = pytest.mark.parametrize("error", ERRORS)
USERS = ("alex", "pat")
pytestmark = pytest.mark.usefixtures("strace")


def make_delivered(box, **options):
    box.store.make_message(7, to=USERS, copies=USERS,
                           delivered=[(user, DATE, 1) for user in USERS], **options)


def failing(box, call, name, error, *arguments, when=""):
    """Runs tbx while the calls on a file of message 7 fail; returns (stdout, stderr, status)."""
    path = f"{box.state_name}/sent/7/{name}"
    return tuple(box.trace(call, *arguments, inject=[f"{call}:error={error}{when}"],
                           only_path=path).result)


def failing_send(box, call, path):
    """Sends message 1 to pat while the calls on a file of the state directory fail."""
    return tuple(box.trace(call, "send", "--to", "pat", "hello", inject=[f"{call}:error=EIO"],
                           only_path=f"{box.state_name}/{path}").result)


def told(box, name, text):
    return ("", f"tbx: {box.state_name}/sent/7{name}: {text}\n", 1)


def without_lock(tree):
    return {path: facts for path, facts in tree.items() if not path.endswith("/lock")}


# Markers.

@pytest.mark.parametrize("arguments, name", [
    (("status", "7"), "failed"), (("status", "7"), "revoked"), (("status", "7"), "incomplete"),
    (("remind", "7"), "revoked"), (("revoke", "7"), "revoked")],
    ids=lambda value: value if isinstance(value, str) else value[0])
def test_a_marker_that_cannot_be_looked_up_ends_the_command(box, arguments, name):
    make_delivered(box, revoked=DATE if name == "revoked" else None)
    # Recovery looks for "incomplete" first.
    when = ":when=2+" if name == "incomplete" else ""
    out, err, status = failing(box, "newfstatat", name, "EIO", *arguments, when=when)
    assert (out, status) == ("", 1)
    assert err in (told(box, f"/{name}", "Input/output error")[1],
                   told(box, "", "Input/output error")[1])
    assert box.journal.events() == []
    for user in USERS:
        assert box.store.mailbox(user, "inbox", 7).exists()


@pytest.mark.parametrize("name", ["failed", "revoked"])
def test_list_ends_at_a_message_whose_marker_cannot_be_looked_up(box, name):
    make_delivered(box)
    out, err, status = failing(box, "newfstatat", name, "ENOMEM", "list")
    assert (out.count("\n"), err, status) == (
        1, told(box, "", "Cannot allocate memory")[1], 1)


@every_error
def test_purge_leaves_a_message_that_may_be_incomplete(box, error):
    make_delivered(box)
    before = box.store.tree()
    assert failing(box, "newfstatat", "incomplete", error, "purge", "1d") == (
        "No messages older than 1d.\n", "", 0)
    assert box.store.tree() == before


@every_error
def test_a_purge_forgets_no_mailbox_that_it_could_not_look_up(box, error):
    make_delivered(box)
    # The first mailbox is alex's. EPERM is taken for a kernel without the call.
    traced = box.trace("openat2", "purge", "1d", inject=[f"openat2:error={error}:when=2"])
    waits = ("tbx: some copies could not be removed from the mailboxes: the next tbx command will "
             "retry\n")
    assert tuple(traced.result) == ("Deleted 1 message older than 1d.\n",
                                    "" if error == "EPERM" else waits, 0)
    left = [path for path in (box.store.top / "sent").glob(".deleting-*")]
    assert bool(left) == (error != "EPERM") == box.store.mailbox("pat", "inbox", 7).exists()
    assert box.run("list").status == 0  # finishes what was left, if it was
    assert not box.store.mailbox("pat", "inbox", 7).exists()
    assert not (box.store.top / "sent" / ".deleting-7").exists()


def test_recovery_delivers_nothing_that_may_be_revoked(box):
    box.store.make_message(7, to=USERS, markers=["incomplete"], revoked=DATE)
    before = box.store.tree()
    _, err, status = failing(box, "newfstatat", "revoked", "EIO", "list")
    assert (err, status) == (told(box, "", "Input/output error")[1], 1)
    assert without_lock(box.store.tree()) == before


# Files.

@pytest.mark.parametrize("command", ["status", "log", "revoke", "remind"])
@every_error
def test_a_message_that_cannot_be_read_is_not_called_unknown(box, command, error):
    make_delivered(box)
    assert failing(box, "openat", "msg", error, command, "7") == told(box, "/msg", ERRORS[error])


@pytest.mark.parametrize("name", ["msg", "recipients", "delivery"])
@every_error
def test_recovery_leaves_a_message_whose_opened_file_cannot_be_looked_up(box, name, error):
    box.store.make_message(7, to=USERS, markers=["incomplete"], delivered=[("pat", DATE, 1)])
    before = box.store.tree()
    assert failing(box, "newfstatat", name, error, "list")[1:] == told(
        box, "", ERRORS[error])[1:]
    assert without_lock(box.store.tree()) == before


@pytest.mark.parametrize("command", ["status", "remind"])
@pytest.mark.parametrize("name", ["recipients", "delivery"])
def test_recipients_that_cannot_be_read_end_the_command(box, command, name):
    make_delivered(box)
    assert failing(box, "openat", name, "ENFILE", command, "7") == told(
        box, "", "Too many open files in system")
    assert box.journal.events() == []


@pytest.mark.parametrize("name", ["msg", "recipients", "delivery"])
@every_error
def test_list_shows_no_state_that_it_could_not_read(box, name, error):
    make_delivered(box)
    out, err, status = failing(box, "openat", name, error, "list")
    assert (out.count("\n"), err, status) == (1, told(box, "", ERRORS[error])[1], 1)


@pytest.mark.parametrize("call, error", [("openat2", "EMFILE"), ("pipe2", "EMFILE"),
                                         ("clone,fork,vfork", "EAGAIN")])
def test_list_that_cannot_look_into_the_mailboxes_ends_with_the_reason(box, call, error):
    make_delivered(box)
    traced = box.trace(call, "list",
                       inject=[f"{name}:error={error}" for name in call.split(",")])
    assert traced.result.stdout.count("\n") == 1
    assert tuple(traced.result)[1:] == told(box, "", ERRORS[error])[1:]


def test_a_revocation_waits_for_the_recipients_to_be_readable(box):
    make_delivered(box)
    out, err, status = failing(box, "openat", "recipients", "EIO", "revoke", "7")
    assert (out, status) == ("", 1)
    assert err.startswith("tbx: message 7 revoked, but some copies could not be removed")
    assert box.store.sent(7, "revoking").exists()
    assert box.run("list").status == 0
    assert not box.store.mailbox("pat", "inbox", 7).exists()


def test_a_log_that_cannot_be_mended_gets_no_further_line(box):
    box.store.make_message(7, to=USERS, markers=["incomplete"])
    box.store.write_private(box.store.sent(7, "delivery"), f"alex {DATE} 1\npa".encode())
    before = box.store.tree()
    assert failing(box, "openat", "delivery", "EMFILE", "list", when=":when=1")[1:] == ("", 0)
    assert without_lock(box.store.tree()) == before


def test_a_copy_that_cannot_be_looked_up_is_not_called_removed(box):
    make_delivered(box)
    calls = "newfstatat,unlink"
    traced = box.trace(calls, "revoke", "7", only_path=f"{box.state_name}/users/pat/inbox/7",
                       inject=["newfstatat:error=EIO", "unlink:error=EIO"])
    assert traced.result.status == 1
    assert box.store.sent(7, "revoking").exists()
    assert box.store.mailbox("pat", "inbox", 7).exists()


@every_error
def test_a_mailbox_that_cannot_be_looked_up_keeps_the_revocation_unfinished(box, error):
    make_delivered(box)
    traced = box.trace("openat2", "revoke", "7", inject=[f"openat2:error={error}:when=2"])
    assert traced.result.status == (0 if error == "EPERM" else 1)
    left = box.store.mailbox("pat", "inbox", 7).exists()
    assert box.store.sent(7, "revoking").exists() == left == (error != "EPERM")


def test_a_folder_that_hides_its_copy_keeps_the_revocation_unfinished(machine):
    machine.store.make_message(7, delivered=[("pat", DATE, 0)], copies=["pat"])
    machine.store.mailbox("pat", "inbox").chmod(0)
    out, err, status = machine.run("revoke", "7")
    assert (out, status) == ("", 1)
    assert err.endswith("the next tbx command will retry\n")
    assert machine.store.sent(7, "revoking").exists()


def test_a_folder_that_cannot_be_opened_for_want_of_memory_is_left_for_later(box):
    make_delivered(box)
    box.store.sent(7).rename(box.store.top / "sent" / ".deleting-7")
    path = f"{box.state_name}/sent/.deleting-7"
    traced = box.trace("fcntl", "list", inject=["fcntl:error=EIO"], only_path=path)
    assert traced.result.status == 0
    assert box.run("list").status == 0
    assert not (box.store.top / "sent" / ".deleting-7").exists()


def test_a_revocation_whose_time_cannot_be_read_is_not_dated(box):
    make_delivered(box, revoked=DATE)
    assert failing(box, "openat", "revoked", "EIO", "status", "7") == (
        told(box, "", "Input/output error"))
    out, err, status = failing(box, "openat", "revoked", "EIO", "list")
    assert (out.count("\n"), err, status) == (1, told(box, "", "Input/output error")[1], 1)


def test_a_send_stops_where_it_cannot_tell_whether_it_was_revoked(box):
    out, err, status = failing_send(box, "newfstatat", "sent/1/revoked")
    assert (out, err, status) == (
        "", f"tbx: {box.state_name}/sent/1/revoked: Input/output error\n", 1)
    assert box.store.sent(1, "incomplete").exists()
    assert not box.store.mailbox("pat", "inbox", 1).exists()
    assert box.run("list").status == 0
    assert box.store.mailbox("pat", "inbox", 1).exists()


def test_a_revocation_waits_for_a_send_that_may_be_unfinished(box):
    make_delivered(box, markers=["incomplete", "revoking"])
    before = without_lock(box.store.tree())
    assert failing(box, "newfstatat", "incomplete", "EIO", "list")[1:] == ("", 0)
    assert without_lock(box.store.tree()) == before


@pytest.mark.parametrize("folder", ["read", "acks"])
def test_a_copy_is_not_brought_back_where_it_may_have_been_read(box, folder):
    (box.store.make_mailbox("pat") / folder / "1").touch()
    out, err, status = failing_send(box, "newfstatat", f"users/pat/{folder}/1")
    assert (out, status) == ("Message 1 delivered to 0 of 1 recipients.\n", 1)
    assert not box.store.mailbox("pat", "inbox", 1).exists()


# Recipients.

@every_error
@pytest.mark.parametrize("item, path", [
    ("online", "/run/systemd/sessions/"), ("online", "/run/systemd/sessions/2"),
    ("online", "/etc/login.defs"), ("all", "/etc/login.defs")])
def test_nobody_is_left_out_because_of_a_file_that_cannot_be_read(box, item, path, error):
    box.add_session("1", "pat")
    box.add_session("2", "sam")
    before = box.store.tree()
    traced = box.trace("openat", "send", "--to", item, "hello", only_path=path,
                       inject=[f"openat:error={error}"])
    out, err, status = traced.result
    assert (out, err.splitlines()[-1], status) == ("", f"tbx: {item}: {ERRORS[error]}", 1)
    assert box.store.tree() == before


def test_a_session_that_ends_meanwhile_is_no_error(box):
    box.add_session("1", "pat")
    box.add_session("2", "sam")
    traced = box.trace("openat", "send", "--to", "online", "hello",
                       only_path="/run/systemd/sessions/2", inject=["openat:error=ENOENT"])
    assert tuple(traced.result) == ("Message 1 sent to 1 user.\n", "", 0)


# What a careless starter leaves behind.

def test_an_ignored_end_of_children_does_not_hide_their_result(box):
    ignoring = ["/bin/sh", "-c", "trap '' CHLD; exec \"$@\"", "sh"]
    assert tuple(box.run("send", "--to", "pat", "--expires", "tomorrow", "hello",
                         wrap=ignoring)) == ("Message 1 sent to 1 user.\n", "", 0)
