"""Waiting for what another process does."""

import time


def wait_for(condition, limit_seconds=30):
    """Waits until `condition()` is true and returns what it returned."""
    deadline = time.monotonic() + limit_seconds
    while not (outcome := condition()):
        assert time.monotonic() < deadline, f"never came true: {condition}"
        time.sleep(0.002)
    return outcome
