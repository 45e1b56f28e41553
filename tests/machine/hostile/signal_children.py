"""Sends a signal to whatever else runs as this user, without a pause.

usage: signal_children.py NUMBER
"""

import os
import sys

from work import report, until_told


def main(number):
    def hit():
        try:
            os.kill(-1, number)  # all but this process
            return True
        except ProcessLookupError:
            return False
    report(hits=until_told(hit))


main(int(sys.argv[1]))
