"""status: one message in full, with the state of every recipient."""

import os

import pytest
from harness.outcome import assert_fails
from harness.store import message_file, replace_by, short_time

DATE = 1790000000
FUTURE = 4000000000
WHEN = DATE + 50
RETRY = ("sent, not delivered: the copy could not be written (see the log; the next tbx command "
         "will retry)")


def status(machine, message_id=7):
    out, err, code = machine.run("status", str(message_id))
    assert (err, code) == ("", 0)
    return out


def states(machine, message_id=7):
    """The recipients' lines as (user, state)."""
    below = status(machine, message_id).split(f"{'USER':<16} STATE\n")[1]
    return [(row[:16].rstrip(), row[17:]) for row in below.split("\n")[:-1]]


def make_delivered(box, terminals=0, **options):
    box.store.make_message(7, delivered=[("pat", DATE, terminals)], **options)


# The heading and the text.

def test_the_whole_page_of_a_message(box):
    box.store.make_message(7, "Hello\n\nworld\n", title="News", author="kim",
                           to=("alex", "pat"), delivered=[("pat", DATE, 2)])
    assert status(box) == (
        f"Message 7 · News · {short_time(DATE)} · from kim\n"
        "  │ Hello\n  │ \n  │ world\n\n"
        "USER             STATE\n"
        "alex             sent, not delivered\n"
        "pat              delivered, written to 2 terminals\n")


def test_an_untitled_message_is_headed_by_its_date(box):
    make_delivered(box)
    assert status(box).startswith(f"Message 7 · {short_time(DATE)} · from root\n  │ Hello\n\n")


def test_a_text_without_a_final_newline_is_shown_whole(box):
    make_delivered(box, text="one\ntwo")
    assert "\n  │ one\n  │ two\n\nUSER" in status(box)


def test_an_empty_text_leaves_the_empty_line(box):
    make_delivered(box, text="")
    assert status(box).startswith(f"Message 7 · {short_time(DATE)} · from root\n\nUSER")


def test_a_revoked_message_says_when(box):
    make_delivered(box, revoked=WHEN)
    assert f"from root\nREVOKED on {short_time(WHEN)}\n  │ Hello" in status(box)


def test_a_revocation_without_a_time_counts_from_the_beginning(box):
    make_delivered(box)
    box.store.write_private(box.store.sent(7, "revoked"), b"")
    assert f"from root\nREVOKED on {short_time(0)}\n" in status(box)


def test_an_expired_message_says_so_below(box):
    make_delivered(box, revoked=WHEN, expires=WHEN)
    assert f"from root\nREVOKED on {short_time(WHEN)}\nEXPIRED\n  │ Hello" in status(box)


def test_a_message_that_will_expire_does_not_say_so(box):
    make_delivered(box, expires=FUTURE)
    assert "EXPIRED" not in status(box)


def test_leading_zeros_name_the_same_message(box):
    make_delivered(box)
    out, _, code = box.run("status", "007")
    assert code == 0
    assert out.startswith("Message 7 · ")


def test_the_identifier_shown_is_that_of_the_folder(box):
    box.store.make_message(7, msg=message_file(99), delivered=[("pat", DATE, 0)])
    assert status(box).startswith("Message 7 · ")


# One recipient's state.

@pytest.mark.parametrize("terminals, text", [
    (0, "delivered"), (1, "delivered, written to 1 terminal"), ("many", "delivered")])
def test_a_delivered_message_tells_on_how_many_terminals(box, terminals, text):
    make_delivered(box, terminals)
    assert states(box) == [("pat", text)]


def test_the_first_line_of_the_delivery_log_counts(box):
    box.store.make_message(7, delivered=[("pat", DATE, 2), ("pat", DATE + 1, 0)])
    assert states(box) == [("pat", "delivered, written to 2 terminals")]


def test_a_message_that_was_shown_is_postponed(box):
    make_delivered(box, 1)
    box.store.mark_shown("pat", 7, WHEN, "term")
    box.store.mark_shown("pat", 7, WHEN + 120, "gui")
    assert states(box) == [
        ("pat", f"delivered, written to 1 terminal, postponed on {short_time(WHEN + 120)}")]


def test_a_message_shown_at_the_epoch_is_not_postponed(box):
    make_delivered(box)
    box.store.mark_shown("pat", 7, 0)
    assert states(box) == [("pat", "delivered")]


@pytest.mark.parametrize("ack, text", [
    (f"{WHEN} on the desktop\nmore\n".encode(),
     f"confirmed on {short_time(WHEN)} (on the desktop)"),
    (b"", f"confirmed on {short_time(0)} (?)"),
    (f"{WHEN} ".encode() + b"x" * 500, f"confirmed on {short_time(WHEN)} ({'x' * 189})"),
], ids=["first line", "empty file", "long"])
def test_a_confirmation_is_shown_with_its_channel(box, ack, text):
    make_delivered(box)
    box.store.write_as("pat", ("acks", 7), ack)
    assert states(box) == [("pat", text)]


def test_a_confirmation_without_a_delivery_does_not_count(box):
    box.store.make_message(7)
    box.store.confirm("pat", 7, WHEN)
    assert states(box) == [("pat", "sent, not delivered")]


def test_a_copy_that_could_not_be_written_is_told_while_it_is_retried(box):
    box.store.make_message(7, to=("gone", "pat"), delivered=[("pat", DATE, 0)],
                           markers=["incomplete"])
    result = box.run("status", "7")
    assert result.stderr == (
        "tbx: message 7 still not delivered to 1 recipients (see tbx status 7)\n")
    assert f"gone             {RETRY}\npat              delivered\n" in result.stdout


REVOKED = "delivered, not confirmed (revoked)"
LATE = "delivered, not confirmed (expired; confirmation arrived after the expiry)"
CONFIRMED = f"confirmed on {short_time(WHEN)} (terminal)"


@pytest.mark.parametrize("options, is_confirmed, text", [
    ({"expires": WHEN - 1}, True, LATE),
    ({"revoked": WHEN}, True, CONFIRMED),
    ({"revoked": FUTURE, "expires": WHEN - 1}, False, REVOKED),
], ids=["late", "at the revocation", "expired and revoked"])
def test_why_a_confirmation_is_missing_or_does_not_count(box, options, is_confirmed, text):
    make_delivered(box, 3, **options)
    box.store.mark_shown("pat", 7, WHEN)
    if is_confirmed:
        box.store.confirm("pat", 7, WHEN)
    assert states(box) == [("pat", text)]


def test_recipients_stand_in_the_order_of_their_file(box):
    box.store.make_message(7, to=("sam", "pat", "alex"))
    assert [user for user, _ in states(box)] == ["sam", "pat", "alex"]


def test_a_message_without_recipients_shows_only_the_heading(box):
    box.store.make_message(7, to=None)
    assert states(box) == []


def test_of_the_mailboxes_only_what_concerns_the_message_is_read(box, strace):
    for message_id in range(1, 10):
        box.store.make_message(message_id, delivered=[("pat", DATE, 1)])
        box.store.confirm("pat", message_id, WHEN, "terminal")
    trace = box.trace("openat", "status", "7")
    assert trace.result.stdout.endswith(f"pat              {CONFIRMED}\n")
    read = [arguments.split('"')[1] for name, arguments, _ in trace.of_children()]
    assert [path for path in read if not path.startswith("/")] == ["acks/7"]


# What a user may have put in place of a confirmation.

@pytest.mark.parametrize("kind", ["pipe", "folder", "link to nothing"])
def test_what_is_no_regular_file_is_no_confirmation(box, kind):
    make_delivered(box)
    path = box.store.make_mailbox("pat") / "acks" / "7"
    if kind == "pipe":
        os.mkfifo(path)
    elif kind == "folder":
        path.mkdir()
    else:
        path.symlink_to("nowhere")
    assert states(box) == [("pat", "delivered")]


def test_a_link_to_what_the_user_may_not_read_shows_nothing_of_it(machine):
    make_delivered(machine)
    machine.write("/etc/secret", "1790000050 the secret\n", mode=0o600)
    (machine.store.make_mailbox("pat") / "acks" / "7").symlink_to("/etc/secret")
    assert states(machine) == [("pat", "delivered")]


def test_a_link_to_what_the_user_may_read_counts_as_their_word(machine):
    make_delivered(machine)
    machine.write("/etc/public", f"{WHEN} terminal\n", mode=0o644)
    (machine.store.make_mailbox("pat") / "acks" / "7").symlink_to("/etc/public")
    assert states(machine) == [("pat", CONFIRMED)]


def test_folders_that_cannot_be_listed_hide_no_confirmation(machine):
    make_delivered(machine)
    machine.store.confirm("pat", 7, WHEN)
    machine.store.mailbox("pat", "acks").chmod(0o311)
    assert states(machine) == [("pat", CONFIRMED)]


def test_a_mailbox_that_is_a_link_is_not_looked_into(machine):
    make_delivered(machine)
    machine.store.confirm("pat", 7, WHEN)
    replace_by("link", machine.store.mailbox("pat"))
    assert states(machine) == [("pat", "delivered")]


# Refusals.

def test_an_unknown_identifier_is_named_as_typed(box):
    make_delivered(box)
    assert_fails(box, "no such message: 008", "status", "008")


def test_a_cancelled_message_is_refused(box):
    box.store.make_message(7, failed=DATE)
    assert_fails(box, "message 7 was cancelled: sending was interrupted before it was saved",
                 "status", "7")


def test_a_cancelled_message_that_was_never_saved_is_unknown(box):
    box.store.make_message(7, msg=False, to=None, failed=DATE)
    assert_fails(box, "no such message: 7", "status", "7")
