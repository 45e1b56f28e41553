"""The expiry of a message, given as a duration or to the date program."""

import time

import pytest

from harness.outcome import assert_refused, assert_sent


def send_with_expiry(box, value):
    return int(assert_sent(box, "--to", "pat", "--expires", value, "hello")["expires"])


@pytest.mark.parametrize("value,seconds", [("90m", 5400), ("000000000000000001h", 3600)])
def test_a_duration_is_counted_from_now(box, value, seconds):
    before = int(time.time())
    expiry = send_with_expiry(box, value)
    assert before + seconds <= expiry <= int(time.time()) + seconds


def test_without_expiry_the_message_never_expires(box):
    assert assert_sent(box, "--to", "pat", "hello")["expires"] == ""


@pytest.mark.parametrize("value", ["0m", "now"])
def test_an_expiry_that_is_not_in_the_future_is_refused(box, value):
    assert_refused(box, "the expiry is already in the past",
                   "send", "--to", "pat", "--expires", value, "hello")


def test_an_absolute_expiry_is_what_the_date_program_makes_of_it(box):
    assert send_with_expiry(box, "2100-01-01 00:00 UTC") == 4102444800


def test_a_relative_expiry_in_words_goes_through_the_date_program(box):
    before = int(time.time())
    assert before < send_with_expiry(box, "tomorrow") < before + 2 * 86400


def test_an_expiry_of_18_digits_is_stored(box):
    assert send_with_expiry(box, "11574000000000d") // 10**9 == 999993600000000000 // 10**9 + 1


@pytest.mark.parametrize("value", ["999999999999999999d", "11574074074074d"])
def test_an_expiry_of_more_than_18_digits_is_invalid(box, value):
    assert_refused(box, f"invalid expiry: {value}",
                   "send", "--to", "pat", "--expires", value, "hello")


@pytest.mark.parametrize("value", ["5", "--help", " ", "$(id)"])
def test_what_is_no_duration_is_given_to_the_date_program_as_it_stands(box, value):
    date = box.stand_in("date", "echo 5000000000")
    assert send_with_expiry(box, value) == 5000000000
    assert date.calls() == [["-d", value, "+%s"]]


def test_a_duration_does_not_need_the_date_program(box):
    date = box.stand_in("date", "echo 5000000000")
    send_with_expiry(box, "2h")
    assert date.calls() == []


@pytest.mark.parametrize("output", ["printf 5000000000", "printf '5000000000\\nmore\\n'",
                                    "echo 005000000000", "echo 5000000000; echo noise >&2"])
def test_the_first_line_of_the_date_program_is_the_expiry(box, output):
    box.stand_in("date", output)
    assert send_with_expiry(box, "soon") == 5000000000


@pytest.mark.parametrize("body", [
    "echo 5000000000; exit 1", "echo 5000000000; kill -9 $$", "echo 5000000000; kill -TERM $$",
    "exit 0", "echo", "echo soon", "echo ' 5000000000'", "echo '5000000000 '", "echo -5",
    "echo 1234567890123456789", "echo 5e9", "printf '\\n5000000000\\n'",
    "head -c 100 /dev/zero | tr '\\0' 0", "head -c 65 /dev/zero | tr '\\0' 9",
    "printf '5000000000\\0\\n'"])
def test_an_answer_that_is_no_number_or_a_failure_is_an_invalid_expiry(box, body):
    box.stand_in("date", body)
    assert_refused(box, "invalid expiry: soon", "send", "--to", "pat", "--expires", "soon", "hello")


def test_a_date_program_that_does_not_stop_talking_is_an_invalid_expiry(box):
    box.stand_in("date", "exec yes 5000000000 x")
    assert_refused(box, "invalid expiry: soon", "send", "--to", "pat", "--expires", "soon", "hello",
                   timeout=20)


def test_a_missing_date_program_is_an_invalid_expiry(box):
    assert_refused(box, "invalid expiry: soon", "send", "--to", "pat", "--expires", "soon", "hello",
                   wrap=["/usr/bin/env", "PATH=/nonexistent"])


def test_the_date_program_s_own_complaints_are_not_shown(box):
    assert_refused(box, "invalid expiry: no such day",
                   "send", "--to", "pat", "--expires", "no such day", "hello")


def test_the_date_program_has_no_descriptor_of_the_program(box):
    box.stand_in("date", "ls /proc/self/fd > /run/open; echo 5000000000")
    send_with_expiry(box, "soon")
    numbers = box.path("/run/open").read_text(encoding="ascii").split()
    assert set(numbers) <= {"0", "1", "2", "3"}  # 3 is the listed folder itself


@pytest.mark.parametrize("call", ["pipe2", "clone,clone3,fork,vfork"])
def test_a_failing_pipe_or_fork_is_an_invalid_expiry(box, strace, call):
    traced = box.trace(call, "send", "--to", "pat", "--expires", "soon", "hello",
                       inject=[f"{call}:error=EAGAIN"])
    assert tuple(traced.result) == ("", "tbx: invalid expiry: soon\n", 1)
    assert not box.store.top.exists()


def test_a_date_program_that_cannot_be_listened_to_is_not_started(box, strace):
    box.stand_in("date", "echo started > /run/started; echo 5000000000")
    traced = box.trace("dup2,dup3", "send", "--to", "pat", "--expires", "soon", "hello",
                       inject=["dup2,dup3:error=EBUSY"])
    assert tuple(traced.result) == ("", "tbx: invalid expiry: soon\n", 1)
    assert not box.path("/run/started").exists()


def test_a_date_program_whose_status_nobody_tells_is_no_date(box, strace):
    traced = box.trace("wait4", "send", "--to", "pat", "--expires", "tomorrow", "hello",
                       inject=["wait4:error=ECHILD"])
    assert tuple(traced.result) == ("", "tbx: invalid expiry: tomorrow\n", 1)


# Disturbed.

def reads_of_the_answer(box):
    """Which of the program's own reads take in what the date program says."""
    traced = box.trace("read", "send", "--to", "pat", "--expires", "tomorrow", "hello")
    assert traced.result.status == 0
    return [number for number, (_, arguments, _) in enumerate(traced.of_parent(), 1)
            if "<pipe:" in arguments.split(",")[0]]


def send_with_a_disturbed_answer(box, error):
    """Sends while the first read of the answer fails: returns the Trace and how many messages there
    were before.

    A sanitizer reads files of its own, not equally often each time: tried until the answer is hit.
    """
    for _ in range(20):
        first = reads_of_the_answer(box)[0]
        before = len(messages(box))
        traced = box.trace("read", "send", "--to", "pat", "--expires", "tomorrow", "hello",
                           inject=[f"read:error={error}:when={first}"])
        if any("INJECTED" in outcome and "<pipe:" in arguments.split(",")[0]
               for _, arguments, outcome in traced.of_parent()):
            return traced, before
    raise AssertionError("the answer was never hit")


def messages(box):
    return [path for path in (box.store.top / "sent").iterdir() if path.name.isdigit()]


def test_an_answer_whose_reading_is_interrupted_is_read_on(box):
    traced, before = send_with_a_disturbed_answer(box, "EINTR")
    assert traced.result.status == 0
    assert len(messages(box)) == before + 1


def test_an_answer_that_cannot_be_read_is_no_date(box):
    traced, before = send_with_a_disturbed_answer(box, "EIO")
    assert tuple(traced.result) == ("", "tbx: invalid expiry: tomorrow\n", 1)
    assert len(messages(box)) == before
