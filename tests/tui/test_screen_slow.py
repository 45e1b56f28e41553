"""The interface on a line that takes its frames a few bytes at a time."""

import signal
from dataclasses import replace

import pytest

from harness.pseudo_terminal import DOWN, EARLIER, UP
from interface import assert_left, expect, press
from messages import Message
from places import PLACES

BYTES_TAKEN = 48
MESSAGES = [Message(number) for number in range(1, 16)]


@pytest.mark.parametrize("name", PLACES)
def test_every_place_is_reached_and_left(place, name):
    tbx, _ = place(name, earlier=EARLIER, bytes_taken=BYTES_TAKEN)
    tbx.signal(signal.SIGTERM)
    assert tbx.wait_exit() == 0
    assert_left(tbx, name)


def test_keys_typed_while_a_frame_is_on_its_way_are_all_taken(interface):
    tbx, page = interface(MESSAGES, bytes_taken=BYTES_TAKEN)
    press(tbx, DOWN * 12 + UP * 5, replace(page, selected=7))


def test_no_frame_is_torn_by_the_next_one(interface):
    tbx, page = interface(MESSAGES, (200, 60), bytes_taken=BYTES_TAKEN)
    tbx.send(DOWN * 10)
    tbx.resize(120, 40)
    expect(tbx, replace(page, size=(120, 40), selected=10))
