"""The files in expected/: what the program showed when somebody looked at it and found it right.

With --update the tests marked `expects` run alone and write what they see into their files.
"""

import difflib
from pathlib import Path

import pytest

FOLDER = Path(__file__).resolve().parent / "expected"


def assert_same(shown, wanted, name):
    """Fails with the lines that differ, and no more."""
    if shown == wanted:
        return
    lines = difflib.unified_diff(wanted.splitlines(keepends=True), shown.splitlines(keepends=True),
                                 name, "shown")
    pytest.fail("\n" + "".join(line if line.endswith("\n") else line + "\n" for line in lines))


class ExpectedTexts:
    def __init__(self, updates):
        self.updates = updates

    def __call__(self, name):
        """The text of a file."""
        return (FOLDER / name).read_text(encoding="utf-8")

    def compare(self, name, shown):
        """Fails with the difference if `shown` is not the text of the file, or makes it so."""
        if self.updates:
            (FOLDER / name).write_text(shown, encoding="utf-8")
        assert_same(shown, self(name), f"expected/{name}")

    def compare_screen(self, terminal, name):
        """The same of the characters and styles of the whole screen, in two files.

        Waits until it shows them or stands still.
        """
        names = [f"{name}.txt", f"{name}-styles.txt"]

        def shown():
            return [terminal.frame(), terminal.styles()]

        terminal.wait_until_still(
            lambda: not self.updates and shown() == [self(one) for one in names])
        for one, text in zip(names, shown()):
            self.compare(one, text)
