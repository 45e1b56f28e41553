"""What the interface may write to a terminal: its own sequences, line ends, well-formed text."""

import re
import unicodedata

from harness.pseudo_terminal import FRAME_BEGINS, FRAME_ENDS, LEAVE_SCREEN, PASTE_OFF

ANCHORED = re.compile(r"\x1b\[([0-9]+)G((?:(?!\x1b\[[0-9]+G).)*)")
SEQUENCE = re.compile(r"\x1b\[(?:[0-9;]*m|K|\?7[hl])")
OWN_SEQUENCES = re.compile(rb"\x1b\[(?:[0-9;]*m|H|J|K|[0-9]+G|\?7[hl]|[0-9]+;[0-9]+H|\?25[hl]|\?1049[hl]|\?2004[hl])")
# Behind a torn frame wrapping is switched on before the screen is left.
TORN_SEQUENCE = re.compile(rb"\x1b(?:\[[0-9;?]*)?(?=(?:\x1b\[\?7h)?"
                           + re.escape(PASTE_OFF + LEAVE_SCREEN) + rb")")


def without_torn_frames(raw):
    """Asked to end in the middle of a frame, the interface writes no more of it."""
    before, *pieces = raw.split(FRAME_BEGINS)
    kept = [piece if FRAME_ENDS in piece else b"".join(piece.partition(PASTE_OFF + LEAVE_SCREEN)[1:])
            for piece in pieces]
    return TORN_SEQUENCE.sub(b"", before + b"".join(kept))


def assert_harmless(raw):
    """Nothing but text reached the terminal, without a control of one byte or of two."""
    text = OWN_SEQUENCES.sub(b"", without_torn_frames(raw)).replace(b"\r\n", b"\n")
    for character in text.decode().replace("\n", ""):  # fails on what is not well-formed
        assert unicodedata.category(character) != "Cc", f"{character!r} reached the terminal"


def columns_of(row):
    """Where the cursor stands behind a row. What is not narrow in it stands before a sequence that
    sets the column."""
    *_, (column, rest) = [("1", row), *ANCHORED.findall(row)]
    return int(column) - 1 + len(SEQUENCE.sub("", rest))


def assert_whole_frames(raw, sizes):
    """Every frame is as large as the terminal was at one time: one of the `sizes`."""
    for piece in raw.split(FRAME_BEGINS)[1:]:
        frame, ends, _ = piece.partition(FRAME_ENDS)
        if not ends:
            continue  # a torn one
        rows = [row.decode() for row in frame.split(b"\r\n")]
        columns = {columns_of(row) for row in rows}
        assert len(columns) == 1, f"rows of different widths: {columns}"
        size = (columns.pop(), len(rows))
        assert size in sizes or frame == b"", f"a frame of {size} on a terminal of {sizes}"
