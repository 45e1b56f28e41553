"""The life of a message: confirmations, reminders, revocation, purge, interruptions."""

import time

import pytest

from furnished import CROWD
from harness.store import short_time
from harness.waiting import PATIENCE_SECONDS, await_condition


def states(machine, message_id=1):
    """What `tbx status` says of each recipient."""
    table = machine.tbx("status", str(message_id)).stdout.split("\n\n", 1)[1]
    return dict(line.split(maxsplit=1) for line in table.splitlines()[1:])


def summary(machine, message_id=1):
    """The last column of `tbx list` for a message."""
    for line in machine.tbx("list").stdout.splitlines():
        if line.split()[0] == str(message_id):
            return line[61:].strip()
    return None


def confirmed_at(machine, user, message_id=1):
    return short_time(int(machine.mailbox(user, "acks", message_id).read_text().split()[0]))


def halfway(machine):
    """A send to pat and sam that has been stopped when pat had the copy and sam had not."""
    machine.open_terminal("pat").stop()  # keeps the send waiting there for a while
    send = machine.launch("send", "--to", "pat,sam", "hello")
    await_condition(machine.mailbox("pat", "inbox", 1).exists, PATIENCE_SECONDS, "the first copy")
    send.pause()
    assert not machine.mailbox("sam").exists()
    return send


# ---- Answers ------------------------------------------------------------------------------

@pytest.mark.parametrize("channel", ["terminal", "desktop"])
def test_a_confirmation_is_shown_with_its_time_and_channel(machine, channel):
    machine.send("--to", "pat,sam", "hello", recipients=2)
    machine.answer("pat", "confirm", "1", channel)
    assert states(machine) == {"pat": f"confirmed on {confirmed_at(machine, 'pat')} ({channel})",
                               "sam": "delivered"}
    assert summary(machine) == "1 confirmed · 1 delivered"


def test_a_postponement_is_shown_with_its_time(machine):
    machine.open_terminal("pat")
    machine.send("--to", "pat", "hello")
    machine.answer("pat", "postpone", "1", "terminal")
    when = short_time(machine.mailbox("pat", "state", "1.term").stat().st_mtime)
    assert states(machine) == {"pat": f"delivered, written to 1 terminal, postponed on {when}"}


def test_a_message_that_all_have_confirmed_says_so(machine):
    machine.send("--to", "@crew", "hello", recipients=3)
    for user in ("pat", "alex", "robot"):
        machine.answer(user, "confirm", "1", "terminal")
    assert summary(machine) == "all confirmed (3)"


def test_a_confirmation_after_the_expiry_does_not_count(machine):
    machine.send("--to", "pat", "--expires", "+1 second", "hello")
    expires = int(machine.header(1, "expires"))
    await_condition(lambda: time.time() >= expires + 1, PATIENCE_SECONDS, "the expiry")
    machine.answer("pat", "confirm", "1", "terminal")
    assert states(machine) == {
        "pat": "delivered, not confirmed (expired; confirmation arrived after the expiry)"}


def test_a_reminder_reaches_those_who_have_not_confirmed(machine):
    machine.send("--to", "@crew", "hello", recipients=3)
    machine.answer("pat", "confirm", "1", "terminal")
    machine.answer("alex", "postpone", "1", "terminal")
    assert machine.tbx("remind", "1").stdout == "Message 1: 2 recipients reminded.\n"
    assert not machine.mailbox("alex", "state", "1.term").exists()
    assert states(machine)["alex"] == "delivered"


def test_nobody_is_reminded_of_what_all_have_confirmed(machine):
    machine.send("--to", "pat", "hello")
    machine.answer("pat", "confirm", "1", "terminal")
    assert machine.tbx("remind", "1").stdout == (
        "Message 1: everyone has already confirmed, nobody to remind.\n")


# ---- Withdrawing --------------------------------------------------------------------------

def test_a_revoked_message_is_gone_from_the_mailboxes_but_confirmations_stay(machine):
    machine.send("--to", "pat,sam", "hello", recipients=2)
    machine.answer("pat", "confirm", "1", "terminal")
    machine.answer("sam", "postpone", "1", "desktop")
    assert machine.tbx("revoke", "1").stdout == "Message 1 revoked.\n"
    assert machine.mailbox("pat", "acks", 1).exists() and machine.mailbox("pat", "read", 1).exists()
    assert not machine.mailbox("sam", "inbox", 1).exists()
    assert not machine.mailbox("sam", "state", "1.gui").exists()
    assert states(machine) == {
        "pat": f"confirmed on {confirmed_at(machine, 'pat')} (terminal)",
        "sam": "delivered, not confirmed (revoked)"}


def test_a_revocation_stops_a_send_that_is_under_way(machine):
    send = halfway(machine)
    revoke = machine.launch("revoke", "1")
    await_condition(machine.sent(1, "revoked").exists, PATIENCE_SECONDS, "the mark")
    send.resume()
    assert send.wait() == ("Message 1 revoked while sending: delivery stopped.\n", "", 0)
    assert revoke.wait() == ("Message 1 revoked.\n", "", 0)
    assert machine.terminals_written() == {"pat": 0}
    assert not machine.mailbox("pat", "inbox", 1).exists()
    assert not machine.mailbox("sam").exists()


def test_a_purge_removes_the_message_and_all_its_files_from_the_mailboxes(machine):
    machine.send("--to", "pat,sam", "old", recipients=2)
    machine.send("--to", "pat", "new", message_id=2)
    machine.answer("pat", "confirm", "1", "terminal")
    machine.answer("sam", "postpone", "1", "desktop")
    machine.make_older(1, 7200)
    assert machine.tbx("purge", "1h").stdout == "Deleted 1 message older than 1h.\n"
    assert sorted(path.name for path in machine.store("sent").iterdir()) == [
        ".seq", ".seq.lock", "2"]
    left = [path for user in ("pat", "sam") for path in machine.mailbox(user).glob("*/*")]
    assert left == [machine.mailbox("pat", "inbox", 2)]


def test_an_account_that_was_deleted_hinders_nothing(machine):
    machine.run("useradd", "-m", "leaver")
    machine.send("--to", "leaver,pat", "hello", recipients=2)
    machine.run("userdel", "-r", "leaver")
    assert states(machine) == {"leaver": "delivered", "pat": "delivered"}
    assert machine.tbx("remind", "1").stdout == "Message 1: 1 recipient reminded.\n"
    assert machine.tbx("revoke", "1").stdout == "Message 1 revoked.\n"
    assert machine.tbx("purge", "0m").returncode == 0


# ---- Several at once, and interruptions ---------------------------------------------------

def test_twenty_sends_at_once_have_identifiers_of_their_own(machine):
    sends = [machine.launch("send", "--to", "pat,sam", f"text {n}") for n in range(20)]
    outcomes = sorted(send.wait() for send in sends)
    assert outcomes == sorted((f"Message {n} sent to 2 users.\n", "", 0) for n in range(1, 21))
    for user in ("pat", "sam"):
        texts = {machine.mailbox(user, "inbox", n).read_text().rsplit("\n\n")[1]
                 for n in range(1, 21)}
        assert texts == {f"text {n}\n" for n in range(20)}


def test_a_send_that_is_under_way_is_left_alone_by_other_commands(machine):
    send = halfway(machine)
    assert machine.tbx("list").stderr == ""
    assert machine.sent(1, "incomplete").exists()
    send.resume()
    assert send.wait() == ("Message 1 sent to 2 users.\n", "", 0)


@pytest.fixture
def killed_send(machine):
    """The machine after kill -9 of a send to 200, which had reached the first 99."""
    machine.open_terminal(CROWD[99]).stop()  # keeps the send waiting there
    send = machine.launch("send", "--to", "@crowd", "hello")
    await_condition(machine.mailbox(CROWD[99], "inbox", 1).exists, PATIENCE_SECONDS, "copy 100")
    send.kill()
    assert list(machine.terminals_written()) == CROWD[:99]
    assert not machine.mailbox(CROWD[100]).exists()
    return machine


def test_the_next_command_completes_a_send_that_was_killed(killed_send):
    result = killed_send.tbx("list")
    assert (result.stderr, result.returncode) == (
        "tbx: completed delivery of message 1 to 101 recipients\n", 0)
    assert [line.split()[0] for line in killed_send.lines(1, "delivery")] == CROWD
    message = killed_send.sent(1, "msg").read_bytes()
    assert {killed_send.mailbox(user, "inbox", 1).read_bytes() for user in CROWD} == {message}
    assert not killed_send.sent(1, "incomplete").exists()
    assert summary(killed_send) == "200 delivered"


def test_the_journal_tells_who_was_reached_before_and_after_a_kill(killed_send):
    killed_send.tbx("list")
    delivered = killed_send.records("TBX_EVENT=DELIVERED")
    assert [record["TBX_USER"] for record in delivered] == CROWD
    assert [record["TBX_DETAILS"] for record in delivered] == ["0"] * 99 + [""] * 101
    recovered, = killed_send.records("TBX_EVENT=RECOVERED")
    assert recovered["TBX_DETAILS"] == "101"


def test_a_send_that_was_killed_is_completed_once_by_commands_at_the_same_time(killed_send):
    runs = [killed_send.launch("status", "1") for _ in range(5)]
    errors = [run.wait()[1] for run in runs]
    assert sorted(errors)[-1] == "tbx: completed delivery of message 1 to 101 recipients\n"
    assert sorted(errors)[:-1] == [""] * 4
    assert [line.split()[0] for line in killed_send.lines(1, "delivery")] == CROWD


def test_a_revocation_after_a_kill_takes_back_what_was_delivered(killed_send):
    result = killed_send.tbx("revoke", "1")
    assert (result.stdout, result.returncode) == ("Message 1 revoked.\n", 0)
    assert not any(killed_send.mailbox(user, "inbox", 1).exists() for user in CROWD)
