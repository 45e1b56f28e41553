"""What `cmake --install --component tellbox-user` puts in place."""

import os
import subprocess

import pytest

from conftest import run

FILES = {
    "etc/profile.d/tellbox.sh": 0o644,
    "etc/xdg/autostart/tellbox-agent.desktop": 0o644,
    "usr/local/lib/systemd/user/tellbox-agent.service": 0o644,
    "usr/local/lib/tellbox/tellbox-user": 0o755,
    "usr/local/share/bash-completion/completions/tellbox": 0o644,
    "usr/local/share/man/man1/tellbox.1": 0o644,
    "usr/local/share/zsh/site-functions/_tellbox": 0o644,
    "usr/share/fish/vendor_completions.d/tellbox.fish": 0o644,
    "usr/share/fish/vendor_conf.d/tellbox.fish": 0o644,
}


@pytest.fixture(scope="module")
def place(tree, tmp_path_factory):
    """A folder that stands for the root of a machine on which only this part is installed."""
    destination = tmp_path_factory.mktemp("user")
    run("cmake", "--install", tree, "--prefix", "/usr/local", "--component", "tellbox-user",
        env={**os.environ, "DESTDIR": str(destination)})
    return destination


def test_every_file_is_in_its_place_and_no_other(place):
    found = {str(path.relative_to(place)): path.stat().st_mode & 0o777
             for path in place.rglob("*") if path.is_file() and not path.is_symlink()}
    assert found == FILES


def test_tellbox_is_the_same_program_by_a_link(place):
    link = place / "usr/local/bin/tellbox"
    assert os.readlink(link) == "../lib/tellbox/tellbox-user"
    assert run(link, "version").startswith("Tellbox ")


def test_everything_else_is_installed_without_it(tree, tmp_path):
    run("cmake", "--install", tree, "--prefix", "/usr/local",
        env={**os.environ, "DESTDIR": str(tmp_path)})
    assert not [path for path in tmp_path.rglob("*tellbox-user*")]


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
