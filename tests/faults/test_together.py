"""Two commands at once: the first, the middle and the last place where one stands still."""

import pytest
from together import PAIRS, stops, try_pair
from trials import Tally


@pytest.mark.parametrize("pair", PAIRS, ids=str)
def test_two_commands_at_once_do_each_other_no_harm(new_bench, pair):
    bench = new_bench(pair.case)
    points = stops(bench.calls)
    tally = Tally()
    for place in sorted({0, len(points) // 3, 2 * len(points) // 3, len(points) - 1}):
        tally.add(try_pair(bench, pair, points[place]))
    assert (tally.failed, tally.missed) == ([], 0)
