"""log: the journal's files, however many there are and whatever they hold."""

import pytest
from harness.history import MESSAGE_DATE, MESSAGE_STAMP, RUNTIME_JOURNAL, record
from harness.store import short_time

HEADING = f"Message 7 · {short_time(MESSAGE_DATE)}\n"


def reminded(second):
    return record("REMINDED", when=MESSAGE_DATE + second, details=second, author="root")


def seconds(lines):
    """The numbers that `reminded` put into the lines."""
    return [int(line.split("message 7: ")[1].split()[0]) for line in lines]


# Several files.

@pytest.mark.parametrize("place", [
    {"name": "user-1001"}, {"name": "system@0-1"}, {"top": RUNTIME_JOURNAL},
    {"machine_id": "00112233445566778899aabbccddeeff"}],
    ids=["user", "archived", "runtime", "other-machine"])
def test_records_of_two_files_are_told_as_one_history(history, place):
    history.write(reminded(2), reminded(4), reminded(6))
    history.write(reminded(3), reminded(5), reminded(8), **place)
    assert seconds(history.lines()) == [2, 3, 4, 5, 6, 8]


def test_a_second_file_cannot_vouch_for_a_forged_record(history):
    history.write(record("CONFIRMED", user="pat", uid=1001, channel="terminal"))
    history.write(record("CONFIRMED", user="pat", uid=1002, channel="terminal", usec=1),
                  name="user-1002")
    sentence = "user pat: confirmed reading message 7 (terminal)"
    assert history.lines() == [
        f"{MESSAGE_STAMP}  {sentence}",
        f"{MESSAGE_STAMP}  [not trustworthy: written by UID 1002] {sentence}"]


def test_a_file_of_earlier_records_alone_adds_nothing(history):
    history.write(reminded(2))
    history.write(record("SENT", when=MESSAGE_DATE - 100), name="system@0-1")
    assert seconds(history.lines()) == [2]


def test_records_are_found_among_many_of_others(history):
    others = [record("REMINDED", when=MESSAGE_DATE + number, message=1000 + number)
              for number in range(2, 500)]
    history.write(*others[:250], reminded(300), *others[250:], reminded(600))
    assert seconds(history.lines()) == [300, 600]


# Long fields.

@pytest.mark.parametrize("options", [["--compress=yes"], ["--compress=no"]])
def test_a_recipients_list_longer_than_a_compressed_field_is_shown_whole(history, options):
    names = " ".join(f"user{number}" for number in range(30_000))
    assert len(names) > 4 * 65_536
    history.write(record("SENT", details=names, author="root"), options=options)
    assert history.lines() == [f"{MESSAGE_STAMP}  message 7 sent by root to: {names}"]


def test_a_forged_field_of_many_megabytes_does_no_harm(history):
    huge = "x" * (20 << 20)
    history.write(record("SENT", uid=1002, details=huge), reminded(2))
    forged, true = history.lines()
    assert forged.startswith(f"{MESSAGE_STAMP}  [not trustworthy: written by UID 1002] message 7 ")
    assert len(forged) < 9 << 20
    assert seconds([true]) == [2]


# Damaged files.

def test_an_empty_file_is_passed_over(history):
    history.write(reminded(2))
    history.path("system@0-1").touch()
    assert seconds(history.lines()) == [2]


def test_a_file_that_is_no_journal_is_passed_over(history):
    history.write(reminded(2))
    history.path("system@0-1").write_bytes(b"not a journal" * 1000)
    assert seconds(history.lines()) == [2]


def test_a_file_cut_off_after_its_header_is_passed_over(history):
    history.write(reminded(2))
    whole = history.path().read_bytes()
    history.path("system@0-1").write_bytes(whole[:300])
    assert seconds(history.lines()) == [2]


def test_a_journal_that_holds_nothing_readable_leaves_the_heading_alone(history, machine):
    history.path().parent.mkdir(parents=True)
    history.path().write_bytes(b"\0" * 4096)
    assert tuple(machine.run("log", "7")) == (HEADING, "", 0)


def test_a_directory_and_a_dangling_link_among_the_files_are_passed_over(history):
    history.write(reminded(2))
    history.path("folder").mkdir()
    history.path("link").symlink_to("nowhere")
    assert seconds(history.lines()) == [2]


# The output.

def test_a_history_that_cannot_be_written_is_an_error(history, machine):
    history.write(reminded(2))
    with open("/dev/full", "wb") as full:
        result = machine.run("log", "7", stdout=full)
    assert (result.stderr, result.status) == (
        "tbx: standard output: No space left on device\n", 1)
