"""What each page and dialog looks like, whole: expected/screens, on 80x24 (the -wide ones: 120x24)."""

import pytest

from expected_texts import FOLDER
from harness.history import record
from interface import lock_held, press, reply, seen
from places import PLACES, SENT, Places

USERS = ("alex", "kim", "pat", "robin", "sam", "toni")
EVENTS = [
    record("SENT", message=4, details=" ".join(USERS), author="root", when=SENT),
    *(record("DELIVERED", message=4, user=user, details="1", when=SENT + 1) for user in USERS[:5]),
    record("NOT_DELIVERED", message=4, user="toni", when=SENT + 1, usec=1),
    *(record("CONFIRMED", message=4, user=user, channel="terminal", when=SENT + 60, uid=uid)
      for uid, user in enumerate(USERS[:3], start=1001)),
]
HISTORY = [
    "2023-11-14 22:13:20  message 4 sent by root to: alex kim pat robin sam toni",
    *(f"2023-11-14 22:13:21  message 4 delivered to {user} (terminals written: 1)"
      for user in USERS[:5]),
    "2023-11-14 22:13:21  message 4: ERROR, copy for toni not written",
    *(f"2023-11-14 22:14:20  user {user}: confirmed reading message 4 (terminal)"
      for user in USERS[:3]),
]

CAPTURES = {name: (name, (80, 24)) for name in PLACES} | {
    "list-wide": ("list", (120, 24)), "message-wide": ("message", (120, 24))}


@pytest.mark.expects
@pytest.mark.parametrize("capture", CAPTURES)
def test_captured_screen_is_what_the_program_shows(expected, interface, store, journal, capture):
    name, size = CAPTURES[capture]
    places = Places(size, users=USERS, history=HISTORY)
    for user in USERS:
        store.make_mailbox(user)
    tbx, _ = interface(places.messages, size, argv=journal(*EVENTS, accounts=USERS))
    for keys, page, box in places.steps(name):
        press(tbx, keys, page, box)
    compare(expected, tbx, capture)


@pytest.mark.expects
def test_captured_screen_is_what_the_program_shows_while_a_command_runs(
        expected, interface, store, journal):
    places = Places(users=USERS)
    tbx, _ = interface(places.messages, argv=journal(accounts=USERS))
    *_, (keys, page, box) = places.steps("revoke-question")
    press(tbx, keys, page, box)
    with lock_held(store, 4):
        reply(tbx, "y")
        tbx.wait_for("Working …")
        compare(expected, tbx, "working")


def compare(expected, tbx, capture):
    """Characters and styles of the whole screen, the time of day aside."""
    shown = seen(tbx)
    expected.compare(f"screens/{capture}.txt", shown.text)
    expected.compare(f"screens/{capture}-styles.txt", shown.styles)


def test_there_is_no_captured_screen_of_a_place_that_is_no_more():
    assert ({path.stem.removesuffix("-styles") for path in (FOLDER / "screens").glob("*.txt")}
            == {*CAPTURES, "working"})
