"""A terminal that changes its size: seen at the next idle tick, on every page and dialog."""

from dataclasses import replace

import pytest

from harness.pseudo_terminal import BACK_TAB, CTRL_S, DOWN, EARLIER, END, ENTER, ESCAPE, TAB, UP
from interface import expect, frames_as_text, press, reply
from messages import DATE, Message, people
from pages import search_box
from places import PLACES, Places

ON_THE_LIST = [name for name in PLACES if name.startswith("list")]
ELSEWHERE = [name for name in PLACES if name not in ON_THE_LIST]


def await_frame_of(tbx, rows):
    """Waits for a frame of this many rows: none where there is no room for a frame."""
    tbx.wait_for(lambda: frames_as_text(tbx)[-1].count("\r\n") == max(rows - 1, 0))


# ---- Every place --------------------------------------------------------------------------


@pytest.mark.parametrize("name", PLACES)
def test_new_size_is_drawn_without_a_key(place, name):
    tbx, _ = place(name)
    tbx.resize(120, 30)
    expect(tbx, *Places((120, 30)).shown(name))


@pytest.mark.parametrize("name", ELSEWHERE)
def test_below_80x20_all_but_the_list_goes_on(place, name):
    tbx, _ = place(name)
    tbx.resize(60, 15)
    expect(tbx, *Places((60, 15)).shown(name))
    tbx.resize(7, 5)
    await_frame_of(tbx, 5)
    tbx.resize(80, 24)
    expect(tbx, *Places((80, 24)).shown(name))


@pytest.mark.parametrize("name", ON_THE_LIST)
def test_list_on_a_terminal_below_80x20_ends_the_interface(place, name):
    tbx, _ = place(name, earlier=EARLIER)
    tbx.resize(60, 15)
    assert tbx.wait_exit() == 0
    assert tbx.attributes() == tbx.attributes_before
    assert not tbx.screen.alternate
    assert tbx.rows()[0].rstrip() == EARLIER.rstrip()
    assert tbx.cursor() is not None


# ---- The list -----------------------------------------------------------------------------


@pytest.mark.parametrize("size", [(79, 24), (80, 19), (1, 1), (200, 3)])
def test_one_dimension_that_is_too_small_is_enough_to_end_the_list(interface, size):
    tbx, _ = interface([Message(1)])
    tbx.resize(*size)
    assert tbx.wait_exit() == 0


def test_list_at_exactly_80x20_goes_on(interface):
    tbx, page = interface([Message(1)])
    tbx.resize(80, 20)
    expect(tbx, replace(page, size=(80, 20)))


@pytest.mark.parametrize("columns, rows", [(0, 0), (0, 24), (80, 0)])
def test_size_that_the_terminal_does_not_tell_any_more_stays_as_it_was(
        interface, columns, rows):
    tbx, page = interface([Message(1), Message(2)])
    tbx.resize(columns, rows)
    tbx.wait_for(lambda: len(frames_as_text(tbx)) >= 3)  # two idle ticks
    press(tbx, DOWN, replace(page, selected=1))


def test_selected_row_stays_in_sight(interface):
    tbx, page = interface([Message(number) for number in range(1, 31)])
    press(tbx, END, replace(page, selected=29, top=13))
    tbx.resize(80, 20)
    page = replace(page, size=(80, 20), selected=29, top=17)
    expect(tbx, page)
    tbx.resize(80, 40)
    expect(tbx, replace(page, size=(80, 40)))
    press(tbx, UP * 13, replace(page, size=(80, 40), selected=16, top=16))


def test_recipients_are_spelled_out_as_soon_as_there_is_room(interface):
    tbx, page = interface([Message(1, sent=("bin",))], (109, 24))
    for columns in (110, 109):
        tbx.resize(columns, 24)
        expect(tbx, replace(page, size=(columns, 24)))


# ---- From what goes on, back to the list --------------------------------------------------


@pytest.mark.parametrize("name, keys", [
    ("keys", "x"), ("search", ENTER), ("search", ESCAPE), ("purge", ESCAPE),
    ("purge-question", "n"), ("purge-result", "x"), ("revoke-question", "n"),
    ("revoke-result", "x"), ("message", ESCAPE), ("message", "q"), ("form", ESCAPE),
    ("form-discard-question", "y"), ("form-sent", "x")])
def test_list_ends_the_interface_once_it_is_shown_below_80x20(place, name, keys):
    tbx, _ = place(name)
    tbx.resize(79, 24)
    expect(tbx, *Places((79, 24)).shown(name))
    reply(tbx, keys)
    assert tbx.wait_exit() == 0
    assert tbx.attributes() == tbx.attributes_before


def test_dialog_over_a_page_below_80x20_returns_to_the_page(place):
    tbx, _ = place("message-revoke-question")
    tbx.resize(60, 15)
    expect(tbx, *Places((60, 15)).shown("message-revoke-question"))
    press(tbx, "n", Places((60, 15)).shown("message")[0])


def test_prompt_that_was_typed_into_meanwhile_keeps_its_value(place):
    tbx, _ = place("search")
    tbx.resize(60, 15)
    expect(tbx, *Places((60, 15)).shown("search"))
    tbx.send("xy")
    tbx.resize(100, 30)
    behind = Places((100, 30)).shown("search")[0]
    expect(tbx, behind, search_box("partyxy"))


# ---- One message --------------------------------------------------------------------------


def test_text_of_a_message_is_wrapped_anew(detail):
    text = " ".join(f"word-{number}" for number in range(40)) + "\n"
    tbx, page, _ = detail(Message(1, text))
    for columns in (60, 200, 81):
        tbx.resize(columns, 24)
        expect(tbx, replace(page, size=(columns, 24)))


def test_new_size_reads_the_message_again(detail, store):
    tbx, page, _ = detail(Message(1))
    store.confirm("daemon", 1, DATE + 60)
    tbx.resize(100, 30)
    expect(tbx, replace(page, size=(100, 30),
                        message=Message(1, confirmed=("daemon",), delivered=())))


def test_recipients_scroll_back_when_there_is_more_room(detail):
    tbx, page, _ = detail(Message(1, delivered=people(30)))
    press(tbx, DOWN * 16, replace(page, scroll=16))
    tbx.resize(80, 30)
    expect(tbx, replace(page, size=(80, 30), scroll=10))


@pytest.mark.parametrize("rows", [10, 9, 5, 4])
def test_message_on_a_terminal_without_room_for_recipients_shows_what_fits(detail, rows):
    tbx, page, _ = detail(Message(1))
    tbx.resize(80, rows)
    expect(tbx, replace(page, size=(80, rows)))


# ---- The form -----------------------------------------------------------------------------


def test_what_is_written_below_80x20_is_kept(form):
    tbx, page, _ = form()
    tbx.resize(40, 10)
    expect(tbx, replace(page, size=(40, 10)))
    tbx.send("daemon" + TAB + "Title" + TAB + "2h" + TAB + "one\rtwo")
    page = replace(page, to="daemon", title="Title", expires="2h", text="one\ntwo", focus="Text",
                   preview="1 recipient")
    expect(tbx, replace(page, size=(40, 10), hidden=3))
    tbx.resize(80, 24)
    expect(tbx, page)
    press(tbx, UP, replace(page, at=(0, 3)))


@pytest.mark.parametrize("rows, focus, hidden", [
    (12, "To", 0), (12, "Title", 0), (12, "Expires", 0), (12, "Text", 1),
    (8, "To", 0), (8, "Title", 0), (8, "Expires", 2), (8, "Text", 5),
    (5, "To", 1), (5, "Title", 3), (5, "Expires", 5), (5, "Text", 8)])
def test_line_with_the_cursor_stays_in_sight_on_a_low_terminal(form, focus, rows, hidden):
    tbx, page, _ = form()
    page = replace(page, focus=focus)
    press(tbx, TAB * ["To", "Title", "Expires", "Text"].index(focus), page)
    tbx.resize(80, rows)
    page = replace(page, size=(80, rows), hidden=hidden)
    expect(tbx, page)
    press(tbx, "x", replace(page, **{focus.lower(): "x"}))


def test_long_value_is_scrolled_for_the_new_width(form):
    tbx, page, _ = form()
    value = "".join(chr(ord("Ā") + number) for number in range(100))
    page = replace(page, to=value)
    press(tbx, value, replace(page, scroll=46))
    tbx.resize(100, 24)
    expect(tbx, replace(page, size=(100, 24), scroll=26))
    tbx.resize(200, 24)
    expect(tbx, replace(page, size=(200, 24)))


def test_message_can_be_sent_below_80x20(form, store):
    tbx, page, _ = form()
    tbx.resize(50, 12)
    expect(tbx, replace(page, size=(50, 12)))
    tbx.send("daemon" + BACK_TAB + "Hello" + CTRL_S)
    tbx.wait_for("y  Confirm")
    reply(tbx, "y")
    tbx.wait_for("Message 1 sent to 1 user.")
    reply(tbx, "x")
    assert tbx.wait_exit() == 0
    assert store.sent(1, "msg").read_text().endswith("\n\nHello\n")


# ---- Any size -----------------------------------------------------------------------------


@pytest.mark.parametrize("name", ["message", "form-filled-in", "keys", "search"])
def test_interface_survives_any_size(place, name):
    tbx, places = place(name)
    for columns, rows, lines in [(1, 1, 0), (5, 4, 4), (300, 2, 0), (4, 50, 0), (26, 20, 20)]:
        tbx.resize(columns, rows)
        await_frame_of(tbx, lines)
    tbx.resize(80, 24)
    expect(tbx, *places.shown(name))
