"""The time as the program sees it."""

import time

from .agent import wait_for

CLOCK_REALTIME_COARSE = 5  # not named by Python's time module


def now():
    """Seconds since the epoch like time(2), which may be a clock tick behind time.time()."""
    return int(time.clock_gettime(CLOCK_REALTIME_COARSE))


def wait_until_after(moment):
    """Waits until a message dated `moment` is older than now."""
    wait_for(lambda: now() > moment)
