"""Waiting for conditions, and ending what was started."""

import subprocess
import time

PATIENCE_SECONDS = 20  # for what is to happen; how long it took is never asserted


def await_condition(condition, what, seconds=PATIENCE_SECONDS):
    """Returns the first true value of condition(), or fails after `seconds`."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {seconds} s: {what}")
        time.sleep(0.01)


def end(process):
    """Ends a process that was started here, if it still runs, and closes its pipes."""
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
    for stream in (process.stdin, process.stdout, process.stderr):
        if stream:
            stream.close()
