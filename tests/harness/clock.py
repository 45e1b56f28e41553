"""The time as the program sees it."""

import time

from .waiting import wait_for


def now():
    """Whole seconds since the epoch."""
    return int(time.time())


def wait_until_after(moment):
    """Waits until a message dated `moment` is older than now."""
    wait_for(lambda: now() > moment)
