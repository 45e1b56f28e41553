"""A send that is under way: who may touch its message, and how a revocation stops it."""

import fcntl
import signal

import pytest

from harness.waiting import wait_for


@pytest.fixture
def midway(machine):
    """A send to alex, pat and sam that waits with alex done: `.machine`, `.go_on()`."""
    return Midway(machine)


class Midway:
    """The stand-in for systemd-run, called for alex's desktop, holds the send up."""

    def __init__(self, machine):
        self.machine = machine
        self.process, self._gate = machine.send_held_at("alex", "--to", "alex,pat,sam", "hello")

    def revoke_by_hand(self):
        path = self.machine.store.sent(1, "revoked")
        self.machine.store.write_private(path, b"1790000000\n")

    def go_on(self):
        self._gate.open()
        return self.process.wait()


def lock_is_free(machine):
    with open(machine.store.sent(1, "lock"), "w", encoding="ascii") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_SH | fcntl.LOCK_NB)  # had beside any but an exclusive one
        except BlockingIOError:
            return False
    return True


def test_the_message_is_complete_on_disk_before_the_first_delivery_ends(midway):
    assert midway.machine.store.sent(1, "msg").read_bytes() == (
        midway.machine.store.mailbox("alex", "inbox", 1).read_bytes())
    assert midway.machine.store.sent(1, "recipients").read_bytes() == b"alex\npat\nsam\n"
    assert midway.machine.store.sent(1, "incomplete").exists()
    assert not midway.machine.store.mailbox("pat").exists()
    midway.go_on()


def test_the_agent_is_started_before_the_delivery_is_logged_and_recorded(midway):
    assert not midway.machine.store.sent(1, "delivery").exists()
    assert midway.machine.journal.records() == []
    midway.go_on()
    assert midway.machine.journal.events()[0] == ("DELIVERED", "alex", "0")


def test_the_lock_is_held_until_the_end(midway):
    assert not lock_is_free(midway.machine)
    midway.go_on()
    assert lock_is_free(midway.machine)


def test_other_commands_leave_a_message_that_is_being_sent_alone(midway):
    result = midway.machine.run("list")
    assert result.stderr == ""
    assert midway.machine.store.sent(1, "incomplete").exists()
    assert midway.go_on().stdout == "Message 1 sent to 3 users.\n"
    assert [event for event, _, _ in midway.machine.journal.events()] == [
        "DELIVERED", "DELIVERED", "DELIVERED", "SENT"]


def test_another_send_does_not_wait_for_one_that_is_delivering(midway):
    result = midway.machine.run("send", "--to", "kim", "second")
    assert (result.stdout, result.stderr) == ("Message 2 sent to 1 user.\n", "")
    midway.go_on()


def test_a_revocation_stops_the_delivery_before_the_next_recipient(midway):
    midway.revoke_by_hand()
    assert tuple(midway.go_on()) == (
        "Message 1 revoked while sending: delivery stopped.\n", "", 0)
    assert not midway.machine.store.mailbox("pat").exists()
    assert not midway.machine.store.mailbox("sam").exists()
    assert not midway.machine.store.sent(1, "incomplete").exists()


def test_a_stopped_delivery_is_recorded_with_all_resolved_recipients(midway):
    midway.revoke_by_hand()
    midway.go_on()
    assert midway.machine.journal.events() == [("DELIVERED", "alex", "0"),
                                               ("SENT", "", "alex pat sam")]


def test_even_a_dangling_link_is_a_revocation(midway):
    midway.machine.store.sent(1, "revoked").symlink_to("nowhere")
    assert midway.go_on().stdout == "Message 1 revoked while sending: delivery stopped.\n"


def test_a_revocation_being_prepared_does_not_stop_the_delivery(midway):
    midway.machine.store.write_private(midway.machine.store.sent(1, "revoking"), b"")
    assert midway.go_on().stdout == "Message 1 sent to 3 users.\n"


def test_a_revocation_after_the_last_recipient_is_reported_too(machine):
    process, gate = machine.send_held_at("pat", "--to", "pat", "hello")
    machine.store.write_private(machine.store.sent(1, "revoked"), b"1790000000\n")
    gate.open()
    assert process.wait().stdout == "Message 1 revoked while sending: delivery stopped.\n"


def test_failures_before_a_revocation_are_still_reported(machine):
    machine.add_group("mixed", 2000, ["aaron", "alex", "pat"])  # aaron has no account
    process, gate = machine.send_held_at("alex", "--to", "@mixed", "hello")
    machine.store.write_private(machine.store.sent(1, "revoked"), b"1790000000\n")
    gate.open()
    assert tuple(process.wait()) == (
        "Message 1 delivered to 2 of 3 recipients.\n",
        "tbx: message 1 not delivered to: aaron "
        "(see the log; the next tbx command will retry)\n", 1)
    assert not machine.store.mailbox("pat").exists()


def test_a_send_that_was_killed_is_completed_by_the_next_command(midway):
    machine = midway.machine
    midway.process.send_signal(signal.SIGKILL)
    midway.go_on()
    wait_for(lambda: lock_is_free(machine))
    machine.stand_in("systemd-run")
    result = machine.run("list")
    assert result.stderr == "tbx: completed delivery of message 1 to 3 recipients\n"
    assert machine.journal.events() == [("DELIVERED", "alex", ""), ("DELIVERED", "pat", ""),
                                        ("DELIVERED", "sam", ""), ("RECOVERED", "", "3")]


def test_a_stand_in_that_outlives_the_send_does_not_hold_its_lock(machine):
    machine.stand_in("systemd-run", "(exec sleep 60 >/dev/null 2>&1) &")
    machine.add_session("c1", "pat", kind="wayland")
    process = machine.start("send", "--to", "pat", "hello")
    assert process.wait().status == 0
    assert lock_is_free(machine)
