"""The question at a terminal: killed, refused and held up at every call."""

import errno
import signal

import pytest
from question import (
    FIRST,
    LONG,
    QUESTION,
    QUITTING,
    SECONDS,
    THREE,
    TWO,
    QuestionBench,
    first_case,
    question_stops,
    try_question_together,
)
from short_form import chosen_failures
from tracing import Fault, StoppedRun
from trials import Tally, failures, kept_benches, kills

PLACES = 4  # where the first of two stands still


@pytest.fixture
def new_question_bench(binary):
    """Makes a QuestionBench for a case; all of them go with the test."""
    yield from kept_benches(lambda case: QuestionBench(binary, case))


def asking(bench):
    """The calls from the first message's text on; what comes before is every command's."""
    first = next(place for place, call in enumerate(bench.calls)
                 if (call.name, call.path) == ("write", "stdout") or call.name == "pipe2")
    return bench.calls[first:]


def drawing(bench):
    """The call that writes the first question."""
    return next(call for call in bench.calls if (call.name, call.path, call.outcome) ==
                ("write", "stdout", len(QUESTION)))


def try_all(bench, faults):
    tally = Tally()
    for fault in faults:
        tally.add(bench.try_fault(fault))
    assert tally.failed == []
    return tally


def test_undisturbed_each_key_does_what_it_says(new_question_bench):
    bench = new_question_bench(THREE)
    assert bench.try_fault().failed == []
    bench.fresh()
    run = bench.run_traced()
    assert bench.person.pressed == [(7, "r"), (8, "l"), (9, "q")]
    assert run.stderr == ""
    assert sorted(bench.files()) == ["acks/7", "inbox/8", "inbox/9", "read/7", "state/7.term",
                                     "state/8.term", "state/9.term"]
    assert bench.files()["state/8.term"][1] == b"postponed\n"


def test_no_answer_is_lost_or_made_up_wherever_the_question_is_killed(new_question_bench):
    bench = new_question_bench(THREE)
    assert try_all(bench, kills(asking(bench))).tried > 30


def test_no_answer_is_lost_or_made_up_whichever_call_of_it_fails(new_question_bench):
    bench = new_question_bench(TWO)
    assert try_all(bench, chosen_failures(asking(bench), set())).tried > 60


def test_a_pager_that_fails_anywhere_hides_no_text(new_question_bench):
    bench = new_question_bench(LONG)
    calls = bench.calls[:bench.calls.index(drawing(bench))]
    shown = [call for call in calls if call.process > 0 or call.path == "pipe" or
             call.name in ("pipe2", "fork", "wait4")]
    assert try_all(bench, failures(shown)).tried > 15


@pytest.mark.parametrize("error", [errno.EIO, errno.EINTR, errno.EAGAIN])
def test_a_question_that_is_not_on_the_screen_takes_no_answer(new_question_bench, error):
    bench = new_question_bench(THREE)
    fault = Fault(drawing(bench), "fail", error)
    assert bench.try_fault(fault).failed == []
    bench.fresh()
    run = bench.run_traced(fault)
    if error == errno.EIO:
        assert (bench.person.pressed, run.status) == ([], 1)
        assert run.stderr == "tellbox: standard output: Input/output error\n"
    else:  # it is written once more
        assert len(bench.person.pressed) == 3


def test_what_the_terminal_does_not_take_is_not_asked_about_or_marked(new_question_bench):
    bench = new_question_bench(TWO)
    writes = [call for call in bench.calls if (call.name, call.path) == ("write", "stdout")]
    faults = [Fault(call, "fail", errno.EIO) for call in writes if call.outcome > 1]
    assert try_all(bench, faults).tried > 5


@pytest.mark.parametrize("error", [errno.EINTR, errno.EIO])
def test_what_was_typed_ahead_answers_nothing_even_if_it_cannot_be_dropped(new_question_bench,
                                                                           error):
    bench = new_question_bench(QUITTING)
    sets = next(call for call in bench.calls if call.flags == "sets")
    bench.hurries = False
    bench.fresh()
    bench.person.type_ahead(b"r")
    bench.person.reads_for_seconds = 0.8  # until a key counts
    run = bench.run_traced(Fault(sets, "fail", error))
    assert (bench.person.pressed, run.status) == ([(7, "q")], 0)
    assert sorted(bench.files()) == ["inbox/7", "state/7.term"]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_that_comes_just_behind_an_answer_is_not_forgotten(new_question_bench, number):
    bench = new_question_bench(THREE)
    calls = bench.calls[bench.calls.index(drawing(bench)) + 1:]
    end_of_line = next(call for call in calls if (call.name, call.path) == ("write", "stdout"))
    bench.fresh()
    stopped = StoppedRun(bench.machine, end_of_line, hurries=True, meanwhile=bench.person.attend,
                         **bench.options())
    stopped.send_signal(number)
    run = bench.heard(stopped.go_on())
    assert (bench.person.pressed, run.status) == ([(7, "r")], 1)
    assert run.stdout.endswith("Message 7 confirmed.\n")
    assert "acks/7" in bench.files()


@pytest.mark.parametrize("second", SECONDS)
@pytest.mark.parametrize("key", FIRST)
def test_whatever_happens_while_the_question_stands_does_no_harm(new_question_bench, key, second):
    bench = new_question_bench(first_case(key, second))
    points = question_stops(bench.calls)
    places = 1 if second == "expiry" else PLACES
    tally = Tally()
    for point in points[len(points) // 2 % places::-(-len(points) // places)]:
        tally.add(try_question_together(bench, second, point))
    assert (tally.failed, tally.missed) == ([], 0)
    assert tally.tried >= places
