"""list: one line per message, with how far it got."""

import re

import pytest
from harness.store import message_file, replace_by, short_time

DATE = 1790000000
FUTURE = 4000000000
HEADING = f"{'ID':<5} {'DATE':<12} {'TEXT':<40}  RECIPIENTS"


def line(message_id, text, recipients, date=DATE):
    return f"{message_id:<5} {short_time(date):<12} {text:<40.40}  {recipients}"


def listed(machine):
    """The lines below the heading; list must end well and say nothing else."""
    out, err, status = machine.run("list")
    assert (err, status) == ("", 0)
    lines = out.split("\n")
    assert lines[0] == HEADING
    assert lines[-1] == ""
    return lines[1:-1]


# No messages.

def test_without_a_store_there_are_no_messages_and_none_is_made(box):
    assert tuple(box.run("list")) == ("No messages sent.\n", "", 0)
    assert not box.store.top.exists()


def test_an_empty_store_has_no_messages(box):
    box.store.create()
    assert tuple(box.run("list")) == ("No messages sent.\n", "", 0)


def test_a_link_in_place_of_the_store_counts_as_no_store(box):
    box.store.make_message(1, delivered=[("pat", DATE, 0)])
    replace_by("link", box.store.top / "sent")
    assert tuple(box.run("list")) == ("No messages sent.\n", "", 0)


def test_an_entry_that_is_no_identifier_is_not_listed(box):
    box.store.create()
    for name in (".seq", ".deleting-x", "1.tmp", "x", "1" * 19):
        (box.store.top / "sent" / name).mkdir()
    assert tuple(box.run("list")) == ("No messages sent.\n", "", 0)


# One line.

def test_a_nul_byte_in_a_damaged_copy_ends_the_text_and_not_the_line(box):
    damaged = message_file(7, "Hello\n").replace(b"Hello", b"Hel\0lo")
    box.store.make_message(7, msg=damaged, delivered=[("pat", DATE, 1)])
    assert listed(box) == [line(7, "Hel", "1 delivered")]


def test_a_line_shows_identifier_date_text_and_recipients(box):
    box.store.make_message(7, "Hello\n", delivered=[("pat", DATE, 1)])
    assert listed(box) == [line(7, "Hello", "1 delivered")]


def test_messages_are_listed_by_number(box):
    for message_id in (12, 9, 100):
        box.store.make_message(message_id, delivered=[("pat", DATE, 0)])
    assert [row.split()[0] for row in listed(box)] == ["9", "12", "100"]


def test_only_the_first_line_of_a_text_is_shown(box):
    box.store.make_message(7, "one\ntwo\n", delivered=[("pat", DATE, 0)])
    assert listed(box) == [line(7, "one", "1 delivered")]


def test_a_text_is_cut_at_forty_characters_not_bytes(box):
    box.store.make_message(7, "é" * 50 + "\n", delivered=[("pat", DATE, 0)])
    assert listed(box) == [line(7, "é" * 40, "1 delivered")]


def test_a_date_that_cannot_be_shown_is_a_question_mark(box):
    box.store.make_message(7, date=10**17, delivered=[("pat", DATE, 0)])
    assert listed(box) == [f"7     {'?':<12} {'Hello':<40}  1 delivered"]


# How far it got.

def confirmed(box, *users):
    for user in users:
        box.store.confirm(user, 7, DATE + 50)


USERS = ("pat", "alex", "sam")
GOT_BY = {"none": (), "two": ("pat", "alex"), "all": USERS}


@pytest.mark.parametrize("delivered, confirming, text", [
    ("all", USERS, "all confirmed (3)"),
    ("two", ("pat",), "1 confirmed · 1 delivered · 1 sent"),
    ("none", USERS, "3 sent"),
])
def test_the_recipients_are_counted_by_state(box, delivered, confirming, text):
    box.store.make_message(7, to=USERS, delivered=[(u, DATE, 0) for u in GOT_BY[delivered]])
    confirmed(box, *confirming)
    assert listed(box) == [line(7, "Hello", text)]


@pytest.mark.parametrize("options, prefix", [
    ({"revoked": DATE + 9}, "[revoked] "),
    ({"expires": DATE + 9}, "[expired] "),
    ({"revoked": DATE + 9, "expires": DATE + 9}, "[revoked] [expired] "),
    ({"expires": FUTURE}, "")], ids=["revoked", "expired", "both", "not yet"])
def test_a_message_that_is_over_says_so_before_its_text(box, options, prefix):
    box.store.make_message(7, delivered=[("pat", DATE, 0)], **options)
    assert listed(box) == [line(7, f"{prefix}Hello", "1 delivered")]


def test_a_confirmation_counts_up_to_the_revocation(box):
    box.store.make_message(7, delivered=[("pat", DATE, 0)], revoked=DATE + 49)
    confirmed(box, "pat")
    assert listed(box) == [line(7, "[revoked] Hello", "1 delivered")]


def test_a_revocation_without_a_time_lets_every_confirmation_count(box):
    box.store.make_message(7, delivered=[("pat", DATE, 0)])
    box.store.write_private(box.store.sent(7, "revoked"), b"soon\n")
    confirmed(box, "pat")
    assert listed(box) == [line(7, "[revoked] Hello", "all confirmed (1)")]


def test_an_account_that_is_gone_keeps_what_the_log_says(box):
    box.store.make_message(7, to=("gone",), delivered=[("gone", DATE, 0)])
    assert listed(box) == [line(7, "Hello", "1 delivered")]


def test_recipients_are_any_words_of_the_file(box):
    box.store.make_message(7, to=None, delivered=[("pat", DATE, 0)])
    box.store.write_private(box.store.sent(7, "recipients"), b" pat\talex\n\n sam")
    assert listed(box) == [line(7, "Hello", "1 delivered · 2 sent")]


# Cancelled and damaged messages.

def test_a_cancelled_message_is_named_as_such(box):
    box.store.make_message(7, failed=DATE)
    box.store.make_message(8, msg=False, to=None, failed=DATE)
    cancelled = "[send cancelled: interrupted before it was saved]"
    assert listed(box) == [f"7     {'-':<12} {cancelled}", f"8     {'-':<12} {cancelled}"]


def test_messages_that_cannot_be_read_are_passed_over(box):
    for number, msg in enumerate([False, b"no date\n", message_file(7, "x" * 73728)], start=5):
        box.store.make_message(number, msg=msg)
    box.store.make_message(8, delivered=[("pat", DATE, 0)])
    assert listed(box) == [line(8, "Hello", "1 delivered")]


@pytest.mark.parametrize("kind", ["link", "pipe", "folder"])
@pytest.mark.parametrize("name", ["msg", "recipients"])
def test_what_is_no_file_of_the_store_is_not_read(box, name, kind):
    box.store.make_message(7, delivered=[("pat", DATE, 0)])
    replace_by(kind, box.store.sent(7, name))
    assert listed(box) == []


def test_a_delivery_log_that_is_a_link_names_nobody(box):
    box.store.make_message(7, delivered=[("pat", DATE, 0)])
    replace_by("link", box.store.sent(7, "delivery"))
    assert listed(box) == [line(7, "Hello", "1 sent")]


def test_damaged_lines_of_the_delivery_log_are_passed_over(box):
    box.store.make_message(7, to=("pat", "sam"))
    box.store.write_private(box.store.sent(7, "delivery"), b"\n  \npat\n\xff\xfe 1 1\nsa")
    assert listed(box) == [line(7, "Hello", "1 delivered · 1 sent")]


def test_a_message_without_recipients_is_passed_over(box):
    box.store.make_message(7, to=())
    assert listed(box) == []


def test_a_plain_file_with_a_number_for_a_name_is_passed_over(box):
    box.store.create()
    (box.store.top / "sent" / "7").write_bytes(b"date: 5\n\n")
    assert listed(box) == []


def test_a_store_that_cannot_be_listed_is_reported(box, strace):
    box.store.make_message(7, delivered=[("pat", DATE, 0)])
    traced = box.trace("getdents64", "list", inject=["getdents64:error=EIO:when=3+"])
    assert traced.result.status == 1
    assert re.fullmatch(r"tbx: \S*/sent: Input/output error\n", traced.result.stderr)


def test_what_cannot_be_printed_is_an_error(box):
    box.store.make_message(7, delivered=[("pat", DATE, 0)])
    with open("/dev/full", "wb") as full:
        result = box.start("list", stdout=full.fileno()).wait()
    assert (result.stderr, result.status) == (
        "tbx: standard output: No space left on device\n", 1)
