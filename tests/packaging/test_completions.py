"""Tab completes tbx in bash, zsh and fish."""

import re

import pytest
import shells
from conftest import run
from prerequisites import need_programs

OPTIONS = {"--to", "--title", "--expires", "--file"}
EXPIRIES = {"15m", "30m", "1h", "2h", "8h", "1d", "3d", "7d"}
AGES = {"12h", "7d", "30d", "90d", "180d", "365d"}

# The accounts of the machine on which the shells run.
GETENT = """#!/bin/sh
case $1 in
passwd) echo 'root:x:0:0::/root:/bin/bash
daemon:x:1:1::/:/usr/sbin/nologin
pat:x:1001:1001::/:/bin/bash
paula:x:1002:1002::/:/bin/bash
sam:x:1003:1003::/:/bin/bash
robot:x:1004:1004::/:/usr/sbin/nologin
mute:x:1005:1005::/:/bin/false
nobody:x:65534:65534::/:/bin/bash' ;;
group) echo 'root:x:0:
tape:x:5:
developers:x:50:pat,sam
design:x:2001:
nogroup:x:65534:' ;;
esac
"""


@pytest.fixture(scope="module", params=["bash", "zsh", "fish"])
def shell(request, installed, tmp_path_factory):
    """An interactive shell that finds the completions where they are installed."""
    need_programs(request.param)
    home = tmp_path_factory.mktemp("home")
    for name in ("getent", "tbx"):
        program = home / name
        program.write_text(GETENT if name == "getent" else "#!/bin/sh\n", encoding="ascii")
        program.chmod(0o755)
    for message in ("1", "2", "10", ".deleting-3", ".seq"):
        (home / "state" / "sent" / message).mkdir(parents=True)
    (home / "notice.txt").touch()
    env = {"PATH": f"{home}:/usr/bin:/bin", "HOME": str(home), "TERM": "xterm",
           "LANG": "C.UTF-8", "XDG_CONFIG_HOME": str(home), "XDG_DATA_HOME": str(home),
           "TBX_TEST": "1", "TBX_VAR": str(home / "state")}
    opened = getattr(shells, request.param)(env, installed / "usr/local/share")
    opened.home = home
    yield opened
    opened.close()


@pytest.fixture(scope="module")
def commands(binary):
    """The commands that the guide describes."""
    guide = run(binary, "help")
    section = re.search(r"^COMMANDS$(.*?)^[A-Z]", guide, re.MULTILINE | re.DOTALL)[1]
    return set(re.findall(r"^ {7}([a-z]+)", section, re.MULTILINE))


def completed(shell, typed):
    """The line without what a shell puts behind a name in case another one follows."""
    return shell.completed(typed).rstrip(", ")


def listed(shell, typed):
    """The words listed; fish and bash repeat the list that has been typed already."""
    return {word.rpartition(",")[2] for word in shell.listed(typed)}


def test_every_command_is_offered(shell, commands):
    assert listed(shell, "tbx ") - {"--help", "--version"} == commands


def test_the_beginning_of_a_command_is_completed(shell):
    assert completed(shell, "tbx sta") == "tbx status"


def test_a_command_is_completed_behind_sudo(shell):
    assert completed(shell, "sudo tbx sta") == "sudo tbx status"


def test_every_option_of_send_is_offered(shell):
    assert listed(shell, "tbx send -") == OPTIONS


def test_an_option_is_completed_behind_the_value_of_another(shell):
    assert completed(shell, "tbx send --to pat --ex") == "tbx send --to pat --expires"


def test_a_title_of_several_words_does_not_begin_the_text(shell):
    assert completed(shell, "tbx send --title 'a b' --ex") == "tbx send --title 'a b' --expires"


def test_in_the_text_nothing_is_completed(shell):
    assert completed(shell, "tbx send --to pat hello --ex") == "tbx send --to pat hello --ex"


def test_a_recipient_is_a_human_user_a_group_all_or_online(shell):
    assert listed(shell, "tbx send --to ") == {
        "pat", "paula", "sam", "all", "online", "@developers", "@design"}


def test_behind_an_at_sign_groups_are_offered(shell):
    assert listed(shell, "tbx send --to @") == {"@developers", "@design"}


@pytest.mark.parametrize("typed, whole", [
    ("pau", "paula"), ("al", "all"), ("on", "online"), ("@dev", "@developers"),
    ("pat,sa", "pat,sam"), ("pat,@dev", "pat,@developers"), ("@developers,sa", "@developers,sam"),
    ("@design,@dev", "@design,@developers"), ("pat,sam,al", "pat,sam,all"),
])
def test_a_recipient_is_completed(shell, typed, whole):
    assert completed(shell, f"tbx send --to {typed}") == f"tbx send --to {whole}"


def test_what_several_groups_have_in_common_is_kept(shell):
    assert completed(shell, "tbx send --to pat,@de") == "tbx send --to pat,@de"


def test_expiries_are_offered(shell):
    assert listed(shell, "tbx send --to pat --expires ") == EXPIRIES


def test_a_file_is_completed_behind_file(shell):
    typed = f"tbx send --to pat --file {shell.home}/not"
    assert completed(shell, typed) == f"tbx send --to pat --file {shell.home}/notice.txt"


@pytest.mark.parametrize("command", ["status", "revoke", "remind", "log"])
def test_the_numbers_of_messages_are_offered(shell, command):
    assert listed(shell, f"tbx {command} ") == {"1", "2", "10"}


def test_ages_are_offered_to_purge(shell):
    assert listed(shell, "tbx purge ") == AGES


@pytest.mark.parametrize("command", ["list", "version", "purge 90d", "status 1"])
def test_where_no_argument_follows_nothing_is_offered(shell, command):
    assert completed(shell, f"tbx {command} ") == f"tbx {command}"
