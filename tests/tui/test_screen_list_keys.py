"""The keys of the list: each of them in every state, and how keys are told from bytes."""

import shutil
from dataclasses import replace

import pytest

from harness.pseudo_terminal import (
    BACK_TAB, BACKSPACE, CTRL_E, CTRL_S, DELETE, DOWN, END, ENTER, ESCAPE, HOME, LEFT, PAGE_DOWN,
    PAGE_UP, RIGHT, TAB, UP)
from interface import BROKEN_CHARACTERS, MEANINGLESS, press, press_in_vain, reply, seen
from messages import DATE, MESSAGE_STATES, Message
from pages import (
    ANY_KEY, KEYS_BOX, DetailPage, FormPage, purge_box, remind_confirmation, revoke_confirmation,
    search_box)

THIRTY = [Message(number) for number in range(1, 31)]  # at 80x24 a page is 17 of them

# Keys that mean something elsewhere.
OTHER_KEYS = [*"xjkgGNRMP 0", "é", "日", "😀", TAB, BACK_TAB, "\x1bOZ", LEFT, RIGHT, BACKSPACE,
              "\x08", DELETE, CTRL_E, CTRL_S, *BROKEN_CHARACTERS]
MOVING = [UP, DOWN, PAGE_UP, PAGE_DOWN, HOME, END]


# ---- Moving -------------------------------------------------------------------------------


@pytest.mark.parametrize("keys, selected, top", [
    ([UP], 0, 0),
    ([DOWN], 1, 0),
    ([DOWN, DOWN, UP], 1, 0),
    ([DOWN] * 16, 16, 0),
    ([DOWN] * 17, 17, 1),
    ([DOWN] * 17 + [UP] * 16, 1, 1),
    ([DOWN] * 17 + [UP] * 17, 0, 0),
    ([DOWN] * 40, 29, 13),
    ([PAGE_DOWN], 17, 1),
    ([PAGE_DOWN] * 2, 29, 13),
    ([PAGE_DOWN] * 3, 29, 13),
    ([DOWN] * 5 + [PAGE_UP], 0, 0),
    ([END], 29, 13),
    ([END, DOWN], 29, 13),
    ([END, UP], 28, 13),
    ([END, PAGE_UP], 12, 12),
    ([END, PAGE_UP, PAGE_UP], 0, 0),
    ([END, HOME], 0, 0),
    ([DOWN, DOWN, HOME], 0, 0),
])
def test_key_moves_the_selection(interface, keys, selected, top):
    tbx, page = interface(THIRTY)
    press(tbx, "".join(keys), replace(page, selected=selected, top=top))


@pytest.mark.parametrize("key, selected, top", [
    ("\x1bOB", 1, 0), ("\x1b[4~", 29, 13), ("\x1b[8~", 29, 13), ("\x1bOF", 29, 13)])
def test_other_sequence_of_the_same_key_moves_down(interface, key, selected, top):
    tbx, page = interface(THIRTY)
    press(tbx, key, replace(page, selected=selected, top=top))


@pytest.mark.parametrize("key, selected", [
    ("\x1bOA", 1), ("\x1b[1~", 0), ("\x1b[7~", 0), ("\x1bOH", 0)])
def test_other_sequence_of_the_same_key_moves_up(interface, key, selected):
    tbx, page = interface(THIRTY)
    press(tbx, DOWN + DOWN + key, replace(page, selected=selected))


@pytest.mark.parametrize("size, rows", [((80, 20), 13), ((120, 40), 33), ((200, 60), 53)])
def test_page_is_as_many_rows_as_fit(interface, size, rows):
    tbx, page = interface([Message(number) for number in range(1, 61)], size)
    press(tbx, PAGE_DOWN, replace(page, selected=rows, top=1))
    press(tbx, PAGE_UP, replace(page, selected=0, top=0))


# ---- Keys that do nothing -----------------------------------------------------------------


def assert_ignored(tbx, page, keys):
    """Each key leaves the page as it is. The dialog of the keys shows that it was dealt with."""
    for key in keys:
        tbx.send(key)
        press(tbx, "?", page, KEYS_BOX)
        press(tbx, "x", page)


def test_key_without_a_meaning_does_nothing(interface):
    tbx, page = interface([Message(1), Message(2), Message(3)])
    press(tbx, DOWN, replace(page, selected=1))
    assert_ignored(tbx, replace(page, selected=1), [*MEANINGLESS, *OTHER_KEYS])


def test_only_few_keys_do_something_on_an_empty_list(interface):
    tbx, page = interface([])
    assert_ignored(tbx, page, [*MEANINGLESS, *OTHER_KEYS, *MOVING, ENTER, "\n", "r", "m"])


def test_only_few_keys_do_something_where_nothing_is_found(interface):
    tbx, page = interface([Message(1)])
    nothing = replace(page, messages=(), search="absent")
    press(tbx, "/absent\r", nothing)
    assert_ignored(tbx, nothing, [*MEANINGLESS, *OTHER_KEYS, *MOVING, ENTER, "\n", "r", "m"])


def test_escape_does_nothing_without_a_search(interface):
    tbx, page = interface([Message(1)])
    press_in_vain(tbx, ESCAPE)
    press(tbx, "?", page, KEYS_BOX)


# ---- Keys that open something -------------------------------------------------------------

PLAIN = Message(1, title="Plain", sent=("bin",))


@pytest.mark.parametrize("key", [ENTER, "\n"])
def test_enter_opens_the_selected_message(interface, key):
    messages = [Message(number, title=f"Title {number}") for number in (1, 2, 3)]
    tbx, page = interface(messages)
    press(tbx, DOWN + key, DetailPage(page.size, messages[1]))


def test_n_opens_the_form(interface):
    tbx, page = interface([PLAIN])
    press(tbx, "n", FormPage(page.size))


@pytest.mark.parametrize("messages", [[], [PLAIN]], ids=["empty", "one message"])
@pytest.mark.parametrize("key, box", [("p", purge_box), ("/", search_box)])
def test_key_opens_its_dialog_with_or_without_messages(interface, messages, key, box):
    tbx, page = interface(messages)
    press(tbx, key, page, box())


def test_question_mark_opens_the_keys(interface):
    tbx, page = interface([PLAIN])
    press(tbx, "?", page, KEYS_BOX)


@pytest.mark.parametrize("state", MESSAGE_STATES)
def test_r_revokes_what_is_not_revoked(interface, state):
    message, can_be_revoked, _ = MESSAGE_STATES[state]
    tbx, page = interface([message])
    if can_be_revoked:
        press(tbx, "r", page, revoke_confirmation(message))
    else:
        assert_ignored(tbx, page, ["r"])


@pytest.mark.parametrize("state", MESSAGE_STATES)
def test_m_reminds_where_a_reminder_is_of_use(interface, state):
    message, _, can_be_reminded = MESSAGE_STATES[state]
    tbx, page = interface([message])
    if can_be_reminded:
        press(tbx, "m", page, remind_confirmation(message))
    else:
        assert_ignored(tbx, page, ["m"])


def test_r_and_m_are_for_the_selected_message(interface):
    messages = [Message(1, revoked=DATE), Message(2)]
    tbx, page = interface(messages)
    press(tbx, "r", page, revoke_confirmation(messages[1]))
    press(tbx, "n", page)
    press(tbx, DOWN, replace(page, selected=1))
    assert_ignored(tbx, replace(page, selected=1), ["r", "m"])


# ---- Reading the store again --------------------------------------------------------------


@pytest.mark.parametrize("opening, closing", [
    ([(ENTER, "Recipients")], ESCAPE),
    ([("n", "New message")], ESCAPE),
    ([("r", "Revoke message")], "n"),
    ([("m", "Remind message")], "n"),
    ([("p", "Delete old messages")], ESCAPE),
    ([("p", "Delete old messages"), (ENTER, "Delete old messages?")], "n"),
    ([("/", "Search")], ENTER),
])
def test_list_is_read_again_on_return(interface, store, opening, closing):
    tbx, page = interface([PLAIN])
    for key, shown in opening:
        tbx.send(key)
        tbx.wait_for(shown)
    arrived = Message(2).put(store)
    press(tbx, closing, replace(page, messages=(PLAIN, arrived)))


@pytest.mark.parametrize("opening, box", [("?", KEYS_BOX), ("/", search_box())])
def test_dialog_that_changes_nothing_leaves_the_list_unread(interface, store, opening, box):
    tbx, page = interface([PLAIN])
    press(tbx, opening, page, box)
    Message(2).put(store)
    press(tbx, ESCAPE, page)


def test_selected_message_that_is_gone_cannot_be_opened(interface, store):
    tbx, page = interface([Message(1), Message(2)])
    shutil.rmtree(store.sent(2))
    press(tbx, ENTER, replace(page, messages=(Message(1),)))


@pytest.mark.parametrize("key", ["r", "m"])
def test_action_on_a_message_that_is_gone_tells_so(interface, store, key):
    tbx, page = interface([Message(1), Message(2)])
    tbx.send(key)
    tbx.wait_for("y  Confirm")
    shutil.rmtree(store.sent(2))
    reply(tbx, "y")
    tbx.wait_for("tbx: no such message: 2")
    press(tbx, "x", replace(page, messages=(Message(1),)))


# ---- Searching ----------------------------------------------------------------------------

LIBRARY = [
    Message(1, "The needle is here\n"),
    Message(2, "Nothing\n", title="A NEEDLE in the title"),
    Message(3, "Nothing\nbut in line two: nEEdle\n"),
    Message(4, "Nothing\n", title="Nothing"),
    Message(5, "Nothing, and no title\n"),
    Message(6, "Übung\n"),
]


def found(page, text, *numbers):
    """The page with the filter `text` that lets these messages pass."""
    messages = tuple(message for message in page.messages if message.id in numbers)
    return replace(page, messages=messages, search=text, selected=0, top=0)


@pytest.mark.parametrize("colour", [True, False])
@pytest.mark.parametrize("text, numbers", [("NeedlE", [1, 2, 3]), ("absent", [])])
def test_search_finds_text_and_titles_whatever_the_case_of_ascii(
        interface, text, numbers, colour):
    tbx, page = interface(LIBRARY, colour=colour)
    press(tbx, "/" + text, page, search_box(text))
    press(tbx, ENTER, found(page, text, *numbers))


def test_search_selects_the_first_row(interface):
    tbx, page = interface(LIBRARY)
    press(tbx, END, replace(page, selected=5))
    press(tbx, "/needle\r", found(page, "needle", 1, 2, 3))


def test_escape_clears_the_search_and_reads_the_list_again(interface, store):
    tbx, page = interface(LIBRARY)
    press(tbx, "/needle\r", found(page, "needle", 1, 2, 3))
    press(tbx, END, replace(found(page, "needle", 1, 2, 3), selected=2))
    arrived = Message(7).put(store)
    press(tbx, ESCAPE, replace(page, messages=(*LIBRARY, arrived), selected=2))


def test_search_is_edited_where_it_was(interface):
    tbx, page = interface(LIBRARY)
    press(tbx, "/needle\r", found(page, "needle", 1, 2, 3))
    press(tbx, "/", found(page, "needle", 1, 2, 3), search_box("needle"))
    press(tbx, BACKSPACE * 4 + "ed", found(page, "needle", 1, 2, 3), search_box("need"))
    press(tbx, " \r", found(page, "need "))


def test_unchanged_search_reads_the_list_again_and_selects_the_first_row(interface, store):
    tbx, page = interface(LIBRARY)
    press(tbx, "/needle\r", found(page, "needle", 1, 2, 3))
    press(tbx, END, replace(found(page, "needle", 1, 2, 3), selected=2))
    arrived = Message(7, "Another needle\n").put(store)
    press(tbx, "/\r", found(replace(page, messages=(*LIBRARY, arrived)), "needle", 1, 2, 3, 7))


def test_empty_search_clears_the_filter(interface):
    tbx, page = interface(LIBRARY)
    press(tbx, "/needle\r", found(page, "needle", 1, 2, 3))
    press(tbx, "/" + BACKSPACE * 6 + "\r", page)


def test_cancelled_search_leaves_filter_and_selection(interface):
    tbx, page = interface(LIBRARY)
    press(tbx, "/needle\r", found(page, "needle", 1, 2, 3))
    selected = replace(found(page, "needle", 1, 2, 3), selected=1)
    press(tbx, DOWN, selected)
    press(tbx, "/xyz", selected, search_box("needlexyz"))
    press(tbx, ESCAPE, selected)


@pytest.mark.parametrize("keys", ["q", "Q"])
@pytest.mark.parametrize("search", ["", "/absent\r"], ids=["without a search", "in a search"])
def test_q_leaves_at_once(interface, keys, search):
    tbx, _ = interface([PLAIN])
    tbx.send(search + keys)
    assert tbx.wait_exit() == 0


# ---- Keys in pieces -----------------------------------------------------------------------


def await_read(tbx):
    while tbx.unread() > 0:
        pass


@pytest.mark.parametrize("pieces", [
    ["\x1b", "[B"], ["\x1b[", "B"], ["\x1b", "[", "B"], ["\x1bO", "B"], ["\x1b[8", "~"]])
def test_sequence_in_pieces_is_one_key(interface, pieces):
    tbx, page = interface([Message(1), Message(2)])
    moved = replace(page, selected=1)
    for _ in range(20):  # where the machine is so busy that a piece comes late
        for piece in pieces:
            tbx.send(piece)
            await_read(tbx)
        tbx.send("?")
        tbx.wait_for(ANY_KEY)
        if seen(tbx) == moved.frame(KEYS_BOX):
            return
        press(tbx, "x", page)
    pytest.fail("taken for several keys every time")


@pytest.mark.parametrize("first, second", [
    ("\x1b", "[B"), ("\x1b[", "B"), ("\x1bO", "B"), ("\x1b[8", "~"), ("\x1b[1;5", "B")])
def test_sequence_that_pauses_is_no_key(interface, first, second):
    tbx, page = interface([Message(1), Message(2)])
    press_in_vain(tbx, first)
    press(tbx, second + "?", page, KEYS_BOX)


def test_escape_is_a_key_when_nothing_follows_it(interface):
    tbx, page = interface([PLAIN])
    press(tbx, "/absent\r", replace(page, messages=(), search="absent"))
    press(tbx, ESCAPE, page)
