"""Everything is installed where the guide says, and can be taken away again."""

import os
import re
import stat
import subprocess

import pytest
from conftest import REPOSITORY, install, manifests, run
from prerequisites import need_root

# Every file of each part, with its mode; None for a link.
PARTS = {
    "tellbox": {
        "/etc/tellbox/tellbox.conf": 0o644,
        "/usr/local/bin/tbx": 0o755,
        "/usr/local/share/bash-completion/completions/tbx": 0o644,
        "/usr/local/share/doc/tellbox/User Manual.html": 0o644,
        "/usr/local/share/fish/vendor_completions.d/tbx.fish": 0o644,
        "/usr/local/share/man/man1/tbx.1": 0o644,
        "/usr/local/share/zsh/site-functions/_tbx": 0o644,
        "/usr/share/fish/vendor_completions.d/tbx.fish": None,
    },
    "tellbox-user": {
        "/etc/profile.d/tellbox.sh": 0o644,
        "/etc/xdg/autostart/tellbox-agent.desktop": 0o644,
        "/usr/local/bin/tellbox": None,
        "/usr/local/lib/systemd/user/graphical-session.target.wants/tellbox-agent.service": None,
        "/usr/local/lib/systemd/user/tellbox-agent.service": 0o644,
        "/usr/local/lib/tellbox/tellbox-user": 0o755,
        "/usr/local/share/bash-completion/completions/tellbox": 0o644,
        "/usr/local/share/locale/es/LC_MESSAGES/tellbox-user.mo": 0o644,
        "/usr/local/share/man/es/man1/tellbox.1": 0o644,
        "/usr/local/share/man/man1/tellbox.1": 0o644,
        "/usr/local/share/zsh/site-functions/_tellbox": 0o644,
        "/usr/share/fish/vendor_completions.d/tellbox.fish": 0o644,
        "/usr/share/fish/vendor_conf.d/tellbox.fish": 0o644,
    },
    "tellbox-desktop": {
        "/usr/local/lib/tellbox/tellbox-window": 0o755,
    },
}
FILES = {path: mode for files in PARTS.values() for path, mode in files.items()}
FISH_LINK = "/usr/share/fish/vendor_completions.d/tbx.fish"


@pytest.fixture
def place(tree, tmp_path):
    """A folder of the test's own that everything has been installed below."""
    install(tree, tmp_path)
    return tmp_path


@pytest.fixture
def no_manifests(tree):
    """For a build folder from which nothing has been installed yet."""
    for path in manifests(tree):
        path.unlink()


def uninstall(tree, destination):
    return run("cmake", "--build", tree, "--target", "uninstall",
               env={**os.environ, "DESTDIR": str(destination)})


def below(folder):
    """Everything below a folder but folders: path to permission bits, None for a link."""
    found = {}
    for path in folder.rglob("*"):
        if path.is_symlink():
            found[f"/{path.relative_to(folder)}"] = None
        elif not path.is_dir():
            found[f"/{path.relative_to(folder)}"] = stat.S_IMODE(path.stat().st_mode)
    return found


def test_every_file_is_in_its_place_with_its_mode(installed):
    assert below(installed) == FILES


@pytest.mark.parametrize("part", PARTS)
def test_a_part_is_installed_alone(tree, tmp_path, part):
    install(tree, tmp_path, part)
    assert below(tmp_path) == PARTS[part]


def test_the_folder_of_the_users_program_is_there_without_it(tree, tmp_path):
    install(tree, tmp_path, "tellbox")
    assert list((tmp_path / "usr/local/lib/tellbox").iterdir()) == []


def test_what_the_guide_names_is_there(installed, binary):
    guide = subprocess.run([binary, "help"], stdin=subprocess.DEVNULL, capture_output=True,
                           text=True, check=True, env={"TBX_TEST": "1"}).stdout
    named = set(re.findall(r"^       (/(?:etc|usr)/.*)$", guide, re.MULTILINE))
    assert named == {"/etc/tellbox/tellbox.conf", "/usr/local/share/doc/tellbox/User Manual.html"}
    assert all((installed / name.lstrip("/")).is_file() for name in named)


def test_the_link_for_fish_leads_to_the_completions(installed):
    assert (installed / FISH_LINK.lstrip("/")).resolve() == (
        installed / "usr/local/share/fish/vendor_completions.d/tbx.fish")


def test_a_mask_of_the_installer_changes_no_mode(tree, tmp_path):
    install(tree, tmp_path, umask=0o077)
    assert below(tmp_path) == FILES
    folders = [path for path in tmp_path.rglob("*") if path.is_dir() and not path.is_symlink()]
    assert {stat.S_IMODE(path.stat().st_mode) for path in folders} == {0o755}


def test_a_configuration_that_is_there_is_kept(tree, place):
    configuration = place / "etc/tellbox/tellbox.conf"
    configuration.write_text("TBX_REMIND_MINUTES = 5\n")
    install(tree, place)
    assert configuration.read_text() == "TBX_REMIND_MINUTES = 5\n"


def test_the_configuration_sets_nothing_and_names_every_setting(installed):
    lines = (installed / "etc/tellbox/tellbox.conf").read_text().splitlines()
    assert all(line == "" or line.startswith("#") for line in lines)
    settings = dict(re.fullmatch(r"#(\w+) = (\d+)", line).groups()
                    for line in lines if " = " in line and '"' not in line)
    source = (REPOSITORY / "src/common/environment.h").read_text()
    source += (REPOSITORY / "src/common/environment.cpp").read_text()
    known = set(re.findall(r'"(TBX_\w+)"', source)) - {"TBX_TEST", "TBX_VAR", "TBX_LIB", "TBX_CONF"}
    assert set(settings) == known


def test_another_prefix_holds_everything(tree, tmp_path):
    prefix = tmp_path / "prefix"
    install(tree, "", prefix=prefix)
    assert below(prefix) == {path.removeprefix("/usr/local"): mode
                             for path, mode in FILES.items() if path != FISH_LINK}


def test_uninstalling_leaves_nothing(tree, place):
    uninstall(tree, place)
    assert below(place) == {}
    assert not (place / "usr/local/lib/tellbox").exists()
    assert not (place / "usr/local/lib/systemd/user/graphical-session.target.wants").exists()
    assert not (place / "usr/local/share/doc/tellbox").exists()
    assert not (place / "etc/tellbox").exists()


def test_uninstalling_keeps_a_configuration_that_was_changed(tree, place):
    (place / "etc/tellbox/tellbox.conf").write_text("TBX_AGENT_POLL = 5\n")
    said = uninstall(tree, place)
    assert list(below(place)) == ["/etc/tellbox/tellbox.conf"]
    assert f"Kept, since it was changed: {place}/etc/tellbox/tellbox.conf" in said


def test_uninstalling_takes_parts_that_were_installed_one_by_one(tree, tmp_path, no_manifests):
    install(tree, tmp_path, "tellbox-user", "tellbox-desktop")
    uninstall(tree, tmp_path)
    assert below(tmp_path) == {}


def test_uninstalling_where_nothing_was_installed_says_so(tree, tmp_path, no_manifests):
    result = subprocess.run(["cmake", "--build", tree, "--target", "uninstall"], text=True,
                            capture_output=True, check=False,
                            env={**os.environ, "DESTDIR": str(tmp_path)})
    assert result.returncode != 0
    assert "Nothing has been installed from here" in result.stdout + result.stderr


def test_uninstalling_keeps_a_program_of_another_origin_and_the_messages(tree, place):
    for path in ("usr/local/lib/tellbox/somebody-else", "var/lib/tellbox/sent/.seq"):
        (place / path).parent.mkdir(parents=True, exist_ok=True)
        (place / path).touch()
    said = uninstall(tree, place)
    assert set(below(place)) == {"/usr/local/lib/tellbox/somebody-else",
                                 "/var/lib/tellbox/sent/.seq"}
    assert f"Kept, with all messages: {place}/var/lib/tellbox" in said


def test_uninstalling_twice_does_no_harm(tree, place):
    uninstall(tree, place)
    uninstall(tree, place)
    assert below(place) == {}


UNINSTALL_ALONE = """mount -t tmpfs tmpfs /usr/local
mkdir -p /usr/local/lib/tellbox
printf '#!/bin/sh\\necho "$@" >>%s/called\\n' "$1" >/usr/local/lib/tellbox/tellbox-user
chmod +x /usr/local/lib/tellbox/tellbox-user
echo /usr/local/lib/tellbox/tellbox-user >"$1/install_manifest_tellbox-user.txt"
cmake -D TREE="$1" -D TELLBOX_CONFIGURATION=/dev/null -P "$2"
test ! -e /usr/local/lib/tellbox
"""


def test_uninstalling_takes_the_hook_out_of_the_shells(tmp_path):
    need_root("a /usr/local of the test's own")
    run("unshare", "--mount", "--propagation", "private", "sh", "-ec", UNINSTALL_ALONE, "sh", tmp_path,
        REPOSITORY / "packaging" / "uninstall.cmake")
    assert (tmp_path / "called").read_text() == "shells off\n"
