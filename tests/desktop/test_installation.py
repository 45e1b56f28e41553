"""What the desktop's side puts where."""

import os
import subprocess

import pytest

from prerequisites import ROOT, program_under_test


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    """Installs a component; returns the folder that stands for the root of the machine."""
    def install(component):
        folder = tmp_path_factory.mktemp(component)
        subprocess.run(["cmake", "--install", str(program_under_test().parent), "--prefix",
                        "/usr/local", "--component", component],
                       env={**os.environ, "DESTDIR": str(folder)}, check=True,
                       capture_output=True, timeout=120)
        return folder
    return install


def test_the_agent_is_started_with_the_graphical_session_and_by_autostart(installed):
    root = installed("tellbox-user")
    units = root / "usr/local/lib/systemd/user"
    wanted = units / "graphical-session.target.wants/tellbox-agent.service"
    assert wanted.resolve() == units / "tellbox-agent.service"
    entry = root / "etc/xdg/autostart/tellbox-agent.desktop"
    assert entry.read_text() == (ROOT / "packaging/desktop/tellbox-agent.desktop").read_text()
    assert entry.stat().st_mode & 0o777 == 0o644


def test_the_window_is_a_package_of_its_own(installed, window_program):
    root = installed("tellbox-desktop")
    files = [str(path.relative_to(root)) for path in root.rglob("*") if path.is_file()]
    assert files == ["usr/local/lib/tellbox/tellbox-window"]


def test_nothing_of_it_is_installed_with_the_administrator_s_command(installed):
    root = installed("tellbox")
    names = {path.name for path in root.rglob("*")}
    assert "tbx" in names
    assert not {"tellbox-window", "tellbox-agent.service", "tellbox-agent.desktop"} & names
