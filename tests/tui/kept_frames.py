"""Whole frames with their styles, and how those that are kept become others.

expected/screens has a frame of each page and dialog, looked at and found right. On a terminal of
another size each row has more or less of what fills it; other contents stand in its blanks. Style
letters are those of harness.pseudo_terminal.STYLE_LETTERS.
"""

import re
from dataclasses import dataclass, replace
from functools import cache
from pathlib import Path

SCREENS = Path(__file__).resolve().parent / "expected" / "screens"
CLOCK = "12:00:00"  # in place of the time of day in every frame
UPDATED = f"updated at {CLOCK}"

# Terminals that frames are compared on: the smallest, the usual, both sides of the list's change
# to wide rows, and large ones.
SIZES = [(80, 20), (80, 24), (109, 24), (110, 24), (120, 40), (200, 60)]

FRAME_ROWS = 4  # of a page, beside its body
RUNS = re.compile(" +|─+")


class Text:
    """Characters, each with the letter of its style."""

    def __init__(self, characters="", letters="."):
        self.characters = characters
        self.letters = letters * len(characters) if len(letters) == 1 else letters

    def __add__(self, other):
        other = as_text(other)
        return Text(self.characters + other.characters, self.letters + other.letters)

    def __radd__(self, other):
        return as_text(other) + self

    def __len__(self):
        return len(self.characters)

    def __getitem__(self, part):
        return Text(self.characters[part], self.letters[part] or ".")


def as_text(text):
    return text if isinstance(text, Text) else Text(text)


def style(letter):
    return lambda text: Text(text, letter)


SELECTION, GREEN, YELLOW, RED, GREY = style("R"), style("g"), style("y"), style("e"), style("x")
BOLD = style("B")
CURSOR_MARK = Text(" ", "r")


def joined(separator, texts):
    result = Text()
    for place, text in enumerate(texts):
        result = result + (separator if place else "") + text
    return result


def fit(text, width):
    """Cut or padded to exactly `width` columns."""
    return as_text(text)[:width] + " " * (width - len(text))


@dataclass(frozen=True)
class Frame:
    """A whole screen, as Terminal.frame(), Terminal.styles() and Terminal.cursor() tell it."""

    text: str
    styles: str
    cursor: tuple = None

    @classmethod
    def of(cls, rows, cursor=None):
        return cls("".join(row.characters + "\n" for row in rows),
                   "".join(row.letters + "\n" for row in rows), cursor)

    def rows(self):
        return [Text(*row) for row in zip(self.text.split("\n")[:-1], self.styles.split("\n"))]

    def without_colour(self):
        """The same if NO_COLOR is set: the cursor of a prompt is an underscore."""
        plain = [("_" if letter == "r" else char) for char, letter in zip(self.text, self.styles)]
        letters = ["\n" if letter == "\n" else "." for letter in self.styles]
        return replace(self, text="".join(plain), styles="".join(letters))


# ---- What is kept, on terminals of other sizes --------------------------------------------


@cache
def kept(name):
    """The rows of a kept screen."""
    text, styles = ((SCREENS / f"{name}{kind}.txt").read_text(encoding="utf-8")
                    for kind in ("", "-styles"))
    return Frame(text, styles).rows()


def filling(row):
    """Where the longest run of blanks or of a line stands, the last of several."""
    runs = RUNS.finditer(row.characters)
    return max(runs, key=lambda run: (run.end() - run.start(), run.start())).span()


def stretched(row, width):
    """The row in another width: with more or less of its filling.

    If that is not enough, it is cut before its right border.
    """
    inside = row[2:-2]
    start, end = filling(inside)
    columns = max(end - start + width - len(row), 0)
    run = Text(inside.characters[start] * columns, inside.letters[start])
    inside = inside[:start] + run + inside[end:]
    return row[:2] + inside[:width - 4] + row[-2:]


def put(row, start, text, end=-2):
    """The row with the text in the columns from `start` to `end`, and blanks behind it."""
    end = end if end > 0 else len(row) + end
    return row[:start] + fit(text, end - start) + row[end:]


def row_with(rows, text):
    """The index of the first row with this text."""
    return next(index for index, row in enumerate(rows) if text in row.characters)
