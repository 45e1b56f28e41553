"""Ways out of the interface and back: signals, hang-ups and Ctrl+Z, wherever they strike."""

import fcntl
import os
import signal
import termios
from dataclasses import replace
from pathlib import Path

import pytest

from harness.pseudo_terminal import (
    CC, CTRL_BACKSLASH, CTRL_C, CTRL_E, CTRL_S, CTRL_Z, DOWN, EARLIER, ENTER, IFLAG, LFLAG,
    assert_restored, unusual)
from interface import assert_left, expect, frames_drawn, is_stopped, press, reply, stop
from messages import Message
from pages import KEYS_BOX, message_box, revoke_confirmation
from places import PLACES, Places

AS_BEFORE = {"earlier": EARLIER, "attributes": unusual}


# ---- The session --------------------------------------------------------------------------


def test_only_line_editing_and_what_eats_keys_is_off_while_the_interface_is_open(interface):
    tbx, _ = interface([], **AS_BEFORE)
    wanted = tbx.attributes_before
    wanted[LFLAG] &= ~(termios.ICANON | termios.ECHO)
    wanted[IFLAG] &= ~(termios.ICRNL | termios.IXON)
    wanted[CC][termios.VMIN], wanted[CC][termios.VTIME] = 1, 0
    assert tbx.attributes() == wanted


@pytest.mark.parametrize("key", ["q", CTRL_C])
def test_ctrl_s_behind_the_last_key_does_not_keep_the_screen(interface, key):
    tbx, _ = interface([], **AS_BEFORE)
    tbx.set_attributes(take_ctrl_s)  # as the interface does on its way out
    tbx.send(CTRL_S)
    tbx.poll_for(lambda: tbx.unread() == 0)
    tbx.send(key)
    assert tbx.wait_exit() == 0
    assert not tbx.screen.alternate


def take_ctrl_s(attributes):
    attributes[IFLAG] |= termios.IXON


@pytest.mark.usefixtures("strace")
def test_signals_are_caught_before_the_terminal_is_changed(interface, binary, tmp_path):
    log = tmp_path / "trace"
    tbx, _ = interface([], argv=["strace", "-qq", "-o", log, "-e", "trace=ioctl,rt_sigaction",
                                 binary], env={"ASAN_OPTIONS": "detect_leaks=0"})
    tbx.send("q")
    assert tbx.wait_exit() == 0
    calls = log.read_text().splitlines()
    changed = next(place for place, call in enumerate(calls) if "TCSETS" in call)
    for name in ("SIGINT", "SIGTERM", "SIGHUP", "SIGQUIT"):
        assert any(f"rt_sigaction({name}, {{sa_handler=0x" in call for call in calls[:changed])


@pytest.mark.parametrize("key", ["q", "Q"])
def test_key_that_leaves_restores_the_terminal(interface, key):
    tbx, _ = interface([Message(1)], **AS_BEFORE)
    tbx.send(key)
    assert tbx.wait_exit() == 0
    assert_restored(tbx)


def test_nothing_is_drawn_after_the_key_that_leaves(interface):
    tbx, _ = interface([Message(1), Message(2)])
    drawn = frames_drawn(tbx)
    tbx.send("q" + DOWN * 3)
    assert tbx.wait_exit() == 0
    assert frames_drawn(tbx) <= drawn + 1  # an idle tick may have come before


# ---- Being ended --------------------------------------------------------------------------


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
@pytest.mark.parametrize("name", PLACES)
def test_signal_ends_the_interface_and_restores_the_terminal(place, name, number):
    tbx, _ = place(name, **AS_BEFORE)
    tbx.signal(number)
    assert tbx.wait_exit() == 0
    assert_left(tbx, name)


@pytest.mark.parametrize("key", [CTRL_C, CTRL_BACKSLASH])
@pytest.mark.parametrize("name", PLACES)
def test_key_that_is_a_signal_ends_the_interface_and_restores_the_terminal(place, name, key):
    tbx, _ = place(name, **AS_BEFORE)
    tbx.send(key)
    assert tbx.wait_exit() == 0
    assert_left(tbx, name)


@pytest.mark.parametrize("name", PLACES)
def test_interface_on_a_terminal_that_is_hung_up_ends(place, name):
    tbx, _ = place(name)
    tbx.hang_up()
    assert tbx.wait_status() == 0


@pytest.mark.parametrize("name", ["list", "message", "form-filled-in", "keys"])
def test_signal_ends_the_interface_while_output_is_stopped(place, name):
    def let_output_be_stopped(attributes):
        attributes[IFLAG] |= termios.IXON

    tbx, _ = place(name)
    tbx.change_attributes(let_output_be_stopped)
    tbx.send(CTRL_S)
    tbx.resize(100, 30)  # is drawn, or waits to be
    tbx.signal(signal.SIGTERM)
    assert tbx.wait_status() == 0
    assert tbx.attributes() == tbx.attributes_before


# ---- Being stopped ------------------------------------------------------------------------


@pytest.mark.parametrize("name", PLACES)
def test_ctrl_z_gives_the_terminal_back_until_the_interface_goes_on(place, name):
    tbx, _ = place(name, **AS_BEFORE)
    stop(tbx)
    assert_restored(tbx)
    tbx.resize(110, 30)
    tbx.signal(signal.SIGCONT)
    expect(tbx, *Places((110, 30)).shown(name))


def test_interface_that_was_stopped_leaves_as_it_would_have(interface):
    tbx, page = interface([Message(1)], **AS_BEFORE)
    stop(tbx)
    tbx.signal(signal.SIGCONT)
    expect(tbx, page)
    tbx.send("q")
    assert tbx.wait_exit() == 0
    assert_restored(tbx)


def test_interface_that_was_stopped_can_be_stopped_again(interface):
    tbx, page = interface([Message(1)])
    for _ in range(3):
        stop(tbx)
        tbx.signal(signal.SIGCONT)
        expect(tbx, page)


@pytest.mark.parametrize("name", ["list", "message", "form-filled-in", "keys", "search"])
def test_what_others_did_to_the_terminal_meanwhile_is_undone(place, name):
    tbx, places = place(name)
    raw = tbx.attributes()
    tbx.signal(signal.SIGSTOP)
    tbx.poll_for(lambda: is_stopped(tbx))
    tbx.change_attributes(unusual)
    drawn = frames_drawn(tbx)
    tbx.signal(signal.SIGCONT)
    tbx.wait_for(lambda: frames_drawn(tbx) > drawn and tbx.attributes() == raw)
    expect(tbx, *places.shown(name))


def test_terminate_signal_that_came_while_stopped_ends_the_interface(interface):
    tbx, _ = interface([Message(1)], **AS_BEFORE)
    stop(tbx)
    tbx.signal(signal.SIGTERM)
    tbx.signal(signal.SIGCONT)
    assert tbx.wait_exit() == 0
    assert_restored(tbx)


def test_ctrl_z_does_nothing_where_no_shell_could_continue_the_interface(interface, binary):
    tbx, page = interface([Message(1)], argv=["sh", "-c", 'trap "" TSTP; exec "$0"', binary])
    press(tbx, CTRL_Z + "?", page, KEYS_BOX)


# ---- While a command runs -----------------------------------------------------------------


@pytest.fixture
def revoking(interface, store):
    """A session in which the revocation of message 1 waits for its lock.

    Returns the terminal, the list behind, and a function that frees the lock.
    """
    message = Message(1)
    tbx, page = interface([message], **AS_BEFORE)
    held = os.open(store.sent(1, "lock"), os.O_RDWR | os.O_CREAT, 0o600)
    fcntl.flock(held, fcntl.LOCK_EX)
    press(tbx, "r", page, revoke_confirmation(message))
    reply(tbx, "y")
    tbx.poll_for(lambda: store.sent(1, "revoked").exists())  # then comes the lock
    yield tbx, page, lambda: fcntl.flock(held, fcntl.LOCK_UN)
    os.close(held)


def revoked(page):
    return replace(page, messages=(Message(1, revoked=1),))


@pytest.mark.parametrize("key", [CTRL_C, CTRL_BACKSLASH])
def test_key_that_is_a_signal_ends_a_command_that_hangs_and_nothing_else(revoking, key):
    tbx, page, _ = revoking
    tbx.send(key)
    expect(tbx, page, message_box("Revoke message 1?", "Interrupted."))
    press(tbx, "x", revoked(page))


def test_ctrl_z_stops_neither_the_command_nor_the_interface(revoking):
    tbx, page, free = revoking
    tbx.send(CTRL_Z + "x")
    tbx.poll_for(lambda: tbx.unread() == 1)  # the terminal has seen the Ctrl+Z
    free()
    expect(tbx, page, message_box("Revoke message 1?", "Message 1 revoked."))
    press(tbx, "x", revoked(page))


def test_size_that_changed_while_a_command_ran_is_taken(revoking):
    tbx, page, free = revoking
    tbx.resize(110, 30)
    free()
    expect(tbx, replace(page, size=(110, 30)),
           message_box("Revoke message 1?", "Message 1 revoked."))


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP])
def test_signal_lets_a_command_finish_that_is_about_to_and_ends_the_interface(revoking, store, number):
    tbx, _, free = revoking
    tbx.signal(number)
    free()
    assert tbx.wait_exit() == 0
    assert_restored(tbx)
    assert not store.sent(1, "revoking").exists()


def test_hang_up_lets_a_command_finish_that_is_about_to_and_ends_the_interface(revoking, store):
    tbx, _, free = revoking
    tbx.hang_up()
    free()
    assert tbx.wait_status() == 0
    assert not store.sent(1, "revoking").exists()


def command_of(tbx):
    """The process id of the command that runs."""
    children = Path(f"/proc/{tbx.pid}/task/{tbx.pid}/children").read_text().split()
    return int(children[0])


def is_running(process):
    return Path(f"/proc/{process}").exists()


def test_command_that_a_signal_ends_is_told_as_interrupted(revoking):
    tbx, page, _ = revoking
    os.kill(command_of(tbx), signal.SIGKILL)
    expect(tbx, page, message_box("Revoke message 1?", "Interrupted."))


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP])
def test_signal_ends_the_interface_with_a_command_that_hangs(revoking, number):
    tbx, _, _ = revoking
    command = command_of(tbx)
    tbx.signal(number)
    assert tbx.wait_exit() == 0
    assert_restored(tbx)
    assert not is_running(command)


def test_hang_up_ends_the_interface_with_a_command_that_hangs(revoking):
    tbx, _, _ = revoking
    command = command_of(tbx)
    tbx.hang_up()
    assert tbx.wait_status() == 0
    assert not is_running(command)


# ---- While an editor runs -----------------------------------------------------------------


@pytest.fixture
def editing(form, tmp_path):
    """A session in which an editor runs and waits for Enter.

    Returns the terminal, and a function that tells which file is edited.
    """
    script = tmp_path / "editor"
    script.write_text(f'#!/bin/sh\necho "$1" > {tmp_path}/path\necho "editor runs"\nread -r line\n')
    script.chmod(0o755)
    tbx, _, _ = form(env={"VISUAL": str(script)}, **AS_BEFORE)
    tbx.send(CTRL_E)
    tbx.wait_for("editor runs")
    return tbx, lambda: Path((tmp_path / "path").read_text().strip())


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP])
def test_signal_ends_the_interface_once_the_editor_has_ended(editing, number):
    tbx, edited = editing
    tbx.signal(number)
    tbx.send(ENTER)
    assert tbx.wait_exit() == 0
    assert tbx.attributes() == tbx.attributes_before
    assert not tbx.screen.alternate
    assert tbx.cursor() is not None
    assert not edited().exists()


def test_hang_up_ends_the_editor_and_the_interface(editing):
    tbx, edited = editing
    tbx.hang_up()
    assert tbx.wait_status() == 0
    assert not edited().exists()
