"""The window shows one message and says what the user answers."""

import signal
import subprocess
import time

import pytest

from dialog import GUARD_SECONDS, message
from processes import await_condition

READ, LATER = "I have read it", "Later"


def labels(dialog):
    return [widget.name for widget in dialog.tree.everything() if widget.role == "label"]


# ---- What it shows ------------------------------------------------------------------------

def test_it_shows_sender_date_title_text_expiry_and_two_answers(open_dialog):
    dialog = open_dialog("The machine restarts.\nPlease log out.\n", title="Tonight",
                         sender="admin", expires=1790003600)
    assert labels(dialog)[:3] == ["Tonight", "From admin · 21/09 14:13",
                                  "Expires on 21/09 15:13"]
    assert dialog.tree.find("text", "Message").text == "The machine restarts.\nPlease log out."
    buttons = [widget.name for widget in dialog.tree.everything() if widget.role == "push button"]
    assert buttons == [LATER, READ]


def test_a_message_without_title_and_expiry_leaves_them_out(open_dialog):
    assert labels(open_dialog("hello"))[:2] == ["Message from the administrator",
                                                "From root · 21/09 14:13"]


@pytest.mark.parametrize("place, title", [
    ("1 of 1", "Message from the administrator"),
    ("2 of 3", "Message from the administrator · 2 of 3"),
])
def test_the_title_says_which_of_several_messages_it_is(open_dialog, screen, place, title):
    dialog = open_dialog("hello", place=place)
    assert screen.output("xdotool", "getwindowname", str(dialog.window)).strip() == title


def test_text_is_text(open_dialog):
    markup = "<b>bold</b> &amp; <a href='file:///etc/passwd'>link</a>"
    dialog = open_dialog(markup, title=markup, sender=markup)
    assert dialog.tree.find("text", "Message").text == markup
    assert labels(dialog)[:2] == [markup, f"From {markup} · 21/09 14:13"]


def test_bytes_that_are_no_text_are_shown_as_such(open_dialog):
    every_byte = bytes(range(256)).replace(b"\n", b"")
    shown = open_dialog(b"<" + every_byte + b">").tree.find("text", "Message").text
    assert shown.startswith("<\t !\"#") and shown.endswith("\N{REPLACEMENT CHARACTER}>")
    assert "\x1b" not in shown and "\0" not in shown


def test_a_text_of_nothing_but_invalid_bytes_is_shown_to_its_end(open_dialog):
    text = "\N{REPLACEMENT CHARACTER}" * 65000 + "the end"  # as the agent passes it on
    assert open_dialog(text).text.endswith("\N{REPLACEMENT CHARACTER}the end")


# ---- Answers ------------------------------------------------------------------------------

@pytest.mark.parametrize("button, word", [(READ, "read"), (LATER, "later")])
def test_a_click_answers(open_dialog, button, word):
    dialog = open_dialog().outlast_guard()
    dialog.click(button)
    assert dialog.answer() == (word, None, 0)


@pytest.mark.parametrize("button, word", [(READ, "read"), (LATER, "later")])
def test_a_screen_reader_s_action_answers(open_dialog, button, word):
    dialog = open_dialog().outlast_guard()
    dialog.button(button).activate()
    assert dialog.answer() == (word, None, 0)


@pytest.mark.parametrize("keys, word", [
    (["Tab", "space"], "later"), (["Tab", "Tab", "space"], "read"),
    (["Tab", "Tab", "Return"], "read"), (["Tab", "Tab", "KP_Enter"], "read"),
    (["Escape"], "later"),
])
def test_the_keyboard_alone_answers(open_dialog, screen, keys, word):
    dialog = open_dialog()
    dialog.take_focus()
    screen.press(*keys)
    assert dialog.answer() == (word, None, 0)


def test_closing_it_is_later(open_dialog, screen):
    dialog = open_dialog().outlast_guard()
    screen.output("wmctrl", "-i", "-c", str(dialog.window))
    assert dialog.answer() == ("later", None, 0)


def test_a_window_that_is_taken_away_is_no_answer(open_dialog, screen):
    dialog = open_dialog().outlast_guard()
    screen.output("xdotool", "windowclose", str(dialog.window))  # another program destroys it
    word, _, status = dialog.answer()
    assert word is None and status != 0


@pytest.mark.parametrize("key", ["Return", "space", "r", "l", "y", "alt+r", "alt+l", "ctrl+Return"])
def test_no_key_answers_while_the_text_has_the_focus(open_dialog, screen, key):
    dialog = open_dialog()
    dialog.take_focus()
    screen.press(key)
    assert dialog.says_nothing()


# ---- No accident --------------------------------------------------------------------------

def test_it_takes_no_focus_and_stands_above_the_others(open_dialog, screen, editor):
    dialog = open_dialog()
    await_condition(lambda: "ABOVE" in screen.property(dialog.window, "_NET_WM_STATE"), "above")
    assert screen.focused() == editor.window
    assert screen.property(dialog.window, "_NET_WM_USER_TIME") == "0"


def test_the_user_s_own_activation_gives_it_the_focus(open_dialog, screen, editor):
    now_ms = int(time.monotonic() * 1000)  # the display's clock, too
    dialog = open_dialog(env={"DESKTOP_STARTUP_ID": f"tests_TIME{now_ms}"})
    await_condition(lambda: screen.focused() == dialog.window, "the focus")


def test_whoever_types_elsewhere_answers_nothing(open_dialog, editor):
    editor.type_on("typed words and\n" * 8)
    for _ in range(3):
        dialog = open_dialog()
        assert dialog.says_nothing(1.0)
        dialog.close()
    editor.await_everything_typed()


def test_keys_that_fall_on_it_because_the_user_s_window_closed_answer_nothing(
        open_dialog, screen, editor):
    dialog = open_dialog().outlast_guard()
    window = dialog.window
    editor.close()
    await_condition(lambda: screen.focused() == window, "the focus falls on the dialog")
    screen.press("Tab", "space", "Escape", "Tab", "Tab", "Return", "alt+F4")
    assert dialog.says_nothing(GUARD_SECONDS + 0.2)
    screen.press("Escape")
    assert dialog.answer() == ("later", None, 0)


def test_a_key_that_is_held_down_answers_nothing_until_it_is_pressed_again(
        open_dialog, screen, editor):
    dialog = open_dialog().outlast_guard()
    window = dialog.window
    screen.hold("Escape")
    editor.close()
    await_condition(lambda: screen.focused() == window, "the focus falls on the dialog")
    assert dialog.says_nothing(GUARD_SECONDS + 0.5)
    screen.release("Escape")
    screen.press("Escape")
    assert dialog.answer() == ("later", None, 0)


def test_who_goes_on_typing_into_it_answers_nothing(open_dialog, screen):
    dialog = open_dialog()
    dialog.take_focus()
    screen.press(*"words", "Tab", *"and", "space", *"more", "Return", "Escape")
    assert dialog.says_nothing()


def quiet_in_the_first_moments(open_dialog, act):
    """A dialog that took no answer from act(dialog), done before the guard's time was over. On a busy
    machine the person or the dialog is too slow now and then."""
    for _ in range(20):
        guarded_until = time.monotonic() + GUARD_SECONDS
        dialog = open_dialog()
        act(dialog)
        was_in_time = time.monotonic() < guarded_until
        is_quiet = dialog.says_nothing()
        assert is_quiet or time.monotonic() >= guarded_until, "answered in the first moments"
        if was_in_time and is_quiet:
            return dialog
        dialog.close()
    raise AssertionError("this machine is too slow to click at once")


def test_no_click_answers_in_the_first_moments(open_dialog, screen):
    first = open_dialog()
    left, top, width, height = screen.place(first.window)
    first.close()  # the next ones come at the same place

    def click(_):
        screen.click(left + width - 60, top + height - 30)
        screen.click(left + width - 170, top + height - 30)

    dialog = quiet_in_the_first_moments(open_dialog, click)
    assert dialog.says_nothing(GUARD_SECONDS)
    click(dialog)
    assert dialog.answer() == ("read", None, 0)


def test_no_action_answers_in_the_first_moments(open_dialog):
    dialog = quiet_in_the_first_moments(open_dialog, lambda dialog: dialog.button(READ).activate())
    assert dialog.says_nothing(GUARD_SECONDS)
    dialog.button(LATER).activate()
    assert dialog.answer() == ("later", None, 0)


def test_what_was_typed_while_the_window_was_held_up_answers_nothing(open_dialog, screen, editor):
    dialog = open_dialog().outlast_guard()
    window = dialog.window
    screen.focus(window)
    dialog.process.send_signal(signal.SIGSTOP)
    screen.press(*"words", "Tab", "Tab", "space", "Escape")
    time.sleep(GUARD_SECONDS + 0.1)
    dialog.process.send_signal(signal.SIGCONT)
    assert dialog.says_nothing()


# ---- Beside the answers -------------------------------------------------------------------

@pytest.mark.parametrize("data", [
    b"", b"1 of 1", b"1 of 1\n", b"2 of 1\n" + message("x")[7:], b"0 of 0\n" + message("x")[7:],
    b"one of two\n" + message("x")[7:], message("x").replace(b"date: 1790000000\n", b""),
    message("x")[7:],
])
def test_what_is_no_message_is_refused(open_dialog, data):
    dialog = open_dialog(data, raw=True, wait=False)
    assert (dialog.word(), dialog.status()) == (None, 1)
    assert dialog.errors() == "tellbox-window: standard input holds no message\n"


def test_what_is_longer_than_any_message_is_refused(open_dialog):
    dialog = open_dialog("x" * 240000, wait=False)
    assert (dialog.word(), dialog.status()) == (None, 1)
    assert dialog.errors() == "tellbox-window: standard input is too long for a message\n"


@pytest.mark.parametrize("display", ["", ":987"])
def test_without_a_display_it_says_so_and_nothing_was_shown(open_dialog, display):
    dialog = open_dialog(env={"DISPLAY": display}, wait=False)
    assert (dialog.word(), dialog.status()) == (None, 1)
    assert "tellbox-window: cannot open the display\n" in dialog.errors()


def test_a_display_that_goes_away_is_no_answer(open_dialog, new_screen):
    shown = new_screen()
    dialog = open_dialog(on=shown)
    shown.die()
    word, _, status = dialog.answer()
    assert word is None and status != 0


def test_it_goes_when_nobody_listens_any_more(open_dialog):
    dialog = open_dialog()
    dialog.process.stdout.close()
    assert dialog.status() == 1


def test_sigterm_ends_it(open_dialog):
    assert open_dialog().stop() == -signal.SIGTERM


def test_sigterm_ends_it_while_it_lays_out(open_dialog):
    dialog = open_dialog("word " * 13000, wait=False)
    assert dialog.stop() == -signal.SIGTERM


@pytest.mark.parametrize("locale", ["xx_YY.UTF-8", "C", ""])
def test_an_unknown_locale_does_no_harm(open_dialog, locale):
    dialog = open_dialog("Grüße", env={"LC_ALL": locale})
    assert dialog.tree.find("text", "Message").text == "Grüße"


def test_it_links_the_toolkit_and_nothing_of_the_system_s(window_program):
    linked = subprocess.run(["readelf", "-d", window_program], capture_output=True, text=True,
                            check=True).stdout
    assert "libgtkmm-4.0" in linked and "libsystemd" not in linked
