"""The agent opens a window for each message that is due, and writes down what the user answers."""

import fcntl
import os
import pathlib
import re
import signal
import subprocess
import time

import pytest

from dialog import GUARD_SECONDS
from editor import KEYS_PER_SECOND
from processes import await_condition

READ, LATER = "I have read it", "Later"


def process_status(pid, name):
    text = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="utf-8")
    return re.search(rf"^{name}:\s+(\S+)", text, re.MULTILINE)[1]


# ---- Showing and answering ----------------------------------------------------------------

def test_a_message_that_waits_is_shown_at_the_start(recipient):
    number = recipient.send("Please log out.", "--title", "Tonight")
    window = recipient.start_agent().await_window(number)
    assert window.text == "Please log out."


def test_a_message_that_comes_is_shown_and_confirmed(recipient):
    agent = recipient.start_agent()
    number = recipient.send()
    window = agent.await_window(number)
    time.sleep(GUARD_SECONDS + 0.1)
    window.click(READ)
    assert recipient.await_answer(number) == "desktop"
    assert recipient.events() == [("CONFIRMED", number, "desktop")]
    assert "desktop" in recipient.tbx("status", str(number))
    agent.await_no_window()


def test_a_message_that_is_put_off_comes_back_when_it_is_due(recipient):
    agent = recipient.start_agent()
    number = recipient.send()
    agent.answer(LATER, number)
    recipient.await_mark(number, "postponed")
    recipient.await_events(("POSTPONED", number, "desktop"))
    assert recipient.no_window_comes()
    recipient.make_due(number)
    agent.await_window(number)


def test_messages_come_one_after_the_other_and_are_counted(recipient):
    numbers = [recipient.send(f"message {n}") for n in range(3)]
    agent = recipient.start_agent()
    for place, number in enumerate(numbers, 1):
        window = agent.await_window(number)
        assert window.text == f"message {place - 1}"
        assert agent.title().endswith(f" · {place} of 3")
        time.sleep(GUARD_SECONDS + 0.1)
        window.button(READ).activate()
        recipient.await_answer(number)
    agent.await_no_window()


def test_the_mailbox_may_appear_later(recipient):
    agent = recipient.start_agent()
    assert not recipient.file().exists()
    agent.await_window(recipient.send())


def test_a_window_that_ends_without_an_answer_leaves_the_message_shown(recipient):
    agent = recipient.start_agent()
    number = recipient.send()
    os.kill(agent.await_window(number).pid, signal.SIGKILL)
    agent.await_no_window()
    assert recipient.no_window_comes()
    assert recipient.is_unanswered(number)
    recipient.make_due(number)
    agent.await_window(number)


def test_a_mark_that_cannot_be_written_is_remembered_until_a_reminder(recipient):
    said = recipient.folder / "said"  # no mark tells that the second message was shown
    recipient.use_window(f"echo shown; echo shown >>{said}; exec sleep 60")
    first = recipient.send()
    agent = recipient.start_agent()
    await_condition(said.exists, "the first one is shown")
    os.kill(agent.windows()[0], signal.SIGTERM)
    recipient.await_mark(first, "shown")
    agent.sees_read_only(recipient.file("state"))
    number = recipient.send()
    await_condition(lambda: said.read_text() == "shown\nshown\n", "it is shown")
    os.kill(agent.windows()[0], signal.SIGTERM)
    agent.await_no_window()
    recipient.wake()  # as at the end of the delivery
    assert recipient.no_window_comes(2)  # signals of one look count as one
    assert recipient.mark(number) is None
    recipient.wake()  # as after a reminder, which found no mark to remove
    await_condition(agent.windows, "it is shown again")


def test_an_answer_that_cannot_be_written_is_reported(recipient):
    number = recipient.send()
    agent = recipient.start_agent(errors=subprocess.PIPE)
    agent.await_window(number)
    recipient.file("acks").rmdir()
    recipient.file("acks").symlink_to("/nonexistent")
    agent.answer(READ)
    agent.await_no_window()
    assert recipient.file("inbox", number).exists()
    agent.signal(signal.SIGTERM)
    assert f"the answer to message {number} could not be saved: " in agent.process.stderr.read(
    ).decode()


def test_whoever_types_while_ten_messages_come_confirms_none(recipient, screen, editor):
    agent = recipient.start_agent()
    editor.type_until_stopped()
    for _ in range(10):
        number = recipient.send("Press Enter to go on.")
        recipient.await_mark(number, "shown")
        time.sleep(GUARD_SECONDS + 0.3)  # after this, keys and clicks would answer
        assert agent.windows() and recipient.is_unanswered(number)
        recipient.file("inbox", number).unlink()
        agent.await_no_window()
    assert editor.stop_typing() > 10 * GUARD_SECONDS * KEYS_PER_SECOND / 2
    assert recipient.events() == []


def test_of_two_hundred_answers_from_everywhere_at_once_one_counts(recipient, screen):
    recipient.use_window('echo shown; flock --shared "$0" true; echo read')
    window = recipient.lib / "tellbox-window"
    agent = recipient.start_agent()
    with window.open("rb") as gate:
        fcntl.flock(gate, fcntl.LOCK_EX)
        number = recipient.send()
        recipient.await_mark(number, "shown")
        others = [recipient.start_tellbox(screen, "read", number, gate=window)
                  for _ in range(199)]
        fcntl.flock(gate, fcntl.LOCK_UN)
        told = [process.communicate(timeout=60)[0] for process in others]
    assert {process.returncode for process in others} == {0}
    agent.await_no_window()
    channel = recipient.await_answer(number)
    assert recipient.events() == [("CONFIRMED", number, channel)]
    first = [text for text in told if "already" not in text]
    assert len(first) == (1 if channel == "terminal" else 0), first


# ---- What happens elsewhere ---------------------------------------------------------------

def revoked(recipient, number):
    recipient.tbx("revoke", str(number))


def deleted(recipient, number):
    recipient.file("inbox", number).unlink()


def confirmed(recipient, number):
    recipient.file("acks", number).write_text(f"{int(time.time())} terminal\n")


def postponed(recipient, number):
    recipient.file("state", f"{number}.term").write_text("postponed\n")


@pytest.mark.parametrize("elsewhere", [revoked, deleted, confirmed, postponed])
def test_a_message_that_goes_elsewhere_goes_from_the_screen(recipient, elsewhere):
    agent = recipient.start_agent()
    number = recipient.send()
    agent.await_window(number)
    elsewhere(recipient, number)
    agent.await_no_window()
    assert recipient.no_window_comes()


def test_a_message_that_cannot_be_read_any_more_stays_on_the_screen(recipient):
    agent = recipient.start_agent()
    number = recipient.send()
    window = agent.await_window(number)
    agent.cannot_read(recipient.file("inbox", number))
    recipient.wake()
    time.sleep(0.5)  # that nothing happens can only be waited for
    assert agent.windows() == [window.pid]


def test_a_message_that_expires_goes_from_the_screen(recipient):
    agent = recipient.start_agent()
    number = recipient.send()
    recipient.let_expire(number, seconds=3)
    agent.await_window(number)
    agent.await_no_window()
    assert recipient.is_unanswered(number)


def test_a_message_of_which_the_administrator_reminds_comes_up_anew(recipient):
    agent = recipient.start_agent()
    number = recipient.send()
    before = agent.await_window(number)
    recipient.tbx("remind", str(number))
    agent.await_another_window(before)
    recipient.await_mark(number, "shown")


def test_a_mailbox_that_goes_takes_the_window_along(recipient):
    agent = recipient.start_agent()
    agent.await_window(recipient.send())
    recipient.file().rename(recipient.var / "away")
    agent.await_no_window()
    (recipient.var / "away").rename(recipient.file())
    (recipient.file("state", "1.gui")).unlink()
    agent.await_window(1)


# ---- Windows that are not what they should be ---------------------------------------------

@pytest.mark.parametrize("script", [
    "echo read", "echo read; echo shown", "echo shown; echo read; exit 1",
    "echo shown; echo read; kill -9 $$", "echo shown; echo READ", "echo shown; echo 'read '",
    "echo shown; printf read", "echo shown; echo read; echo later; sleep 60",
    "echo shown; echo later; echo read", "echo shown; echo yes; echo read",
    "echo shown; echo shown; echo read", "exec yes", "exec cat /dev/zero",
    "echo shown; exec >&-; sleep 60",
])
def test_only_a_word_and_a_good_end_are_an_answer(recipient, script):
    recipient.use_window(f'echo "$$" >>{recipient.folder}/began; {script}')
    number = recipient.send()
    agent = recipient.start_agent()
    await_condition((recipient.folder / "began").exists, "the window")
    agent.await_no_window()
    assert recipient.is_unanswered(number)
    assert recipient.events() in ([], [("POSTPONED", number, "desktop")])
    assert recipient.mark(number) in (None, "shown")


def test_a_window_that_shows_nothing_is_not_marked_and_tried_again_later(recipient):
    recipient.use_window(f"echo x >>{recipient.folder}/tries; exit 1")
    number = recipient.send()
    agent = recipient.start_agent()
    tries = recipient.folder / "tries"
    await_condition(tries.exists, "the first try")
    agent.await_no_window()
    assert recipient.no_window_comes()
    assert (tries.read_text(), recipient.mark(number)) == ("x\n", None)
    recipient.wake()  # somebody has news
    await_condition(lambda: tries.read_text() == "x\nx\n", "the second try")


def test_a_message_that_ends_its_window_holds_up_no_other(recipient):
    recipient.use_window('grep -q harmless || exit 1; echo shown; exec sleep 60')
    crashing, other = recipient.send("crash"), recipient.send("harmless")
    recipient.start_agent()
    recipient.await_mark(other, "shown")
    assert recipient.mark(crashing) is None


def test_a_window_that_hangs_is_killed_and_the_next_one_has_no_bus(recipient):
    recipient.use_window(f'trap "" TERM; echo "$DBUS_SESSION_BUS_ADDRESS" >>{recipient.folder}/tries; '
                         "while :; do sleep 1; done")
    number = recipient.send()
    agent = recipient.start_agent()
    window, = await_condition(agent.windows, "the window")
    await_condition(lambda: window not in agent.windows(), "it is killed", seconds=40)
    assert recipient.mark(number) is None
    recipient.wake()
    tries = recipient.folder / "tries"
    await_condition(lambda: tries.read_text().endswith("\ndisabled:\n"), "the next one")


def test_the_window_inherits_no_signal_and_no_descriptor(recipient):
    recipient.use_window(f"cat /proc/self/status >{recipient.folder}/status; "
                         f"ls /proc/self/fd >{recipient.folder}/open; echo shown; sleep 60")
    number = recipient.send()
    recipient.start_agent()
    recipient.await_mark(number, "shown")
    status = (recipient.folder / "status").read_text()
    assert re.search(r"^SigBlk:\s+0+$", status, re.MULTILINE)
    assert re.search(r"^SigIgn:\s+0+$", status, re.MULTILINE)
    assert (recipient.folder / "open").read_text().split() == ["0", "1", "2", "3"]  # 3 is ls's


# ---- Around it ----------------------------------------------------------------------------

def test_a_mute_bus_costs_the_message_nothing(recipient, mute_bus):
    number = recipient.send()
    agent = recipient.start_agent(env={"DBUS_SESSION_BUS_ADDRESS": mute_bus})
    recipient.await_mark(number, "shown")
    window, = agent.windows()
    environment = pathlib.Path(f"/proc/{window}/environ").read_bytes().split(b"\0")
    assert b"DBUS_SESSION_BUS_ADDRESS=disabled:" in environment


@pytest.mark.parametrize("address", ["disabled:", "unix:path=/nonexistent", "nonsense"])
def test_without_a_bus_the_window_comes_all_the_same(recipient, address):
    number = recipient.send()
    recipient.start_agent(env={"DBUS_SESSION_BUS_ADDRESS": address})
    recipient.await_mark(number, "shown")


def test_a_display_that_dies_leaves_the_message_waiting(recipient, new_screen):
    shown = new_screen()
    number = recipient.send()
    agent = recipient.start_agent(env={"DISPLAY": shown.name})
    recipient.await_mark(number, "shown")
    shown.die()
    agent.await_no_window()
    assert recipient.is_unanswered(number)
    recipient.make_due(number)
    assert recipient.no_window_comes()
    assert agent.process.poll() is None


def test_idle_it_sleeps_and_is_small(recipient):
    agent = recipient.start_agent()
    agent.answer(READ, recipient.send())
    agent.await_no_window()
    pid = agent.process.pid

    def switches():
        return process_status(pid, "voluntary_ctxt_switches")

    def is_still():
        before = switches()
        time.sleep(0.5)
        return switches() == before

    await_condition(is_still, "the agent sleeps")
    assert int(process_status(pid, "RssAnon")) < 2048  # KiB
    assert process_status(pid, "Threads") == "1"


def test_a_mailbox_that_changes_all_the_time_is_looked_at_now_and_then(recipient, strace):
    recipient.use_window("echo shown; exec sleep 60")
    agent = recipient.start_agent()
    recipient.await_mark(recipient.send(), "shown")
    trace = recipient.folder / "trace"
    with subprocess.Popen(["strace", "-p", str(agent.process.pid), "-e", "trace=openat", "-o", trace],
                          stderr=subprocess.PIPE) as tracer:
        assert b"attached" in tracer.stderr.readline()
        began = time.monotonic()
        while time.monotonic() < began + 1:
            recipient.file("state", "other").write_text("", encoding="ascii")
        seconds = time.monotonic() - began
        tracer.terminate()
    looks = trace.read_text(encoding="utf-8").count('"inbox"')
    assert 0 < looks < seconds / 0.019 + 2  # with at least 20 ms between two of them


def test_a_mailbox_of_unpleasant_things_is_looked_through(recipient):
    number = recipient.send("good")
    inbox = recipient.file("inbox")
    (inbox / "100").symlink_to("/etc/passwd")
    os.mkfifo(inbox / "101")
    (inbox / "102").mkdir()
    (inbox / "103").write_bytes(b"x" * 200000)
    (inbox / "104").write_bytes(os.urandom(1000))
    os.mkfifo(recipient.file("state", "104.gui"))
    agent = recipient.start_agent()
    assert agent.await_window(number).text == "good"
    assert "of" not in agent.title().split("·")[-1] or agent.title().endswith("administrator")


def test_many_messages_are_counted_and_shown_in_order(recipient):
    first = recipient.send("first")
    copy = recipient.file("inbox", first).read_text(encoding="utf-8")
    for number in range(2, 1001):
        recipient.file("inbox", number).write_text(copy, encoding="utf-8")
    agent = recipient.start_agent()
    agent.await_window(first)
    assert agent.title().endswith("1 of 1000")
