"""Limits that a build with sanitizers cannot be held to: it reserves more memory than any limit
of these, and takes minutes for thousands of children."""

import re

import pytest

from harness.store import message_file
from test_limits import TRIALS, start_over

KIB = 1024
USERS = [f"user{number:05}" for number in range(20_000)]


# Many users.

@pytest.fixture
def city(box):
    """A machine with 20,000 users."""
    box.write("/etc/passwd", "root:x:0:0:root:/:/bin/sh\n" + "".join(
        f"{name}:x:{uid}:{uid}::/:/bin/sh\n" for uid, name in enumerate(USERS, 1001)))
    return box


def test_a_message_to_all_reaches_every_one_of_many_users(city):
    out, err, status = city.run("send", "--to", "all", "hello", timeout=170)
    assert (out, err, status) == ("Message 1 sent to 20000 users.\n", "", 0)
    log = city.store.sent(1, "delivery").read_text()
    assert [line.split()[0] for line in log.splitlines()] == USERS
    copies = {city.store.mailbox(name, "inbox", 1).read_bytes() for name in USERS}
    assert len(copies) == 1
    assert copies.pop().endswith(b"\n\nhello\n")


def test_the_states_of_many_users_are_shown(city):
    city.store.make_message(7, to=USERS, delivered=[(name, 1790000000, 0) for name in USERS])
    city.store.make_mailbox("user19999")
    (city.store.mailbox("user19999", "acks") / "7").write_text("1790000060 terminal\n")
    out, err, status = city.run("status", "7", timeout=170)
    lines = out.splitlines()[-len(USERS):]
    assert (err, status) == ("", 0)
    assert [line.split()[0] for line in lines] == USERS
    assert lines[-1].split(maxsplit=1)[1].startswith("confirmed on ")
    assert {line.split(maxsplit=1)[1] for line in lines[:-1]} == {"delivered"}


# Little memory.

def run_with_memory(box, limit, *arguments, **options):
    return box.run(*arguments, wrap=["prlimit", f"--as={limit}:{limit}"], **options)


@pytest.fixture
def least_memory(box):
    """With how many bytes the program comes up; with much less it cannot be loaded."""
    limit = 1024 * KIB
    while run_with_memory(box, limit, "version").status != 0:
        limit += 512 * KIB
    while run_with_memory(box, limit - 16 * KIB, "version").status == 0:
        limit -= 16 * KIB
    return limit


@pytest.mark.parametrize("name", TRIALS)
def test_with_little_memory_a_command_works_or_says_what_is_wrong(box, least_memory, name):
    trial = TRIALS[name]
    said = set()
    worked = 0
    for step in range(-6, 60):
        start_over(box, trial)
        result = run_with_memory(box, least_memory + step * 8 * KIB, *trial.arguments)
        worked = worked + 1 if trial.judge(box, result) else 0
        trial.judge_later(box)
        said.add(result.stderr)
        if worked == 6:
            break
    assert worked == 6, "it never works"
    assert "tbx: out of memory\n" in said


def told_out_of_memory(result):
    return tuple(result)[1:] == ("tbx: out of memory\n", 1)


def test_an_input_that_does_not_fit_into_memory_is_refused(box, least_memory):
    with box.path("/var/lib/box/long").open("wb") as file:
        file.truncate(32 * 1024 * KIB)
        file.write(b"hello")
    refused = 0
    for step in range(0, 20):
        result = run_with_memory(box, least_memory + step * 8 * 1024 * KIB,
                                 "send", "--to", "pat", "--file", "/var/lib/box/long")
        if result.status == 0:
            break
        assert told_out_of_memory(result)
        assert not box.store.top.exists()
        refused += 1
    assert result.stdout == "Message 1 sent to 1 user.\n"
    assert refused > 0


def test_recipients_that_do_not_fit_into_memory_are_not_called_none(box, least_memory):
    names = [f"user{number:06}" for number in range(200_000)]
    box.store.make_message(7, to=names)
    assert told_out_of_memory(run_with_memory(box, least_memory + 1024 * KIB, "status", "7"))
    out, err, status = box.run("status", "7")
    assert (out.count(" sent, not delivered\n"), err, status) == (len(names), "", 0)


def test_a_message_file_that_does_not_fit_into_memory_is_not_cancelled(box, least_memory):
    text = "x" * 60_000 + "\n"
    content = message_file(7, text)
    box.store.make_message(7, msg=content, to=["pat"], markers=["incomplete"])
    for step in range(64):
        result = run_with_memory(box, least_memory + step * 8 * KIB, "list")
        assert result.status in (0, 1)
        assert re.match(r"(tbx: .*\n)*$", result.stderr)
        assert not box.store.sent(7, "failed").exists()
    assert box.run("list").status == 0
    assert box.store.mailbox("pat", "inbox", 7).read_bytes() == content
