"""A file system of a user's own making, mounted in their mailbox, that never answers.

usage: silent_files.py DESCRIPTOR FOLDER UID GID

Started as root with /dev/fuse open, for it does for the user what the system's mount helper for
such file systems does for everybody; then it becomes the user. Whoever asks for a file there
waits until this program ends, and cannot even be killed.
"""

import ctypes
import os
import struct
import sys

HEADER = struct.Struct("<IIQQIIII")  # length, operation, unique number, ...
REPLY = struct.Struct("<IiQ")  # length, error, unique number
INIT, GETATTR = 26, 3
MS_NOSUID, MS_NODEV = 2, 4


def mount(descriptor, folder, uid, gid):
    options = f"fd={descriptor},rootmode=40755,user_id={uid},group_id={gid}"
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(b"silent", folder.encode(), b"fuse", MS_NOSUID | MS_NODEV, options.encode()):
        raise OSError(ctypes.get_errno(), "mount")


def answer(descriptor, unique, body):
    os.write(descriptor, REPLY.pack(REPLY.size + len(body), 0, unique) + body)


def main(descriptor, folder, uid, gid):
    mount(descriptor, folder, uid, gid)
    os.setgroups([])
    os.setresgid(gid, gid, gid)
    os.setresuid(uid, uid, uid)
    print("at work", flush=True)
    while True:
        request = os.read(descriptor, 1 << 20)
        _, operation, unique, *_ = HEADER.unpack(request[:HEADER.size])
        if operation == INIT:
            answer(descriptor, unique, struct.pack("<IIIIHHIIHH8I", 7, 31, 65536, 0, 12, 9, 65536,
                                                   1, 256, 0, *[0] * 8))
        elif operation == GETATTR:
            folder_facts = struct.pack("<6Q10I", 1, 0, 0, 0, 0, 0, 0, 0, 0, 0o40755, 2, uid, gid, 0,
                                       4096, 0)
            answer(descriptor, unique, struct.pack("<QII", 0, 0, 0) + folder_facts)


main(int(sys.argv[1]), sys.argv[2], int(sys.argv[3]), int(sys.argv[4]))
