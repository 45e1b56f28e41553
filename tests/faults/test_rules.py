"""The judge of the trials condemns whatever breaks a rule."""

import stat

import pytest
from cases import CASES
from rules import Broken
from syncs import SyncRules
from told import check_events, check_told
from tracing import Run

SEND = CASES["send to two users, one without a mailbox"]
REVOKE = CASES["revoke what two users have"]
PURGE = CASES["purge two of three messages"]
FILE, FOLDER = stat.S_IFREG | 0o600, stat.S_IFDIR | 0o700


class Ended:
    """A run that nothing disturbed, and what it left."""

    def __init__(self, bench):
        self.judge = bench.judge()
        self.run, tree = bench.disturbed(self.judge)
        self.tree = dict(tree)
        self.uid = bench.machine.uid("pat")

    def outcome(self):
        return self.judge.settled(self.tree, self.run, self.tree)

    def change(self, path, content):
        self.tree[path] = (*self.tree[path][:3], content)

    def add(self, path, content=b"", mode=FILE, uid=0):
        self.tree[path] = (mode, uid, uid, content)

    def remove(self, *paths):
        for path in paths:
            del self.tree[path]


@pytest.fixture
def sent(new_bench):
    return Ended(new_bench(SEND))


@pytest.fixture
def revoked(new_bench):
    return Ended(new_bench(REVOKE))


@pytest.fixture
def purged(new_bench):
    return Ended(new_bench(PURGE))


def test_what_a_send_leaves_is_found_delivered(sent):
    assert sent.outcome() == {7: "untouched", 8: "delivered"}


def half(content):
    return content[:len(content) // 2]


@pytest.mark.parametrize("path", ["sent/8/msg", "sent/8/recipients", "users/pat/inbox/8"])
def test_half_a_file_under_a_final_name_is_found(sent, path):
    sent.change(path, half(sent.tree[path][3]))
    with pytest.raises((Broken, ValueError)):
        sent.judge.check_always(sent.tree)


@pytest.mark.parametrize("path", ["users/pat/inbox/8", "users/sam/inbox/8", "sent/8/delivery",
                                  "sent/7/msg", "users/sam/inbox/7", "users/sam/acks/7"])
def test_a_file_that_is_lost_is_found(sent, path):
    sent.remove(path)
    with pytest.raises(Broken):
        sent.outcome()


@pytest.mark.parametrize("path", ["sent/8/incomplete", "sent/8/failed", "sent/8/odd",
                                  "sent/8/msg.tmp", "users/kim/inbox/8", "users/pat/inbox/8.tmp",
                                  "users/pat/read/8", "users/pat/state/8.gui", "sent/.deleting-8",
                                  "sent/7/revoked"])
def test_a_file_that_has_no_place_is_found(sent, path):
    sent.add(path, b"1790000000\n")
    with pytest.raises((Broken, KeyError)):
        sent.outcome()


def test_a_wrong_owner_or_mode_is_found(sent):
    path = "users/pat/inbox/8"
    mode, uid, gid, content = sent.tree[path]
    for facts in ((mode, 0, 0, content), (stat.S_IFREG | 0o666, uid, gid, content)):
        sent.tree[path] = facts
        with pytest.raises(Broken, match="belongs to|has mode"):
            sent.judge.check_always(sent.tree)


@pytest.mark.parametrize("log", [b"pat 1790000000 1\nsa", b"pat 1790000000 0\n",
                                 b"papat 1790000000 1\nsam 1790000000 0\n",
                                 b"pat 1 0\nsam 1 0\npat 1 0\n"])
def test_a_torn_spoiled_or_repeated_line_of_the_log_is_found(sent, log):
    sent.change("sent/8/delivery", log)
    with pytest.raises(Broken):
        sent.outcome()


def test_a_second_message_of_one_send_is_found(sent):
    for name in ("msg", "recipients", "delivery"):
        sent.add(f"sent/9/{name}", sent.tree[f"sent/8/{name}"][3])
    sent.add("sent/9", None, FOLDER)
    with pytest.raises(Broken, match="header of message 9"):
        sent.outcome()


def test_success_that_is_told_too_early_is_found(sent):
    for change in (lambda: sent.add("sent/8/incomplete"),
                   lambda: sent.remove("users/pat/inbox/8")):
        change()
        with pytest.raises(Broken, match="told that it was sent"):
            check_told(sent.judge, sent.run, sent.tree, [], "")


def test_an_event_that_is_missing_or_repeated_is_found(sent):
    records = [("SENT", "8", "", "pat sam")]
    check_events(sent.judge, sent.run, records)
    for wrong in ([], records * 2, [*records, ("SENT", "7", "", "pat")]):
        with pytest.raises(Broken):
            check_events(sent.judge, sent.run, wrong)


def test_a_copy_that_a_revocation_left_is_found(revoked):
    assert revoked.outcome() == {7: "revoked", 8: "untouched"}
    revoked.add("users/pat/inbox/7", revoked.tree["sent/7/msg"][3], stat.S_IFREG | 0o644,
                revoked.uid)
    with pytest.raises(Broken, match="still have it"):
        revoked.outcome()


def test_a_confirmation_that_a_revocation_took_is_found(revoked):
    revoked.remove("users/pat/acks/7")
    with pytest.raises(Broken, match="has lost"):
        revoked.outcome()


def test_a_withdrawal_without_the_mark_is_found(revoked):
    revoked.remove("sent/7/revoked")
    with pytest.raises(Broken, match="withdrawn and not marked"):
        revoked.outcome()


def test_what_a_purge_left_is_found(purged):
    assert purged.outcome() == {7: "gone", 8: "gone", 9: "untouched"}
    purged.add("users/sam/read/8", b"", stat.S_IFREG | 0o644, purged.uid + 2)
    with pytest.raises(Broken):
        purged.outcome()


def test_a_number_of_deleted_messages_that_is_wrong_is_found(purged):
    result = purged.run.result
    result.stdout = "Deleted 1 message older than 90d.\n"
    with pytest.raises(Broken, match="Deleted 1 message"):
        check_told(purged.judge, Run(result, []), purged.tree, [], "")


# The order of writes and syncs: each sync of a run is needed.

def needed_syncs(ended):
    """Each sync with those that would do its work: of the same place, with no other step between
    that relies on it, as a purge makes them."""
    syncs = [call for call in ended.run.calls if call.name in ("fsync", "syncfs")]
    if ended.run.stdout.startswith("Deleted"):
        return [[call for call in syncs if call.path == path]
                for path in {call.path for call in syncs}]
    return [[call] for call in syncs]


def without(calls, *dropped):
    return [call for call in calls if all(call is not one for one in dropped)]


@pytest.mark.parametrize("name", [SEND.name, REVOKE.name, PURGE.name])
def test_a_sync_that_is_left_out_is_found(new_bench, name):
    bench = new_bench(CASES[name])
    ended = Ended(bench)
    for syncs in needed_syncs(ended):
        with pytest.raises(Broken, match="on the disk before"):
            SyncRules(bench.machine.state_name, ended.judge.before).check(
                without(ended.run.calls, *syncs))


def test_a_sync_that_comes_too_late_is_found(new_bench):
    bench = new_bench(SEND)
    ended = Ended(bench)
    calls = ended.run.calls
    removal = next(call for call in calls if call.name == "unlink" and
                   call.path.endswith("/incomplete"))
    place = next(place for place, call in enumerate(calls) if call.name == "syncfs")
    early = without(calls, removal)[:place] + [removal] + without(calls, removal)[place:]
    with pytest.raises(Broken, match="not on the disk before"):
        SyncRules(bench.machine.state_name, ended.judge.before).check(early)
