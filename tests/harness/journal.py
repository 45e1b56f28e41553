"""A stand-in for the journal's and the system log's sockets, and what arrived there."""

import array
import os
import socket
import struct
import threading

SCM_CREDENTIALS = 2  # not named by Python's socket module before 3.13
RECORD_MAX_BYTES = 1 << 20


class Record:
    """One journal record: `fields` keeps every field, as text, in the order received."""

    def __init__(self, fields, uid):
        self.fields = fields
        self.uid = uid

    def names(self):
        return [name for name, _ in self.fields]

    def __getitem__(self, name):
        values = [value for key, value in self.fields if key == name]
        assert len(values) == 1, f"{name} appears {len(values)} times in {self.fields}"
        return values[0]

    def __contains__(self, name):
        return name in self.names()

    @property
    def event(self):
        return self["TBX_EVENT"]

    def __repr__(self):
        return f"Record({self.fields!r})"


def decode_fields(data):
    """The fields of a record in the journal's native protocol."""
    fields = []
    while data:
        line, _, rest = data.partition(b"\n")
        if b"=" in line:
            name, _, value = line.partition(b"=")
        else:
            name, size = line, struct.unpack("<Q", rest[:8])[0]
            value, rest = rest[8:8 + size], rest[9 + size:]
        fields.append((name.decode(), value.decode("utf-8", "surrogateescape")))
        data = rest
    return fields


class DatagramSink:
    """A bound datagram socket that never lets its sender block.

    A thread empties it while a test waits for the sender; `messages` empties it again,
    so that whatever was sent before the call is there.
    """

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 8 << 20)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
        self._socket.bind(str(path))
        os.chmod(path, 0o666)
        self._received = []
        self._closing = False
        self._lock = threading.Lock()
        self._reader = threading.Thread(target=self._read_until_closed, daemon=True)
        self._reader.start()

    def messages(self):
        """(bytes, sender's uid) of everything that has arrived."""
        with self._lock:
            while self._receive(socket.MSG_DONTWAIT):
                pass
            return list(self._received)

    def clear(self):
        self.messages()
        with self._lock:
            self._received.clear()

    def close(self):
        self._closing = True
        self._socket.shutdown(socket.SHUT_RDWR)
        self._reader.join()
        self._socket.close()

    def _read_until_closed(self):
        while not self._closing:
            self._socket.recv(1, socket.MSG_PEEK)
            with self._lock:
                self._receive(socket.MSG_DONTWAIT)

    def _receive(self, flags):
        try:
            data, ancillary, _, _ = self._socket.recvmsg(RECORD_MAX_BYTES, 4096, flags)
        except BlockingIOError:
            return False
        uid, passed = None, None
        for _, kind, content in ancillary:
            if kind == SCM_CREDENTIALS:
                uid = struct.unpack("iII", content[:12])[1]
            elif kind == socket.SCM_RIGHTS:
                passed = array.array("i", content[:4])[0]
        if passed is not None:  # a large record comes as a sealed file
            with os.fdopen(passed, "rb") as file:
                file.seek(0)
                data = file.read()
        if not data:
            return False
        self._received.append((data, uid))
        return True


class Journal(DatagramSink):
    """The journal's socket."""

    def records(self):
        return [Record(decode_fields(data), uid) for data, uid in self.messages()]

    def events(self):
        """(event, user, details) of each record."""
        return [(record.event, record["TBX_USER"], record["TBX_DETAILS"])
                for record in self.records()]
