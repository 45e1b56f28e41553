"""The banner on the recipients' terminals."""

import os
import time

import pytest

from harness.outcome import assert_sent
from harness.store import banner, short_time

RULE = "─" * 40


def sent_banner(machine, text, *, title="", message_id=1):
    """The banner that the stored message's date makes."""
    lines = machine.store.sent(message_id, "msg").read_text(encoding="utf-8").split("\n")
    return banner(text, int(lines[3].removeprefix("date: ")), title)


# In test mode.

def test_the_banner_shows_title_date_and_text(box):
    message = assert_sent(box, "--to", "pat", "--title", "News", "hello world")
    when = short_time(int(message["date"]))
    assert box.terminal.read_bytes().decode() == (
        f"\r\n── Tellbox · Message from the administrator · News · {when} ──\r\n"
        f"hello world\r\n{RULE}\r\n")


def test_without_a_title_the_banner_shows_the_date_alone(box):
    message = assert_sent(box, "--to", "pat", "hello")
    when = short_time(int(message["date"]))
    assert box.terminal.read_bytes().decode() == (
        f"\r\n── Tellbox · Message from the administrator · {when} ──\r\nhello\r\n{RULE}\r\n")


@pytest.mark.parametrize("text", ["\n\ntab\there\n\né─", "x" * 3000])
def test_every_line_of_the_text_ends_in_carriage_return_and_line_feed(box, text):
    assert_sent(box, "--to", "pat", input=text)
    assert box.terminal.read_bytes() == sent_banner(box, text)


def test_trailing_newlines_do_not_reach_the_banner(box):
    assert_sent(box, "--to", "pat", input="hello\n\n\n")
    assert box.terminal.read_bytes() == sent_banner(box, "hello")


def test_the_date_is_in_local_time(box):
    message = assert_sent(box, "--to", "pat", "hello", env={"TZ": "XXX-05:30"})
    when = short_time(int(message["date"]) + 5 * 3600 + 1800)
    assert f"· {when} ──" in box.terminal.read_text(encoding="utf-8")


def test_banners_go_to_the_end_of_the_file_that_stands_in(box):
    box.terminal.write_bytes(b"earlier\n")
    assert_sent(box, "--to", "pat", "one")
    assert_sent(box, "--to", "pat", "two", message_id=2)
    assert box.terminal.read_bytes() == (
        b"earlier\n" + sent_banner(box, "one") + sent_banner(box, "two", message_id=2))


@pytest.mark.parametrize("value", [None, ""])
def test_without_a_named_terminal_none_is_written(box, value):
    assert_sent(box, "--to", "pat", "hello", env={"TBX_TEST_TTY": value})
    assert box.terminal.read_bytes() == b""
    assert box.journal.events()[0] == ("DELIVERED", "pat", "0")


def test_a_terminal_of_someone_else_is_not_written(box):
    assert_sent(box, "--to", "sam", "hello")
    assert box.terminal.read_bytes() == b""
    assert box.journal.events()[0] == ("DELIVERED", "sam", "0")


def test_a_terminal_that_is_missing_is_not_made(box):
    box.terminal.unlink()
    assert_sent(box, "--to", "pat", "hello")
    assert not box.terminal.exists()
    assert box.journal.events()[0] == ("DELIVERED", "pat", "0")


def test_a_pipe_that_nobody_reads_does_not_hold_a_send_up(box):
    box.terminal.unlink()
    os.mkfifo(box.terminal)
    os.chown(box.terminal, box.uid("pat"), -1)
    assert_sent(box, "--to", "pat", "hello")
    assert box.journal.events()[0] == ("DELIVERED", "pat", "0")


def test_a_written_terminal_is_counted_in_log_and_record(box):
    assert_sent(box, "--to", "pat", "hello")
    assert box.store.sent(1, "delivery").read_text(encoding="ascii").split()[2] == "1"
    assert box.journal.events()[0] == ("DELIVERED", "pat", "1")


def test_pseudo_terminals_are_not_looked_for_in_test_mode(box):
    terminal = box.open_terminal("pat")
    assert_sent(box, "--to", "pat", "hello")
    assert terminal.read() == b""


# In earnest.

def count(machine, user="pat"):
    """How many terminals of the user the last send has written."""
    return [int(details) for event, name, details in machine.journal.events()
            if (event, name) == ("DELIVERED", user)][-1]


def test_every_pseudo_terminal_of_the_recipient_shows_the_banner(machine):
    first, second = machine.open_terminal("pat"), machine.open_terminal("pat")
    assert_sent(machine, "--to", "pat", "--title", "News", "hello")
    expected = sent_banner(machine, "hello", title="News")
    assert (first.read(), second.read(), count(machine)) == (expected, expected, 2)


def test_nobody_else_s_terminal_shows_anything(machine):
    others = [machine.open_terminal("sam"), machine.open_terminal("root")]
    own = machine.open_terminal("pat")
    assert_sent(machine, "--to", "pat", "hello")
    assert [terminal.read() for terminal in others] == [b"", b""]
    assert own.read() != b""
    assert count(machine) == 1


def test_each_recipient_s_terminals_are_counted_apart(machine):
    terminals = [machine.open_terminal(user) for user in ("pat", "sam", "sam")]
    assert_sent(machine, "--to", "alex,pat,sam", "hello", recipients=3)
    assert {terminal.read() for terminal in terminals} == {sent_banner(machine, "hello")}
    assert [count(machine, user) for user in ("alex", "pat", "sam")] == [0, 1, 2]
    lines = machine.store.sent(1, "delivery").read_text(encoding="ascii").splitlines()
    assert [line.split()[::2] for line in lines] == [["alex", "0"], ["pat", "1"], ["sam", "2"]]


def test_the_consoles_of_text_sessions_are_written_too(machine):
    console, terminal = machine.open_console("pat", "tty2"), machine.open_terminal("pat")
    machine.add_session("c1", "pat", kind="tty", tty="tty2")
    assert_sent(machine, "--to", "pat", "hello")
    assert console.read() == terminal.read() == sent_banner(machine, "hello")
    assert count(machine) == 2


def test_the_state_of_a_text_session_does_not_matter(machine):
    machine.open_console("pat", "tty2")
    machine.add_session("c1", "pat", tty="tty2", state="closing")
    assert_sent(machine, "--to", "pat", "hello")
    assert count(machine) == 1


def test_a_console_that_two_sessions_name_is_written_once(machine):
    console = machine.open_console("pat", "tty2")
    machine.add_session("c1", "pat", tty="tty2")
    machine.add_session("c2", "pat", tty="tty2")
    assert_sent(machine, "--to", "pat", "hello")
    assert console.read() == sent_banner(machine, "hello")
    assert count(machine) == 1


@pytest.mark.parametrize("session", [
    {"user": "sam"}, {"kind": "wayland"}, {"tty": None}, {"tty": "../dev/tty2"}])
def test_a_session_that_does_not_make_a_console_the_recipient_s(machine, session):
    console = machine.open_console("pat", "tty2")
    machine.add_session("c1", **{"user": "pat", "kind": "tty", "tty": "tty2", **session})
    assert_sent(machine, "--to", "pat", "hello")
    assert console.read() == b""
    assert count(machine) == 0


def test_a_console_that_belongs_to_someone_else_is_not_written(machine):
    console = machine.open_console("sam", "tty2")
    machine.add_session("c1", "pat", tty="tty2")
    assert_sent(machine, "--to", "pat", "hello")
    assert console.read() == b""
    assert count(machine) == 0


def test_a_pseudo_terminal_of_someone_else_is_not_written_though_a_session_names_it(machine):
    terminal = machine.open_terminal("sam")
    machine.add_session("c1", "pat", tty="pts/0")
    assert_sent(machine, "--to", "pat", "hello")
    assert terminal.read() == b""


def test_a_pseudo_terminal_that_a_session_names_is_written_once(machine):
    terminal = machine.open_terminal("pat")
    machine.add_session("c1", "pat", tty="pts/0")
    assert_sent(machine, "--to", "pat", "hello")
    assert terminal.read() == sent_banner(machine, "hello")
    assert count(machine) == 1


def test_a_file_in_place_of_a_console_is_not_written(machine):
    planted = machine.write("/dev/tty7", "planted")
    os.chown(planted, machine.uid("pat"), -1)
    machine.add_session("c1", "pat", tty="tty7")
    assert_sent(machine, "--to", "pat", "hello")
    assert planted.read_bytes() == b"planted"
    assert count(machine) == 0


def test_the_variable_of_test_mode_does_nothing_in_earnest(machine):
    planted = machine.write("/run/planted", "", 0o666)
    os.chown(planted, machine.uid("pat"), -1)
    assert_sent(machine, "--to", "pat", "hello", env={"TBX_TEST_TTY": "/run/planted"})
    assert planted.read_bytes() == b""


def test_without_any_terminals_folder_the_consoles_are_still_found(machine):
    console = machine.open_console("pat", "tty2")
    machine.add_session("c1", "pat", tty="tty2")
    machine.shell("umount /dev/pts && rmdir /dev/pts")
    assert_sent(machine, "--to", "pat", "hello")
    assert console.read() == sent_banner(machine, "hello")


def test_terminals_are_written_in_the_order_of_their_names(machine, strace):
    for number in range(11):
        machine.open_terminal("pat" if number in (2, 3, 10) else "sam")
    machine.open_console("pat", "tty2")
    machine.add_session("c1", "pat", tty="tty2")
    trace = machine.trace("openat", "send", "--to", "pat", "hello")
    opened = [arguments.split('"')[1] for _, arguments, _ in trace.of_parent()
              if '"/dev/pts/' in arguments or '"/dev/tty2"' in arguments]
    assert opened == ["/dev/pts/10", "/dev/pts/2", "/dev/pts/3", "/dev/tty2"]


def test_a_terminal_is_opened_so_that_it_can_neither_block_nor_take_over(machine, strace):
    machine.open_terminal("pat")
    trace = machine.trace("openat", "send", "--to", "pat", "hello")
    opened = [arguments for _, arguments, _ in trace.of_parent() if '"/dev/pts/0"' in arguments]
    assert opened == ['AT_FDCWD</>, "/dev/pts/0", O_WRONLY|O_NOCTTY|O_NONBLOCK|O_CLOEXEC']


def test_a_stopped_terminal_delays_the_others_by_its_bound_and_is_not_counted(machine):
    stopped, running = machine.open_terminal("pat"), machine.open_terminal("pat")
    stopped.stop_output()
    begin = time.monotonic()
    assert_sent(machine, "--to", "pat", "hello", timeout=20)
    assert time.monotonic() - begin > 2
    assert running.read() == sent_banner(machine, "hello")
    assert count(machine) == 1


def test_many_stopped_terminals_delay_no_longer_than_one(machine):
    stopped = [machine.open_terminal("pat") for _ in range(30)]
    for terminal in stopped:
        terminal.stop_output()
    running = machine.open_terminal("pat")
    assert_sent(machine, "--to", "pat", "hello", timeout=45)  # 30 times the bound would be 90
    assert running.read() == sent_banner(machine, "hello")
    assert count(machine) == 1


def test_terminals_are_written_one_by_one_where_descriptors_are_short(machine):
    terminals = [machine.open_terminal("pat") for _ in range(8)]
    machine.write("/run/text", "a" * 60000)  # more than a terminal takes at once
    process = machine.start("send", "--to", "pat", "--file", "/run/text",
                            wrap=["prlimit", "--nofile=12"])
    received = [b""] * len(terminals)
    while process.is_running():
        received = [text + terminal.read() for text, terminal in zip(received, terminals)]
    assert process.wait().status == 0
    banner = sent_banner(machine, "a" * 60000)
    assert [text + terminal.read() for text, terminal in zip(received, terminals)] == (
        [banner] * len(terminals))
    assert count(machine) == len(terminals)


def test_a_terminal_that_takes_a_part_is_continued_when_there_is_room(machine):
    terminal = machine.open_terminal("pat")
    machine.write("/run/text", "a" * 60000)  # more than a terminal takes at once
    process = machine.start("send", "--to", "pat", "--file", "/run/text")
    received = b""
    while process.is_running():
        received += terminal.read()
    assert process.wait().status == 0
    assert received + terminal.read() == sent_banner(machine, "a" * 60000)
    assert count(machine) == 1


def writes_to_terminal(box, *inject):
    """Sends a message while writing to pat's terminal is disturbed; the calls' results."""
    trace = box.trace("write", "send", "--to", "pat", "hello", inject=inject,
                      only_path=box.terminal_name)
    assert trace.result.status == 0
    return [result.split()[0] for name, _, result in trace.of_parent() if name == "write"]


def test_a_write_that_a_signal_interrupts_is_made_again(box, strace):
    assert len(writes_to_terminal(box, "write:error=EINTR:when=1")) == 2
    assert box.terminal.read_bytes() == sent_banner(box, "hello")


def test_a_terminal_that_fails_is_not_tried_again(box, strace):
    assert writes_to_terminal(box, "write:error=EIO") == ["-1"]
    assert count(box) == 0


def test_a_terminal_that_is_hung_up_is_not_counted(machine):
    terminal = machine.open_terminal("pat")
    os.close(terminal.master)
    terminal.master = os.open("/dev/null", os.O_RDONLY)  # closed with the machine
    assert_sent(machine, "--to", "pat", "hello")
    assert count(machine) == 0
