"""The dialogs over the list: the box itself, what is typed into them, and what they do."""

from dataclasses import replace

import pytest

from harness.pseudo_terminal import (
    BACK_TAB, BACKSPACE, CTRL_E, CTRL_S, DELETE, DOWN, END, ENTER, ESCAPE, HOME, LEFT, PAGE_DOWN,
    PAGE_UP, RIGHT, TAB, UP)
from interface import BROKEN_CHARACTERS, MEANINGLESS, expect, frames_as_text, press, reply
from messages import DATE, PAST, Message, people
from pages import (
    KEYS_BOX, message_box, purge_box, purge_confirmation, remind_confirmation, revoke_confirmation,
    search_box)
from shapes import SHAPES

FUNCTION_KEYS = [UP, DOWN, LEFT, RIGHT, PAGE_UP, PAGE_DOWN, HOME, END, TAB, BACK_TAB, DELETE,
                 CTRL_E, CTRL_S]

SOME = [Message(1, title="Plain"), Message(2, delivered=("daemon", "bin"), sent=people(3)),
        *(Message(number) for number in range(3, 10))]


# ---- The box ------------------------------------------------------------------------------

BOXES = {
    "?": KEYS_BOX,
    "/": search_box(),
    "p": purge_box(),
    "p\r": purge_confirmation(),
    "r": revoke_confirmation(SOME[-1]),
    "m": remind_confirmation(SOME[-1]),
}


@pytest.mark.parametrize("size, colour", SHAPES)
@pytest.mark.parametrize("keys", BOXES)
def test_dialog_stands_in_the_middle_of_the_list(interface, keys, size, colour):
    tbx, page = interface(SOME, size, colour)
    press(tbx, keys, page, BOXES[keys])


@pytest.mark.parametrize("longest, margin, width", [(55, 7, 61), (120, 2, 72)])
def test_box_is_as_wide_as_its_longest_line_needs(interface, longest, margin, width):
    message = Message(1, title="t" * (longest - len("«» · 1 delivered")))
    tbx, page = interface([message])
    press(tbx, "r", page, revoke_confirmation(message))
    assert tbx.rows()[6][2:].rstrip("│ ") == " " * margin + "┌─ Revoke message 1? " + "─" * (
        width - 22) + "┐"


@pytest.mark.parametrize("title", ["A title", ""])
def test_question_before_a_revocation_names_title_and_state(interface, title):
    message = Message(7, title=title, confirmed=("daemon",), delivered=("bin", "sys"),
                      sent=people(1))
    tbx, page = interface([message])
    press(tbx, "r", page, revoke_confirmation(message))
    assert f"«{title or 'no title'}» · 1 confirmed · 2 delivered · 1 sent" in tbx.frame()


@pytest.mark.parametrize("count, question", [
    (1, "1 recipient has not confirmed yet."), (2, "2 recipients have not confirmed yet.")])
def test_question_before_a_reminder_counts_who_has_not_confirmed(interface, count, question):
    message = Message(1, confirmed=("bin",), delivered=people(count), sent=people(5, "other"))
    tbx, page = interface([message])
    press(tbx, "m", page, remind_confirmation(message))
    assert question in tbx.frame()


# ---- Typing into a prompt -----------------------------------------------------------------


@pytest.mark.parametrize("colour", [True, False])
def test_what_is_typed_into_a_prompt_appears(interface, colour):
    tbx, page = interface([Message(1)], colour=colour)
    press(tbx, "/qnyr/? aéЖ€" + BACKSPACE, page, search_box("qnyr/? aéЖ"))


def test_prompt_takes_a_character_in_two_pieces(interface):
    tbx, page = interface([Message(1)])
    press(tbx, "/", page, search_box())
    tbx.send(b"\xd0")
    tbx.send(b"\x96")
    expect(tbx, page, search_box("Ж"))


def test_prompt_ignores_other_keys(interface):
    tbx, page = interface([Message(1)])
    press(tbx, "/ab", page, search_box("ab"))
    for key in [*MEANINGLESS, *FUNCTION_KEYS]:
        tbx.send(key)
        press(tbx, "c", page, search_box("abc"))
        press(tbx, BACKSPACE, page, search_box("ab"))


def test_prompt_takes_no_character_once_it_is_longer_than_199_bytes(interface):
    tbx, page = interface([Message(1)], (250, 24))
    press(tbx, "/" + "x" * 199 + "€z", page, search_box("x" * 199 + "€"))


@pytest.mark.parametrize("size", [(80, 24), (120, 40)])
def test_end_of_a_long_value_stays_in_sight(interface, size):
    value = "".join(chr(ord("Ā") + number) for number in range(100))
    tbx, page = interface([Message(1)], size)
    press(tbx, "/" + value, page, search_box(value[-(size[0] - 19):]))


@pytest.mark.parametrize("key", [ENTER, "\n"])
def test_enter_confirms_a_prompt(interface, key):
    tbx, page = interface([Message(1)])
    press(tbx, "p", page, purge_box())
    press(tbx, BACKSPACE * 3 + "12h" + key, page, purge_confirmation("12h"))


# ---- Questions ----------------------------------------------------------------------------


@pytest.mark.parametrize("opening, box", [
    ("r", revoke_confirmation(SOME[-1])), ("m", remind_confirmation(SOME[-1])),
    ("p\r", purge_confirmation())])
@pytest.mark.parametrize("key", ["n", "N", ESCAPE])
def test_declined_question_changes_nothing(interface, store, opening, box, key):
    tbx, page = interface(SOME)
    before = store.tree()
    press(tbx, opening, page, box)
    press(tbx, key, page)
    assert store.tree() == before


@pytest.mark.parametrize("opening, box", [
    ("r", revoke_confirmation(SOME[-1])), ("m", remind_confirmation(SOME[-1])),
    ("p\r", purge_confirmation())])
def test_question_ignores_all_other_keys_and_is_drawn_once(interface, store, opening, box):
    tbx, page = interface(SOME)
    before = store.tree()
    press(tbx, opening, page, box)
    for key in [*MEANINGLESS, *BROKEN_CHARACTERS, *FUNCTION_KEYS, ENTER, "\n", BACKSPACE, *"qQjx 1",
                "ñ", "ÿ"]:
        tbx.send(key)
    press(tbx, "n", page)
    assert store.tree() == before
    assert sum("y  Confirm" in frame for frame in frames_as_text(tbx)) == 1


# ---- Boxes that any key closes ------------------------------------------------------------


@pytest.mark.parametrize("opening, answer, keys", [
    ("?", "", [*MEANINGLESS, *FUNCTION_KEYS, *"qQyn xé€", ENTER, "\n", BACKSPACE, ESCAPE]),
    ("p\r", "y", ["\x00", "q", ESCAPE]),
], ids=["keys", "result"])
def test_any_key_closes_a_box_that_shows_something(interface, opening, answer, keys):
    tbx, page = interface([])
    for key in keys:
        tbx.send(opening)
        if answer:
            tbx.wait_for("y  Confirm")
            reply(tbx, answer)
        tbx.wait_for("any key to continue")
        press(tbx, key, page)


def test_time_does_not_close_a_box(interface):
    tbx, page = interface([])
    press(tbx, "?", page, KEYS_BOX)
    tbx.resize(100, 30)  # seen at an idle tick
    expect(tbx, replace(page, size=(100, 30)), KEYS_BOX)


# ---- Revoking and reminding ---------------------------------------------------------------


def answer(tbx, page, key, question, *result):
    """Presses the key, says yes to the question, and waits for the result."""
    press(tbx, key, page, question)
    press(tbx, "y", page, message_box(question.title, *result))


@pytest.mark.parametrize("yes", ["y", "Y"])
def test_message_is_revoked(interface, store, yes):
    message = Message(1, delivered=("daemon",), sent=("bin",))
    tbx, page = interface([message])
    press(tbx, "r", page, revoke_confirmation(message))
    press(tbx, yes, page, message_box("Revoke message 1?", "Message 1 revoked."))
    assert store.sent(1, "revoked").exists()
    press(tbx, "x", replace(page, messages=(message.after(revoked=1),)))


def test_message_is_revoked_from_its_page(detail, store):
    message = Message(1)
    tbx, page, _ = detail(message)
    answer(tbx, page, "r", revoke_confirmation(message), "Message 1 revoked.")
    revoked = int(store.sent(1, "revoked").read_text())
    press(tbx, "x", replace(page, message=message.after(revoked=revoked)))


def test_revocation_that_cannot_withdraw_a_copy_tells_so(interface, store):
    message = Message(1)
    tbx, page = interface([message])
    (store.make_mailbox("daemon") / "inbox" / "1" / "in the way").mkdir(parents=True)
    answer(tbx, page, "r", revoke_confirmation(message),
           "tbx: message 1 revoked, but some copies could not be removed from the mailboxes: "
           "the next tbx command will retry")


@pytest.mark.parametrize("count, result", [
    (1, "Message 1: 1 recipient reminded."), (2, "Message 1: 2 recipients reminded.")])
def test_recipients_are_reminded(interface, store, count, result):
    message = Message(1, delivered=("daemon", "bin")[:count], confirmed=("sys",))
    for user in message.delivered:
        store.make_mailbox(user)
    tbx, page = interface([message])
    answer(tbx, page, "m", remind_confirmation(message), result)
    press(tbx, "x", page)


def test_recipients_are_reminded_from_the_page_of_a_message(detail, store):
    message = Message(1)
    store.make_mailbox("daemon")
    tbx, page, _ = detail(message)
    answer(tbx, page, "m", remind_confirmation(message), "Message 1: 1 recipient reminded.")
    press(tbx, "x", page)


def test_reminder_of_what_was_confirmed_meanwhile_tells_so(interface, store):
    message = Message(1)
    tbx, page = interface([message])
    press(tbx, "m", page, remind_confirmation(message))
    store.confirm("daemon", 1, DATE + 60)
    press(tbx, "y", page, message_box(
        "Remind message 1?", "Message 1: everyone has already confirmed, nobody to remind."))
    press(tbx, "x", replace(page, messages=(Message(1, confirmed=("daemon",), delivered=()),)))


def test_reminder_of_what_was_revoked_meanwhile_tells_so(interface, terminal):
    message = Message(1)
    tbx, page = interface([message])
    press(tbx, "m", page, remind_confirmation(message))
    assert terminal("revoke", "1").wait_exit() == 0
    press(tbx, "y", page, message_box(
        "Remind message 1?", "tbx: message 1 has been revoked: nobody to remind"))
    press(tbx, "x", replace(page, messages=(message.after(revoked=1),)))


# ---- Deleting old messages ----------------------------------------------------------------

OLD = {"date": PAST}
NEW = {"date": 4000000000}


@pytest.mark.parametrize("messages, left, result", [
    ([Message(1, **OLD), Message(2, **NEW), Message(3, **OLD)], [2],
     "Deleted 2 messages older than 90d."),
    ([], [], "No messages older than 90d."),
])
def test_old_messages_are_deleted(interface, messages, left, result):
    tbx, page = interface(messages)
    press(tbx, "p", page, purge_box())
    press(tbx, ENTER, page, purge_confirmation("90d"))
    press(tbx, "y", page, message_box("Delete old messages", result))
    press(tbx, "x", replace(page, messages=tuple(
        message for message in messages if message.id in left)))


@pytest.mark.parametrize("typed, error", [
    ("", "missing duration, for example 90d"),
    ("9é€", "invalid duration: 9é€ (for example 90d, 12h, 30m)"),
])
def test_invalid_duration_is_refused_by_the_command(interface, typed, error):
    tbx, page = interface([Message(1, **OLD)])
    press(tbx, "p" + BACKSPACE * 3 + typed, page, purge_box(typed))
    press(tbx, ENTER, page, purge_confirmation(typed))
    press(tbx, "y", page, message_box("Delete old messages", f"tbx: {error}"))
    press(tbx, "x", page)


def test_purge_starts_with_90_days_each_time(interface):
    tbx, page = interface([])
    press(tbx, "p" + BACKSPACE + "x", page, purge_box("90x"))
    press(tbx, ESCAPE, page)
    press(tbx, "p", page, purge_box("90d"))


def test_duration_of_the_greatest_length_is_asked_for_as_typed(interface):
    age = "9" * 200
    tbx, page = interface([], (250, 24))
    press(tbx, "p" + BACKSPACE * 3 + age, page, purge_box(age))
    press(tbx, ENTER, page, purge_confirmation(age))


# ---- Commands that cannot be started ------------------------------------------------------


@pytest.fixture
def cramped(binary):
    """The program's command line where no pipe to a command can be opened."""
    return ["sh", "-c", 'ulimit -Sn 6; exec "$0"', binary]


def test_command_that_cannot_be_started_shows_done(interface, cramped):
    tbx, page = interface([Message(1, **OLD)], argv=cramped)
    press(tbx, "p\r", page, purge_confirmation("90d"))
    press(tbx, "y", page, message_box("Delete old messages", "Done."))
    press(tbx, "x", page)


def test_send_that_cannot_be_started_keeps_the_form(form, cramped):
    tbx, page, _ = form(colour=False, argv=cramped)
    page = replace(page, to="x")
    press(tbx, "x", page)
    press(tbx, CTRL_S, page, page.review(""))
    press(tbx, "y", page, message_box("Sending result", "Done."))
    press(tbx, "x", page)
