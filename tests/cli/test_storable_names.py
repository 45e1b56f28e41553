"""Accounts whose names the store cannot keep: named they are refused, otherwise left out."""

import pytest

from harness.outcome import assert_refused

UNSTORABLE = ["john smith", "tab\tbed", "a/b", ".."]


@pytest.fixture
def crowded(box):
    for offset, name in enumerate(UNSTORABLE):
        box.add_user(name, 2000 + offset)
    box.add_group("crew", 3000, ["john smith", "pat"])
    return box


def shown(name):
    return name.replace("\t", " ")


@pytest.mark.parametrize("name", UNSTORABLE)
def test_a_named_one_is_refused_before_anything_is_written(crowded, name):
    assert_refused(crowded, f"cannot keep the name: {shown(name)}",
                   "send", "--to", f"pat,{name}", "hello")


def test_a_member_of_a_group_is_left_out_with_a_warning(crowded):
    assert tuple(crowded.run("send", "--to", "@crew,@crew", "hello")) == (
        "Message 1 sent to 1 user.\n", "tbx: cannot keep the name: john smith\n", 0)
    assert crowded.store.sent(1, "recipients").read_bytes() == b"pat\n"


def test_all_leaves_each_of_them_out_with_one_warning(crowded):
    out, err, status = crowded.run("send", "--to", "all,@crew", "hello")
    assert (out, status) == ("Message 1 sent to 4 users.\n", 0)
    assert err.splitlines() == [f"tbx: cannot keep the name: {shown(name)}"
                                for name in sorted(UNSTORABLE)]


def test_online_leaves_them_out_too(crowded):
    crowded.add_session("1", "john smith")
    crowded.add_session("2", "pat")
    assert tuple(crowded.run("send", "--to", "online", "hello")) == (
        "Message 1 sent to 1 user.\n", "tbx: cannot keep the name: john smith\n", 0)


def test_nobody_else_in_the_group_is_no_recipients(crowded):
    crowded.add_group("lonely", 3001, ["john smith"])
    out, err, status = crowded.run("send", "--to", "@lonely", "hello")
    assert (out, status) == ("", 1)
    assert err == "tbx: cannot keep the name: john smith\ntbx: no recipients\n"
    assert not (crowded.store.top / "sent").exists()
