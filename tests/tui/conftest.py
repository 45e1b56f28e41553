"""Fixtures for tests of what the program draws: terminals of harness/pseudo_terminal.py."""

import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent)]

pytest.register_assert_rewrite("interface", "terminal_bytes")

from expected_texts import ExpectedTexts  # noqa: E402
from harness import history as JOURNAL  # noqa: E402
from harness.pseudo_terminal import ENTER, Terminal  # noqa: E402
from interface import Expectations, expect, press  # noqa: E402
from messages import USERS, Store  # noqa: E402
from pages import DetailPage, FormPage, ListPage  # noqa: E402
from places import WITH_HISTORY, Places  # noqa: E402
from prerequisites import program_under_test, skip  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--update", action="store_true",
                     help="only what is compared with the files in expected/, which it rewrites")


def pytest_configure(config):
    config.addinivalue_line("markers", "expects: writes its part of expected/ with --update")


def pytest_collection_modifyitems(config, items):
    if config.getoption("--update", default=False):
        Expectations.met = False
        items[:] = [item for item in items if item.get_closest_marker("expects")]


@pytest.fixture(scope="session")
def binary():
    """The program under test."""
    return program_under_test()


@pytest.fixture
def environment(tmp_path):
    """The program's environment in these tests: test mode, in the test's own directory."""
    sanitizers = {k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS")}
    return {
        "PATH": "/usr/bin:/bin",
        "HOME": str(tmp_path),
        "TERM": "xterm-256color",
        "TZ": "UTC",
        "TBX_TEST": "1",
        "TBX_VAR": str(tmp_path / "var"),
        "TBX_LIB": str(tmp_path / "lib"),
        "TBX_CONF": str(tmp_path / "tellbox.conf"),
        **sanitizers,
    }


@pytest.fixture
def terminal(binary, environment):
    """Starts programs on terminals, and ends them after the test.

    terminal("help", "more") runs the program under test with these arguments;
    terminal(argv=[...]) runs another program. `env` changes the environment, None removing a
    variable; the rest is as for Terminal.
    """
    opened = []

    def start(*arguments, argv=None, env=None, **options):
        changed = {**environment, **(env or {})}
        present = {name: value for name, value in changed.items() if value is not None}
        opened.append(Terminal(argv or [binary, *arguments], env=present, **options))
        return opened[-1]

    yield start
    for one in opened:
        one.close()


@pytest.fixture
def folder():
    """A folder that every user may enter."""
    path = Path(tempfile.mkdtemp(prefix="tellbox-tui-"))
    path.chmod(0o755)
    yield path
    shutil.rmtree(path)


@pytest.fixture
def store(tmp_path):
    """The program's state directory, which does not exist at first."""
    return Store(tmp_path / "var", lambda user: None)


@pytest.fixture
def interface(terminal, store):
    """interface([message, ...]) opens the interface on a store with these messages.

    colour  whether NO_COLOR is not set; the rest is as for terminal()
    Returns the terminal and the list page that it shows.
    """

    def open_interface(messages=(), size=(80, 24), colour=True, env=None, **options):
        for message in messages:
            message.put(store)
        tbx = terminal(env={"NO_COLOR": None if colour else "1", **(env or {})},
                       columns=size[0], rows=size[1], **options)
        page = ListPage(size, tuple(messages), colour=colour)
        expect(tbx, page)
        return tbx, page

    return open_interface


@pytest.fixture
def detail(interface):
    """detail(message, ...) opens the page of a message; the rest is as for interface().

    lines  as for DetailPage
    Returns the terminal, the page that it shows, and the list behind it.
    """

    def open_detail(message, *arguments, lines=None, **options):
        tbx, behind = interface([message], *arguments, **options)
        page = DetailPage(behind.size, message, lines=lines, colour=behind.colour)
        press(tbx, ENTER, page)
        return tbx, page, behind

    return open_detail


@pytest.fixture
def form(interface):
    """form(...) opens the form for a new message over an empty list, as interface() does.

    Returns the terminal, the page that it shows, and the list behind it.
    """

    def open_form(*arguments, **options):
        tbx, behind = interface([], *arguments, **options)
        page = FormPage(behind.size, colour=behind.colour)
        press(tbx, "n", page)
        return tbx, page, behind

    return open_form


@pytest.fixture
def place(interface, store, journal):
    """place("keys", ...) opens the interface and goes to one of PLACES, by default at 80x24.

    Returns the terminal, and the places as they look there.
    """

    def go_to(name, size=(80, 24), colour=True, **options):
        places = Places(size, colour)
        if name in WITH_HISTORY:
            options["argv"] = journal()
        for user in USERS:
            store.make_mailbox(user)
        tbx, _ = interface(places.messages, size, colour, **options)
        for keys, page, box in places.steps(name):
            press(tbx, keys, page, box)
        return tbx, places

    return go_to


@pytest.fixture
def root():
    """Asked for by tests that take the part of several users."""
    if os.geteuid() != 0:
        skip("needs root")


@pytest.fixture
def without_privileges(binary):
    """The program's command line, of a process that no permission is waived for."""
    if os.geteuid() != 0:
        return [binary]
    return ["setpriv", "--bounding-set=-all", "--inh-caps=-all", binary]


@pytest.fixture
def journal(binary, tmp_path):
    """journal(record(...), ...) is the command line of the program on a machine of whose journal
    nothing is seen but these records; calling it again adds records.

    accounts  names of the only users of that machine
    """
    enter = ["unshare", "--mount"] if os.geteuid() == 0 else [
        "unshare", "--user", "--map-root-user", "--mount"]

    def write(*records, accounts=None):
        if JOURNAL.writer() is None:
            skip("needs systemd-journal-remote")
        if subprocess.run([*enter, "true"], check=False).returncode != 0:
            skip("needs root or user namespaces")
        logs = tmp_path / "journal" / JOURNAL.MACHINE_ID
        logs.mkdir(parents=True, exist_ok=True)
        subprocess.run([JOURNAL.writer(), f"--output={logs}/system.journal", "-"],
                       input=JOURNAL.export_format(records), stderr=subprocess.DEVNULL, check=True)
        mounts = [(tmp_path, logs) for logs in ("/var/log", "/run/log") if os.path.isdir(logs)]
        if accounts:
            mounts.append((passwd_file(tmp_path, accounts), "/etc/passwd"))
        script = " && ".join(f"mount --bind {source} {place}" for source, place in mounts)
        return [*enter, "sh", "-c", f'{script} && exec "$0"', binary]

    return write


def passwd_file(folder, accounts):
    names = ["root", *accounts]
    path = folder / "passwd"
    path.write_text("".join(f"{name}:x:{1000 + uid if uid else 0}:0::/:/bin/sh\n"
                            for uid, name in enumerate(names)))
    return path


@pytest.fixture(scope="session")
def expected(request):
    """expected("name") is the text of a file in expected/; expected.compare() compares with it."""
    return ExpectedTexts(request.config.getoption("--update", default=False))


@pytest.fixture
def strace():
    """Asked for by tests that count system calls."""
    if shutil.which("strace") is None:
        skip("needs strace")
