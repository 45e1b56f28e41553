"""The demonstration plays both sides."""

import subprocess

from conftest import REPOSITORY
from prerequisites import RELEASE_BUILD, need_programs, skip


def test_the_demonstration_ends_with_a_confirmation_on_each_side(binary):
    if binary != RELEASE_BUILD.resolve():
        skip("it builds and plays build/release")
    need_programs("Xvfb", "xdotool", "script")
    result = subprocess.run([REPOSITORY / "tools" / "demo"], stdin=subprocess.DEVNULL,
                            capture_output=True, text=True, check=False)
    assert (result.returncode, result.stderr) == (0, "")
    assert "Answer with: tellbox   or: tellbox read 1" in result.stdout
    assert result.stdout.count("(terminal)\n") == result.stdout.count("(desktop)\n") == 1
    assert result.stdout.endswith("$ tbx list\nNo messages sent.\n")
