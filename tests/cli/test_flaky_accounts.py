"""A directory service that is down is not taken for one that does not know the account."""

import errno
import os

import pytest

from harness.flaky_accounts import FlakyAccounts, build

DATE = 1790000000
USERS = ("dora", "pat")

every_error = pytest.mark.parametrize("error", [
    errno.EAGAIN, errno.ECONNREFUSED, errno.ETIMEDOUT, errno.EUCLEAN, errno.ESTALE, errno.EPERM,
    errno.EIO, errno.EACCES, errno.EHOSTUNREACH], ids=errno.errorcode.get)


@pytest.fixture(scope="session")
def library(tmp_path_factory):
    return build(tmp_path_factory.mktemp("flaky"))


@pytest.fixture
def flaky(box, library):
    return FlakyAccounts(box, library)


def make_delivered(box, **options):
    box.store.make_message(7, to=USERS, copies=USERS,
                           delivered=[(user, DATE, 0) for user in USERS], **options)


def copies(box):
    return {user for user in USERS if box.store.mailbox(user, "inbox", 7).exists()}


@pytest.mark.parametrize("to", ["dora", "@painters", "all"])
def test_whom_only_the_service_knows_is_reached_while_it_answers(box, flaky, to):
    assert box.run("send", "--to", to, "hello").status == 0
    assert box.store.mailbox("dora", "inbox", 1).exists()


@every_error
@pytest.mark.parametrize("to, named", [("pat,dora", "dora"), ("@painters", "@painters"),
                                       ("all", "all")])
def test_a_send_to_whom_it_cannot_look_up_is_refused(box, flaky, error, to, named):
    before = box.store.tree()
    flaky.fail(error)
    assert tuple(box.run("send", "--to", to, "hello")) == (
        "", f"tbx: {named}: {os.strerror(error)}\n", 1)
    assert box.store.tree() == before


@every_error
def test_a_revocation_waits_for_the_service(box, flaky, error):
    make_delivered(box)
    flaky.fail(error)
    out, err, status = box.run("revoke", "7")
    assert (out, status) == ("", 1)
    assert "some copies could not be removed" in err
    assert copies(box) == {"dora"}
    flaky.answer()
    assert box.run("list").status == 0
    assert copies(box) == set()
    assert not box.store.sent(7, "revoking").exists()


@every_error
def test_a_purge_keeps_its_record_until_the_service_answers(box, flaky, error):
    make_delivered(box)
    flaky.fail(error)
    assert tuple(box.run("purge", "1d")) == (
        "Deleted 1 message older than 1d.\n", "tbx: some copies could not be removed from the "
        "mailboxes: the next tbx command will retry\n", 0)
    assert copies(box) == {"dora"}
    assert (box.store.top / "sent" / ".deleting-7" / "recipients").exists()
    flaky.answer()
    assert box.run("list").status == 0
    assert copies(box) == set()
    assert not (box.store.top / "sent" / ".deleting-7").exists()


@every_error
def test_the_states_of_whom_it_cannot_look_up_are_not_shown(box, flaky, error):
    make_delivered(box)
    flaky.fail(error)
    for arguments in (("list",), ("status", "7"), ("remind", "7")):
        result = box.run(*arguments)
        assert (result.stdout.count("\n") <= 1, result.status) == (True, 1)
        assert result.stderr == f"tbx: {box.state_name}/sent/7: {os.strerror(error)}\n"


def test_an_interrupted_send_is_completed_once_the_service_answers(box, flaky):
    box.store.make_message(7, to=USERS, markers=["incomplete"])
    flaky.fail(errno.ECONNREFUSED)
    assert "still not delivered to 1 recipients" in box.run("list").stderr
    assert copies(box) == {"pat"}
    flaky.answer()
    assert "completed delivery of message 7 to 1 recipients" in box.run("list").stderr
    assert copies(box) == set(USERS)


def test_an_author_that_cannot_be_looked_up_keeps_the_name_that_sudo_gave(box, flaky):
    make_delivered(box)
    flaky.fail(errno.ETIMEDOUT)
    box.store.make_message(8, to=["pat"], copies=["pat"], delivered=[("pat", DATE, 0)])
    assert box.run("revoke", "8", env={"SUDO_USER": "dora"}).status == 0
    assert [record["TBX_AUTHOR"] for record in box.journal.records()] == ["dora"]


def test_a_service_that_is_asked_first_is_missed_in_a_walk_too(box, flaky):
    box.write("/etc/nsswitch.conf", "passwd: flaky files\ngroup: flaky files\n")
    flaky.fail(errno.ECONNREFUSED)
    assert tuple(box.run("send", "--to", "all", "hello")) == (
        "", "tbx: all: Connection refused\n", 1)
