"""What happens to a message is in the system's journal, and `tbx log` reads it back."""

import pytest
from harness.store import short_time


# Takes one record where the journal would take them from programs that know nothing of it.
SYSTEM_LOG = """
import socket
log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
log.bind("/run/systemd/journal/dev-log")
print("listening", flush=True)
print(log.recv(65536).decode(), flush=True)
"""


def fields(record):
    """What the program decides on in a record, and who the journal says wrote it."""
    return {name: value for name, value in record.items()
            if name.startswith(("TBX_", "CODE_")) or name in (
                "MESSAGE", "PRIORITY", "SYSLOG_IDENTIFIER", "_UID")}


def expected(event, sentence, *, user="", details="", author="", message="1"):
    return {"CODE_FILE": "src/event", "CODE_LINE": "75", "CODE_FUNC": "event",
            "MESSAGE": sentence, "SYSLOG_IDENTIFIER": "tbx", "PRIORITY": "6", "TBX_EVENT": event,
            "TBX_MESSAGE": message, "TBX_USER": user, "TBX_CHANNEL": "", "TBX_DETAILS": details,
            "TBX_AUTHOR": author, "_UID": "0"}


def only_record(machine, event):
    record, = machine.records(f"TBX_EVENT={event}")
    return record


def log_lines(machine, message_id=1):
    """What `tbx log` prints below its heading, without the times."""
    result = machine.tbx("log", str(message_id))
    assert (result.stderr, result.returncode) == ("", 0)
    return [line[21:] for line in result.stdout.splitlines()[1:]]


def forge(machine, writer, **given):
    machine.forge(writer, **{"MESSAGE": "m", "SYSLOG_IDENTIFIER": "tbx", "TBX_MESSAGE": "1",
                             **given})


# ---- Records ------------------------------------------------------------------------------

@pytest.mark.parametrize("author", ["root", "admin"])
def test_a_send_is_recorded_with_its_author_and_recipients(machine, author):
    machine.send("--to", "sam,pat", "hello", recipients=2, user=author)
    assert fields(only_record(machine, "SENT")) == expected(
        "SENT", f"message 1 sent by {author} to: pat sam", details="pat sam", author=author)


def test_a_delivery_is_recorded_with_the_terminals_written(machine):
    machine.open_terminal("pat")
    machine.log_in("pat")
    machine.send("--to", "pat", "hello")
    assert fields(only_record(machine, "DELIVERED")) == expected(
        "DELIVERED", "message 1 delivered to pat (terminals written: 2)", user="pat", details="2")


def test_the_record_of_the_send_follows_those_of_the_deliveries(machine):
    machine.send("--to", "sam,pat", "hello", recipients=2)
    assert [(record["TBX_EVENT"], record["TBX_USER"]) for record in machine.records()] == [
        ("DELIVERED", "pat"), ("DELIVERED", "sam"), ("SENT", "")]


def test_a_delivery_that_fails_is_recorded(machine):
    machine.tbx("send", "--to", "@haunted", "hello")
    assert fields(only_record(machine, "NOT_DELIVERED")) == expected(
        "NOT_DELIVERED", "message 1: ERROR, copy for ghost not written", user="ghost")


def test_a_completed_delivery_is_recorded_for_the_user_and_as_a_whole(machine):
    machine.send("--to", "pat", "hello")
    machine.sent(1, "delivery").unlink()
    machine.sent(1, "incomplete").touch()
    machine.tbx("list")
    assert fields(machine.records("TBX_EVENT=DELIVERED")[1]) == expected(
        "DELIVERED", "message 1 delivered to pat (recovery)", user="pat")
    assert fields(only_record(machine, "RECOVERED")) == expected(
        "RECOVERED", "message 1: delivery completed for 1 recipient after an interruption",
        details="1")


def test_a_cancelled_send_is_recorded(machine):
    machine.send("--to", "pat", "hello")
    machine.sent(1, "msg").unlink()
    machine.sent(1, "incomplete").touch()
    machine.tbx("list")
    assert fields(only_record(machine, "CANCELLED")) == expected(
        "CANCELLED", "message 1: sending interrupted before it was saved, cancelled")


@pytest.mark.parametrize("author", ["root", "admin"])
def test_a_reminder_is_recorded(machine, author):
    machine.send("--to", "pat,sam", "hello", recipients=2)
    machine.tbx("remind", "1", user=author)
    assert fields(only_record(machine, "REMINDED")) == expected(
        "REMINDED", f"message 1: 2 recipients reminded by {author}", details="2", author=author)


@pytest.mark.parametrize("author", ["root", "admin"])
def test_a_revocation_is_recorded_once(machine, author):
    machine.send("--to", "pat", "hello")
    for _ in range(2):
        machine.tbx("revoke", "1", user=author)
    assert fields(only_record(machine, "REVOKED")) == expected(
        "REVOKED", f"message 1 revoked by {author}", author=author)


@pytest.mark.parametrize("author", ["root", "admin"])
def test_a_deletion_is_recorded(machine, author):
    machine.send("--to", "pat", "hello")
    machine.make_older(1, 3600)
    machine.tbx("purge", "30m", user=author)
    assert fields(only_record(machine, "DELETED")) == expected(
        "DELETED", f"message 1 deleted by {author} (older than 30m)", details="30m",
        author=author)


@pytest.mark.parametrize("command, event, details", [
    (["confirm", "1", "desktop"], "CONFIRMED", ""),
    (["postpone", "1", "desktop"], "POSTPONED", ""),
    (["fail", "1", "desktop", "disk full"], "CONFIRMATION_FAILED", "disk full")])
def test_the_journal_keeps_who_wrote_a_record_of_the_user_s_side(machine, command, event, details):
    machine.send("--to", "pat", "hello")
    machine.answer("pat", *command)
    record = only_record(machine, event)
    assert (record["_UID"], record["TBX_USER"], record["TBX_CHANNEL"], record["TBX_DETAILS"]) == (
        str(machine.uid("pat")), "pat", "desktop", details)


def test_without_a_journal_the_sentence_goes_to_the_system_log(machine):
    units = [f"systemd-journald{unit}.socket" for unit in ("", "-dev-log", "-audit")]
    machine.run("systemctl", "stop", *units, "systemd-journald.service")
    try:
        machine.run("rm", "-f", "/run/systemd/journal/socket", "/run/systemd/journal/dev-log")
        log = machine.start("python3", "-c", SYSTEM_LOG)
        machine.keep(log)
        assert log.stdout.readline() == "listening\n"
        machine.send("--to", "pat", "hello", timeout=20)
        assert log.stdout.readline().rstrip("\0\n").endswith(
            " tbx: message 1 delivered to pat (terminals written: 0)")
    finally:
        machine.run("rm", "-f", "/run/systemd/journal/dev-log")
        machine.run("systemctl", "start", *units[:2], "systemd-journald.service")


# ---- The history --------------------------------------------------------------------------

def test_the_history_of_a_life_is_read_back_in_its_order(machine):
    machine.send("--to", "pat,sam", "--title", "News", "hello", recipients=2, user="admin")
    machine.answer("pat", "postpone", "1", "terminal")
    machine.answer("pat", "confirm", "1", "desktop")
    machine.answer("sam", "fail", "1", "terminal", "disk full")
    machine.tbx("remind", "1")
    machine.tbx("revoke", "1", user="admin")
    machine.run("journalctl", "--sync")
    assert machine.tbx("log", "1").stdout.startswith(
        f"Message 1 · News · {short_time(machine.date())}\n")
    assert log_lines(machine) == [
        "message 1 delivered to pat (terminals written: 0)",
        "message 1 delivered to sam (terminals written: 0)",
        "message 1 sent by admin to: pat sam",
        "user pat: postponed message 1 (terminal)",
        "user pat: confirmed reading message 1 (desktop)",
        "user sam: ERROR, confirmation of message 1 not recorded (terminal): disk full",
        "message 1: 1 recipient reminded by root",
        "message 1 revoked by admin"]


def test_each_line_begins_with_its_time(machine):
    machine.send("--to", "pat", "hello")
    record = only_record(machine, "SENT")
    shown = machine.run("date", "-u", "-d", f"@{int(record['__REALTIME_TIMESTAMP']) // 10**6}",
                        "+%Y-%m-%d %H:%M:%S").stdout.strip()
    assert machine.tbx("log", "1").stdout.splitlines()[-1] == (
        f"{shown}  message 1 sent by root to: pat")


def test_the_history_is_that_of_one_message(machine):
    machine.send("--to", "pat", "one")
    machine.send("--to", "sam", "two", message_id=2)
    machine.run("journalctl", "--sync")
    assert log_lines(machine, 2) == ["message 2 delivered to sam (terminals written: 0)",
                                     "message 2 sent by root to: sam"]


def test_the_history_reaches_into_archived_journals(machine):
    machine.send("--to", "pat", "hello")
    machine.run("journalctl", "--rotate")
    machine.tbx("revoke", "1")
    machine.run("journalctl", "--sync")
    assert log_lines(machine)[1:] == ["message 1 sent by root to: pat",
                                      "message 1 revoked by root"]


def test_the_history_begins_with_the_message(machine):
    machine.send("--to", "pat", "hello")
    machine.make_older(1, -60)
    machine.run("journalctl", "--sync")
    assert log_lines(machine) == []


@pytest.mark.parametrize("event, sentence", [
    ("SENT", "message 1 sent by root to: all of you"),
    ("DELIVERED", "message 1 delivered to sam (terminals written: all of you)"),
    ("NOT_DELIVERED", "message 1: ERROR, copy for sam not written"),
    ("REVOKED", "message 1 revoked by root"),
    ("CONFIRMED", "user sam: confirmed reading message 1 (desktop)"),
    ("POSTPONED", "user sam: postponed message 1 (desktop)"),
    ("NONSENSE", "m")])
def test_a_record_that_an_ordinary_user_forged_is_marked(machine, event, sentence):
    machine.send("--to", "pat", "hello")
    forge(machine, "mal", TBX_EVENT=event, TBX_USER="sam", TBX_CHANNEL="desktop",
          TBX_DETAILS="all of you", TBX_AUTHOR="root")
    assert log_lines(machine)[2:] == [
        f"[not trustworthy: written by UID {machine.uid('mal')}] {sentence}"]


def test_a_user_s_record_about_themselves_is_not_marked(machine):
    machine.send("--to", "mal", "hello")
    forge(machine, "mal", TBX_EVENT="CONFIRMED", TBX_USER="mal", TBX_CHANNEL="terminal")
    assert log_lines(machine)[2:] == ["user mal: confirmed reading message 1 (terminal)"]


def test_root_s_record_about_a_user_is_marked(machine):
    machine.send("--to", "pat", "hello")
    forge(machine, "root", TBX_EVENT="CONFIRMED", TBX_USER="pat", TBX_CHANNEL="terminal")
    assert log_lines(machine)[2:] == ["[not trustworthy: written by UID 0] "
                                      "user pat: confirmed reading message 1 (terminal)"]


def test_a_record_about_nobody_is_marked(machine):
    machine.send("--to", "pat", "hello")
    forge(machine, "mal", TBX_EVENT="CONFIRMED", TBX_USER="ghost", TBX_CHANNEL="terminal")
    assert log_lines(machine)[2].startswith("[not trustworthy: ")


def test_a_record_cannot_claim_another_writer(machine):
    machine.send("--to", "pat", "hello")
    forge(machine, "mal", TBX_EVENT="REVOKED", TBX_AUTHOR="root", _UID="0")
    assert log_lines(machine)[2:] == [
        f"[not trustworthy: written by UID {machine.uid('mal')}] message 1 revoked by root"]


def test_a_forged_record_does_not_drive_the_administrator_s_terminal(machine):
    machine.send("--to", "pat", "hello")
    forge(machine, "mal", TBX_EVENT="CONFIRMED", TBX_USER="mal",
          TBX_CHANNEL="\x1b]0;owned\x07a\x1b[2Jb\x1b[8mc\x07\u009bd")
    assert log_lines(machine)[2:] == ["user mal: confirmed reading message 1 (abcd)"]


def test_a_flood_of_forged_records_does_not_hide_the_true_ones(machine):
    machine.send("--to", "pat", "hello")
    entry = "MESSAGE=m\nSYSLOG_IDENTIFIER=tbx\nTBX_MESSAGE=1\nTBX_EVENT=REVOKED\n\n"
    machine.run("logger", "--journald", user="mal", input=entry * 2000)
    machine.tbx("revoke", "1")
    machine.run("journalctl", "--sync")
    true_ones = [line for line in log_lines(machine) if not line.startswith("[not trustworthy")]
    assert true_ones[-2:] == ["message 1 sent by root to: pat", "message 1 revoked by root"]


def test_a_sudo_user_reads_the_history(machine):
    machine.send("--to", "pat", "hello")
    machine.run("journalctl", "--sync")
    assert machine.tbx("log", "1", user="admin").stdout.endswith(
        "  message 1 sent by root to: pat\n")
