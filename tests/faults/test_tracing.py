"""The tracer does to a call what it is told to, and to no other."""

import errno
import time

import pytest
from tracing import KILLED, Call, Fault, StoppedRun, run_traced

STATE = "/var/lib/tellbox"


def found(calls, name, path):
    """The first call of that name on that file."""
    return next(call for call in calls if call.name == name and call.path.endswith(path))


@pytest.fixture
def send(machine):
    """Sends "Hello" to pat with one fault; returns the Run."""
    def run(fault=None):
        return run_traced(machine, "send", "--to", "pat", "Hello", fault=fault)
    return run


@pytest.fixture
def calls(machine, send):
    """The calls of the first send; the store is gone again."""
    calls = send().calls
    machine.shell(f"rm -r {STATE}")
    return calls


def test_a_trace_begins_with_the_program_s_own_code(calls):
    assert calls[0].name == "fcntl"  # whether a standard descriptor is missing


def test_calls_are_counted_by_process_and_name(calls):
    for process in (0, 1):
        numbers = [call.occurrence for call in calls
                   if (call.process, call.name) == (process, "mkdir")]
        assert numbers == list(range(1, len(numbers) + 1)) and len(numbers) >= 4


def test_a_killed_process_never_makes_the_call(machine, send, calls):
    run = send(Fault(found(calls, "mkdir", "/sent"), "kill"))
    assert (run.status, run.calls[-1].outcome) == (KILLED, None)
    assert machine.store.mailbox("").exists()
    assert not machine.store.sent("").exists()


def test_a_killed_child_leaves_the_program_running(machine, send, calls):
    run = send(Fault(found(calls, "mkdir", "/inbox"), "kill"))
    assert run.stdout == "Message 1 delivered to 0 of 1 recipients.\n"
    assert list(machine.store.mailbox("pat").iterdir()) == []


def test_a_failing_call_does_nothing_and_reports_the_error(machine, send, calls):
    run = send(Fault(found(calls, "mkdir", "/sent/1"), "fail", errno.ENOSPC))
    assert tuple(run.result) == ("", f"tbx: {STATE}/sent/1: No space left on device\n", 1)
    assert found(run.calls, "mkdir", "/sent/1").outcome == -errno.ENOSPC
    assert not machine.store.sent(1).exists()


def test_a_failing_close_closes_all_the_same(send, calls):
    run = send(Fault(found(calls, "close", "/msg.tmp"), "fail", errno.EIO))
    assert run.stderr == f"tbx: {STATE}/sent/1: Input/output error\n"
    later = [call for call in run.calls if call.name == "openat" and call.process == 0][-1]
    assert later.outcome == found(run.calls, "openat", "/msg.tmp").outcome


def test_a_halved_write_is_told_as_such_and_continued(machine, send, calls):
    whole = found(calls, "write", "/msg.tmp").outcome
    run = send(Fault(found(calls, "write", "/msg.tmp"), "half"))
    writes = [call.outcome for call in run.calls
              if call.name == "write" and call.path.endswith("/msg.tmp")]
    assert writes == [whole // 2, whole - whole // 2]
    assert machine.store.sent(1, "msg").stat().st_size == whole


def test_a_disk_that_fills_up_takes_half_and_then_nothing(send, calls):
    run = send(Fault(found(calls, "write", "/msg.tmp"), "fill", errno.ENOSPC))
    assert run.stderr == f"tbx: {STATE}/sent/1: No space left on device\n"


def test_a_torn_write_leaves_half_of_it(machine, send, calls):
    write = found(calls, "write", "/msg.tmp")
    assert send(Fault(write, "tear")).status == KILLED
    assert machine.store.sent(1, "msg.tmp").stat().st_size == write.outcome // 2


def test_a_heap_that_cannot_grow_does_not_end_the_program(send, calls):
    point = Call(0, "brk", 1, 0, "-", ("-",))
    assert send(Fault(point, "fail", errno.ENOMEM)).status == 0


def test_a_point_that_is_never_reached_changes_nothing(send, calls):
    fault = Fault(Call(0, "mkdir", 99, 0, "-", ("/",)), "kill")
    run = send(fault)
    assert run.stdout == "Message 1 sent to 1 user.\n"
    assert not run.met(fault)


def test_a_stopped_run_stands_before_the_call_until_it_goes_on(machine, calls):
    stopped = StoppedRun(machine, found(calls, "mkdir", "/sent/1"), "send", "--to", "pat", "Hello")
    assert stopped.has_stopped
    assert (machine.store.top / "sent" / ".seq.lock").exists()
    assert not machine.store.sent(1).exists()
    assert stopped.go_on().stdout == "Message 1 sent to 1 user.\n"


TWO_LOOKS = "import time; a, b = time.monotonic(), time.monotonic(); print(b - a, time.time())"


def seconds_seen(machine, hurries):
    """What passes between two looks at the monotonic clock, and the time of day."""
    run = run_traced(machine, "-I", "-S", "-c", TWO_LOOKS, program="/usr/bin/python3",
                     hurries=hurries)
    return [float(word) for word in run.stdout.split()]


def test_in_a_hurry_the_monotonic_clock_gains_a_second_with_each_look(machine):
    before = time.time()
    passed, moment = seconds_seen(machine, hurries=True)
    assert passed >= 1
    assert before <= moment <= time.time()


def test_not_in_a_hurry_the_clock_is_the_machine_s(machine):
    began = time.monotonic()
    passed, _ = seconds_seen(machine, hurries=False)
    assert passed <= time.monotonic() - began
