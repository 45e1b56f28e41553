"""What the programs in this folder share. An ordinary user runs them, on a machine of tests."""

import json
import os
import select
import sys

MAILBOX = os.path.join("/var/lib/tellbox/users", os.environ["USER"])


def until_told(step):
    """Repeats step() until standard input ends; returns how often it returned true."""
    print("at work", flush=True)
    count = 0
    while not select.select([sys.stdin], [], [], 0)[0]:
        count += bool(step())
    return count


def report(**facts):
    print(json.dumps(facts), flush=True)
