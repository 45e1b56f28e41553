"""tellbox alone, on a terminal: the question about each waiting message."""

import os
import select
import signal
import time

import pytest
from harness.pseudo_terminal import CTRL_C, CTRL_S, CTRL_Z
from recipient import GUARD_SECONDS, QUESTION, TELLBOX
from shells import Shell


def asked(machine, *, count=1, **options):
    """tellbox on a terminal, when it asks and would take an answer."""
    terminal = machine.ask(**options)
    await_question(terminal, count)
    return terminal


def await_question(terminal, count=1):
    terminal.wait_for(lambda: terminal.raw.count(QUESTION.encode()) == count)
    time.sleep(GUARD_SECONDS + 0.3)  # the guard is a time: nothing tells of its end


@pytest.mark.parametrize("key", ["r", "R"])
def test_r_confirms(machine, key):
    machine.deliver(7)
    terminal = asked(machine)
    assert "Hello" in terminal.frame()
    terminal.send(key)
    assert terminal.wait_exit() == 0
    assert "Message 7 confirmed." in terminal.frame()
    assert machine.answers() == {7: "terminal"}
    assert terminal.attributes() == terminal.attributes_before


@pytest.mark.parametrize("key", ["l", "L"])
def test_l_postpones(machine, key):
    machine.deliver(7)
    terminal = asked(machine)
    terminal.send(key)
    assert terminal.wait_exit() == 0
    assert machine.events() == [("POSTPONED", 7, "pat", "terminal")]


def test_q_leaves_every_message_waiting(machine):
    machine.deliver(7)
    machine.deliver(8)
    terminal = asked(machine)
    terminal.send("q")
    assert terminal.wait_exit() == 0
    assert machine.files() == ["inbox/7", "inbox/8", "state/7.term"]


def test_messages_are_asked_about_in_turn_and_new_ones_too(machine):
    machine.deliver(10)
    machine.deliver(9)
    terminal = asked(machine)
    machine.deliver(11)
    for count, key in enumerate("rlr", 2):
        terminal.send(key)
        if count < 4:
            await_question(terminal, count)
    assert terminal.wait_exit() == 0
    assert machine.answers() == {9: "terminal", 11: "terminal"}


def test_without_a_waiting_message_it_says_so(machine):
    terminal = machine.ask()
    assert terminal.wait_exit() == 0
    assert "No message is waiting." in terminal.frame()


def test_what_is_typed_before_the_question_and_right_after_it_is_dropped(machine):
    machine.deliver(7)
    terminal = machine.ask()
    terminal.send("rrrrr\r")
    terminal.wait_for(QUESTION)
    terminal.send("r")
    time.sleep(GUARD_SECONDS + 0.2)
    assert machine.answers() == {}
    terminal.send("q")
    assert terminal.wait_exit() == 0


@pytest.mark.parametrize("keys", ["x", " ", "\r", "\x1b[A", "\x1bOR", "\x1br", "there we are\r",
                                  "rr", "é", "\x04", "r\r"])
def test_nothing_but_one_letter_alone_answers(machine, keys):
    machine.deliver(7)
    terminal = asked(machine)
    terminal.send(keys)
    time.sleep(0.2)  # that nothing happens can only be waited for
    assert machine.answers() == {} and "POSTPONED" not in str(machine.events())
    terminal.send("r")
    assert terminal.wait_exit() == 0
    assert machine.answers() == {7: "terminal"}


def test_a_withdrawn_message_goes_and_the_next_one_follows(machine):
    machine.deliver(7)
    machine.deliver(8, "Second\n")
    terminal = machine.ask()
    terminal.wait_for(QUESTION)
    machine.withdraw(7)
    terminal.wait_for("Message 7 has been withdrawn.")
    terminal.wait_for("Second")
    terminal.wait_for(lambda: terminal.raw.count(QUESTION.encode()) == 2)
    assert machine.files() == ["inbox/8", "state/8.term"]


def test_a_mailbox_that_cannot_be_opened_any_more_is_not_taken_for_empty(machine):
    machine.deliver(7)
    terminal = asked(machine)
    machine.store.mailbox("pat").chmod(0o000)
    terminal.send("r")
    terminal.wait_exit()
    machine.store.mailbox("pat").chmod(0o700)
    assert machine.answers() == {7: "terminal"}
    assert "withdrawn" not in terminal.frame()


def test_a_mailbox_that_cannot_be_opened_any_more_is_told(machine):
    machine.deliver(7)
    machine.deliver(8)
    terminal = asked(machine)
    machine.store.mailbox("pat").chmod(0o000)
    terminal.send("l")
    assert terminal.wait_exit() == 1
    assert "tellbox: /var/lib/tellbox/users/pat: Permission denied" in terminal.frame()


def test_a_message_that_cannot_be_read_is_named_and_the_next_one_follows(machine):
    machine.deliver(7)
    machine.deliver(8, "Second\n")
    machine.store.mailbox("pat", "inbox", 7).chmod(0o000)
    terminal = asked(machine)
    assert "tellbox: message 7 cannot be read: Permission denied" in terminal.frame()
    assert "Second" in terminal.frame()
    terminal.send("r")
    assert terminal.wait_exit() == 1


def test_a_message_that_cannot_be_answered_is_named_and_the_next_one_follows(machine):
    machine.deliver(7)
    machine.store.mailbox("pat", "acks", 7).mkdir()
    machine.deliver(8, "Second\n")
    terminal = asked(machine, columns=120)
    assert ("tellbox: message 7 cannot be answered while /var/lib/tellbox/users/pat/acks/7 is not "
            "a regular file") in terminal.frame()
    assert "Second" in terminal.frame()
    terminal.send("r")
    assert terminal.wait_exit() == 1
    assert terminal.frame().count("regular file") == 1


def test_a_message_confirmed_elsewhere_goes(machine):
    machine.deliver(7)
    terminal = machine.ask()
    terminal.wait_for(QUESTION)
    machine.tellbox("read", "7")
    terminal.wait_for("Message 7 was confirmed on")
    assert "(terminal)." in terminal.frame()
    assert terminal.wait_exit() == 0
    assert len(machine.events()) == 1


def test_a_message_that_expires_goes(machine):
    machine.deliver(7, expires=int(time.time()) + 2)
    terminal = machine.ask()
    terminal.wait_for("Message 7 has expired.")
    assert terminal.wait_exit() == 0


def test_an_answer_that_cannot_be_written_is_told(machine):
    machine.deliver(7)
    os.chown(machine.store.mailbox("pat", "acks"), 0, 0)
    terminal = asked(machine)
    terminal.send("r")
    assert terminal.wait_exit() == 1
    assert "could not be confirmed and stays waiting: Permission denied" in terminal.frame()


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT])
def test_a_signal_leaves_the_message_waiting_and_the_terminal_as_it_was(machine, number):
    machine.deliver(7)
    shell = Shell(machine, "bash", "")
    shell.type(f"{TELLBOX}\r")
    shell.terminal.wait_for(QUESTION)
    machine.shell(f"pkill --signal {int(number)} -x tellbox")
    shell.wait()
    assert shell.run("echo $?") == "1\n"
    assert "inbox/7" in machine.files() and machine.answers() == {}
    assert shell.run("stty -a | grep -o -- '-*icanon'") == "icanon\n"


def takes_output(terminal):
    tty = os.open(terminal.tty_name, os.O_WRONLY | os.O_NOCTTY)
    try:
        return bool(select.select([], [tty], [], 0)[1])
    finally:
        os.close(tty)


def test_a_signal_ends_it_even_if_ctrl_s_has_stopped_the_terminal(machine):
    machine.deliver(7)
    terminal = asked(machine)
    terminal.send(CTRL_S)
    terminal.poll_for(lambda: not takes_output(terminal))
    machine.shell("pkill -TERM -x tellbox")
    assert terminal.wait_exit() == 1
    assert terminal.attributes() == terminal.attributes_before
    assert machine.answers() == {}


def test_ctrl_c_leaves_the_message_waiting(machine):
    machine.deliver(7)
    shell = Shell(machine, "bash", "")
    shell.type(f"{TELLBOX}\r")
    shell.terminal.wait_for(QUESTION)
    shell.type(CTRL_C)
    shell.wait()
    assert shell.run("echo $?") == "1\n"
    assert machine.answers() == {}


def test_ctrl_z_gives_the_terminal_back_and_the_question_comes_again(machine):
    machine.deliver(7)
    shell = Shell(machine, "bash", "")
    shell.type(f"{TELLBOX}\r")
    shell.terminal.wait_for(QUESTION)
    shell.type(CTRL_Z)
    shell.wait()
    assert shell.run("stty -a | grep -o -- '-*echo '") == "echo \n"
    shell.type("fg\r")
    shell.terminal.wait_for(lambda: shell.terminal.frame().count(QUESTION) == 2)
    shell.type("r")
    time.sleep(GUARD_SECONDS + 0.3)
    assert machine.answers() == {}
    shell.type("r")
    shell.wait()
    assert machine.answers() == {7: "terminal"}


def test_a_hang_up_ends_it(machine):
    machine.deliver(7)
    terminal = machine.ask()
    terminal.wait_for(QUESTION)
    terminal.hang_up()
    terminal.wait_status()
    assert machine.answers() == {}


def test_a_long_message_goes_through_the_pager(machine):
    machine.deliver(7, "".join(f"line {number}\n" for number in range(100)))
    machine.write_home("pat", "page", "")
    terminal = machine.ask(env={"PAGER": "cat >/run/home/pat/page"})
    terminal.wait_for(QUESTION)
    assert "line 99\n" in (machine.home("pat") / "page").read_text()
    assert "line 99" not in terminal.frame()


def test_the_pager_inherits_no_descriptor_of_the_mailbox(machine):
    machine.deliver(7, "line\n" * 100)
    machine.write_home("pat", "open", "")
    machine.ask(env={"PAGER": "ls /proc/self/fd >/run/home/pat/open"}).wait_for(QUESTION)
    assert (machine.home("pat") / "open").read_text().split() == ["0", "1", "2", "3"]  # 3 is ls's


def test_a_pager_that_cannot_be_run_leaves_the_text_on_the_screen(machine):
    machine.deliver(7, "".join(f"line {number}\n" for number in range(100)))
    terminal = machine.ask(env={"PAGER": "/nonexistent"})
    terminal.wait_for(QUESTION)
    assert "line 99" in terminal.frame()


def test_the_lock_is_not_held_while_the_question_stands(machine):
    machine.deliver(7)
    machine.ask().wait_for(QUESTION)
    result = machine.shell("flock --nonblock /var/lib/tellbox/users/pat true", user="pat")
    assert result.status == 0


HEADLINE = "── Tellbox · Message from the administrator · Backup · 21/09 14:13 ──"


def above_question(terminal):
    rows = [row.strip() for row in terminal.rows()]
    return rows[max(row for row, text in enumerate(rows) if text == QUESTION) - 1]


def test_behind_a_pager_that_left_nothing_the_question_says_about_what(machine):
    machine.deliver(7, "line\n" * 100, title="Backup")
    terminal = machine.ask(env={"PAGER": "cat >/dev/null"})
    terminal.wait_for(QUESTION)
    assert above_question(terminal) == HEADLINE


def test_a_question_that_comes_again_says_about_what(machine):
    machine.deliver(7, title="Backup")
    shell = Shell(machine, "bash", "")
    shell.type(f"{TELLBOX}\r")
    shell.terminal.wait_for(QUESTION)
    assert above_question(shell.terminal) == "─" * 40
    shell.type(CTRL_Z)
    shell.wait()
    shell.type("fg\r")
    shell.terminal.wait_for(lambda: shell.terminal.frame().count(QUESTION) == 2)
    assert above_question(shell.terminal) == HEADLINE


@pytest.mark.parametrize("term", ["dumb", "", None])
def test_a_terminal_that_sends_lines_answers_with_enter(machine, term):
    machine.deliver(7)
    terminal = asked(machine, env={"TERM": term})
    terminal.send("rr\r")
    time.sleep(0.2)  # that nothing happens can only be waited for
    assert machine.answers() == {}
    terminal.send("r\r")
    assert terminal.wait_exit() == 0
    assert machine.answers() == {7: "terminal"}


def test_a_dumb_terminal_has_no_pager(machine):
    machine.deliver(7, "".join(f"line {number}\n" for number in range(100)))
    terminal = machine.ask(env={"TERM": "dumb", "PAGER": "cat >/dev/null"})
    terminal.wait_for(QUESTION)
    assert b"line 0\r\nline 1\r\n" in terminal.raw and "line 99" in terminal.frame()
