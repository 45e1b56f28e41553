"""What recipients answer with their own program, and what the administrator sees of it."""

import time

from furnished import TELLBOX
from harness.waiting import PATIENCE_SECONDS, await_condition


def log_lines(machine):
    """What `tbx log 1` prints below its heading, without the times."""
    return [line[21:] for line in machine.tbx("log", "1").stdout.splitlines()[1:]]


def tellbox(machine, *arguments, user="pat"):
    return machine.run(TELLBOX, *arguments, user=user).stdout


def test_an_answer_reaches_the_administrator_unmarked(machine):
    machine.send("--to", "pat", "hello")
    assert tellbox(machine, "later", "1").startswith("Message 1 postponed")
    assert tellbox(machine, "read", "1") == "Message 1 confirmed.\n"
    assert "(terminal)" in machine.tbx("status", "1").stdout
    assert log_lines(machine)[-2:] == ["user pat: postponed message 1 (terminal)",
                                       "user pat: confirmed reading message 1 (terminal)"]


def test_what_somebody_else_forges_in_a_users_name_is_marked(machine):
    machine.send("--to", "pat", "hello")
    machine.forge("mal", MESSAGE="m", SYSLOG_IDENTIFIER="tbx", TBX_EVENT="CONFIRMED",
                  TBX_MESSAGE="1", TBX_USER="pat", TBX_CHANNEL="terminal")
    tellbox(machine, "read", "1")
    sentence = "user pat: confirmed reading message 1 (terminal)"
    forged, real = [line for line in log_lines(machine) if sentence in line]
    assert forged != sentence and real == sentence


def test_a_login_session_asks_and_is_answered(machine):
    machine.send("--to", "pat", "hello")
    terminal = machine.log_in("pat", command=f"{TELLBOX}; exec sleep infinity",
                              env={"TERM": "xterm"})
    terminal.await_seen("I have read it [r]")

    typed_at = []

    def is_confirmed():
        # A letter that comes too early, or not alone, is dropped: one each second.
        if not typed_at or time.monotonic() - typed_at[-1] > 1:
            terminal.type(b"r")
            typed_at.append(time.monotonic())
        return "(terminal)" in machine.tbx("status", "1").stdout

    await_condition(is_confirmed, PATIENCE_SECONDS, "the confirmation")
    terminal.await_seen("Message 1 confirmed.")
