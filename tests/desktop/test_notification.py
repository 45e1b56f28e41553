"""A notification leads to the window, and costs nothing where the service is not what it should
be."""

import os
import pathlib
import signal
import subprocess
import time

import pytest

from bus import SessionBus
from dialog import GUARD_SECONDS
from notifications import Service
from processes import await_condition

READ, LATER = "I have read it", "Later"


@pytest.fixture
def private_bus(tmp_path):
    """A bus without any service. The window cannot be driven through it."""
    folder = tmp_path / "bus"
    folder.mkdir()
    running = SessionBus(folder)
    yield running
    running.close()


@pytest.fixture
def service(screen, private_bus):
    """Starts the strict service: service(mode)."""
    started = []

    def start(mode="strict"):
        started.append(Service(screen, mode, private_bus.address))
        return started[-1]

    yield start
    for running in started:
        running.close()


@pytest.fixture
def agent_on(recipient, private_bus):
    """Starts the recipient's agent on the private bus."""
    return lambda **env: recipient.start_agent(
        env={"DBUS_SESSION_BUS_ADDRESS": private_bus.address, "GTK_A11Y": "none", **env})


def outlast_guard():
    """Waits as a person does who reads before answering."""
    time.sleep(GUARD_SECONDS + 0.1)


def environment_of(pid):
    variables = pathlib.Path(f"/proc/{pid}/environ").read_bytes().decode().split("\0")
    return dict(variable.split("=", 1) for variable in variables if "=" in variable)


# ---- With a window ------------------------------------------------------------------------

def test_the_notification_is_critical_stays_and_leads_to_the_window(recipient, service, agent_on):
    desktop = service()
    agent_on()
    number = recipient.send("5 < 6 & 7 > 6 <b>bold</b>", "--title", "A <i>title</i>")
    _, shown = desktop.await_notification()
    assert shown == {
        "app": "Tellbox", "replaces": 0, "icon": "dialog-information",
        "summary": "Message from the administrator",
        "body": "A &lt;i&gt;title&lt;/i&gt;\n5 &lt; 6 &amp; 7 &gt; 6 &lt;b&gt;bold&lt;/b&gt;",
        "actions": [f"show:{number}", "Show"], "hints": {"urgency": 2}, "timeout": 0}
    recipient.await_mark(number, "shown")


def test_a_long_text_is_cut_between_characters(recipient, service, agent_on):
    desktop = service()
    agent_on()
    recipient.send("ä" * 500)
    assert desktop.await_notification()[1]["body"] == "ä" * 200 + "…"


def shown_with_notification(recipient, desktop):
    """A message on the screen; returns its number and that of its notification."""
    message = recipient.send()
    number, _ = desktop.await_notification()
    recipient.await_mark(message, "shown")
    return message, number


def test_the_action_shows_the_window_with_the_user_s_token(recipient, service, agent_on):
    desktop = service()
    agent = agent_on()
    message, number = shown_with_notification(recipient, desktop)
    before, = agent.windows()
    assert "XDG_ACTIVATION_TOKEN" not in environment_of(before)
    desktop.command("act", number, f"show:{message}", "a-token")
    window, = await_condition(lambda: [pid for pid in agent.windows() if pid != before],
                              "the window comes anew")
    await_condition(lambda: environment_of(window).get("XDG_ACTIVATION_TOKEN") == "a-token",
                    "the token is handed on")
    assert desktop.is_left_alone(), "the notification stays as it is"


def test_without_a_token_the_notification_stays_as_it_is_too(recipient, service, agent_on):
    desktop = service()
    agent = agent_on()
    message, number = shown_with_notification(recipient, desktop)
    before, = agent.windows()
    desktop.command("act", number, f"show:{message}")
    await_condition(lambda: [pid for pid in agent.windows() if pid != before],
                    "the window comes anew")
    assert desktop.is_left_alone()


def test_the_action_shows_a_message_that_is_not_due(recipient, service, agent_on):
    desktop = service()
    agent = agent_on()
    message, number = shown_with_notification(recipient, desktop)
    os.kill(agent.windows()[0], signal.SIGTERM)
    agent.await_no_window()
    assert recipient.no_window_comes()
    mark = recipient.file("state", f"{message}.gui")
    a_minute_ago = time.time() - 60
    os.utime(mark, (a_minute_ago, a_minute_ago))
    desktop.command("act", number, f"show:{message}")
    await_condition(lambda: mark.stat().st_mtime > a_minute_ago + 30, "it is shown again")


def test_a_message_that_is_asked_for_again_keeps_its_place(recipient, service, agent_on):
    recipient.use_window('head -n 1 >>"$0.places"; echo shown; exec sleep 60')
    desktop = service()
    first = recipient.send("first")
    recipient.send("second")
    agent_on()
    number, _ = desktop.await_notification()
    recipient.await_mark(first, "shown")
    desktop.command("act", number, f"show:{first}")
    places = recipient.lib / "tellbox-window.places"
    await_condition(lambda: places.read_text() == "1 of 2\n1 of 2\n", "it is shown again")


def test_a_token_is_for_the_message_that_was_asked_for_only(recipient, service, agent_on):
    recipient.use_window('trap "" TERM; echo "<$XDG_ACTIVATION_TOKEN>" >>"$0.tokens"; '
                         "echo shown; while :; do sleep 0.1; done")
    desktop = service()
    first, second = recipient.send("first"), recipient.send("second")
    agent = agent_on()
    number, _ = desktop.await_notification()
    recipient.await_mark(first, "shown")
    agent.signal(signal.SIGSTOP)  # it learns both at once
    desktop.command("act", number, f"show:{first}", "a-token")
    desktop.command("tell")
    desktop.await_told("told")
    recipient.file("acks", first).write_text("1 terminal\n")
    agent.signal(signal.SIGCONT)
    recipient.await_mark(second, "shown")
    assert (recipient.lib / "tellbox-window.tokens").read_text() == "<>\n<>\n"


def test_a_token_of_the_agent_s_own_start_is_not_handed_on(recipient, service, agent_on):
    service()
    agent = agent_on(XDG_ACTIVATION_TOKEN="old", DESKTOP_STARTUP_ID="old_TIME1")
    recipient.await_mark(recipient.send(), "shown")
    window, = agent.windows()
    assert not {"XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID"} & set(environment_of(window))


@pytest.mark.parametrize("end", ["revoke", "acks", "expire"])
def test_the_notification_goes_with_the_message(recipient, service, agent_on, end):
    desktop = service()
    agent_on()
    message = recipient.send()
    number, _ = desktop.await_notification()
    if end == "revoke":
        recipient.tbx("revoke", str(message))
    elif end == "acks":
        recipient.file("acks", message).write_text("1 terminal\n")
    else:
        recipient.file("inbox", message).write_text("date: 5\nexpires: 6\n\ntext")
    assert desktop.await_call("CloseNotification") == [number]


def test_the_notification_of_a_closed_window_stays_until_the_message_expires(recipient, service,
                                                                             agent_on):
    recipient.use_window("echo shown")
    desktop = service()
    agent = agent_on()
    message, number = shown_with_notification(recipient, desktop)
    agent.await_no_window()
    recipient.let_expire(message, seconds=3)
    assert desktop.is_left_alone()
    assert desktop.await_call("CloseNotification") == [number]


def test_an_answer_in_the_window_closes_the_notification(recipient, service, agent_on):
    recipient.use_window("echo shown; sleep 0.2; echo read")
    desktop = service()
    agent_on()
    message = recipient.send()
    number, _ = desktop.await_notification()
    assert recipient.await_answer(message) == "desktop"
    assert desktop.await_call("CloseNotification") == [number]


def test_the_end_of_the_agent_closes_the_notification(recipient, service, agent_on):
    desktop = service()
    agent = agent_on()
    recipient.send()
    number, _ = desktop.await_notification()
    agent.process.terminate()
    assert agent.status() == 0
    assert desktop.await_call("CloseNotification") == [number]


def test_a_service_that_restarts_gets_the_notification_again(recipient, service, agent_on):
    first = service()
    agent_on()
    message = recipient.send()
    first.await_notification()
    first.close()
    second = service()
    number, shown = second.await_notification()
    assert (number, shown["actions"]) == (1, [f"show:{message}", "Show"])


def test_a_number_that_is_used_again_shows_no_other_message(recipient, service, agent_on):
    recipient.use_window(f"echo x >>{recipient.folder}/opened; echo shown; sleep 60")
    desktop = service()
    agent_on()
    message, number = shown_with_notification(recipient, desktop)
    desktop.command("act", number, f"show:{message + 1}")
    desktop.command("act", number, f"read:{message}")
    desktop.command("act", number + 1, f"show:{message}")
    desktop.command("act", number, "default")
    time.sleep(0.3)
    assert (recipient.folder / "opened").read_text() == "x\n"
    assert recipient.is_unanswered(message)


def test_a_signal_of_somebody_else_is_not_believed(recipient, service, agent_on, private_bus):
    recipient.use_window(f"echo x >>{recipient.folder}/opened; echo shown; sleep 60")
    desktop = service()
    agent_on()
    message, number = shown_with_notification(recipient, desktop)
    subprocess.run(["gdbus", "emit", "--address", private_bus.address, "--object-path",
                    "/org/freedesktop/Notifications", "--signal",
                    "org.freedesktop.Notifications.ActionInvoked", f"uint32 {number}",
                    f"'show:{message}'"], check=True, timeout=20)
    time.sleep(0.3)
    assert (recipient.folder / "opened").read_text() == "x\n"


@pytest.mark.parametrize("mode", ["plain", "drops", "eager", "errors", "mute", "slow", "nonsense",
                                  "zero"])
def test_no_service_keeps_the_window_away(recipient, service, agent_on, mode):
    recipient.use_window("echo shown; sleep 0.2; echo read")
    service(mode)
    agent_on()
    for _ in range(2):
        message = recipient.send()
        assert recipient.await_answer(message) == "desktop"


def test_without_a_service_the_window_comes(recipient, agent_on):
    recipient.use_window("echo shown; sleep 0.2; echo read")
    agent_on()
    assert recipient.await_answer(recipient.send()) == "desktop"


@pytest.mark.parametrize("program", ["/bin/false", "/bin/sleep 60", "/nonexistent"])
def test_a_service_that_the_bus_cannot_start_keeps_no_window_away(recipient, agent_on, private_bus,
                                                                  program):
    (private_bus.services / "failing.service").write_text(
        f"[D-BUS Service]\nName=org.freedesktop.Notifications\nExec={program}\n")
    private_bus.reload()
    recipient.use_window("echo shown; sleep 0.2; echo read")
    agent_on()
    for _ in range(2):
        message = recipient.send()
        assert recipient.await_answer(message) == "desktop"


def test_a_service_that_gives_way_before_it_answers_is_asked_no_more(recipient, service, agent_on):
    desktop = service("slow")
    agent_on()
    recipient.send()
    desktop.await_call("Notify")
    desktop.command("leave")
    service().await_notification()


def test_a_withdrawal_after_the_answer_is_told(recipient, service, agent_on):
    recipient.use_window("trap 'echo read; exit 0' TERM; echo shown; "
                         "while :; do sleep 0.05; done")
    desktop = service()
    agent_on()
    message = recipient.send()
    desktop.await_notification()
    recipient.await_mark(message, "shown")
    recipient.tbx("revoke", str(message))
    told = desktop.await_notification()[1]
    assert (told["summary"], told["body"], told["timeout"]) == (
        "Your answer does not count", f"Message {message} was withdrawn meanwhile.", -1)
    assert recipient.events() == []


def test_an_answer_for_which_the_mailbox_cannot_be_opened_is_recorded_as_failed(
        recipient, service, agent_on):
    recipient.use_window(f"echo shown; while [ ! -e {recipient.folder}/go ]; do sleep 0.05; done; "
                         "echo read")
    desktop = service()
    agent_on()
    message = recipient.send()
    desktop.await_notification()
    recipient.await_mark(message, "shown")
    recipient.file().rename(recipient.var / "away")
    recipient.file().symlink_to(recipient.var / "away")
    (recipient.folder / "go").touch()
    recipient.await_events(("CONFIRMATION_FAILED", message, "desktop"))
    assert desktop.await_notification()[1]["summary"] == "Your answer was not saved"


def test_a_service_that_does_not_answer_is_asked_once(recipient, service, agent_on):
    desktop = service("slow")
    agent_on()
    first = recipient.send()
    desktop.await_call("Notify")
    recipient.tbx("revoke", str(first))
    recipient.send("second")
    assert desktop.is_left_alone()
    desktop.command("reply")  # the number arrives when it is no longer wanted
    assert desktop.await_call("CloseNotification") == [1]
    assert desktop.await_call("Notify")["body"] == "second"


def test_a_bus_that_comes_back_gets_the_notification(recipient, screen, agent_on, private_bus,
                                                     service):
    recipient.configure(TBX_AGENT_POLL=1)
    first = service()
    agent_on()
    recipient.send()
    first.await_notification()
    private_bus.restart()
    again = service()
    again.await_notification()


# ---- Without a window ---------------------------------------------------------------------

@pytest.fixture
def no_window(recipient):
    recipient.remove_window()


def test_without_a_window_the_notification_can_be_answered(recipient, no_window, service,
                                                           agent_on):
    desktop = service()
    agent_on()
    message = recipient.send("short", "--title", "T")
    number, shown = desktop.await_notification()
    assert (shown["body"], shown["actions"]) == (
        "T\nshort\nAnswer in a terminal with: tellbox", [f"read:{message}", READ, f"later:{message}", LATER])
    recipient.await_mark(message, "shown")
    outlast_guard()
    desktop.command("act", number, f"read:{message}")
    assert recipient.await_answer(message) == "desktop"


EVENTS = {"read": "CONFIRMED", "later": "POSTPONED"}


def answered_at_once(recipient, desktop, action):
    """A message that was answered when its notification had just appeared, and the number of the
    notification that it has then: services close what was answered. On a busy machine the answer
    comes late enough to count now and then."""
    for _ in range(20):
        guarded_until = time.monotonic() + GUARD_SECONDS
        message = recipient.send()
        number, _ = desktop.await_notification()
        desktop.command("act", number, f"{action}:{message}")
        counted = (EVENTS[action], message, "desktop")
        await_condition(lambda event=counted: desktop.was_asked("Notify") or
                        event in recipient.events(), "an effect of the answer")
        if counted not in recipient.events():
            return message, desktop.await_notification()[0]
        assert time.monotonic() >= guarded_until, "an answer in the first moments counted"
    raise AssertionError("this machine is too slow to answer at once")


@pytest.mark.parametrize("action", ["read", "later"])
def test_an_answer_to_what_has_just_appeared_does_not_count(recipient, no_window, service,
                                                            agent_on, action):
    desktop = service()
    agent_on()
    message, number = answered_at_once(recipient, desktop, action)
    assert all(about != message for _, about, _ in recipient.events())
    outlast_guard()
    desktop.command("act", number, f"{action}:{message}")
    event = (EVENTS[action], message, "desktop")
    await_condition(lambda: event in recipient.events(), "the answer counts now")


def test_a_service_that_answers_by_itself_confirms_nothing_and_is_left_alone(
        recipient, no_window, service, agent_on):
    desktop = service("eager")
    agent_on()
    message = recipient.send()
    for _ in range(4):
        desktop.await_notification()
    assert desktop.is_left_alone()
    assert recipient.is_unanswered(message) and recipient.events() == []


def test_a_service_that_asks_for_the_window_all_the_time_gets_it_now_and_then(
        recipient, service, agent_on):
    recipient.use_window(f"echo x >>{recipient.folder}/opened; echo shown; exec sleep 60")
    desktop = service()
    agent_on()
    message, number = shown_with_notification(recipient, desktop)
    for _ in range(30):
        desktop.command("act", number, f"show:{message}")
        time.sleep(0.05)
    assert 2 <= len((recipient.folder / "opened").read_text().splitlines()) <= 5


def test_an_answer_that_was_not_offered_does_not_count(recipient, no_window, service, agent_on):
    desktop = service()
    agent_on()
    message = recipient.send("word " * 200)
    number, shown = desktop.await_notification()
    assert shown["actions"] == [f"later:{message}", LATER]
    recipient.await_mark(message, "shown")
    outlast_guard()
    desktop.command("act", number, f"read:{message}")
    desktop.command("act", number, f"show:{message}")
    desktop.command("act", number, f"later:{message}")
    recipient.await_mark(message, "postponed")
    recipient.await_events(("POSTPONED", message, "desktop"))


def test_a_service_that_is_gone_holds_up_no_other_message(recipient, no_window, service, agent_on):
    first = service()
    agent_on()
    message = recipient.send("first")
    first.await_notification()
    recipient.await_mark(message, "shown")
    first.close()
    other = recipient.send("second")
    second = service()
    while not second.await_notification()[1]["body"].startswith("second\n"):
        pass
    recipient.await_mark(other, "shown")


def test_without_a_window_later_is_later(recipient, no_window, service, agent_on):
    desktop = service()
    agent_on()
    message = recipient.send()
    number, _ = desktop.await_notification()
    outlast_guard()
    desktop.command("act", number, f"later:{message}")
    recipient.await_mark(message, "postponed")
    recipient.await_events(("POSTPONED", message, "desktop"))


def test_a_text_that_is_not_whole_cannot_be_confirmed(recipient, no_window, service, agent_on):
    desktop = service()
    agent_on()
    message = recipient.send("word " * 200)
    number, shown = desktop.await_notification()
    assert shown["actions"] == [f"later:{message}", LATER]
    assert shown["body"].endswith("…\nAnswer in a terminal with: tellbox")


def test_a_service_that_draws_no_actions_tells_how_to_answer(recipient, no_window, service,
                                                             agent_on):
    desktop = service("plain")
    agent_on()
    message = recipient.send("short")
    _, shown = desktop.await_notification()
    assert (shown["body"], shown["actions"]) == ("short\nAnswer in a terminal with: tellbox", [])
    recipient.await_mark(message, "shown")


def test_without_a_window_one_message_comes_after_the_other(recipient, no_window, service,
                                                            agent_on):
    desktop = service()
    first, second = recipient.send("first"), recipient.send("second")
    agent_on()
    number, shown = desktop.await_notification()
    assert shown["body"].startswith("first\n")
    recipient.await_mark(first, "shown")
    assert recipient.mark(second) is None
    desktop.command("close", number, 2)  # the user has closed it
    assert desktop.await_notification()[1]["body"].startswith("second\n")
    assert recipient.is_unanswered(first)


@pytest.mark.parametrize("mode", ["errors", "mute", "nonsense", "zero"])
def test_what_no_service_shows_is_not_marked_as_shown(recipient, no_window, service, agent_on,
                                                      mode):
    desktop = service(mode)
    agent_on()
    message = recipient.send()
    desktop.await_call("GetCapabilities")
    if mode != "mute":
        desktop.await_call("Notify")
    time.sleep(0.3)
    assert recipient.mark(message) is None
