"""Who receives a message: the text of --to becomes a list of names."""

import pytest

from harness.outcome import assert_refused


@pytest.fixture
def town(box):
    """A box with groups, system accounts and sessions besides the ordinary accounts."""
    box.add_user("daemon", 1, shell="/usr/sbin/nologin")
    box.add_user("backup", 34, shell="/bin/sh")
    box.add_group("staff", 2000, ["pat", "alex"])
    box.add_group("empty", 2001)
    box.add_group("system", 2002, ["daemon", "backup"])
    box.add_user("crew", 1600, gid=2000)
    return box


def recipients(box, to):
    """Who gets a message for `to`, in the order of the stored list."""
    result = box.run("send", "--to", to, "hello")
    assert result.status == 0, result
    names = box.store.sent(1, "recipients").read_text(encoding="ascii").split("\n")
    assert names.pop() == ""
    assert all(box.store.mailbox(name, "inbox", 1).exists() for name in names)
    assert sorted(path.name for path in (box.store.top / "users").iterdir()) == names
    return names


@pytest.mark.parametrize("to,expected", [
    ("sam,,@staff", ["alex", "crew", "pat", "sam"]), ("@system", ["backup", "daemon"]),
    ("@pat", ["pat"]), ("@empty,online,pat", ["pat"]),
    ("all,root,pat", ["alex", "crew", "kim", "pat", "root", "sam"])])
def test_items_become_names_each_once_and_sorted(town, to, expected):
    assert recipients(town, to) == expected


def test_names_are_sorted_by_their_bytes(box):
    for number, name in enumerate(["Zoe", "a-b", "a_b", "ab", "é"]):
        box.add_user(name, 1700 + number)
    assert box.run("send", "--to", "é,ab,a_b,a-b,Zoe", "hello").status == 0
    assert box.store.sent(1, "recipients").read_text(encoding="utf-8").split() == [
        "Zoe", "a-b", "a_b", "ab", "é"]


@pytest.mark.parametrize("to,message", [
    ("pat,nosuch,@nosuch", "no such user: nosuch"), ("@nosuch,nosuch", "no such group: nosuch"),
    ("../pat", "no such user: ../pat"), ("pat\n", "no such user: pat\n")])
def test_an_item_without_account_or_group_is_refused(town, to, message):
    assert_refused(town, message, "send", "--to", to, "hello")


@pytest.mark.parametrize("to", [",,,", "@empty,online"])
def test_nobody_at_all_is_refused(town, to):
    assert_refused(town, "no recipients", "send", "--to", to, "hello")


def test_users_called_all_or_online_cannot_be_named_alone(box):
    box.add_user("all", 1500, shell="/bin/false")
    box.add_user("online", 1501)
    assert_refused(box, "no recipients", "send", "--to", "online", "hello")
    assert "all" not in recipients(box, "all")


def human_users(box, users, defs="UID_MIN 1000\nUID_MAX 60000\n"):
    """Whom "all" reaches on a machine with just these (name, uid, shell)."""
    for name in ["pat", "alex", "sam", "kim"]:
        box.remove_user(name)
    for name, uid, shell in users:
        box.add_user(name, uid, shell=shell)
    if defs is None:
        box.path("/etc/login.defs").unlink()
    else:
        box.write("/etc/login.defs", defs)
    return recipients(box, "all")


EDGES = [("below", 999, "/bin/sh"), ("first", 1000, "/bin/sh"), ("last", 60000, "/bin/sh"),
         ("beyond", 60001, "/bin/sh"), ("early", 500, "/bin/sh")]


@pytest.mark.parametrize("defs,expected", [
    (None, ["first", "last"]), ("UID_MIN 500", ["below", "early", "first", "last"]),
    ("  UID_MIN 999 # all\nUID_MAX 60001\n", ["below", "beyond", "first", "last"])])
def test_the_range_of_human_users_comes_from_the_login_definitions(box, defs, expected):
    assert human_users(box, EDGES, defs) == expected


def test_a_shell_that_ends_in_nologin_or_false_is_no_human_s(box):
    assert human_users(box, [("ann", 1500, "/bin/sh"), ("robot", 1501, "/usr/sbin/nologin"),
                             ("sync", 1502, "/bin/false"), ("zoe", 1503, "")]) == ["ann", "zoe"]


def test_an_account_listed_twice_is_counted_once(box):
    box.write("/etc/passwd", "root:x:0:0::/:/bin/sh\nann:x:1500:1500::/:/bin/sh\n"
                             "ann:x:1501:1501::/:/bin/sh\n")
    assert recipients(box, "all") == ["ann"]


def test_a_user_without_login_shell_can_be_named(box):
    box.add_user("robot", 1500, shell="/usr/sbin/nologin")
    assert recipients(box, "robot") == ["robot"]


@pytest.mark.parametrize("kind, state", [("wayland", "active"), (None, None)])
def test_a_user_with_a_session_is_online_whatever_its_type_and_state(box, kind, state):
    box.add_session("c1", "pat", kind=kind, state=state)
    assert recipients(box, "online") == ["pat"]


def test_a_session_of_another_class_does_not_count(box):
    box.add_session("c1", "pat", session_class="manager")
    assert_refused(box, "no recipients", "send", "--to", "online", "hello")


def test_online_users_are_human_and_counted_once(town):
    town.add_user("robot", 1601, shell="/usr/sbin/nologin")
    for number, name in enumerate(["sam", "root", "daemon", "robot", "pat", "sam"]):
        town.add_session(f"s{number}", name)
    assert recipients(town, "online") == ["pat", "sam"]


def test_a_session_of_a_deleted_account_is_skipped(box):
    box.add_user("late", 1500)
    box.add_session("c1", "late")
    box.add_session("c2", "pat")
    box.remove_user("late")
    assert recipients(box, "online") == ["pat"]


def test_a_member_without_account_is_a_recipient_all_the_same(box):
    box.add_group("mixed", 2000, ["ghost", "pat"])
    result = box.run("send", "--to", "@mixed", "hello")
    assert result.status == 1
    assert box.store.sent(1, "recipients").read_bytes() == b"ghost\npat\n"


def crowd(box, size):
    """A group whose list of recipients is `size` bytes long; nobody in it has an account."""
    names = [f"{number:04}" + "n" * 995 for number in range(size // 1000)]
    names[-1] += "n" * (size % 1000)
    box.add_group("crowd", 2000, names)
    return names


def test_a_recipients_list_of_4194304_bytes_is_stored_and_logged_whole(box):
    names = crowd(box, 4194304)
    result = box.run("send", "--to", "@crowd", "hello")
    assert result.stdout == f"Message 1 delivered to 0 of {len(names)} recipients.\n"
    assert box.store.sent(1, "recipients").stat().st_size == 4194304
    assert box.journal.records()[-1]["TBX_DETAILS"] == " ".join(names)


def test_a_longer_recipients_list_is_refused(box):
    crowd(box, 4194305)
    assert_refused(box, "too many recipients: 4194305 bytes (at most 4194304)",
                   "send", "--to", "@crowd", "hello")
