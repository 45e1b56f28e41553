"""Tab completes tellbox in bash, zsh and fish."""

import os
import pwd

import pytest
import shells
from conftest import install
from prerequisites import need_programs

MESSAGE = "date: 1790000000\nfrom: root\ntitle: {title}\nexpires: {expires}\n\nHello\n"


def fill(mailbox):
    """Messages that wait (1), were shown (2) or postponed (3), have expired (4) or were read (5)."""
    for folder in ("inbox", "read", "acks", "state"):
        (mailbox / folder).mkdir(parents=True)
    for name, title, expires in (("inbox/1", "", ""), ("inbox/2", "One (of two)", ""),
                                 ("inbox/3", "", ""), ("inbox/4", "Still  waiting", 1790000001),
                                 ("read/5", "Still  waiting", "")):
        text = MESSAGE.format(title=title, expires=expires)
        (mailbox / name).write_text(text, encoding="ascii")
    (mailbox / "state/2.term").write_text("shown\n", encoding="ascii")
    (mailbox / "state/3.gui").write_text("postponed\n", encoding="ascii")
    (mailbox / "acks/5").write_text("1790000002 terminal\n", encoding="ascii")


@pytest.fixture(scope="module", params=["bash", "zsh", "fish"])
def shell(request, tree, tmp_path_factory):
    """An interactive shell that finds the completions where they are installed."""
    need_programs(request.param)
    place = tmp_path_factory.mktemp("place")
    install(tree, place, "tellbox-user")
    home = tmp_path_factory.mktemp("home")
    fill(home / "state/users" / pwd.getpwuid(os.geteuid()).pw_name)
    env = {"PATH": f"{place}/usr/local/bin:/usr/bin:/bin", "HOME": str(home), "TERM": "xterm",
           "LANG": "C.UTF-8", "XDG_CONFIG_HOME": str(home), "XDG_DATA_HOME": str(home),
           "TBX_TEST": "1", "TBX_VAR": str(home / "state")}
    opened = getattr(shells, request.param)(
        env, place / ("usr/share" if request.param == "fish" else "usr/local/share"))
    yield opened
    opened.close()


def test_the_commands_are_offered(shell):
    # What the prompt says is not among the words that are listed.
    assert shell.listed("tellbox ") == {"list", "show", "later", "hook", "version", "help"}


def test_a_command_is_completed(shell):
    assert shell.completed("tellbox rea") == "tellbox read "


@pytest.mark.parametrize("command, messages", [("show", "12345"), ("read", "123"),
                                               ("later", "123")])
def test_a_command_is_offered_the_messages_that_it_can_deal_with(shell, command, messages):
    assert shell.listed(f"tellbox {command} ") == set(messages)


def test_the_shells_that_have_a_hook_are_offered(shell):
    assert shell.listed("tellbox hook ") == {"bash", "zsh", "fish"}
