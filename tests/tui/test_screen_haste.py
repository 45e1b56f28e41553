"""An administrator in a hurry: who pastes, types ahead and loses patience."""

import os
import re
import shutil
import signal
import stat
import subprocess
import time
from dataclasses import replace
from pathlib import Path

import pytest

from harness import flaky_accounts
from harness.pseudo_terminal import (
    BACK_TAB, CTRL_C, CTRL_E, CTRL_S, DOWN, EARLIER, ENTER, ESCAPE, GUARD_SECONDS, HOME,
    LEAVE_SCREEN, LEFT, PASTE_ON, TAB, assert_restored, pasted)
from interface import (
    assert_left, expect, frames_as_text, frames_drawn, is_stopped, kept_file, lock_held, press,
    press_in_vain, reply, stopped_command, take_kept_text)
from kept_frames import RED
from messages import Message
from pages import message_box, revoke_confirmation, search_box, working_box

NOTE = "Please restart the server, Kay"  # "r" asks before a revocation, the "y" would answer


# ---- Pasting where nothing is written -----------------------------------------------------


def test_paste_into_the_list_does_nothing(interface, store):
    tbx, page = interface([Message(1), Message(2)])
    before = store.tree()
    press_in_vain(tbx, pasted(NOTE))
    press(tbx, DOWN, replace(page, selected=1))
    assert store.tree() == before
    assert not any("Revoke" in frame for frame in frames_as_text(tbx))


def test_paste_into_the_page_of_a_message_does_nothing(detail):
    tbx, page, behind = detail(Message(1))
    press_in_vain(tbx, pasted(NOTE + "q"))
    expect(tbx, page)
    press(tbx, "q", behind)


@pytest.mark.parametrize("opening, text", [("?", "any key to continue"), ("r", "y  Confirm")])
def test_paste_into_a_dialog_does_nothing(interface, store, opening, text):
    tbx, page = interface([Message(1)])
    tbx.send(opening)
    tbx.wait_for(text)
    drawn = frames_drawn(tbx)
    tbx.send(pasted("y" + NOTE))
    tbx.send(pasted("n"))
    tbx.poll_for(lambda: tbx.unread() == 0)
    tbx.resize(100, 24)  # seen at an idle tick, after what was pasted
    tbx.wait_for(lambda: frames_drawn(tbx) > drawn)
    assert text in tbx.frame()
    press(tbx, "n", replace(page, size=(100, 24)))
    assert not store.sent(1, "revoked").exists()


def test_paste_from_a_terminal_that_does_not_mark_it_revokes_nothing(interface, store):
    message = Message(1)
    tbx, page = interface([message])
    press(tbx, NOTE, page, revoke_confirmation(message))
    press(tbx, "n", page)
    assert not store.sent(1, "revoked").exists()


def test_question_takes_no_answer_that_was_typed_before_it(interface, store):
    message = Message(1)
    tbx, page = interface([message])
    press(tbx, "ryx", page, revoke_confirmation(message))
    press(tbx, "y", page, message_box("Revoke message 1?", "Message 1 revoked."))
    assert store.sent(1, "revoked").exists()


# The first piece opens the question; the second follows it as ssh, or a slow line, delivers it.
@pytest.mark.parametrize("pieces", [
    ["r", "y"], ["Please r", "estart the server, Kay"], ["r", "Kay", "y", "y", "y", "y", "y"]])
def test_paste_that_arrives_in_pieces_revokes_nothing(interface, store, pieces):
    message = Message(1)
    tbx, page = interface([message])
    for piece in pieces:
        tbx.send(piece)
        time.sleep(0.05)  # as long as a line may take for the next piece
    expect(tbx, page, revoke_confirmation(message))
    press(tbx, "n", page)
    assert not store.sent(1, "revoked").exists()


def test_paste_of_several_characters_answers_no_question(interface, store):
    message = Message(1)
    tbx, page = interface([message])
    press(tbx, "r", page, revoke_confirmation(message))
    for paste in ("yes", "Kay"):
        reply(tbx, paste)
        tbx.wait_until_it_slept(GUARD_SECONDS)
    press(tbx, "n", page)
    assert not store.sent(1, "revoked").exists()


def test_key_that_is_no_answer_guards_a_question_from_those_behind_it(interface, store):
    message = Message(1)
    tbx, page = interface([message])
    press(tbx, "r", page, revoke_confirmation(message))
    reply(tbx, "a")
    time.sleep(0.05)
    tbx.send("y")
    tbx.wait_until_it_slept(GUARD_SECONDS)
    expect(tbx, page, revoke_confirmation(message))
    press(tbx, "y", page, message_box("Revoke message 1?", "Message 1 revoked."))


def test_question_takes_no_answer_that_was_typed_before_the_line_has_sent_it(
        interface, store, tmp_path):
    library = tmp_path / "busy_line.so"
    subprocess.run([flaky_accounts.COMPILER, "-shared", "-fPIC", "-o", library,
                    Path(flaky_accounts.__file__).with_name("busy_line.c")], check=True)
    busy = tmp_path / "busy"
    message = Message(1)
    tbx, page = interface([message], env={
        "LD_PRELOAD": str(library), "BUSY_LINE": str(busy),
        "ASAN_OPTIONS": "verify_asan_link_order=0:" + os.environ.get("ASAN_OPTIONS", "")})
    busy.touch()
    press(tbx, "r", page, revoke_confirmation(message))
    reply(tbx, "y")
    busy.unlink()
    tbx.wait_until_it_slept(GUARD_SECONDS)
    expect(tbx, page, revoke_confirmation(message))
    press(tbx, "y", page, message_box("Revoke message 1?", "Message 1 revoked."))


def test_result_is_not_dismissed_by_keys_that_come_just_behind_it(interface):
    message = Message(1)
    tbx, page = interface([message])
    press(tbx, "r", page, revoke_confirmation(message))
    result = message_box("Revoke message 1?", "Message 1 revoked.")
    press(tbx, "y", page, result)
    for key in "nq":
        tbx.send(key)
        time.sleep(0.05)
    tbx.wait_until_it_slept(GUARD_SECONDS)
    expect(tbx, page, result)
    press(tbx, "x", replace(page, messages=(message.after(revoked=1),)))


def test_bracketed_paste_is_on_only_while_the_interface_runs(interface):
    tbx, _ = interface([], earlier=EARLIER)
    assert tbx.raw.count(PASTE_ON) == 1
    tbx.send("q")
    assert tbx.wait_exit() == 0
    assert_restored(tbx)


# ---- Pasting into a field -----------------------------------------------------------------


@pytest.mark.parametrize("field", ["To", "Title", "Expires"])
@pytest.mark.parametrize("text, shown", [
    ("one two", "one two"), ("one\r\ntwo", "one two"), ("one\ntwo\r", "one two "),
    ("a\tb", "a b"), ("jq y", "jq y"), ("é日\x1b[31m", "é日")])
def test_line_that_is_pasted_goes_into_the_field(form, field, text, shown):
    tbx, page, _ = form()
    keys = TAB * ["To", "Title", "Expires"].index(field)
    tbx.send(keys + "<>" + LEFT + pasted(text))
    tbx.wait_for(f"[ <{shown}> ")
    assert tbx.cursor() is not None


def test_pasted_text_goes_into_the_text_whole(form):
    tbx, page, _ = form()
    page = replace(page, text="ab", focus="Text")
    press(tbx, BACK_TAB + "ab" + LEFT, replace(page, at=(0, 1)))
    press(tbx, pasted("one\ttab\r\n\r\ntwo\rthree"),
          replace(page, text="aone tab\n\ntwo\nthreeb", at=(3, 5)))
    tbx.send(CTRL_S)
    tbx.wait_for("Text: 20 bytes")


def test_tab_that_is_pasted_is_sent_as_a_tab(form, store):
    tbx, _, _ = form()
    tbx.send("daemon" + BACK_TAB + pasted("one\ttwo\r\nthree") + CTRL_S)
    tbx.wait_for("y  Confirm")
    reply(tbx, "y")
    tbx.wait_for("Message 1 sent to 1 user.")
    assert store.sent(1, "msg").read_text().endswith("\n\none\ttwo\nthree\n")


CUT = "The paste was cut: 1000 bytes at most."


def test_field_takes_of_a_paste_as_much_as_if_it_were_typed(form):
    tbx, page, _ = form()
    value = "x" * 998 + "€"
    press(tbx, pasted("x" * 998 + "€é"), replace(page, to=value, scroll=999 - 54, notice=CUT))
    press(tbx, LEFT, replace(page, to=value, scroll=999 - 54, at=998))


def test_slow_paste_that_a_field_cuts_is_told_once_it_has_ended(form):
    tbx, page, _ = form()
    for piece in [pasted("x" * 1001).removesuffix("\x1b[201~"), "\x1b[201~"]:
        press(tbx, piece, replace(page, to="x" * 1000, scroll=1000 - 54, notice=CUT))


def test_paste_goes_on_after_a_signal_to_continue(form):
    tbx, page, _ = form()
    begin, end = pasted("a\tb|\tc").split("|")
    press(tbx, begin, replace(page, to="a b"))
    drawn = frames_drawn(tbx)
    tbx.signal(signal.SIGCONT)
    tbx.wait_for(lambda: tbx.raw.count(PASTE_ON) == 2 and frames_drawn(tbx) > drawn)
    press(tbx, end, replace(page, to="a b c"))


def test_what_was_typed_before_a_signal_to_continue_is_not_lost(interface):
    tbx, page = interface([Message(number) for number in (1, 2, 3)])
    tbx.signal(signal.SIGSTOP)
    tbx.poll_for(lambda: is_stopped(tbx))
    tbx.send(DOWN * 2)
    tbx.signal(signal.SIGCONT)
    expect(tbx, replace(page, selected=2))


def test_pasted_text_goes_into_a_prompt_in_one_line(interface):
    tbx, page = interface([Message(1)])
    press(tbx, "/" + pasted("one\r\ntwo"), page, search_box("one two"))
    press(tbx, "!", page, search_box("one two!"))


# ---- Long pastes --------------------------------------------------------------------------


@pytest.mark.parametrize("paste, length", [(pasted, 60_000), (str, 20_000)],
                         ids=["marked", "as if typed"])
def test_long_line_that_is_pasted_is_not_drawn_key_by_key(form, paste, length):
    tbx, page, _ = form()
    line = "".join(chr(ord("a") + number % 26) for number in range(length))
    tbx.send(BACK_TAB)
    drawn = frames_drawn(tbx)
    tbx.type(paste(line))
    expect(tbx, replace(page, text=line, focus="Text", scroll=length - 54))
    assert frames_drawn(tbx) - drawn < length / 50


def test_keys_typed_in_one_go_are_one_frame(form):
    tbx, page, _ = form()
    drawn = frames_drawn(tbx)
    press(tbx, "x" * 50 + LEFT * 3 + TAB + "title", replace(
        page, to="x" * 50, title="title", focus="Title",
        preview=RED("tbx: no such user: " + "x" * 50)))
    assert frames_drawn(tbx) - drawn <= 3  # a tick may come between


# ---- While a command runs -----------------------------------------------------------------


@pytest.fixture
def revoking(interface, store):
    """A session in which the revocation of message 1 waits for its lock.

    Returns the terminal, the list behind, and a function that frees the lock.
    """
    message = Message(1)
    tbx, page = interface([message])
    with lock_held(store, 1) as free:
        press(tbx, "r", page, revoke_confirmation(message))
        reply(tbx, "y")
        yield tbx, page, free


def test_command_that_takes_its_time_is_said_to_be_at_work(revoking):
    tbx, page, free = revoking
    expect(tbx, page, working_box("Revoke message 1?"))
    tbx.resize(110, 30)
    page = replace(page, size=(110, 30))
    expect(tbx, page, working_box("Revoke message 1?"))
    free()
    expect(tbx, page, message_box("Revoke message 1?", "Message 1 revoked."))


def test_keys_typed_while_a_command_runs_do_not_close_its_result(revoking):
    tbx, page, free = revoking
    tbx.wait_for("Working …")
    tbx.send("xxnq" + DOWN)
    tbx.send(pasted(NOTE))
    free()
    expect(tbx, page, message_box("Revoke message 1?", "Message 1 revoked."))
    press(tbx, "x", replace(page, messages=(Message(1, revoked=1),)))


def test_command_that_ctrl_c_ends_is_told_as_interrupted(revoking):
    tbx, page, _ = revoking
    tbx.wait_for("Working …")
    press(tbx, CTRL_C, page, message_box("Revoke message 1?", "Interrupted."))


@pytest.fixture
def standing_form(form, strace, binary):
    """standing_form(path) opens a form whose commands stand still once they open this file.

    Returns the terminal and the page.
    """
    del strace  # there to be asked for

    def open_form(path, when=1):
        tbx, page, _ = form(argv=[
            "strace", "-f", "-qq", "-o", "/dev/null", "-P", path, "-e", "trace=openat",
            "-e", f"inject=openat:signal=SIGSTOP:when={when}", binary],
            env={"ASAN_OPTIONS": "detect_leaks=0"})
        return tbx, page

    return open_form


GROUPS = "/etc/group"  # is read for a group among the recipients


def test_preview_that_takes_its_time_says_so(standing_form):
    tbx, page = standing_form(GROUPS)
    page = replace(page, to="@daemon", focus="Title", preview="Working …")
    press(tbx, "@daemon" + TAB, page)
    tbx.resize(110, 30)
    expect(tbx, replace(page, size=(110, 30)))
    os.kill(stopped_command(tbx), signal.SIGCONT)
    expect(tbx, replace(page, size=(110, 30), preview="1 recipient"))


def test_preview_that_is_interrupted_says_so(standing_form):
    tbx, page = standing_form(GROUPS)
    page = replace(page, to="@daemon", focus="Title")
    press(tbx, "@daemon" + TAB, replace(page, preview="Working …"))
    os.kill(stopped_command(tbx), signal.SIGKILL)
    expect(tbx, replace(page, preview=RED("Interrupted.")))
    press(tbx, "T", replace(page, title="T", preview=RED("Interrupted.")))


def test_keys_typed_while_the_preview_is_made_go_into_the_next_field(standing_form):
    tbx, page = standing_form(GROUPS)
    page = replace(page, to="@daemon", focus="Title")
    press(tbx, "@daemon" + TAB, replace(page, preview="Working …"))
    tbx.send("Title")
    os.kill(stopped_command(tbx), signal.SIGCONT)
    expect(tbx, replace(page, title="Title", preview="1 recipient"))


def test_send_that_is_interrupted_before_it_created_anything_says_so(standing_form, store):
    store.create()
    tbx, page = standing_form(store.top / "sent" / ".seq.lock")
    page = replace(page, to="daemon", text="Hello", focus="Text", preview="1 recipient")
    press(tbx, "daemon" + BACK_TAB + "Hello", page)
    press(tbx, CTRL_S, page, page.review("1 recipient"))
    reply(tbx, "y")
    os.kill(stopped_command(tbx), signal.SIGKILL)
    expect(tbx, page, message_box("Sending result", "Interrupted."))
    press(tbx, "x", page)
    press(tbx, CTRL_S, page, page.review("1 recipient"))


# ---- Text that would be lost --------------------------------------------------------------


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_text_of_a_form_that_a_signal_ends_is_kept(form, number):
    tbx, page, _ = form(earlier=EARLIER)
    press(tbx, BACK_TAB + "Ωne\r\rtwo", replace(page, text="Ωne\n\ntwo", focus="Text"))
    tbx.signal(number)
    assert tbx.wait_exit() == 0
    assert take_kept_text(tbx) == "Ωne\n\ntwo\n"


def test_text_of_a_form_on_a_terminal_that_is_hung_up_is_kept(form, tmp_path):
    tbx, page, _ = form()
    text = f"hung up {os.getpid()} {tmp_path.name}"
    press(tbx, BACK_TAB + text, replace(page, text=text, focus="Text"))
    tbx.hang_up()
    assert tbx.wait_status() == 0
    kept = [path for path in Path("/tmp").glob("tellbox-testo-*") if holds(path, text + "\n")]
    assert len(kept) == 1
    kept[0].unlink()


def holds(path, text):
    """Whether this is a file with this text. Other tests leave and remove things beside it."""
    try:
        facts = path.lstat()
        return (stat.S_ISREG(facts.st_mode) and facts.st_size == len(text)
                and path.read_text() == text)
    except FileNotFoundError:
        return False


def test_text_that_an_editor_wrote_is_kept_when_a_signal_comes_meanwhile(form, tmp_path):
    editor = tmp_path / "editor"
    editor.write_text('#!/bin/sh\necho "editor runs"; read -r line; echo edited > "$1"\n')
    editor.chmod(0o755)
    tbx, page, _ = form(env={"VISUAL": str(editor)}, earlier=EARLIER)
    press(tbx, BACK_TAB + "old", replace(page, text="old", focus="Text"))
    tbx.send(CTRL_E)
    tbx.wait_for("editor runs")
    tbx.signal(signal.SIGTERM)
    tbx.send(ENTER)
    assert tbx.wait_exit() == 0
    assert take_kept_text(tbx) == "edited\n"


@pytest.mark.usefixtures("root")
def test_text_is_kept_for_who_called_sudo(form):
    tbx, page, _ = form(env={"SUDO_USER": "nobody"}, earlier=EARLIER)
    press(tbx, BACK_TAB + "text", replace(page, text="text", focus="Text"))
    tbx.send(CTRL_C)
    assert tbx.wait_exit() == 0
    assert kept_file(tbx).stat().st_uid == 65534
    assert take_kept_text(tbx) == "text\n"


def on_read_only(*folders):
    """The program's command line with nothing to be written in these folders."""
    mounts = " && ".join(f"mount -t tmpfs -o ro tmpfs {folder}" for folder in folders)
    # The program itself may lie below /tmp.
    return ["unshare", "--mount", "sh", "-c", f'exec 3<"$0" && {mounts} && exec /proc/self/fd/3']


@pytest.mark.usefixtures("root")
def test_text_that_cannot_be_kept_is_said_to_be_lost(form, binary):
    tbx, page, _ = form(argv=[*on_read_only("/tmp", "/var/tmp"), binary], earlier=EARLIER)
    press(tbx, BACK_TAB + "text", replace(page, text="text", focus="Text"))
    tbx.send(CTRL_C)
    assert tbx.wait_exit() == 0
    assert_restored(tbx, "tbx: the text of the new message could not be kept: "
                         "/tmp: Read-only file system")


@pytest.mark.usefixtures("root")
def test_text_that_tmp_does_not_take_is_kept_in_var_tmp(form, binary):
    tbx, page, _ = form(argv=[*on_read_only("/tmp"), binary], earlier=EARLIER)
    press(tbx, BACK_TAB + "text", replace(page, text="text", focus="Text"))
    tbx.send(CTRL_C)
    assert tbx.wait_exit() == 0
    kept = Path(re.search(rb"kept in (/var/tmp/tellbox-testo-\w{6})", tbx.raw)[1].decode())
    assert kept.read_text() == "text\n"
    kept.unlink()


@pytest.mark.usefixtures("root")
def test_text_is_kept_after_the_terminal_is_restored_whether_accounts_can_be_looked_up_or_not(
        form, binary, tmp_path):
    flaky_accounts.build(tmp_path)
    hangs = tmp_path / "hangs"
    (tmp_path / "nsswitch.conf").write_text("passwd: files flaky\n")
    mounted = f'mount --bind {tmp_path}/nsswitch.conf /etc/nsswitch.conf && exec "$0"'
    tbx, page, _ = form(argv=["unshare", "--mount", "sh", "-c", mounted, binary], earlier=EARLIER,
                        env={"SUDO_USER": "dora", "LD_LIBRARY_PATH": str(tmp_path),
                             "FLAKY_DOWN": str(hangs)})
    press(tbx, BACK_TAB + "text", replace(page, text="text", focus="Text"))
    os.mkfifo(hangs)  # nobody ever writes to it
    tbx.signal(signal.SIGTERM)
    assert tbx.wait_exit() == 0
    assert_left(tbx, "form-filled-in")
    assert tbx.raw.index(LEAVE_SCREEN) < tbx.raw.index(b"kept in")


@pytest.mark.parametrize("keys", ["", "daemon\tTitle"])
def test_form_without_a_text_leaves_nothing(form, keys):
    tbx, page, _ = form(earlier=EARLIER)
    tbx.send(keys)
    tbx.wait_for(lambda: not keys or "[ Title " in tbx.frame())
    tbx.send(CTRL_C)
    assert tbx.wait_exit() == 0
    assert_left(tbx, "form")


def test_text_that_was_discarded_or_sent_is_not_kept(form):
    tbx, page, behind = form(earlier=EARLIER)
    page = replace(page, text="lost", focus="Text")
    press(tbx, BACK_TAB + "lost", page)
    press(tbx, ESCAPE, page, page.discard())
    press(tbx, "y", behind)
    tbx.send(CTRL_C)
    assert tbx.wait_exit() == 0
    assert_restored(tbx)


# ---- Sending again ------------------------------------------------------------------------

ALREADY = ["Message 1 was already sent to 1 of 2 recipients; the others are",
           "tried again by themselves.", ""]


def test_review_says_what_an_earlier_try_has_sent(form, store):
    tbx, page, _ = form()
    store.create()
    store.mailbox("bin").write_text("in the way")
    page = replace(page, to="bin,daemon", text="Hello", focus="Text", preview="2 recipients")
    press(tbx, "bin,daemon" + BACK_TAB + "Hello", page)
    press(tbx, CTRL_S, page, page.review("2 recipients"))
    reply(tbx, "y")
    tbx.wait_for("Message 1 delivered to 1 of 2 recipients.")
    press(tbx, "x", page)
    review = page.review("2 recipients")
    press(tbx, CTRL_S, page, replace(review, body=[*ALREADY, *review.body]))
    press(tbx, "n", page)


def test_review_on_a_wide_screen_says_it_in_one_line(form, store):
    tbx, page, _ = form(size=(120, 40))
    store.create()
    store.mailbox("bin").write_text("in the way")
    tbx.send("bin,daemon" + BACK_TAB + "Hello" + CTRL_S)
    tbx.wait_for("y  Confirm")
    reply(tbx, "y")
    tbx.wait_for("Message 1 delivered to 1 of 2 recipients.")
    reply(tbx, "x")
    tbx.wait_for(lambda: "any key to continue" not in tbx.frame())
    tbx.send(CTRL_S)
    tbx.wait_for("│  Message 1 was already sent to 1 of 2 recipients; the others are tried again by "
                 "themselves.  │")


@pytest.fixture
def sent_to_some(form, store):
    """A form whose message was sent to "bin" in vain and reached "daemon".

    Returns the terminal, the page, and what reads the review.
    """
    tbx, page, _ = form(size=(120, 40))
    store.create()
    store.mailbox("bin").write_text("in the way")
    tbx.send("bin,daemon" + BACK_TAB + "Hello" + CTRL_S)
    tbx.wait_for("y  Confirm")
    reply(tbx, "y")
    tbx.wait_for("Message 1 delivered to 1 of 2 recipients.")
    reply(tbx, "x")
    tbx.wait_for(lambda: "any key to continue" not in tbx.frame())

    def review():
        tbx.send(CTRL_S)
        tbx.wait_for("y  Confirm")
        return tbx.frame()

    return tbx, page, review


def test_review_tells_of_every_message_that_earlier_tries_have_created(sent_to_some):
    tbx, _, review = sent_to_some
    review()
    reply(tbx, "y")
    tbx.wait_for("Message 2 delivered to 1 of 2 recipients.")
    reply(tbx, "x")
    tbx.wait_for(lambda: "any key to continue" not in tbx.frame())
    shown = review()
    for number in (1, 2):
        assert f"Message {number} was already sent to 1 of 2 recipients; the others" in shown


def test_review_tells_of_a_try_whose_text_was_changed_since(sent_to_some):
    tbx, _, review = sent_to_some
    tbx.send(" there")
    assert "Message 1 was already sent to 1 of 2 recipients; the others" in review()


def test_review_tells_of_a_message_that_another_command_has_completed(sent_to_some, store,
                                                                      terminal):
    _, _, review = sent_to_some
    store.mailbox("bin").unlink()
    other = terminal("list")
    assert other.wait_exit() == 0
    assert not store.sent(1, "incomplete").exists()
    assert "│  Message 1 was already sent to 2 of 2 recipients.  " in review()


def test_review_tells_of_a_message_that_was_revoked_since(sent_to_some, terminal):
    _, _, review = sent_to_some
    assert terminal("revoke", "1").wait_exit() == 0
    assert "Message 1 was already sent to 1 of 2 recipients and has been revoked since." in review()


def test_review_says_nothing_of_messages_of_others(sent_to_some, store):
    _, _, review = sent_to_some
    Message(2, "Hello\n", author="games", sent=("sys",)).put(store)
    Message(3, "Something else\n", sent=("sys",)).put(store)
    shown = review()
    assert "Message 1 was already" in shown
    assert "Message 2" not in shown and "Message 3" not in shown


def test_review_says_nothing_of_a_message_that_is_gone(sent_to_some, store):
    _, _, review = sent_to_some
    shutil.rmtree(store.sent(1))
    assert "already sent" not in review()


@pytest.mark.usefixtures("strace")
def test_review_tells_of_a_message_whose_sending_was_killed(form, store, binary):
    log = store.sent(1, "delivery")
    stop_at_second = ["strace", "-f", "-qq", "-o", "/dev/null", "-P", log, "-e", "trace=openat",
                      "-e", "inject=openat:signal=SIGSTOP:when=2"]
    tbx, _, _ = form(size=(120, 40), argv=[*stop_at_second, binary],
                     env={"ASAN_OPTIONS": "detect_leaks=0"})
    tbx.send("bin,daemon" + BACK_TAB + "Hello" + CTRL_S)
    tbx.wait_for("y  Confirm")
    reply(tbx, "y")
    os.kill(stopped_command(tbx), signal.SIGKILL)
    tbx.wait_for("Interrupted.")
    reply(tbx, "x")
    tbx.wait_for(lambda: "any key to continue" not in tbx.frame())
    tbx.send(CTRL_S)
    tbx.wait_for("Message 1 was already sent to 1 of 2 recipients; the others")


def test_review_says_nothing_of_a_try_that_created_no_message(form):
    tbx, page, _ = form()
    page = replace(page, to="daemon", focus="Text", preview="1 recipient")
    press(tbx, "daemon" + BACK_TAB, page)
    press(tbx, CTRL_S, page, page.review("1 recipient"))
    press(tbx, "y", page, message_box("Sending result", "tbx: empty message"))
    press(tbx, "x", page)
    press(tbx, CTRL_S, page, page.review("1 recipient"))
    press(tbx, HOME, page, page.review("1 recipient"))
