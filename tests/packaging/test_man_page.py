"""The manual page for man(1) says what the program's own guide says."""

import itertools
import os
import re
import subprocess

import pytest
from conftest import run
from prerequisites import need_programs


@pytest.fixture
def page(tree):
    return tree / "packaging" / "tbx.1"


def rendered(page, width=80, locale="C.UTF-8"):
    """The page as man(1) shows it, with what it warns about."""
    need_programs("man")
    result = subprocess.run(["man", "--warnings", "-P", "cat", "-l", page], capture_output=True,
                            text=True, check=True, encoding="utf-8", errors="replace",
                            env={**os.environ, "MANWIDTH": str(width), "LC_ALL": locale})
    return re.sub(".\b", "", result.stdout), result.stderr


def first_difference(words, others):
    """Where two lists of words part, or None; pytest would compare lists that long for minutes."""
    for at, pair in enumerate(itertools.zip_longest(words, others)):
        if pair[0] != pair[1]:
            return at, words[at:at + 5], others[at:at + 5]
    return None


def words(text):
    """The words of the page without its first and last line."""
    return " ".join(text.strip().split("\n")[1:-1]).split()


def test_it_is_written_anew_when_what_prints_it_has_changed(tree, page):
    whole = page.read_text()
    page.write_text("of an older guide")
    (tree / "tbx-man-page").touch()
    try:
        run("cmake", "--build", tree, "--target", "documentation")
        assert page.read_text() == whole
    finally:
        page.write_text(whole)


def test_it_has_the_words_of_the_guide(page, binary):
    guide = run(binary, "help", stdin=subprocess.DEVNULL, env={**os.environ, "TBX_TEST": "1"})
    # The name line has the form that whatis(1) looks for.
    guide = guide.replace("tbx — sends", "tbx - sends")
    assert first_difference(words(rendered(page)[0]), words(guide)) is None


@pytest.mark.parametrize("locale", ["C.UTF-8", "C"])
def test_man_warns_about_nothing(page, locale):
    assert rendered(page, locale=locale)[1] == ""


def test_mandoc_finds_nothing(page):
    need_programs("mandoc")
    assert run("mandoc", "-T", "lint", page) == ""


def test_mandoc_shows_the_same_words(page):
    need_programs("mandoc")
    shown = run("mandoc", "-T", "utf8", "-O", "width=78", page)
    assert first_difference(words(re.sub(".\b", "", shown)), words(rendered(page)[0])) is None


def test_whatis_finds_the_name_and_the_purpose(page):
    need_programs("lexgrog")
    assert run("lexgrog", page) == (
        f'{page}: "tbx - sends messages to the users of the machine and tracks their '
        'read confirmation"\n')


def test_options_can_be_copied_from_it(page):
    text = page.read_text(encoding="ascii")
    assert "\\-\\-expires" in text
    assert not re.search(r"(?<![\\\w])-", text.split("\n", 1)[1])
