"""Waiting for what another process does."""

import time

PATIENCE_SECONDS = 30  # for what is bound to happen, on a busy host
RETRY_SECONDS = 0.005


class NeverCameTrue(AssertionError, TimeoutError):
    """What a test waited for did not happen."""


def await_condition(condition, seconds, what):
    """Returns the first true value of condition(); fails after `seconds`."""
    deadline = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise NeverCameTrue(f"not within {seconds} s: {what}")
        time.sleep(RETRY_SECONDS)
    return value


def wait_for(condition, what=None, limit_seconds=PATIENCE_SECONDS):
    """The same, with the patience of all tests."""
    return await_condition(condition, limit_seconds, what or condition)
