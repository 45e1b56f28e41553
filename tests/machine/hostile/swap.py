"""Swaps the folders of the mailbox for links to folders of others, and back, without a pause."""

import ctypes
import itertools
import os
import sys

from work import MAILBOX, report, until_told

AT_FDCWD = -100
RENAME_EXCHANGE = 2
FOLDERS = ["inbox", "acks", "state", "read"]

libc = ctypes.CDLL(None, use_errno=True)


def exchange(one, other):
    return libc.renameat2(AT_FDCWD, one.encode(), AT_FDCWD, other.encode(), RENAME_EXCHANGE) == 0


def main(targets):
    os.chdir(MAILBOX)
    pairs = []
    for folder, target in itertools.product(FOLDERS, targets):
        link = f"{folder}{target.replace('/', '-')}"
        os.symlink(target, link)
        pairs.append((folder, link))
    turns = itertools.cycle(pairs)

    def swap_and_back():
        folder, link = next(turns)
        return exchange(folder, link) and exchange(folder, link)
    report(swaps=until_told(swap_and_back))


main(sys.argv[1:])
