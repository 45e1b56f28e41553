"""What the programs that the interface and the guide start inherit: their standard descriptors and
nothing that whoever started tbx left open."""

import json
import os

import pytest

from harness.pseudo_terminal import CTRL_E, CTRL_S, TAB
from interface import reply

# Opens a file as descriptors 3 and 9, as a shell or a service may have left one open.
CARELESS_START = 'exec 3<"$SECRET" 9<"$SECRET"; exec "$0" "$@"'

# Writes {number: what it is} of its open descriptors, and is of use as an editor, a pager and as
# the program that reads dates.
STAND_IN = """#!/usr/bin/python3 -IS
import json, os
found = {}
for name in os.listdir("/proc/self/fd"):
    try:
        found[name] = os.readlink(f"/proc/self/fd/{name}")
    except FileNotFoundError:
        pass  # the one that listed them
with open(%r, "w") as report:
    json.dump([os.geteuid(), found], report)
os.rename(report.name, %r)
print(4000000000)
"""


@pytest.fixture
def started(terminal, binary, folder):
    """started(...) is the program, or another, on a terminal, started by one who left a file open.

    Programs in `folder` are found first.
    """
    secret = folder / "secret"
    secret.write_text("root's\n")
    secret.chmod(0o600)

    def start(*arguments, program=binary, env=None, **options):
        env = {"SECRET": str(secret), "PATH": f"{folder}:/usr/bin:/bin", **(env or {})}
        return terminal(argv=["sh", "-c", CARELESS_START, program, *arguments], env=env, **options)

    return start


@pytest.fixture
def stand_in(folder):
    """stand_in(name) makes a program of this name that reports what it inherited, and returns it.

    inherited(tbx) waits for that: the user, and {number: kind}, where the kind is "terminal",
    "pipe", or the name of a file.
    """
    folder.chmod(0o777)  # whoever the program runs as writes the report
    report = folder / "report"

    def make(name):
        path = folder / name
        path.write_text(STAND_IN % (f"{report}.new", str(report)))
        path.chmod(0o755)
        return path

    def inherited(tbx):
        tbx.poll_for(report.exists)
        user, found = json.loads(report.read_text())
        return user, {int(number): kind(tbx, name) for number, name in found.items()}

    make.inherited = inherited
    return make


def kind(tbx, name):
    return {tbx.tty_name: "terminal"}.get(name, name.partition(":[")[0])


def test_stand_in_sees_what_a_careless_start_leaves_open(started, stand_in, folder):
    """Without this the tests below would pass for one that sees nothing."""
    tbx = started(program=stand_in("program"))
    secret = str(folder / "secret")
    assert stand_in.inherited(tbx)[1] == {
        0: "terminal", 1: "terminal", 2: "terminal", 3: secret, 9: secret}


def open_form(tbx, *fields):
    tbx.wait_for("updated at")
    tbx.send("n" + TAB.join(fields))
    tbx.wait_for(fields[-1])


def test_editor_has_the_terminal_alone(started, stand_in):
    tbx = started(env={"VISUAL": str(stand_in("editor"))})
    open_form(tbx, "daemon")
    tbx.send(CTRL_E)
    assert stand_in.inherited(tbx) == (
        os.geteuid(), {0: "terminal", 1: "terminal", 2: "terminal"})


@pytest.mark.usefixtures("root")
def test_editor_of_who_called_sudo_has_the_terminal_alone(started, stand_in):
    tbx = started(env={"VISUAL": str(stand_in("editor")), "SUDO_USER": "nobody"})
    open_form(tbx, "daemon")
    tbx.send(CTRL_E)
    user, found = stand_in.inherited(tbx)
    assert user != 0
    assert found == {0: "terminal", 1: "terminal", 2: "terminal"}


def test_editor_that_is_looked_for_has_the_terminal_alone(started, stand_in):
    stand_in("nano")
    tbx = started()
    open_form(tbx, "daemon")
    tbx.send(CTRL_E)
    assert stand_in.inherited(tbx)[1] == {0: "terminal", 1: "terminal", 2: "terminal"}


def test_program_that_a_command_of_the_interface_starts_has_its_pipes_alone(started, stand_in):
    stand_in("date")
    tbx = started()
    open_form(tbx, "daemon", "Title", "one fine day", "Hello")
    tbx.send(CTRL_S)
    tbx.wait_for("y  Confirm")
    reply(tbx, "y")
    assert stand_in.inherited(tbx)[1] == {0: "/dev/null", 1: "pipe", 2: "/dev/null"}


@pytest.mark.parametrize("pager", ["own", "less"])
def test_pager_of_the_guide_reads_a_pipe_and_has_the_terminal(started, stand_in, pager):
    program = stand_in(pager)
    tbx = started("help", rows=9, env={"PAGER": str(program) if pager == "own" else None})
    assert stand_in.inherited(tbx)[1] == {0: "pipe", 1: "terminal", 2: "terminal"}
