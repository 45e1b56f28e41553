"""Limits that a build with sanitizers cannot be held to: it reserves more memory than any limit
of these, and takes minutes for a hundred thousand messages or thousands of children."""

import os
import re

import pytest

from harness.machine import Box
from harness.store import message_file, short_time
from harness.waiting import wait_for
from test_limits import DATE, TRIALS, start_over

KIB = 1024
MANY = 100_000


# Many messages.

@pytest.fixture(scope="module")
def crowded(binary):
    """A machine with that many messages to pat, whose first one pat has confirmed."""
    machine = Box(binary)
    machine.store.make_message(1, delivered=[("pat", DATE, 0)], copies=["pat"])
    machine.store.confirm("pat", 1, DATE + 60)
    store = os.open(machine.store.top / "sent", os.O_RDONLY)
    for number in range(2, MANY + 1):
        os.mkdir(str(number), 0o700, dir_fd=store)
        for name in ("msg", "recipients", "delivery"):
            os.link(f"1/{name}", f"{number}/{name}", src_dir_fd=store, dst_dir_fd=store)
    os.close(store)
    yield machine
    machine.close()


def listed(number, state="1 delivered"):
    return rf"{number} +{short_time(DATE)}  Hello +{state}"


def test_many_messages_are_listed_in_order(crowded):
    out, err, status = crowded.run("list", timeout=120)
    lines = out.splitlines()
    assert (err, status) == ("", 0)
    numbers = [int(line.split()[0]) for line in lines[1:MANY + 1]]
    assert numbers == list(range(1, MANY + 1))
    assert re.fullmatch(listed(1, r"all confirmed \(1\)"), lines[1])
    assert re.fullmatch(listed(MANY), lines[MANY])


def test_one_of_many_messages_is_shown(crowded):
    out, err, status = crowded.run("status", str(MANY), timeout=120)
    assert (err, status) == ("", 0)
    assert out.startswith(f"Message {MANY} · ")
    assert out.endswith("\npat              delivered\n")


@pytest.mark.parametrize("sequence", [b"", b"100000\n"])
def test_behind_many_messages_comes_a_number_of_its_own(crowded, sequence):
    crowded.store.write_private(crowded.store.top / "sent/.seq", sequence)
    taken = {int(entry) for entry in os.listdir(crowded.store.top / "sent") if entry.isdigit()}
    out, err, status = crowded.run("send", "--to", "alex", "hello", timeout=120)
    assert (out, err, status) == (f"Message {max(taken) + 1} sent to 1 user.\n", "", 0)


def test_the_interface_opens_on_many_messages(crowded):
    terminal = crowded.open_terminal("pat")
    terminal.set_size(80, 24)
    tbx = crowded.start_on_terminal(terminal)
    shown = b""

    def newest_is_shown():
        nonlocal shown
        shown += terminal.read()
        return re.search(rf"\b{MANY}\b".encode(), shown)

    wait_for(newest_is_shown, limit_seconds=120)
    os.write(terminal.master, b"q")
    assert tbx.wait(120).status == 0


# Many users.

@pytest.fixture(params=[2_000, pytest.param(20_000, marks=pytest.mark.large)])
def users(request, box):
    """The names of all users of a machine that has many."""
    names = [f"user{number:05}" for number in range(request.param)]
    box.write("/etc/passwd", "root:x:0:0:root:/:/bin/sh\n" + "".join(
        f"{name}:x:{uid}:{uid}::/:/bin/sh\n" for uid, name in enumerate(names, 1001)))
    return names


def test_a_message_to_all_reaches_every_one_of_many_users(box, users):
    out, err, status = box.run("send", "--to", "all", "hello", timeout=170)
    assert (out, err, status) == (f"Message 1 sent to {len(users)} users.\n", "", 0)
    log = box.store.sent(1, "delivery").read_text()
    assert [line.split()[0] for line in log.splitlines()] == users
    copies = {box.store.mailbox(name, "inbox", 1).read_bytes() for name in users}
    assert len(copies) == 1
    assert copies.pop().endswith(b"\n\nhello\n")


def test_the_states_of_many_users_are_shown(box, users):
    box.store.make_message(7, to=users, delivered=[(name, DATE, 0) for name in users])
    box.store.confirm(users[-1], 7, DATE + 60)
    out, err, status = box.run("status", "7", timeout=170)
    lines = out.splitlines()[-len(users):]
    assert (err, status) == ("", 0)
    assert [line.split()[0] for line in lines] == users
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
