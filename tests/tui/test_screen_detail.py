"""The page of one message: its facts, its text, its recipients and its history."""

import os
import shutil
import signal
from dataclasses import replace

import pytest

from harness.history import record
from harness.pseudo_terminal import (
    BACK_TAB, BACKSPACE, CTRL_C, CTRL_E, CTRL_S, DELETE, DOWN, END, ENTER, ESCAPE, HOME, LEFT,
    PAGE_DOWN, PAGE_UP, RIGHT, TAB, UP)
from interface import (
    BROKEN_CHARACTERS, MEANINGLESS, clocks_shown, expect, frame_that_shows, frames_as_text,
    frames_drawn, press, reply, stopped_command)
from messages import DATE, FUTURE, MESSAGE_STATES, PAST, USERS, Message, people
from pages import remind_confirmation, revoke_confirmation
from shapes import SHAPES

BUSY = Message(
    7, "Tonight from ten to eleven the machine is saved. Please close your files before that, or "
       "what you change may be missing from the copy.\n\nThank you\n",
    title="Backup tonight", expires=FUTURE, author="alex", confirmed=USERS[:3],
    delivered=USERS[3:6] + people(1, "a-name-of-more-than-thirteen-columns"), sent=people(4))
CROWDED = Message(1, delivered=people(30))  # at 80x24 there is room for 14 of them


# ---- Frames -------------------------------------------------------------------------------


@pytest.mark.parametrize("size, colour", SHAPES)
def test_message_fills_the_terminal(detail, size, colour):
    detail(BUSY, size, colour)


@pytest.mark.parametrize("message", [
    Message(1),
    Message(1, title="Titled"),
    Message(1, expires=FUTURE),
    Message(1, expires=PAST, date=PAST - 60),
    Message(1, revoked=DATE + 60),
    Message(1, title="All of it", expires=PAST, date=PAST - 60, revoked=PAST - 30, author="alex"),
    Message(1, title="Revoked in time", expires=FUTURE, revoked=DATE + 60),
    Message(1234567, confirmed=USERS[:2], delivered=(), sent=()),
], ids=["plain", "titled", "expires", "expired", "revoked", "all", "revoked in time", "confirmed"])
@pytest.mark.parametrize("colour", [True, False])
def test_facts_tell_what_there_is_to_tell(detail, message, colour):
    detail(message, (120, 24), colour)


def test_facts_and_title_too_long_for_the_terminal_are_cut(detail):
    tbx, _, _ = detail(Message(1, title="t" * 100, expires=FUTURE))
    assert tbx.rows()[0].startswith("┌─ Message 1 · tttt")
    assert tbx.rows()[0].endswith("ttt  updated at " + tbx.rows()[0][-11:])
    assert tbx.rows()[1].startswith("│  tttt")


@pytest.mark.parametrize("text, lines", [
    ("", []),
    ("Жж " * 25 + "\n\n" + "é" * 73, ["Жж " * 23 + "Жж", "Жж ", "", "é" * 72, "é"]),
    ("word " * 90, [("word " * 14).rstrip()] * 5 + ["…"]),
], ids=["none", "some", "too much"])
def test_text_is_wrapped_and_cut_to_six_lines(detail, text, lines):
    tbx, _, _ = detail(Message(1, text), lines=lines)
    shown = [row[5:-2].rstrip() for row in tbx.rows()[2:] if row.startswith("│  │ ")]
    assert shown == [line.rstrip() for line in lines]


def test_user_name_is_cut_to_thirteen_columns(detail):
    tbx, _, _ = detail(Message(1, delivered=("abcdefghijklmnop",)))
    tbx.wait_for("│  abcdefghijklm delivered  ")


def test_state_of_a_recipient_tells_terminals_and_channel(terminal, store):
    store.make_message(1, to=USERS[:5], delivered=[(USERS[0], DATE, 1), (USERS[1], DATE, 3),
                                                   (USERS[2], DATE, 0), (USERS[3], DATE, 0)])
    store.confirm(USERS[2], 1, DATE + 60, "desktop")
    store.mark_shown(USERS[3], 1, DATE + 120)
    tbx = terminal()
    tbx.wait_for("sent messages")
    tbx.send(ENTER)
    tbx.wait_for("Message 1")
    assert [row[2:].rstrip("│ ") for row in tbx.rows()[7:12]] == [
        " daemon        delivered, written to 1 terminal",
        " bin           delivered, written to 3 terminals",
        " sys           confirmed on 21/09 14:14 (desktop)",
        " games         delivered, postponed on 21/09 14:15",
        " man           sent, not delivered"]


# ---- Scrolling ----------------------------------------------------------------------------


@pytest.mark.parametrize("keys, scroll", [
    ([UP, UP, DOWN], 1),
    ([DOWN] * 40 + [UP], 15),
    ([PAGE_DOWN, PAGE_DOWN, PAGE_UP], 2),
    ([DOWN, PAGE_UP], 0),
])
def test_key_scrolls_within_the_recipients(detail, keys, scroll):
    tbx, page, _ = detail(CROWDED)
    press(tbx, "".join(keys), replace(page, scroll=scroll))


def test_recipients_that_fit_do_not_scroll(detail):
    tbx, page, _ = detail(Message(1, delivered=people(14)))
    for key in (DOWN, PAGE_DOWN, UP, PAGE_UP):
        press(tbx, key + "r", page, revoke_confirmation(page.message))
        press(tbx, "n", page)


# ---- Tabs ---------------------------------------------------------------------------------


@pytest.mark.parametrize("colour", [True, False])
@pytest.mark.parametrize("key", [TAB, BACK_TAB, "\x1bOZ"])
def test_key_switches_between_the_tabs(detail, journal, key, colour):
    tbx, page, _ = detail(BUSY, colour=colour, argv=journal())
    press(tbx, key, replace(page, history=[]))
    press(tbx, key, page)


def test_switching_the_tab_scrolls_to_the_first_entry(detail, journal):
    tbx, page, _ = detail(CROWDED, argv=journal())
    press(tbx, PAGE_DOWN, replace(page, scroll=14))
    press(tbx, TAB, replace(page, history=[]))
    press(tbx, TAB, page)


def test_switching_the_tab_reads_the_recipients_again(detail, store, journal):
    tbx, page, _ = detail(Message(1, delivered=("daemon", "bin")), argv=journal())
    store.confirm("bin", 1, DATE + 60)
    store.confirm("daemon", 1, DATE + 60)
    changed = replace(page, message=Message(1, confirmed=("daemon", "bin"), delivered=()))
    press(tbx, TAB, replace(changed, history=[]))
    press(tbx, BACK_TAB, changed)


EVENTS = [record("SENT", message=1, details="daemon, bin", author="alex"),
          record("DELIVERED", message=1, user="daemon", details="2", when=DATE + 1),
          record("DELIVERED", message=2, user="bin", details="0", when=DATE + 2),
          record("REVOKED", message=1, author="root", when=DATE + 3)]
HISTORY = ["2026-09-21 14:13:20  message 1 sent by alex to: daemon, bin",
           "2026-09-21 14:13:21  message 1 delivered to daemon (terminals written: 2)",
           "2026-09-21 14:13:23  message 1 revoked by root"]


@pytest.mark.parametrize("size", [(80, 20), (80, 24), (200, 60)])
def test_history_shows_the_events_of_the_message(detail, journal, size):
    tbx, page, _ = detail(Message(1), size, argv=journal(*EVENTS))
    press(tbx, TAB, replace(page, history=HISTORY))


def test_history_is_read_each_time_its_tab_is_opened(detail, journal):
    tbx, page, _ = detail(Message(1), argv=journal())
    press(tbx, TAB, replace(page, history=[]))
    journal(*EVENTS)
    press(tbx, TAB, page)
    press(tbx, TAB, replace(page, history=HISTORY))


# ---- History that takes its time ----------------------------------------------------------

@pytest.fixture
def slow_history(detail, journal, strace):
    """slow_history() opens the page of a message whose history stands still when it is read.

    Returns the terminal, the page, the list behind it, and what gives the process that stands.
    """
    del strace  # there to be asked for

    def open_page():
        stop = ["strace", "-f", "-qq", "-o", "/dev/null", "-P", "/var/log/journal",
                "-e", "trace=openat", "-e", "inject=openat:signal=SIGSTOP:when=1"]
        tbx, page, behind = detail(Message(1), argv=[*stop, *journal(*EVENTS)],
                                   env={"ASAN_OPTIONS": "detect_leaks=0"})
        return tbx, page, behind, lambda: stopped_command(tbx)

    return open_page


def test_history_that_takes_its_time_is_said_to_be_at_work(slow_history):
    tbx, page, _, standing = slow_history()
    tbx.send(TAB)
    tbx.wait_for("Working …")
    os.kill(standing(), signal.SIGCONT)
    expect(tbx, replace(page, history=HISTORY))


def test_history_that_is_interrupted_says_so(slow_history):
    tbx, page, _, standing = slow_history()
    tbx.send(TAB)
    tbx.wait_for("Working …")
    os.kill(standing(), signal.SIGKILL)
    expect(tbx, replace(page, history=["Interrupted."]))


def test_keys_typed_while_the_history_is_read_are_taken_by_it(slow_history):
    tbx, page, behind, standing = slow_history()
    tbx.send(TAB)
    tbx.wait_for("Working …")
    tbx.send("r")
    os.kill(standing(), signal.SIGCONT)
    tbx.wait_for("y  Confirm")
    reply(tbx, "n")
    os.kill(standing(), signal.SIGCONT)
    press(tbx, ESCAPE, behind)


def test_history_that_is_read_again_by_itself_covers_the_page_with_no_box(slow_history):
    tbx, page, _, standing = slow_history()
    tbx.send(TAB)
    os.kill(standing(), signal.SIGCONT)
    expect(tbx, replace(page, history=HISTORY))
    command = standing()  # read again by itself
    tbx.wait_until_still(seconds=0.8)  # a box would have come
    drawn = frames_drawn(tbx)
    os.kill(command, signal.SIGKILL)
    tbx.wait_for(lambda: frames_drawn(tbx) > drawn)
    expect(tbx, replace(page, history=HISTORY))
    opened = frame_that_shows(tbx, HISTORY[0])
    assert not any("Working" in frame for frame in frames_as_text(tbx)[opened:])


def test_ctrl_c_while_the_history_is_read_by_itself_ends_the_interface(slow_history):
    tbx, page, _, standing = slow_history()
    tbx.send(TAB)
    os.kill(standing(), signal.SIGCONT)
    expect(tbx, replace(page, history=HISTORY))
    standing()
    tbx.send(CTRL_C)
    assert tbx.wait_exit() == 0


def test_history_scrolls(detail, journal):
    events = [record("REMINDED", message=1, details=str(number), author="root", usec=number)
              for number in range(2, 32)]
    lines = [f"2026-09-21 14:13:20  message 1: {number} recipients reminded by root"
             for number in range(2, 32)]
    tbx, page, _ = detail(Message(1), argv=journal(*events))
    page = replace(page, history=lines)
    press(tbx, TAB, page)
    press(tbx, DOWN, replace(page, scroll=1))
    press(tbx, PAGE_DOWN, replace(page, scroll=15))
    press(tbx, PAGE_DOWN + UP, replace(page, scroll=14))


def test_history_of_more_than_a_megabyte_is_cut_there(detail, journal):
    details = "x" * 60_000
    events = [record("SENT", message=1, details=details, author="alex", usec=number)
              for number in range(40)]
    line = f"2026-09-21 14:13:20  message 1 sent by alex to: {details}"
    heading = "Message 1 · 21/09 14:13\n".encode()
    whole, rest = divmod(1_048_576 - len(heading), len(line) + 1)
    lines = [line] * whole + [line[:rest]]
    tbx, page, _ = detail(Message(1), argv=journal(*events))
    press(tbx, TAB, replace(page, history=lines))
    press(tbx, PAGE_DOWN * 3, replace(page, history=lines, scroll=len(lines) - 15))


# ---- Acting on the message ----------------------------------------------------------------


@pytest.mark.parametrize("state", MESSAGE_STATES)
def test_r_revokes_what_is_not_revoked(detail, state):
    message, can_be_revoked, _ = MESSAGE_STATES[state]
    tbx, page, behind = detail(message)
    if can_be_revoked:
        press(tbx, "r", page, revoke_confirmation(message))
        press(tbx, "n", page)
    else:
        tbx.send("ry")
        press(tbx, ESCAPE, behind)


@pytest.mark.parametrize("state", MESSAGE_STATES)
def test_m_reminds_where_a_reminder_is_of_use(detail, state):
    message, _, can_be_reminded = MESSAGE_STATES[state]
    tbx, page, behind = detail(message)
    if can_be_reminded:
        press(tbx, "m", page, remind_confirmation(message))
        press(tbx, "n", page)
    else:
        tbx.send("my")
        press(tbx, ESCAPE, behind)


@pytest.mark.parametrize("key", ["r", "m"])
def test_dialog_of_the_history_tab_returns_to_it(detail, journal, key):
    tbx, page, _ = detail(Message(1), argv=journal(*EVENTS))
    press(tbx, TAB, replace(page, history=HISTORY))
    tbx.send(key)
    tbx.wait_for("y  Confirm")
    press(tbx, "n", replace(page, history=HISTORY))


@pytest.mark.parametrize("key", ["r", "m"])
def test_message_is_read_again_after_a_dialog(detail, store, key):
    tbx, page, _ = detail(Message(1, delivered=("daemon", "bin")))
    tbx.send(key)
    tbx.wait_for("y  Confirm")
    store.confirm("daemon", 1, DATE + 60)
    press(tbx, "n", replace(page, message=Message(1, confirmed=("daemon",), delivered=("bin",))))


# ---- Leaving ------------------------------------------------------------------------------


@pytest.mark.parametrize("key", ["q", ESCAPE])
def test_key_goes_back_to_the_list(detail, key):
    tbx, _, behind = detail(Message(1))
    press(tbx, key, behind)


def test_list_is_read_again_on_return(detail, store):
    tbx, _, behind = detail(Message(1))
    arrived = Message(2).put(store)
    press(tbx, "q", replace(behind, messages=(Message(1), arrived)))


def test_only_few_keys_do_something(detail):
    tbx, page, _ = detail(CROWDED)
    page = replace(page, scroll=1)
    press(tbx, DOWN, page)
    for key in [*MEANINGLESS, *BROKEN_CHARACTERS, *"QMRnp/?x 0", "é", "日", "😀", HOME, END, ENTER,
                LEFT, RIGHT, BACKSPACE, DELETE, CTRL_E, CTRL_S]:
        tbx.send(key)
        press(tbx, DOWN, replace(page, scroll=2))  # which shows that the key was dealt with
        press(tbx, UP, page)


@pytest.mark.parametrize("asking", ["", "r", "m"], ids=["tab", "revoke dialog", "reminder"])
def test_message_that_was_purged_meanwhile_closes_the_page(detail, store, asking):
    tbx, _, behind = detail(Message(1))
    tbx.send(asking)
    tbx.wait_for("y  Confirm" if asking else "Message 1")
    shutil.rmtree(store.sent(1))
    press(tbx, "n" if asking else TAB, replace(behind, messages=()))


def test_message_purged_by_another_run_closes_the_page(detail, terminal):
    tbx, _, behind = detail(Message(1, date=PAST))
    assert terminal("purge", "1d").wait_exit() == 0
    press(tbx, TAB, replace(behind, messages=()))


# ---- Keeping up to date -------------------------------------------------------------------


def test_message_is_read_again_with_every_sixth_idle_tick(detail, store):
    tbx, page, _ = detail(Message(1))
    opened = frame_that_shows(tbx, "Recipients (1)")
    store.confirm("daemon", 1, DATE + 60)
    expect(tbx, replace(page, message=Message(1, confirmed=("daemon",), delivered=())))
    assert frame_that_shows(tbx, "confirmed on") == opened + 6
    clocks = clocks_shown(tbx)[opened:opened + 7]
    assert [clock == clocks[0] for clock in clocks] == [True] * 6 + [False]


def test_message_purged_meanwhile_closes_the_page_by_itself(detail, store):
    tbx, _, behind = detail(Message(1))
    shutil.rmtree(store.sent(1))
    expect(tbx, replace(behind, messages=()))
