"""Takes the place of the user's own bus, and answers every request with an error of its own.

usage: answer_as_bus.py WORDS

Knows as much of the bus protocol as a client needs to get that far.
"""

import os
import socket
import struct
import sys
import threading

from work import report, until_told

METHOD_CALL, METHOD_RETURN, ERROR = 1, 2, 3
NO_REPLY_EXPECTED = 1
ERROR_NAME, REPLY_SERIAL, DESTINATION, SENDER, SIGNATURE = 4, 5, 6, 7, 8
HANDSHAKE = [(b"AUTH EXTERNAL ", b"OK 0123456789abcdef0123456789abcdef"), (b"AUTH", b"DATA"),
             (b"DATA", b"OK 0123456789abcdef0123456789abcdef"),
             (b"NEGOTIATE_UNIX_FD", b"AGREE_UNIX_FD")]

requests = []


def aligned(data, boundary):
    return data + bytes(-len(data) % boundary)


def text(value):
    return struct.pack("<I", len(value)) + value + b"\0"


def reply(kind, serial, to, body=b"", error=None):
    """A message that answers the one with the serial number `to`; `body` is a text or nothing."""
    fields = [(REPLY_SERIAL, b"u", struct.pack("<I", to)), (DESTINATION, b"s", text(b":1.1")),
              (SENDER, b"s", text(b"org.freedesktop.DBus"))]
    if error:
        fields.append((ERROR_NAME, b"s", text(error)))
    header = b""
    for code, signature, value in fields:
        header = aligned(header, 8) + bytes([code, 1]) + signature + b"\0" + value
    if body:
        header = aligned(header, 8) + bytes([SIGNATURE, 1]) + b"g\0\1s\0"
    fixed = bytes([ord("l"), kind, 0, 1]) + struct.pack("<III", len(body), serial, len(header))
    return aligned(fixed + header, 8) + body


def shake_hands(stream, client):
    for line in iter(stream.readline, b""):
        line = line.lstrip(b"\0")
        if line.startswith(b"BEGIN"):
            return
        answer = next(answer for start, answer in HANDSHAKE if line.startswith(start))
        client.sendall(answer + b"\r\n")


def read_message(stream):
    start = stream.read(16)
    if len(start) < 16:
        return None
    body_length, _, header_length = struct.unpack("<III", start[4:])
    return start + stream.read(header_length + -header_length % 8 + body_length)


def serve(client, words):
    stream = client.makefile("rb")
    shake_hands(stream, client)
    for serial, message in enumerate(iter(lambda: read_message(stream), None), start=1):
        to, = struct.unpack("<I", message[8:12])
        if message[1] != METHOD_CALL or message[2] & NO_REPLY_EXPECTED:
            continue
        if b"Hello\0" in message:
            client.sendall(reply(METHOD_RETURN, serial, to, text(b":1.1")))
        elif b"AddMatch\0" in message or b"Subscribe\0" in message:
            client.sendall(reply(METHOD_RETURN, serial, to))
        else:
            requests.append(b"StartTransientUnit\0" in message)
            client.sendall(reply(ERROR, serial, to, text(words), b"org.example.Error"))


def main(words):
    path = f"/run/user/{os.getuid()}/bus"
    os.unlink(path)
    bus = socket.socket(socket.AF_UNIX)
    bus.bind(path)
    bus.listen()
    bus.settimeout(0.1)

    def accept():
        try:
            client, _ = bus.accept()
        except socket.timeout:
            return False
        client.settimeout(None)
        threading.Thread(target=serve, args=(client, words), daemon=True).start()
        return True
    until_told(accept)
    report(starts=sum(requests))


main(os.fsencode(sys.argv[1]))
