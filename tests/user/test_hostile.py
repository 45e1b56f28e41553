"""Mailboxes that their owner, or somebody in the owner's name, has filled with everything but messages:
the owner's own program neither hangs nor follows nor believes."""

import os
import stat

import pytest
from recipient import PROGRAM, QUESTION, TELLBOX, plain

ELSEWHERE = "/run/elsewhere"
PLACES = ("inbox/{}", "read/{}", "acks/{}", "state/{}.term", "state/{}.gui", "state/.prompt")


def make_link(path):
    path.symlink_to(ELSEWHERE)


def make_dangling_link(path):
    path.symlink_to("/run/nowhere")


def make_loop(path):
    path.symlink_to(path.name)


def make_pipe(path):
    os.mkfifo(path)
    path.chmod(0o666)


def make_readable_pipe(path):
    os.mkfifo(path)
    path.chmod(0o444)


def make_device(path):
    os.mknod(path, 0o666 | stat.S_IFCHR, os.makedev(1, 5))  # /dev/zero
    path.chmod(0o666)


def make_folder(path):
    path.mkdir()
    (path / "inside").touch()


def make_huge(path):
    with open(path, "wb") as file:
        file.write(b"date: 5\n\n")
        file.truncate(1 << 40)


def make_closed(path):
    path.write_bytes(b"date: 5\n\nclosed\n")
    path.chmod(0)


def make_bytes(path):
    path.write_bytes(bytes(range(256)) * 200)


KINDS = [make_link, make_dangling_link, make_loop, make_pipe, make_readable_pipe, make_device,
         make_folder, make_huge, make_closed, make_bytes]


def furnish(machine, make):
    """A message to answer, and things of one kind at every other place of the mailbox."""
    machine.write(ELSEWHERE, "date: 5\n\nof somebody else\n", 0o666)
    machine.deliver(1)
    box = machine.store.mailbox("pat")
    for number, place in enumerate(PLACES, 2):
        path = box / place.format(number)
        if number > 3 and place != PLACES[-1]:
            machine.deliver(number, "beside it\n")
        make(path)
        os.chown(path, machine.uid("pat"), -1, follow_symlinks=False)


def on_screen(machine, *command):
    """What a command writes on a terminal until it ends."""
    terminal = machine.on_terminal(*command, rows=100, columns=100)
    terminal.wait_exit()
    return plain(terminal.raw)


def assert_clean(machine, text):
    assert "Hello" in text
    assert "of somebody else" not in text and "closed" not in text
    assert all(c in "\t\n" or c.isprintable() for c in text)
    assert machine.path(ELSEWHERE).read_text() == "date: 5\n\nof somebody else\n"


@pytest.mark.parametrize("make", KINDS)
def test_a_prompt_shows_messages_and_nothing_else(machine, make):
    furnish(machine, make)
    for _ in range(3):
        machine.store.mailbox("pat", "state", "1.term").unlink(missing_ok=True)
        assert_clean(machine, on_screen(machine, PROGRAM, "prompt", "pat", "0"))


@pytest.mark.parametrize("make", KINDS)
def test_list_and_show_tell_of_messages_and_nothing_else(machine, make):
    furnish(machine, make)
    result = machine.tellbox("list", timeout=20)
    assert_clean(machine, result.stdout + result.stderr)
    assert_clean(machine, on_screen(machine, TELLBOX, "show", "1"))
    for number in (2, 3):
        result = machine.tellbox("show", str(number), timeout=20)
        assert "of somebody else" not in result.stdout
        assert result.status == 1 or make is make_bytes or make is make_huge, result


@pytest.mark.parametrize("make", KINDS)
def test_it_asks_about_messages_and_nothing_else(machine, make):
    furnish(machine, make)
    terminal = machine.ask(rows=100, columns=100)
    terminal.wait_for(QUESTION)
    assert_clean(machine, plain(terminal.raw))


@pytest.mark.parametrize("make", KINDS)
def test_answers_are_given_beside_it_and_never_through_it(machine, make):
    furnish(machine, make)
    for number in range(1, 8):
        for command in ("later", "read"):
            machine.tellbox(command, str(number), timeout=20)
    assert machine.path(ELSEWHERE).read_text() == "date: 5\n\nof somebody else\n"
    assert not machine.path("/run/nowhere").exists()
    assert b"terminal" in machine.store.mailbox("pat", "acks", 1).read_bytes()
    acks = machine.store.mailbox("pat", "acks", 4).lstat()
    if make not in (make_huge, make_closed, make_bytes):  # which are answers, by their kind
        assert stat.S_IFMT(acks.st_mode) != stat.S_IFREG


@pytest.mark.parametrize("folder", ["", "inbox", "read", "acks", "state"])
@pytest.mark.parametrize("make", [make_link, make_pipe, make_device, make_bytes])
def test_what_stands_in_place_of_a_folder_is_named_or_leaves_the_prompt_silent(machine, make,
                                                                               folder):
    machine.deliver(1)
    path = machine.store.mailbox("pat", folder)
    path.rename(machine.store.top / "aside")
    make(path)
    os.chown(path, machine.uid("pat"), -1, follow_symlinks=False)
    terminal = machine.on_terminal(PROGRAM, "prompt", "pat", "0")
    assert terminal.wait_exit() == 214 and terminal.raw == b""
    for command in ("list", "read"):
        result = machine.tellbox(command, timeout=20)
        assert (result.stdout, result.status) == ("", 1)
        assert result.stderr == f"tellbox: {path_on(machine, path)}: Not a directory\n"


def path_on(machine, path):
    """The path as the machine sees it."""
    return f"/var/lib/tellbox/{path.relative_to(machine.store.top)}"


@pytest.mark.parametrize("name", ["..", ".", "", "sam", "../users/sam", "pat/inbox"])
def test_a_prompt_looks_into_no_mailbox_but_the_users_own(machine, name):
    machine.deliver(1)
    machine.deliver(2, "for sam\n", user="sam")
    machine.store.mailbox("sam").chmod(0o777)
    terminal = machine.on_terminal(PROGRAM, "prompt", name, "0")
    assert terminal.wait_exit() == 214 and terminal.raw == b""
