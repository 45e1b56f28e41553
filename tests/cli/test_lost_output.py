"""Output that cannot be written: a command that has changed something is not called failed."""

import os

import pytest

DATE = 1790000000
FULL = "standard output: No space left on device\n"

CHANGING = [("send", "--to", "pat", "hello"), ("revoke", "7"), ("remind", "7"), ("purge", "1d")]
TELLING = [("list",), ("status", "7"), ("log", "7"), ("version",), ("help",), ()]


@pytest.fixture
def into_full(box):
    box.store.make_message(7, copies=["pat"], delivered=[("pat", DATE, 0)])

    def run(*arguments):
        with open("/dev/full", "wb") as full:
            _, err, status = box.run(*arguments, stdout=full)
        return err, status
    return run


@pytest.mark.parametrize("arguments", CHANGING, ids=lambda value: value[0])
def test_what_has_changed_something_warns_and_succeeds(into_full, arguments):
    assert into_full(*arguments) == (f"tbx: {FULL}", 0)


@pytest.mark.parametrize("arguments", TELLING, ids=lambda value: " ".join(value) or "nothing")
def test_what_only_tells_fails(into_full, arguments):
    err, status = into_full(*arguments)
    assert status == 1
    # What was flushed earlier leaves no other trace than that it failed.
    assert err in (f"tbx: {FULL}", "tbx: standard output: Input/output error\n")


def test_a_send_that_failed_still_fails(box):
    box.write("/etc/passwd", "pat:x:1001:1001::/:/bin/sh\n")
    box.add_group("crew", 3000, ["gone"])
    with open("/dev/full", "wb") as full:
        _, err, status = box.run("send", "--to", "@crew", "hello", stdout=full)
    assert (err, status) == ("tbx: message 1 not delivered to: gone (see the log; the next tbx "
                             "command will retry)\n", 1)


@pytest.mark.parametrize("arguments", CHANGING, ids=lambda value: value[0])
def test_a_reader_that_has_gone_does_not_undo_a_success(box, arguments):
    box.store.make_message(7, copies=["pat"], delivered=[("pat", DATE, 0)])
    reading, writing = os.pipe()
    os.close(reading)
    with open(writing, "wb") as broken:
        _, err, status = box.run(*arguments, stdout=broken)
    assert (err, status) == ("tbx: standard output: Broken pipe\n", 0)
