"""The guide as a manual page: in a pipe, through a pager, and where there is none."""

import subprocess

import pytest

from harness.pseudo_terminal import CTRL_C

# Too low for the tabs, whatever its width.
PAGED_ROWS = 9


def as_on_terminal(text):
    """What arrives when `text` is printed on a terminal."""
    return text.encode().replace(b"\n", b"\r\n")


@pytest.fixture
def paged(terminal, tmp_path):
    """paged(columns, rows) is the page that the pager receives on such a terminal."""
    page = tmp_path / "page"

    def receive(columns, rows, **env):
        tbx = terminal("help", columns=columns, rows=rows,
                       env={"PAGER": 'cat > "$PAGE"', "PAGE": str(page), **env})
        assert tbx.wait_exit() == 0
        assert tbx.raw == b""
        return page.read_text(encoding="utf-8")

    return receive


# ---- In a pipe ----------------------------------------------------------------------------


@pytest.mark.expects
@pytest.mark.parametrize("arguments", [[], [""], ["help"], ["-h"], ["--help"], ["help", "extra"]])
def test_output_in_a_pipe_is_the_plain_page_at_80_columns(
        binary, environment, expected, tmp_path, arguments):
    run = subprocess.run([binary, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                         env=environment, start_new_session=True, check=False)
    expected.compare("manual-80.txt", run.stdout.decode())
    assert (run.returncode, run.stderr) == (0, b"")
    assert not (tmp_path / "var").exists()


def test_output_in_a_pipe_is_plain_on_a_large_terminal_too(terminal, binary, expected):
    tbx = terminal(argv=["sh", "-c", '"$0" help | cat', binary], columns=120, rows=40)
    assert tbx.wait_exit() == 0
    assert tbx.raw == as_on_terminal(expected("manual-80.txt"))


def test_input_that_is_no_terminal_gives_the_plain_page_on_the_terminal(
        terminal, binary, expected):
    tbx = terminal(argv=["sh", "-c", '"$0" help < /dev/null', binary], columns=120, rows=40)
    assert tbx.wait_exit() == 0
    assert tbx.raw == as_on_terminal(expected("manual-80.txt"))


# ---- Layout -------------------------------------------------------------------------------


@pytest.mark.expects
@pytest.mark.parametrize("columns, page", [
    (40, "manual-60-colour.txt"),
    (59, "manual-60-colour.txt"),
    (60, "manual-60-colour.txt"),
    (80, "manual-80-colour.txt"),
    (100, "manual-100-colour.txt"),
    (101, "manual-100-colour.txt"),
    (200, "manual-100-colour.txt"),
])
def test_page_takes_the_width_of_the_terminal_from_60_to_100(paged, expected, columns, page):
    expected.compare(page, paged(columns, PAGED_ROWS))


@pytest.mark.parametrize("value", ["", "1"])
def test_no_color_with_any_value_makes_the_paged_page_plain(paged, expected, value):
    assert paged(80, PAGED_ROWS, NO_COLOR=value) == expected("manual-80.txt")


@pytest.mark.parametrize("columns, rows", [(43, 24), (44, 9), (43, 9), (1, 1)])
def test_terminal_too_small_for_the_tabs_gets_the_pager(paged, columns, rows):
    assert "SEE ALSO" in paged(columns, rows)


@pytest.mark.parametrize("columns, rows", [(0, 0), (0, 24)])
def test_terminal_that_tells_no_width_gets_the_page_at_80_columns(paged, expected, columns, rows):
    assert paged(columns, rows) == expected("manual-80-colour.txt")


def test_terminal_that_tells_no_height_gets_the_page_at_its_width(paged, expected):
    assert paged(100, 0) == expected("manual-100-colour.txt")


def test_without_a_controlling_terminal_the_page_has_80_columns(terminal, binary, expected):
    tbx = terminal(argv=["setsid", "--wait", binary, "help"], columns=120, rows=40,
                   env={"PAGER": "cat"})
    assert tbx.wait_exit() == 0
    assert tbx.raw == as_on_terminal(expected("manual-80-colour.txt"))


# ---- The pager ----------------------------------------------------------------------------


def test_less_pages_the_manual_and_q_leaves_it(terminal, expected):
    lines = expected("manual-80.txt").splitlines()
    tbx = terminal("help", rows=PAGED_ROWS, env={"PAGER": None})
    tbx.wait_for(lambda: tbx.rows()[-1].startswith(":"))
    # Right in any locale, and none is set here.
    assert [row.rstrip() for row in tbx.rows()[:-1]] == lines[:PAGED_ROWS - 1]
    tbx.send("G")
    tbx.wait_for("(END)")
    assert tbx.rows()[-2].rstrip() == lines[-1]
    tbx.send("q")
    assert tbx.wait_exit() == 0
    assert tbx.attributes() == tbx.attributes_before


def test_interrupt_in_less_is_for_less_alone(terminal):
    tbx = terminal("help", rows=PAGED_ROWS, env={"PAGER": ""})
    tbx.wait_for(lambda: tbx.rows()[-1].startswith(":"))
    tbx.send(CTRL_C)
    tbx.send_until("G", "(END)")  # a key typed into the interrupt is lost
    tbx.send("q")
    assert tbx.wait_exit() == 0


def test_less_leaves_by_itself_when_the_page_fits(terminal):
    tbx = terminal("help", columns=43, rows=250)
    assert tbx.wait_exit() == 0
    assert "SEE ALSO" in tbx.frame()


def test_less_is_found_without_path(terminal):
    tbx = terminal("help", rows=PAGED_ROWS, env={"PATH": None})
    tbx.wait_for(lambda: tbx.rows()[-1].startswith(":"))
    tbx.send("q")
    assert tbx.wait_exit() == 0


@pytest.mark.parametrize("path", ["{own}", "/nonexistent:{own}", "::{own}:/nonexistent"])
def test_less_in_any_directory_of_path_is_started_with_its_options(terminal, tmp_path, path):
    less = tmp_path / "less"
    less.write_text('#!/bin/sh\necho "less $*"\nwhile read -r line; do :; done\n')
    less.chmod(0o755)
    tbx = terminal("help", rows=PAGED_ROWS, env={"PATH": path.format(own=tmp_path)})
    assert tbx.wait_exit() == 0
    assert tbx.raw == b"less -R -F -X\r\n"


@pytest.mark.parametrize("path", ["", ":", "/nonexistent", "{own}"])
def test_without_less_the_page_is_printed(terminal, expected, tmp_path, path):
    (tmp_path / "less").write_text("not a program")
    tbx = terminal("help", rows=PAGED_ROWS,
                   env={"PATH": path.format(own=tmp_path), "PAGER": ""})
    assert tbx.wait_exit() == 0
    assert tbx.raw == as_on_terminal(expected("manual-80-colour.txt"))


def test_without_less_and_with_no_color_the_page_is_printed_plain(terminal, expected):
    tbx = terminal("help", rows=PAGED_ROWS, env={"PATH": "/nonexistent", "NO_COLOR": ""})
    assert tbx.wait_exit() == 0
    assert tbx.raw == as_on_terminal(expected("manual-80.txt"))


def test_pager_may_have_arguments(terminal, expected):
    tbx = terminal("help", rows=PAGED_ROWS, env={"PAGER": "tail -n 1", "NO_COLOR": "1"})
    assert tbx.wait_exit() == 0
    assert tbx.raw == as_on_terminal(expected("manual-80.txt").splitlines()[-1] + "\n")


@pytest.mark.parametrize("pager", ["true", "false", "exec 0<&-", "kill -9 $$"])
def test_pager_that_quits_at_once_is_no_error(terminal, pager):
    tbx = terminal("help", rows=PAGED_ROWS, env={"PAGER": pager})
    assert tbx.wait_exit() == 0
    assert tbx.raw == b""


def test_pager_that_does_not_exist_leaves_the_page_printed(terminal, expected):
    tbx = terminal("help", rows=PAGED_ROWS, env={"PAGER": "/nonexistent/pager"})
    assert tbx.wait_exit() == 0
    assert tbx.raw.endswith(as_on_terminal(expected("manual-80-colour.txt")))


def test_pager_that_may_not_be_executed_leaves_the_page_printed(terminal, expected, tmp_path):
    (tmp_path / "pager").write_text("not a program")
    tbx = terminal("help", rows=PAGED_ROWS, env={"PAGER": str(tmp_path / "pager")})
    assert tbx.wait_exit() == 0
    assert tbx.raw.endswith(as_on_terminal(expected("manual-80-colour.txt")))


def test_pager_that_cannot_be_started_leaves_the_page_printed(terminal, binary, expected):
    # One descriptor more than the standard ones is enough for all but the pipe.
    tbx = terminal(argv=["sh", "-c", 'ulimit -Sn 4; exec "$0" help', binary], rows=PAGED_ROWS)
    assert tbx.wait_exit() == 0
    assert tbx.raw == as_on_terminal(expected("manual-80-colour.txt"))
