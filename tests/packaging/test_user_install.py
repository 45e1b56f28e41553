"""What `cmake --install --component tellbox-user` puts in place."""

import os
import subprocess

import pytest

from conftest import install, run

@pytest.fixture(scope="module")
def place(tree, tmp_path_factory):
    """A folder that stands for the root of a machine on which only this part is installed."""
    destination = tmp_path_factory.mktemp("user")
    install(tree, destination, "tellbox-user")
    return destination


def test_tellbox_is_the_same_program_by_a_link(place):
    link = place / "usr/local/bin/tellbox"
    assert os.readlink(link) == "../lib/tellbox/tellbox-user"
    assert run(link, "version").startswith("Tellbox ")


@pytest.mark.parametrize("shell", ["sh", "dash", "bash", "zsh", "mksh"])
def test_the_profile_is_read_by_every_shell_without_a_word(place, shell):
    result = subprocess.run([shell, "-c", f". {place}/etc/profile.d/tellbox.sh; echo $?"],
                            capture_output=True, text=True, check=False)
    assert (result.stdout, result.stderr) == ("0\n", "")


def test_the_manual_page_has_no_mistake_and_names_every_command(place):
    page = place / "usr/local/share/man/man1/tellbox.1"
    lint = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page], capture_output=True,
                          text=True, check=False)
    assert lint.stdout == ""
    text = run("mandoc", "-T", "utf8", page)
    for command in ("list", "show ID", "read", "later", "hook SHELL", "version", "help"):
        assert command in text


@pytest.mark.parametrize("shell, file", [
    ("bash", "usr/local/share/bash-completion/completions/tellbox"),
    ("zsh", "usr/local/share/zsh/site-functions/_tellbox"),
    ("fish", "usr/share/fish/vendor_completions.d/tellbox.fish")])
def test_the_completions_are_read_and_name_every_command(place, shell, file):
    subprocess.run([shell, "-n", place / file], check=True, capture_output=True)
    text = (place / file).read_text(encoding="utf-8")
    for command in ("list", "show", "read", "later", "hook", "version", "help"):
        assert command in text
