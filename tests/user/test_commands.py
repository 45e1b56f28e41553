"""tellbox list, show, read and later."""

import os
import stat
import time

import pytest
from harness.store import short_time
from recipient import PROGRAM, TELLBOX, plain

NOW = int(time.time())
BANNER = "── Tellbox · Message from the administrator · 21/09 14:13 ──\n"
RULE = "─" * 40 + "\n"


def assert_says(result, text):
    assert (result.stdout, result.stderr, result.status) == (text, "", 0)


def assert_refuses(result, *diagnostics):
    assert (result.stdout, result.stderr, result.status) == (
        "", "".join(f"tellbox: {line}\n" for line in diagnostics), 1)


# ---- read -----------------------------------------------------------------------------------

def test_read_confirms_records_and_keeps_the_message(machine):
    machine.deliver(12)
    before = int(time.time())
    assert_says(machine.tellbox("read", "12"), "Message 12 confirmed.\n")
    assert machine.files() == ["acks/12", "read/12"]
    seconds, channel = machine.store.mailbox("pat", "acks", 12).read_text().split(" ")
    assert before <= int(seconds) <= time.time() and channel == "terminal\n"
    facts = machine.store.mailbox("pat", "acks", 12).stat()
    assert (stat.S_IMODE(facts.st_mode), facts.st_uid) == (0o644, machine.uid("pat"))
    assert machine.events() == [("CONFIRMED", 12, "pat", "terminal")]
    assert machine.journal.records()[0].uid == machine.uid("pat")


def test_the_administrator_sees_the_confirmation(machine):
    machine.run("send", "--to", "pat", "Hello")
    machine.tellbox("read", "1")
    assert "(terminal)" in machine.run("status", "1").stdout


def test_a_second_answer_says_when_the_first_was_given(machine):
    machine.deliver(12)
    machine.store.confirm("pat", 12, 1790000000, "desktop")
    assert_says(machine.tellbox("read", "12"),
                "Message 12 was already confirmed on 21/09 14:13 (desktop).\n")
    assert machine.store.mailbox("pat", "acks", 12).read_text() == "1790000000 desktop\n"


def test_read_without_a_number_means_the_one_message_that_was_shown(machine):
    machine.deliver(12)
    machine.store.mark_shown("pat", 12, NOW, "gui")
    assert_says(machine.tellbox("read"), "Message 12 confirmed.\n")


@pytest.mark.parametrize("command", ["read", "later"])
def test_a_message_that_was_never_shown_is_shown_and_not_answered(machine, command):
    machine.deliver(12)
    result = machine.tellbox(command)
    assert result.status == 1
    assert result.stdout == (BANNER + "Hello\n" + RULE + "Answer with: tellbox   or: "
                             "tellbox read 12 · tellbox later 12\n")
    assert machine.answers() == {} and machine.events() == []
    assert machine.files() == ["inbox/12"]  # nobody has seen it: it went to no terminal
    assert machine.tellbox(command).status == 1
    assert machine.answers() == {}


@pytest.mark.parametrize("command", ["read", "later"])
def test_a_message_that_was_shown_on_a_terminal_is_answered_by_the_next_command(machine, command):
    machine.deliver(12)
    assert machine.ask(command).wait_exit() == 1
    assert machine.files() == ["inbox/12", "state/12.term"]
    assert machine.tellbox(command).status == 0


@pytest.mark.parametrize("command", ["read", "later"])
def test_several_waiting_messages_are_named_and_none_is_answered(machine, command):
    for message_id in (9, 10):
        machine.deliver(message_id)
        machine.store.mark_shown("pat", message_id, NOW)
    assert_refuses(machine.tellbox(command),
                   "several messages are waiting, say which one: 9, 10")
    assert machine.answers() == {}


@pytest.mark.parametrize("command", ["read", "later"])
def test_without_a_waiting_message_there_is_nothing_to_answer(machine, command):
    result = machine.tellbox(command)
    assert (result.stdout, result.status) == ("No message is waiting.\n", 1)


def test_each_of_several_numbers_is_answered_by_itself(machine):
    for message_id in (1, 2, 3):
        machine.deliver(message_id)
    result = machine.tellbox("read", "1", "77", "x\x1b[31m", "3")
    assert result.stdout == "Message 1 confirmed.\nMessage 3 confirmed.\n"
    assert result.stderr == "tellbox: no such message: 77\ntellbox: no such message: x\n"
    assert result.status == 1
    assert sorted(machine.answers()) == [1, 3]


def test_an_expired_message_can_be_confirmed_but_not_postponed(machine):
    machine.deliver(12, expires=1790000001)
    assert_refuses(machine.tellbox("later", "12"), "message 12 has expired")
    assert_says(machine.tellbox("read", "12"), "Message 12 confirmed.\n")


def test_a_withdrawn_message_cannot_be_answered(machine):
    machine.deliver(12)
    machine.withdraw(12)
    assert_refuses(machine.tellbox("read", "12"), "no such message: 12")
    assert machine.files() == []


@pytest.mark.parametrize("command", ["read", "later"])
def test_what_is_no_answer_is_named_and_left(machine, command):
    machine.deliver(12)
    machine.store.mailbox("pat", "acks", 12).mkdir()
    assert_refuses(machine.tellbox(command, "12"),
                   "message 12 cannot be answered while /var/lib/tellbox/users/pat/acks/12 is "
                   "not a regular file")
    assert machine.events() == []


def test_an_answer_that_cannot_be_written_is_told_and_recorded(machine):
    machine.deliver(12)
    os.chown(machine.store.mailbox("pat", "acks"), 0, 0)
    assert_refuses(machine.tellbox("read", "12"),
                   "message 12 could not be confirmed and stays waiting: Permission denied")
    record = machine.journal.records()[0]
    assert (record.event, record["TBX_DETAILS"]) == ("CONFIRMATION_FAILED", "Permission denied")
    assert machine.files() == ["inbox/12"]


def test_a_limit_on_the_size_of_files_is_an_error_like_a_full_disk(machine):
    machine.deliver(12)
    result = machine.shell(f"ulimit -f 0; {TELLBOX} read 12", user="pat", check=False)
    assert (result.status, result.stderr) == (
        1, "tellbox: message 12 could not be confirmed and stays waiting: File too large\n")
    assert machine.journal.records()[0].event == "CONFIRMATION_FAILED"
    assert machine.files() == ["inbox/12"]


# ---- later ----------------------------------------------------------------------------------

def test_later_postpones_and_records(machine):
    machine.deliver(12)
    assert_says(machine.tellbox("later", "12"),
                "Message 12 postponed: it comes back in 30 minutes.\n")
    assert machine.files() == ["inbox/12", "state/12.term"]
    assert machine.store.mailbox("pat", "state", "12.term").read_text() == "postponed\n"
    assert machine.events() == [("POSTPONED", 12, "pat", "terminal")]


def test_later_says_what_the_administrator_has_set(machine):
    machine.path("/etc/tellbox").mkdir()
    machine.write("/etc/tellbox/tellbox.conf", "TBX_REMIND_MINUTES=1\n")
    machine.deliver(12)
    assert "in 1 minute." in machine.tellbox("later", "12").stdout


def test_an_answered_message_cannot_be_postponed(machine):
    machine.deliver(12)
    machine.store.confirm("pat", 12, 1790000000)
    assert_refuses(machine.tellbox("later", "12"),
                   "message 12 was already confirmed on 21/09 14:13 (terminal)")


def test_an_answer_that_cannot_be_read_is_told_as_such(machine):
    machine.deliver(12)
    machine.store.confirm("pat", 12, 1790000000)
    machine.store.mailbox("pat", "acks", 12).chmod(0o000)
    for command in ("read", "later"):
        assert_refuses(machine.tellbox(command, "12"),
                       "the answer to message 12 cannot be read: Permission denied")


def test_a_message_that_cannot_be_read_is_named_and_not_taken_for_none(machine):
    machine.deliver(12)
    machine.store.mailbox("pat", "inbox", 12).chmod(0o000)
    assert_refuses(machine.tellbox("read", "12"), "message 12 cannot be read: Permission denied")
    assert_refuses(machine.tellbox("read"), "/var/lib/tellbox/users/pat: Permission denied")


def test_list_and_show_name_what_cannot_be_read(machine):
    machine.deliver(12)
    machine.store.write_as("pat", ("read", 13), b"date: 5\n\nx\n")
    for place in (("inbox", 12), ("read", 13)):
        machine.store.mailbox("pat", *place).chmod(0o000)
    assert_refuses(machine.tellbox("list"), "message 12 cannot be read: Permission denied",
                   "message 13 cannot be read: Permission denied")
    for number in (12, 13):
        assert_refuses(machine.tellbox("show", str(number)),
                       f"message {number} cannot be read: Permission denied")


# ---- list and show --------------------------------------------------------------------------

def test_list_says_what_has_become_of_each_message(machine):
    machine.deliver(1, title="One")
    machine.tellbox("read", "1")
    answered = machine.store.mailbox("pat", "acks", 1).read_text().split()[0]
    machine.deliver(2, "Two\nlines\n")
    machine.deliver(3)
    machine.store.mark_shown("pat", 3, 1790000060)
    machine.deliver(4)
    machine.store.write_as("pat", ("state", "4.gui"), b"postponed\n")
    os.utime(machine.store.mailbox("pat", "state", "4.gui"), (1790000120, 1790000120))
    machine.deliver(5, expires=1790000180)
    machine.deliver(6)
    machine.store.mailbox("pat", "acks", 6).symlink_to("nowhere")
    machine.deliver(10, "x" * 50 + "\n")
    lines = [("ID", "DATE", "TEXT", "STATE"),
             ("1", "One", f"confirmed on {short_time(int(answered))} (terminal)"),
             ("2", "Two", "waiting"), ("3", "Hello", "waiting, shown on 21/09 14:14"),
             ("4", "Hello", "postponed on 21/09 14:15"), ("5", "Hello", "expired on 21/09 14:16"),
             ("6", "Hello", "cannot be answered: acks/6 is not a regular file"),
             ("10", "x" * 40, "waiting")]
    expected = f"{'ID':5} {'DATE':12} {'TEXT':40}  STATE\n" + "".join(
        f"{number:5} 21/09 14:13  {text:40}  {state}\n" for number, text, state in lines[1:])
    assert_says(machine.tellbox("list"), expected)
    assert machine.tellbox().stdout == expected


LISTED_WIDE = """\
ID    DATE         TEXT                                        STATE
7     21/09 14:13  A title that is longer than the column is.  confirmed on 21/09 14:13 (terminal)
8     21/09 14:13  Hello                                       waiting
"""
LISTED_AT_80 = """\
ID    DATE         TEXT                      STATE
7     21/09 14:13  A title that is longer t  confirmed on 21/09 14:13 (terminal)
8     21/09 14:13  Hello                     waiting
"""
LISTED_AT_40 = """\
ID    DATE         TEXT
     STATE
7     21/09 14:13  A title that is longe
     confirmed on 21/09 14:13 (terminal)
8     21/09 14:13  Hello
     waiting
"""
LISTED_AT_20 = """\
ID    DATE         T
EXT
  STATE
7     21/09 14:13  A
 title that is
  confirmed on 21/09
 14:13 (terminal)
8     21/09 14:13  H
ello
  waiting
"""


@pytest.mark.parametrize("columns, listed", [(200, LISTED_WIDE), (80, LISTED_AT_80),
                                             (40, LISTED_AT_40), (20, LISTED_AT_20)],
                         ids=[200, 80, 40, 20])
def test_the_list_fits_on_the_terminal(machine, columns, listed):
    machine.deliver(7, title="A title that is longer than the column is.")
    machine.store.confirm("pat", 7, 1790000000)
    machine.deliver(8)
    terminal = machine.ask("list", columns=columns)
    assert terminal.wait_exit() == 0
    assert "\n".join(row.rstrip() for row in terminal.rows()).strip() == listed.strip()


LISTED_WITH_WIDE_CHARACTERS = """\
ID    DATE         TEXT                      STATE
7     21/09 14:13  日本語の題名がここにあx   confirmed on 21/09 14:13 (terminal)
8     21/09 14:13  é日 Hello                 waiting
"""


def test_the_list_counts_columns_not_characters(machine):
    machine.deliver(7, title="日本語の題名がここにあx日本語")
    machine.store.confirm("pat", 7, 1790000000)
    machine.deliver(8, "e\u0301日 Hello\n")
    terminal = machine.ask("list", columns=80)
    assert terminal.wait_exit() == 0
    lines = [row.rstrip() for row in plain(terminal.raw).splitlines()]
    assert lines == LISTED_WITH_WIDE_CHARACTERS.splitlines()


def test_without_a_mailbox_nothing_waits(machine):
    for arguments in ((), ("list",)):
        assert_says(machine.tellbox(*arguments), "No message is waiting.\n")


def test_show_prints_a_message_whole_and_what_became_of_it(machine):
    text = "".join(f"line {number}\n" for number in range(200))
    machine.deliver(12, text)
    assert text in machine.tellbox("show", "12").stdout
    machine.tellbox("read", "12")
    result = machine.tellbox("show", "12")
    assert text in result.stdout and "confirmed on" in result.stdout.splitlines()[-1]
    assert_refuses(machine.tellbox("show", "13"), "no such message: 13")


def test_show_counts_as_shown_on_a_terminal_only(machine):
    machine.deliver(12)
    machine.tellbox("show", "12")
    assert machine.files() == ["inbox/12"]
    assert machine.ask("show", "12").wait_exit() == 0
    assert machine.files() == ["inbox/12", "state/12.term"]


# ---- The command line -----------------------------------------------------------------------

def test_mistakes_on_the_command_line_are_one_line_each(machine):
    assert_refuses(machine.tellbox("fly\x1b[31m\n"), "unknown command: fly  (tellbox help)")
    assert_refuses(machine.tellbox("show"), "missing message ID")
    assert_refuses(machine.tellbox("show", "x"), "no such message: x")
    assert_refuses(machine.tellbox("hook"), "missing name of a shell: bash, zsh or fish")
    assert_refuses(machine.tellbox("hook", "tcsh"),
                   "there is no hook for this shell: tcsh (bash, zsh or fish)")


@pytest.mark.parametrize("words", [("list", "x"), ("show", "1", "x"), ("hook", "bash", "x"),
                                   ("agent", "x"), ("prompt", "pat", "0", "x"), ("mailbox", "x"),
                                   ("shells", "on", "x")], ids=lambda words: words[0])
def test_the_first_word_that_is_too_many_is_named(machine, words):
    assert_refuses(machine.user_program(*words),
                   f"too many arguments for {words[0]}: x (tellbox help)")


def test_what_shells_and_sessions_run_is_no_command_of_the_user(machine):
    for word in ("prompt", "agent", "shells", "mailbox"):
        assert_refuses(machine.tellbox(word), f"unknown command: {word} (tellbox help)")
    assert_says(machine.user_program("mailbox"), "/var/lib/tellbox/users/pat\n")


# Without the real /proc no leaks can be searched for. Sanitizers read their options there.
WITHOUT_PROC = """mount -t tmpfs none /proc && mkdir /proc/self &&
printf 'ASAN_OPTIONS=detect_leaks=0\\0' >/proc/self/environ && """


def test_a_hook_names_the_installed_program_where_its_own_path_is_unknown(machine):
    result = machine.run("-c", f"{WITHOUT_PROC} {TELLBOX} hook bash", program="/bin/sh",
                         wrap=["unshare", "--mount"])
    assert f"'{PROGRAM}'" in result.stdout and result.status == 0


def test_help_and_version(machine):
    assert machine.tellbox("version").stdout.startswith("Tellbox ")
    for word in ("help", "--help", "-h"):
        assert "tellbox hook bash" in machine.tellbox(word).stdout
    assert machine.tellbox("--version").stdout == machine.tellbox("version").stdout


@pytest.mark.parametrize("word", ["help", "--help", "-h", "version", "--version"])
def test_help_and_version_take_no_notice_of_further_words(machine, word):
    assert_says(machine.tellbox(word, "x", "y"), machine.tellbox(word).stdout)


def test_help_explains_each_term_below_it_and_goes_from_commands_to_the_environment(machine):
    lines = machine.tellbox("help").stdout.splitlines()
    assert lines[:2] == ["tellbox — reads and confirms the messages of the administrator", ""]
    assert lines[2].startswith("Messages of the administrator wait in your mailbox")
    headings = [place for place, line in enumerate(lines) if place > 5 and line[:1].strip()]
    assert [lines[place] for place in headings] == ["Commands", "At the prompt", "Environment"]
    assert [lines[place - 1] for place in headings] == ["", "", ""]
    for place, term, description in ((0, "  (no command)", "Asks about each waiting message"),
                                     (1, "  bash, in ~/.bashrc", 'eval "$(tellbox hook bash)"'),
                                     (2, "  TELLBOX_PROMPT", "If set to off, nothing is shown")):
        below = lines[headings[place] + 1:]
        assert below[0] == term and below[1].startswith("      " + description)


@pytest.mark.parametrize("env, is_coloured", [({}, True), ({"NO_COLOR": "1"}, False),
                                              ({"TERM": "dumb"}, False), ({"TERM": None}, False)])
def test_help_has_colours_where_a_terminal_draws_them(machine, env, is_coloured):
    terminal = machine.ask("help", env=env)
    assert terminal.wait_exit() == 0
    assert (b"\x1b[" in terminal.raw) is is_coloured


def test_output_that_cannot_be_written_is_an_error(machine):
    with open("/dev/full", "wb") as full:
        result = machine.tellbox("help", stdout=full)
    assert result.stderr == "tellbox: standard output: No space left on device\n"
    assert result.status == 1


def test_test_mode_plays_both_sides(machine):
    env = {"TBX_TEST": "1", "TBX_VAR": "/run/try"}
    machine.run("send", "--to", "root", "Hello", env=env)
    assert machine.run("read", "1", program=TELLBOX, env=env).stdout == "Message 1 confirmed.\n"
    assert "(terminal)" in machine.run("status", "1", env=env).stdout
    assert machine.path("/run/try/users/root/acks/1").exists()


def test_the_hook_of_test_mode_works_from_every_folder(machine):
    env = "TBX_TEST=1 TBX_VAR=try TBX_LIB=lib TBX_CONF=/conf"
    hook = machine.shell(f"cd /run && {env} {TELLBOX} hook bash").stdout
    assert "TBX_VAR='/run/try' TBX_LIB='/run/lib' TBX_CONF='/conf' " in hook
    assert "'/run/try/users/root'" in hook


# ---- Other accounts, hostile mailboxes ------------------------------------------------------

def test_an_account_that_shares_its_uid_has_its_own_mailbox(machine):
    machine.add_user("twin", machine.uid("pat"))
    machine.deliver(5, user="twin")
    assert "5 " in machine.tellbox("list", env={"LOGNAME": "twin"}).stdout
    assert machine.tellbox("list").stdout == "No message is waiting.\n"
    assert machine.tellbox("list", env={"LOGNAME": "sam", "USER": "twin"}).stdout != ""


def test_a_mailbox_of_somebody_else_is_refused(machine):
    machine.deliver(5)
    os.chown(machine.store.mailbox("pat"), machine.uid("sam"), -1)
    machine.store.mailbox("pat").chmod(0o755)
    assert_refuses(machine.tellbox("read", "5"),
                   "/var/lib/tellbox/users/pat belongs to another user")
    machine.store.mailbox("pat").chmod(0o700)
    assert_refuses(machine.tellbox("list"), "/var/lib/tellbox/users/pat: Permission denied")


@pytest.mark.parametrize("folder", ["inbox", "acks", "read", "state"])
def test_a_folder_that_is_a_link_is_refused(machine, folder):
    machine.deliver(5)
    path = machine.store.mailbox("pat", folder)
    path.rename(machine.store.top / folder)
    path.symlink_to(f"/var/lib/tellbox/{folder}")
    assert_refuses(machine.tellbox("read", "5"),
                   f"/var/lib/tellbox/users/pat/{folder}: Not a directory")


def test_links_pipes_devices_folders_and_huge_files_neither_hang_nor_show(machine):
    machine.deliver(1)
    box = machine.store.mailbox("pat")
    (box / "inbox/2").symlink_to("/etc/passwd")
    os.mkfifo(box / "inbox/3")
    (box / "inbox/4").mkdir()
    (box / "inbox/5").write_bytes(b"date: 5\n\n" + b"x" * 100_000)
    os.mkfifo(box / "acks/1.x")
    os.mkfifo(box / "state/1.term")
    (box / "state/1.gui").symlink_to("/dev/zero")
    (box / "read/6").symlink_to("/dev/zero")
    os.mkfifo(box / "read/7")
    os.mkfifo(box / "state/.prompt")
    output = machine.tellbox("list", timeout=20).stdout
    assert [line.split()[0] for line in output.splitlines()] == ["ID", "1"]
    assert machine.tellbox("later", "1", timeout=20).status == 0
    assert machine.tellbox("read", "1", timeout=20).status == 0


def test_every_byte_comes_out_clean(machine):
    machine.deliver(1, "".join(map(chr, range(1, 256))) + "\n")
    machine.store.mailbox("pat", "inbox", 1).write_bytes(
        b"date: 5\ntitle: \x1b]0;owned\x07t\xff\n\n" + bytes(range(256)) + b"\n")
    output = machine.tellbox("show", "1").stdout
    assert all(c in "\t\n" or c.isprintable() for c in output)
    assert "owned" not in output and "\ufffd" in output


# ---- Interrupted and at once ----------------------------------------------------------------

def test_the_next_run_finishes_what_a_killed_one_left(machine):
    machine.deliver(12)
    machine.store.confirm("pat", 12, 1790000000)
    machine.store.write_as("pat", ("acks", ".12.tmp"), b"")
    machine.tellbox("list")
    assert machine.files() == ["acks/12", "read/12"]
    assert machine.events() == [("CONFIRMED", 12, "pat", "terminal")]
    machine.tellbox("list")
    assert len(machine.events()) == 1


@pytest.mark.parametrize("blocked", [False, True], ids=["", "lock is held by a stranger"])
def test_two_hundred_answers_at_once_make_one_answer_and_one_record(machine, blocked):
    machine.deliver(12)
    script = (f"for i in $(seq {20 if blocked else 200}); do {PROGRAM} read 12 & done; wait")
    if blocked:
        script = f"flock /var/lib/tellbox/users/pat sh -c '{script}'"
    output = machine.shell(script, user="pat").stdout
    assert output.count("Message 12 confirmed.") == 1
    assert machine.files() == ["acks/12", "read/12"]
    assert machine.events() == [("CONFIRMED", 12, "pat", "terminal")]
