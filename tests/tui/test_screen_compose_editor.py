"""Writing the text of a message in an editor of one's own, for which shell scripts stand in."""

import os
import re
import shutil
import signal
from dataclasses import replace
from pathlib import Path

import pytest

from harness.pseudo_terminal import (
    BACK_TAB, BACKSPACE, CTRL_BACKSLASH, CTRL_C, CTRL_E, CTRL_S, CTRL_Z, EARLIER, ENTER,
    ENTER_SCREEN, ESCAPE, LEAVE_SCREEN, LEFT, TAB)
from interface import expect, press, reply
from pages import message_box

NOBODY = 65534

# Says on the terminal that it runs, and waits for Enter.
WAIT = 'echo "editor runs"; read -r line || read -r line\n'  # a signal interrupts the first one


@pytest.fixture
def editor(folder):
    """editor(script) is a program that stands in for an editor; $file is what it is to edit."""

    def make(script, name="editor"):
        path = folder / name
        path.write_text(f'#!/bin/sh\nfor file; do :; done\ncd {folder}\n{script}\n')
        path.chmod(0o755)
        return path

    return make


@pytest.fixture
def edited(form, editor, folder):
    """edited(content) opens the form and has an editor write these bytes.

    Returns the terminal and the page without its text.
    """

    def edit(content, keys=CTRL_E, **options):
        (folder / "new").write_bytes(content)
        tbx, page, _ = form(env={"VISUAL": str(editor('cat new > "$file"'))}, **options)
        tbx.send(keys)
        return tbx, page

    return edit


# ---- What the editor gets -----------------------------------------------------------------


def test_editor_gets_the_text_in_a_private_file(form, editor, folder):
    script = 'cp "$file" seen; stat -c "%a %h" "$file" > mode; echo "$file" > path'
    tbx, page, _ = form(env={"VISUAL": str(editor(script))})
    page = replace(page, text="one\n\ntwé", focus="Text")
    press(tbx, BACK_TAB + "one\r\rtwé", page)
    tbx.send(CTRL_E)
    tbx.poll_for(lambda: tbx.raw.count(ENTER_SCREEN) == 2)
    expect(tbx, page)
    assert (folder / "seen").read_text() == "one\n\ntwé\n"
    assert (folder / "mode").read_text() == "600 1\n"
    path = (folder / "path").read_text().strip()
    assert re.fullmatch(r"/tmp/tellbox-testo-\w{6}", path)
    assert not Path(path).exists()


def test_empty_text_is_one_newline_for_the_editor(form, editor, folder):
    tbx, page, _ = form(env={"VISUAL": str(editor('cp "$file" seen; echo new > "$file"'))})
    press(tbx, CTRL_E, replace(page, text="new"))
    assert (folder / "seen").read_bytes() == b"\n"


@pytest.mark.parametrize("focus, keys", [("To", ""), ("Title", TAB), ("Expires", TAB * 2),
                                         ("Text", BACK_TAB)])
def test_editor_opens_from_every_field_and_returns_to_it(edited, focus, keys):
    tbx, page = edited(b"new\n", keys + CTRL_E)
    expect(tbx, replace(page, text="new", focus=focus))


def test_editor_has_the_terminal_to_itself(form, editor):
    tbx, page, _ = form(env={"VISUAL": str(editor(WAIT))}, earlier=EARLIER)
    assert tbx.attributes() != tbx.attributes_before
    tbx.send(CTRL_E)
    tbx.wait_for("editor runs")
    assert not tbx.screen.alternate
    assert tbx.attributes() == tbx.attributes_before
    assert tbx.rows()[0].rstrip() == EARLIER.rstrip()
    assert tbx.cursor() == (2, 0)
    tbx.send(ENTER)
    expect(tbx, page)
    assert tbx.attributes() != tbx.attributes_before
    before, after = tbx.raw.split(b"editor runs\r\n")
    assert before.endswith(LEAVE_SCREEN)
    assert after.removeprefix(b"\r\n").startswith(ENTER_SCREEN)


def test_what_was_typed_and_not_read_by_the_editor_is_dropped(form, editor, folder):
    os.mkfifo(folder / "gate")
    tbx, page, _ = form(env={"VISUAL": str(editor('echo "editor runs"; read -r go < gate'))})
    tbx.send(CTRL_E)
    tbx.wait_for("editor runs")
    tbx.send("typed too early")
    tbx.wait_for("typed too early")  # the terminal's echo
    (folder / "gate").write_text("go\n")
    expect(tbx, page)
    press(tbx, "x", replace(page, to="x"))


# ---- Which editor -------------------------------------------------------------------------

@pytest.fixture
def ran(form, editor, folder):
    """ran(env) is what the editor that runs with this environment tells of itself.

    The stand-ins "visual", "editor", "nano" and "vi" are in PATH.
    """

    def run(env, names=("visual", "editor", "nano", "vi")):
        for name in names:
            editor('echo "${0##*/} $# ${1%-??????}" > ran; echo done > "$file"', name)
        env = {"VISUAL": None, "EDITOR": None, **env, "PATH": f"{folder}:{env.get('PATH', '')}"}
        tbx, page, _ = form(env=env)
        press(tbx, CTRL_E, replace(page, text="done"))
        return (folder / "ran").read_text().rstrip()

    return run


@pytest.mark.parametrize("env, expected_run", [
    ({"VISUAL": "visual"}, "visual 1 /tmp/tellbox-testo"),
    ({"VISUAL": "visual", "EDITOR": "editor"}, "visual 1 /tmp/tellbox-testo"),
    ({"VISUAL": "", "EDITOR": "editor"}, "editor 1 /tmp/tellbox-testo"),
    ({"EDITOR": "editor"}, "editor 1 /tmp/tellbox-testo"),
    ({}, "nano 1 /tmp/tellbox-testo"),
    ({"VISUAL": "", "EDITOR": ""}, "nano 1 /tmp/tellbox-testo"),
    ({"VISUAL": "visual -w"}, "visual 2 -w"),
    ({"VISUAL": "visual  --wait  -n 3"}, "visual 4 --wait"),
    ({"EDITOR": "editor +1"}, "editor 2 +1"),
])
def test_editor_is_that_of_the_environment(ran, env, expected_run):
    assert ran(env) == expected_run


def test_vi_is_used_where_there_is_no_nano(ran):
    assert ran({}, ["vi"]) == "vi 1 /tmp/tellbox-testo"


NO_EDITOR = "No editor could be started."


@pytest.mark.parametrize("env, notice", [
    ({"PATH": "/nonexistent"}, NO_EDITOR),
    ({"VISUAL": "/nonexistent/editor"}, NO_EDITOR),
    ({"VISUAL": "/etc/passwd"}, NO_EDITOR),
    ({"VISUAL": "false"}, ""),
    ({"VISUAL": "exit-by-signal"}, ""),
], ids=["none", "missing", "no program", "failing", "killed"])
def test_editor_that_does_not_run_leaves_the_text(form, editor, folder, env, notice):
    editor("kill -9 $$", "exit-by-signal")
    path = env.get("PATH", f"{folder}:/usr/bin:/bin")
    tbx, page, _ = form(env={"VISUAL": None, "EDITOR": None, **env, "PATH": path})
    page = replace(page, text="one\ntwo", focus="Text")
    press(tbx, BACK_TAB + "one\rtwo", page)
    tbx.send(CTRL_E)
    tbx.wait_for(lambda: tbx.raw.count(ENTER_SCREEN) == 2)
    expect(tbx, replace(page, notice=notice))
    press(tbx, "x", replace(page, text="one\ntwox"))


def test_what_an_editor_wrote_counts_whatever_its_exit_status(form, editor):
    tbx, page, _ = form(env={"VISUAL": str(editor('echo written > "$file"; exit 3'))})
    press(tbx, CTRL_E, replace(page, text="written"))


@pytest.mark.usefixtures("root")
def test_without_a_temporary_file_no_editor_runs(form, binary):
    # The program itself may lie below /tmp.
    read_only = 'exec 3<"$0" && mount -t tmpfs -o ro tmpfs /tmp && exec /proc/self/fd/3'
    tbx, page, _ = form(argv=["unshare", "--mount", "sh", "-c", read_only, binary],
                        env={"VISUAL": "echo"})
    page = replace(page, to="x")
    press(tbx, "x", page)
    press(tbx, CTRL_E, replace(page, notice=NO_EDITOR))
    press(tbx, "y", replace(page, to="xy"))
    assert LEAVE_SCREEN not in tbx.raw


# ---- What comes back ----------------------------------------------------------------------


@pytest.mark.parametrize("content, text", [
    (b"one\ntwo\n", "one\ntwo"),
    (b"one\ntwo", "one\ntwo"),
    (b"one\n\n\n", "one"),
    (b"\n\none", "\n\none"),
    (b"", ""),
    (b"\n\n", ""),
    ("é Ж €\n".encode(), "é Ж €"),
])
def test_text_is_what_the_editor_wrote_without_trailing_newlines(edited, content, text):
    tbx, page = edited(content, BACK_TAB + "old" + CTRL_E)
    expect(tbx, replace(page, text=text, focus="Text"))
    press(tbx, "X", replace(page, text=text + "X", focus="Text"))


def test_text_that_the_editor_emptied_is_nothing_to_ask_about(edited):
    tbx, page = edited(b"", BACK_TAB + "old" + CTRL_E)
    expect(tbx, replace(page, focus="Text"))
    tbx.send(ESCAPE)
    tbx.wait_for("sent messages")


def test_other_fields_stay_as_they_were(edited):
    tbx, page = edited(b"new\n", "daemon\tTitle\t2h" + LEFT + CTRL_E)
    expect(tbx, replace(page, to="daemon", title="Title", expires="2h", text="new",
                        focus="Expires", at=1, preview="1 recipient"))


def test_controls_and_escape_sequences_are_blanks(edited):
    tbx, page = edited(b"a\tb\r\n\x1b[31mred\x07\x7f\n", BACK_TAB + CTRL_E)
    shown = replace(page, text="a b \n [31mred  ", focus="Text")
    expect(tbx, shown)
    press(tbx, BACKSPACE * 2, replace(shown, text="a b \n [31mred"))


ROWS = ["x" * 15] * 4096  # 65,535 bytes when joined


@pytest.mark.parametrize("colour", [True, False])
def test_size_turns_red_beyond_65536_bytes(edited, colour):
    text = "\n".join(ROWS) + "x"
    tbx, page = edited(text.encode(), BACK_TAB + CTRL_E, colour=colour)
    page = replace(page, text=text, focus="Text", top=4086)
    expect(tbx, page)
    assert " 65536 of 65536 bytes " in tbx.frame()
    press(tbx, "y", replace(page, text=text + "y"))
    press(tbx, BACKSPACE, page)


def test_text_of_65536_bytes_can_be_sent(edited, store):
    text = "\n".join(ROWS) + "x"
    tbx, _ = edited(text.encode(), "daemon" + BACK_TAB + CTRL_E)
    tbx.wait_for(" 65536 of 65536 bytes ")
    tbx.send(CTRL_S)
    tbx.wait_for("Text: 65536 bytes")
    reply(tbx, "y")
    tbx.wait_for("Message 1 sent to 1 user.")
    assert store.sent(1, "msg").read_text().endswith(f"\n\n{text}\n")


def test_text_of_65537_bytes_is_refused_by_the_sending(edited):
    text = "\n".join(ROWS) + "xy"
    tbx, page = edited(text.encode(), "daemon" + BACK_TAB + CTRL_E)
    page = replace(page, to="daemon", text=text, focus="Text", top=4086, preview="1 recipient")
    expect(tbx, page)
    press(tbx, CTRL_S, page, page.review("1 recipient"))
    press(tbx, "y", page, message_box("Sending result",
                                      "tbx: message too long: 65537 bytes (at most 65536)"))
    press(tbx, "x", page)


@pytest.mark.parametrize("size", [131_072, 131_073, 5_000_000])
def test_file_longer_than_131072_bytes_is_cut_there_and_kept(form, editor, folder, size):
    line = "x" * 31 + "\n"
    content = (line * (size // 32 + 1)).encode()[:size]
    (folder / "new").write_bytes(content)
    script = 'echo "$file" > path; cat new > "$file"'
    tbx, page, _ = form(env={"VISUAL": str(editor(script))})
    tbx.send(BACK_TAB + CTRL_E)
    text = (line * 4096).removesuffix("\n")  # the newline at the cut is the last one
    page = replace(page, text=text, focus="Text", top=4086)
    if size > 131_072:
        tbx.wait_for("What it left is kept in")
        kept = kept_file(folder)
        expect(tbx, page, kept_box(kept, is_cut=True))
        reply(tbx, "x")
        assert kept.read_bytes() == content
        kept.unlink()
    expect(tbx, page)
    assert " 131071 of 65536 bytes " in tbx.frame()


# ---- What else may come back --------------------------------------------------------------


def kept_file(folder):
    """The file that the editor was given; the editor wrote its path to "path"."""
    return Path((folder / "path").read_text().strip())


def kept_box(path, *, is_cut=False):
    said = ("The file is too long: only its beginning was taken." if is_cut else
            "The text is as it was: the editor left no file that can be read.")
    return message_box("Editor", said, f"What it left is kept in {path}.")


@pytest.mark.parametrize("script", [
    'rm "$file"; ln -s other "$file"',
    'rm "$file"; ln -s /etc/passwd "$file"',
    'rm "$file"; mkfifo "$file"',
    'rm "$file"; mkdir "$file"',
    'ln "$file" link; echo other > "$file"',
    'mv "$file" moved; ln moved "$file"',
    f'echo other > "$file"; chown {NOBODY} "$file"',
], ids=["link", "link to a system file", "fifo", "folder", "hard link", "other name", "not owned"])
def test_only_a_plain_file_of_one_name_is_read_back(root, form, editor, folder, script):
    del root  # there to be asked for
    (folder / "other").write_text("not what was edited\n")
    tbx, page, _ = form(env={"VISUAL": str(editor(f'echo "$file" > path\n{script}'))})
    page = replace(page, text="as it was", focus="Text")
    press(tbx, BACK_TAB + "as it was", page)
    tbx.send(CTRL_E)
    tbx.wait_for("What it left is kept in")
    kept = kept_file(folder)
    expect(tbx, page, kept_box(kept))
    press(tbx, "x", page)
    assert os.path.lexists(kept)
    assert (folder / "other").read_text() == "not what was edited\n"
    kept.rmdir() if kept.is_dir() else kept.unlink()


def test_file_that_is_gone_leaves_the_text_and_is_told(form, editor):
    tbx, page, _ = form(env={"VISUAL": str(editor('rm "$file"'))})
    page = replace(page, text="as it was", focus="Text")
    press(tbx, BACK_TAB + "as it was", page)
    press(tbx, CTRL_E, replace(page, notice="The editor left no file."))
    press(tbx, "x", replace(page, text="as it wasx"))


def test_file_that_was_not_read_is_told_of_at_the_end_of_an_interface_that_is_ended(
        form, editor, folder):
    script = WAIT + 'echo "$file" > path; echo precious > "$file"; ln "$file" link'
    tbx, _, _ = form(env={"VISUAL": str(editor(script))}, earlier=EARLIER)
    tbx.send(CTRL_E)
    tbx.wait_for("editor runs")
    tbx.signal(signal.SIGTERM)
    tbx.poll_for(lambda: not is_pending(tbx.pid, signal.SIGTERM))
    tbx.send(ENTER)
    assert tbx.wait_exit() == 0
    kept = kept_file(folder)
    assert f"tbx: what the editor left is kept in {kept}\r\n".encode() in tbx.raw
    assert kept.read_text() == "precious\n"
    kept.unlink()


def test_file_that_the_editor_put_in_place_by_renaming_is_read_back(form, editor):
    script = 'echo new > "$file.new"; mv "$file.new" "$file"'
    tbx, page, _ = form(env={"VISUAL": str(editor(script))})
    press(tbx, CTRL_E, replace(page, text="new"))


# ---- As whom ------------------------------------------------------------------------------

WHO = 'id -ru > who; id -rg >> who; id -G >> who; stat -c %u "$file" >> who; echo new > "$file"'


@pytest.fixture
def who(root, form, editor, folder):
    """who(env) is user, group, groups and the file's owner of an editor with this environment."""

    del root  # there to be asked for

    def run(env):
        folder.chmod(0o777)
        tbx, page, _ = form(env={"VISUAL": str(editor(WHO)), **env})
        press(tbx, CTRL_E, replace(page, text="new"))
        return (folder / "who").read_text().split("\n")[:4]

    return run


def test_editor_runs_as_who_called_sudo_and_owns_the_file(who):
    assert who({"SUDO_USER": "nobody"}) == [str(NOBODY)] * 4


@pytest.mark.parametrize("sudo_user", [None, "", "no-such-user", "root"])
def test_editor_runs_as_root_where_no_other_user_called_sudo(who, sudo_user):
    user, group, _, owner = who({"SUDO_USER": sudo_user})
    assert (user, group, owner) == ("0", "0", "0")


@pytest.mark.parametrize("sudo_user, found", [
    ("nobody", ["/nonexistent", "nobody", "nobody", "/usr/sbin/nologin"]),
    (None, ["/home/before", "before", "before", "/bin/before"])])
def test_editor_finds_the_environment_of_who_called_sudo(root, form, editor, folder, sudo_user,
                                                         found):
    del root  # there to be asked for
    folder.chmod(0o777)
    script = 'printf "%s\\n" "$HOME" "$USER" "$LOGNAME" "$SHELL" > env; echo new > "$file"'
    tbx, page, _ = form(env={
        "VISUAL": str(editor(script)), "SUDO_USER": sudo_user, "HOME": "/home/before",
        "USER": "before", "LOGNAME": "before", "SHELL": "/bin/before"})
    press(tbx, CTRL_E, replace(page, text="new"))
    assert (folder / "env").read_text().split() == found


# ---- Signals, and what an editor does to the terminal -------------------------------------


def is_pending(process, number):
    """Whether a signal waits to be handled by the process."""
    status = Path(f"/proc/{process}/status").read_text()
    return int(re.search(r"^ShdPnd:\s*(\w+)", status, re.MULTILINE)[1], 16) >> (number - 1) & 1


def test_interface_that_is_ended_waits_for_the_editor(form, editor):
    tbx, _, _ = form(env={"VISUAL": str(editor(WAIT + 'echo "editor ends"'))}, earlier=EARLIER)
    tbx.send(CTRL_E)
    tbx.wait_for("editor runs")
    tbx.signal(signal.SIGTERM)
    tbx.poll_for(lambda: not is_pending(tbx.pid, signal.SIGTERM))
    tbx.send(ENTER)
    assert tbx.wait_exit() == 0
    before, _, after = tbx.raw.partition(b"editor ends")
    assert before.count(ENTER_SCREEN) == 1
    assert after.count(ENTER_SCREEN) == 1
    assert tbx.attributes() == tbx.attributes_before


@pytest.mark.parametrize("key", [CTRL_C, CTRL_BACKSLASH])
def test_key_that_is_a_signal_ends_the_editor_alone(form, editor, key):
    tbx, page, _ = form(env={"VISUAL": str(editor('echo saved > "$file"\n' + WAIT))})
    tbx.send(CTRL_E)
    tbx.wait_for("editor runs")
    tbx.send(key)
    expect(tbx, replace(page, text="saved"))
    press(tbx, "x", replace(page, to="x", text="saved"))


def test_ctrl_c_that_the_editor_takes_as_a_key_is_no_matter(form, editor):
    script = 'trap "echo interrupted" INT\n' + WAIT + 'echo saved > "$file"'
    tbx, page, _ = form(env={"VISUAL": str(editor(script))})
    tbx.send(CTRL_E)
    tbx.wait_for("editor runs")
    tbx.send(CTRL_C)
    tbx.wait_for("interrupted")
    press(tbx, ENTER, replace(page, text="saved"))


def test_ctrl_z_at_the_editor_does_not_leave_it_stopped(form, editor):
    script = 'trap "echo goes on" CONT\n' + WAIT + 'echo saved > "$file"'
    tbx, page, _ = form(env={"VISUAL": str(editor(script))})
    tbx.send(CTRL_E)
    tbx.wait_for("editor runs")
    tbx.send(CTRL_Z)
    tbx.wait_for("goes on")
    press(tbx, ENTER, replace(page, text="saved"))
    press(tbx, "x", replace(page, to="x", text="saved"))
    assert tbx.raw.count(ENTER_SCREEN) == 2  # only the editor was continued


def test_size_that_changed_behind_the_editor_is_taken_on_return(form, editor):
    tbx, page, _ = form(env={"VISUAL": str(editor(WAIT))})
    tbx.send(CTRL_E)
    tbx.wait_for("editor runs")
    tbx.resize(110, 30)
    press(tbx, ENTER, replace(page, size=(110, 30)))


def test_attributes_that_the_editor_left_behind_are_undone(form, editor):
    script = 'stty -echo -isig -opost raw; printf "\\033[?25l\\033[31m"'
    tbx, page, behind = form(env={"VISUAL": str(editor(script))}, earlier=EARLIER)
    tbx.send(CTRL_E)
    tbx.wait_for(lambda: tbx.raw.count(ENTER_SCREEN) == 2)
    press(tbx, "x", replace(page, to="x"))
    press(tbx, BACKSPACE + ESCAPE, behind)
    tbx.send("q")
    assert tbx.wait_exit() == 0
    assert tbx.attributes() == tbx.attributes_before
