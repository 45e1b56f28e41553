"""How a command line finds its command, and what happens before it runs."""

import os

import pytest

from harness.outcome import assert_fails, assert_refused

BANNER = "Tellbox - Advanced Messaging System for Linux 0.2.0\n"
CANCELLED = "tbx: message 7 was interrupted before being saved and has been cancelled\n"
WITH_RECOVERY = ["send", "list", "status", "revoke", "remind", "log"]
WITHOUT_RECOVERY = [["help"], ["-h"], ["--help"], ["version"], ["--version"], ["purge", "90d"],
                    [], [""]]


@pytest.fixture
def interrupted(box):
    """A box whose message 7 waits for recovery."""
    box.store.make_message(7, msg=b"", markers=["incomplete"])
    return box


def is_waiting(box):
    return box.store.sent(7, "incomplete").exists() and not box.store.sent(7, "failed").exists()


@pytest.mark.parametrize("word", ["version", "--version"])
def test_version_prints_the_banner(box, word):
    assert tuple(box.run(word)) == (BANNER, "", 0)


@pytest.mark.parametrize("word", ["version", "--version", "help", "-h", "--help"])
def test_extra_arguments_of_version_and_help_are_ignored(box, word):
    plain = box.run(word)
    assert box.run(word, "extra", "--more") == plain
    assert (plain.stderr, plain.status) == ("", 0)
    assert plain.stdout != ""


@pytest.mark.parametrize("word", ["help", "-h", "--help", ""])
def test_the_guide_has_the_same_text_however_it_is_asked_for(box, word):
    assert box.run(word) == box.run()


@pytest.mark.parametrize("command", WITHOUT_RECOVERY[:5] + [[], [""]])
def test_showing_guide_or_version_leaves_the_state_directory_absent(box, command):
    assert box.run(*command).status == 0
    assert not box.store.top.exists()


def test_an_empty_first_argument_is_no_command_even_with_more_behind_it(interrupted):
    assert interrupted.run("", "list") == interrupted.run()
    assert is_waiting(interrupted)


def test_without_a_terminal_on_standard_output_the_guide_is_printed_at_once(interrupted):
    terminal = interrupted.open_terminal("pat")
    result = interrupted.run(stdin=terminal.slave)
    assert (result.stdout, result.status) == (interrupted.run("help").stdout, 0)
    assert is_waiting(interrupted)


def test_without_a_terminal_on_standard_input_the_guide_is_printed_at_once(interrupted):
    terminal = interrupted.open_terminal("pat")
    terminal.set_size(80, 24)
    result = interrupted.run(stdout=terminal.slave)
    assert (result.stderr, result.status) == ("", 0)
    assert terminal.read() != b""
    assert is_waiting(interrupted)


@pytest.mark.parametrize("word", ["lists", "lis", "List", "SEND", "Help", "--list", "-v", "-", "--",
                                  " list", "list ", "%s%n"])
def test_a_word_that_is_no_command_is_named(box, word):
    assert_refused(box, f"unknown command: {word} (tbx --help for the guide)", word)


def test_an_unknown_command_does_not_run_the_recovery(interrupted):
    interrupted.run("frobnicate")
    assert is_waiting(interrupted)


def test_only_the_command_is_named_when_it_is_unknown(box):
    assert_refused(box, "unknown command: lst (tbx --help for the guide)", "lst", "5", "6")


def test_list_takes_no_argument(box):
    assert_refused(box, "too many arguments for list: x (tbx --help for the guide)", "list", "x")


def test_an_empty_argument_is_one_too_many_for_list(box):
    assert_refused(box, "too many arguments for list:  (tbx --help for the guide)", "list", "")


@pytest.mark.parametrize("command", ["status", "revoke", "remind", "log", "purge"])
def test_the_first_argument_too_many_is_named(box, command):
    assert_refused(box, f"too many arguments for {command}: 6 (tbx --help for the guide)",
                   command, "5", "6", "7")


@pytest.mark.parametrize("arguments", [["list", "x"], ["status", "5", "6"], ["revoke", "5", "6"],
                                       ["remind", "5", "6"], ["log", "5", "6"]])
def test_arguments_are_counted_before_the_recovery(interrupted, arguments):
    result = interrupted.run(*arguments)
    assert result.stderr.startswith("tbx: too many arguments")
    assert is_waiting(interrupted)


@pytest.mark.parametrize("command", WITH_RECOVERY)
def test_the_recovery_runs_before_the_command(interrupted, command):
    assert interrupted.run(command).stderr.startswith(CANCELLED)
    assert interrupted.store.sent(7, "failed").exists()
    assert not interrupted.store.sent(7, "incomplete").exists()


@pytest.mark.parametrize("command", WITHOUT_RECOVERY)
def test_the_recovery_does_not_run(interrupted, command):
    assert interrupted.run(*command).status == 0
    assert is_waiting(interrupted)


@pytest.mark.parametrize("argument", [[], [""]])
@pytest.mark.parametrize("command", ["status", "revoke", "remind", "log"])
def test_a_missing_or_empty_identifier_is_asked_for(box, command, argument):
    assert_refused(box, "missing message ID", command, *argument)


@pytest.mark.parametrize("command", ["status", "revoke", "remind", "log"])
def test_malformed_and_unknown_identifiers_are_answered_with_the_same_words(box, command):
    for identifier in ("1\n", "007"):
        assert_refused(box, f"no such message: {identifier}", command, identifier)


def test_leading_zeros_of_an_identifier_are_accepted(box):
    box.store.make_message(7, delivered=[("pat", 1790000001, 0)])
    assert box.run("status", "007") == box.run("status", "7")
    assert box.run("status", "007").status == 0


@pytest.mark.parametrize("umask", [0o000, 0o077, 0o777])
def test_the_caller_s_file_creation_mask_does_not_matter(box, umask):
    box.run("send", "--to", "pat", "hello", umask=umask)
    modes = {name: facts[0] & 0o7777 for name, facts in box.store.tree().items()}
    assert modes == {
        "users": 0o755, "users/pat": 0o700, "users/pat/inbox": 0o755, "users/pat/read": 0o755,
        "users/pat/acks": 0o755, "users/pat/state": 0o755, "users/pat/inbox/1": 0o644,
        "sent": 0o700, "sent/.seq": 0o600, "sent/.seq.lock": 0o600, "sent/1": 0o700,
        "sent/1/lock": 0o600, "sent/1/msg": 0o600, "sent/1/recipients": 0o600,
        "sent/1/delivery": 0o600}
    assert os.stat(box.store.top).st_mode & 0o7777 == 0o755


@pytest.mark.parametrize("closed", ["<&-", ">&-", "2>&-", "<&- >&- 2>&-"])
def test_closed_standard_descriptors_do_not_let_output_into_the_store(box, closed):
    box.add_group("gone", 2000, ["ghost", "pat"])  # makes it write to both outputs
    result = box.run("send", "--to", "@gone", "hello",
                     wrap=["/bin/sh", "-c", f'exec "$@" {closed}', "sh"])
    assert result.status == 1
    copy = box.store.mailbox("pat", "inbox", 1).read_bytes()
    assert copy.endswith(b"\n\nhello\n")
    files = {name: facts[3] for name, facts in box.store.tree().items()
             if facts[3] is not None and name != "sent/1/delivery"}
    assert files == {"sent/.seq": b"1\n", "sent/.seq.lock": b"", "sent/1/lock": b"",
                     "sent/1/msg": copy, "sent/1/recipients": b"ghost\npat\n",
                     "sent/1/incomplete": b"", "users/pat/inbox/1": copy}


def test_normal_output_comes_before_the_error_that_follows_it(box):
    box.add_group("gone", 2000, ["ghost", "pat"])
    together = box.run("send", "--to", "@gone", "hello",
                       wrap=["/bin/sh", "-c", 'exec "$@" 2>&1', "sh"])
    first, second = together.stdout.splitlines()
    assert first == "Message 1 delivered to 1 of 2 recipients."
    assert second.startswith("tbx: message 1 not delivered to: ghost ")


@pytest.mark.parametrize("command", ["list", "version"])
def test_output_that_cannot_be_written_is_an_error(box, command):
    with open(box.path("/dev/full"), "wb") as full:
        result = box.run(command, stdout=full.fileno())
    assert (result.stderr, result.status) == (
        "tbx: standard output: No space left on device\n", 1)


def author_of(box, **options):
    """The author of the message that a send with these options stores."""
    result = box.run("send", "--to", "kim", "hello", **options)
    assert result.status == 0, result
    return box.store.sent(1, "msg").read_text(encoding="utf-8").split("\n")[2]


def test_the_author_is_the_user_behind_sudo(box):
    assert author_of(box, env={"SUDO_USER": "sam"}) == "from: sam"


@pytest.mark.parametrize("sudo_user", [None, "", "deleted"])
def test_the_author_is_the_real_user_when_sudo_names_none(box, sudo_user):
    assert author_of(box, env={"SUDO_USER": sudo_user}) == f"from: {box.account_running_tests()}"


def test_a_sudo_user_of_63_characters_is_the_author(box):
    box.add_user("n" * 63, 1500)
    assert author_of(box, env={"SUDO_USER": "n" * 63}) == "from: " + "n" * 63


def test_a_sudo_user_of_64_characters_is_not_the_author(box):
    box.add_user("n" * 64, 1500)
    assert author_of(box, env={"SUDO_USER": "n" * 64}) == f"from: {box.account_running_tests()}"


def test_the_name_of_the_real_user_is_cut_to_63_characters(box):
    uid = box.uid(box.account_running_tests())
    box.remove_user(box.account_running_tests())
    box.add_user("n" * 70, uid)
    assert author_of(box) == "from: " + "n" * 63


def test_the_author_is_the_real_not_the_effective_user(machine):
    assert author_of(machine, wrap=["setpriv", "--ruid=1003", "--"]) == "from: sam"


def test_the_author_without_an_account_is_a_question_mark(box):
    box.remove_user(box.account_running_tests())
    assert author_of(box) == "from: ?"


def test_an_error_names_the_user_s_text_without_interpreting_it(box):
    assert_fails(box, "no such message: %n%s%d", "status", "%n%s%d")
