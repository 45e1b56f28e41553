"""What an item costs is what bench/cost.json says. Where a change is meant,
`tools/bench --count` writes the file anew."""

import json

import pytest
from prerequisites import ROOT

RECORDED = json.loads((ROOT / "bench" / "cost.json").read_text(encoding="ascii"))
WITH_INSTRUCTIONS = [name for name, cost in RECORDED.items() if "instructions" in cost]
TOLERANCE = 0.10  # of the instructions: compilers and libraries differ a little

COUNTING_TIMEOUT_SECONDS = 600  # the first test counts for all
pytestmark = pytest.mark.timeout(COUNTING_TIMEOUT_SECONDS)


def test_what_is_counted_is_what_is_recorded(counted):
    assert list(counted) == list(RECORDED)


@pytest.mark.parametrize("item", RECORDED)
def test_an_item_costs_just_the_recorded_system_calls(counted, item):
    assert counted[item]["calls"] == RECORDED[item]["calls"]


@pytest.mark.parametrize("item", WITH_INSTRUCTIONS)
def test_an_item_costs_the_recorded_instructions(counted, item):
    recorded = RECORDED[item]["instructions"]
    assert counted[item]["instructions"] == pytest.approx(recorded, rel=TOLERANCE)


def test_a_key_is_one_read_and_one_frame_written_with_a_wait_before_each(counted):
    assert counted["interface, per key"]["calls"] == {"poll": 2, "read": 1, "write": 1}
