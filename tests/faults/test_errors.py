"""Calls that fail: one of each kind in each command. tools/faults tries all of them."""

import pytest
from cases import GROUPS
from short_form import chosen_failures
from trials import Tally


@pytest.mark.parametrize("group", GROUPS)
def test_nothing_is_lost_whichever_call_fails(new_bench, group):
    tally, seen = Tally(), set()
    for case in GROUPS[group]:
        bench = new_bench(case)
        for fault in chosen_failures(bench.calls, seen):
            tally.add(bench.try_fault(fault))
    assert tally.failed == []
    assert tally.tried > len(seen) / 2
