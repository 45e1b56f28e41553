"""The recipients' answers: killed, refused and held up at every call."""

import pytest
from answers import EVERY_DAY, FIRST, OF_USER, OTHERS, AnswerBench, stops, try_together
from short_form import chosen_failures
from trials import Tally, kept_benches, kills


@pytest.fixture
def new_answer_bench(binary):
    """Makes an AnswerBench for a case; all of them go with the test."""
    yield from kept_benches(lambda case: AnswerBench(binary, case))


@pytest.mark.parametrize("case", EVERY_DAY, ids=str)
def test_no_answer_is_lost_or_made_up_wherever_the_command_is_killed(new_answer_bench, case):
    bench = new_answer_bench(case)
    tally = bench.try_fault()
    for fault in kills(bench.calls):
        tally.add(bench.try_fault(fault))
    assert tally.failed == []
    assert tally.tried > 1


@pytest.mark.parametrize("case", EVERY_DAY, ids=str)
def test_no_answer_is_lost_or_made_up_whichever_call_fails(new_answer_bench, case):
    bench = new_answer_bench(case)
    tally = Tally()
    for fault in chosen_failures(bench.calls, set()):
        tally.add(bench.try_fault(fault))
    assert tally.failed == []
    assert tally.tried > 20


@pytest.mark.parametrize("second", OTHERS)
@pytest.mark.parametrize("first", FIRST)
def test_whoever_answers_or_withdraws_meanwhile_does_no_harm(new_answer_bench, first, second):
    bench = new_answer_bench(FIRST[first])
    points = stops(bench.calls)
    if second in OF_USER:  # each waits for the lock of the one that stands still
        points = points[::max(len(points) // 3, 1)]
    tally = Tally()
    for point in points:
        tally.add(try_together(bench, second, point))
    assert (tally.failed, tally.missed) == ([], 0)
