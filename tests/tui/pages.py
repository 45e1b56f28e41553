"""What the pages and dialogs of the interface have to show, made from the frames that are kept."""

from dataclasses import dataclass
from textwrap import wrap

from kept_frames import (
    BOLD, CURSOR_MARK, FRAME_ROWS, GREEN, GREY, RED, SELECTION, YELLOW, Frame, Text, as_text,
    filling, joined, kept, put, row_with, stretched, style)

# ---- Dialogs ------------------------------------------------------------------------------

ANY_KEY = "any key to continue"
LEAST_WIDTH = 60
BOX_COLUMNS = 6  # of a box, beside its lines


@dataclass(frozen=True)
class Box:
    """A dialog over a page.

    screen  the kept screen with a dialog of this kind: its borders, its button and its footer
    body    its lines, by default those that are kept
    """

    title: str
    body: list
    screen: str

    def _kept(self):
        """The rows of the kept box: border, blank, body, blank, button, border."""
        rows = kept(self.screen)
        first = next(index for index, row in enumerate(rows) if "┌─" in row.characters[1:])
        left = rows[first].characters.index("┌", 1)
        right = rows[first].characters.rindex("┐", left, -1) + 1
        last = next(index for index, row in enumerate(rows)
                    if row.characters[left] == "└" and index > first)
        return [row[left:right] for row in rows[first:last + 1]]

    def _rows(self, widest):
        """The rows of the box, which is as wide as its longest line needs."""
        box = self._kept()
        body = [row[3:-3] for row in box[2:-3]]
        if self.body is not None:
            body = self.body
            longest = max(len(line) for line in body) + BOX_COLUMNS
            width = min(max(longest, LEAST_WIDTH), widest)
        else:
            width = min(len(box[0]), widest)
        blank = stretched(box[1], width)
        button = put(blank, 3, box[-2][3:-3], -3)
        title = BOLD(f" {self.title[:width - 5]} ")
        border = stretched(box[-1], width)
        top = box[0][:2] + title + border[2 + len(title):-1] + box[0][-1:]
        return [top, blank, *(put(blank, 3, line, -3) for line in body), blank, button, border]

    def over(self, frame):
        """The frame with the box in its middle."""
        rows = frame.rows()
        columns, room = len(rows[0]), len(rows) - FRAME_ROWS
        box = self._rows(columns - 8)
        first = 1 + max((room - len(box)) // 2, 1)
        margin = 2 + (columns - 4 - len(box[0])) // 2
        for index, line in list(enumerate(box, start=first))[:room + 1 - first]:
            rows[index] = put(put(rows[index], 2, ""), margin, line)
        rows[-2] = stretched(kept(self.screen)[-2], columns)
        return Frame.of(rows)


def confirmation(title, *body):
    return Box(title, list(body), "purge-question")


def message_box(title, *body):
    return Box(title, list(body), "purge-result")


def working_box(title):
    return Box(title, ["Working …"], "working")


def prompt(title, question, value):
    return Box(title, [question, "", "[ " + Text(value) + CURSOR_MARK + " ]"], "purge")


KEYS_BOX = Box("Keys", None, "keys")


def search_box(value=""):
    return prompt("Search", "Show only the messages containing:", value)


def purge_box(value="90d"):
    return prompt("Delete old messages",
                  "Delete the messages sent more than (for example 90d, 12h):", value)


def purge_confirmation(age="90d"):
    return confirmation("Delete old messages?",
                        f"Messages older than {age}, with copies and confirmations.",
                        "The events stay in the system log.")


def remind_confirmation(message):
    count = message.counts[1]
    return confirmation(f"Remind message {message.id}?",
                        "1 recipient has not confirmed yet." if count == 1 else
                        f"{count} recipients have not confirmed yet.", "",
                        "They are asked again now: at the next prompt",
                        "and with the dialog on the desktop.")


def revoke_confirmation(message):
    return confirmation(f"Revoke message {message.id}?",
                        f"«{message.title or 'no title'}» · {summary(message).characters}", "",
                        "Whoever has not seen it yet will not see it;",
                        "open dialogs and questions close by themselves.")


def summary(message):
    """How far the message got, in words."""
    confirmed, delivered, sent = message.counts
    if not delivered and not sent:
        return GREEN(f"all confirmed ({confirmed})")
    counts = [(GREEN, confirmed, "confirmed"), (YELLOW, delivered, "delivered"),
              (RED, sent, "sent")]
    return joined(" · ", [colour(f"{count} {word}") for colour, count, word in counts if count])


CELLS = {"█": GREEN, "▒": YELLOW, "░": RED}


def bar(message):
    return joined("", [CELLS[cell](cell) for cell in message.bar])


def retitled(row, title):
    """The upper border with another title, which is cut before what stands on the right."""
    end = row.characters.index(" ─", 3)
    right = len(row) - row.characters.index(" updated at")
    longest = len(row) - right - 4
    return stretched(row[:3] + Text(title[:longest], row.letters[3]) + row[end:], len(row))


def with_box(frame, box, colour):
    frame = box.over(frame) if box else frame
    return frame if colour else frame.without_colour()


# ---- The list -----------------------------------------------------------------------------

WIDE = 110  # columns, from which on the recipients are spelled out


@dataclass(frozen=True)
class ListPage:
    """The list of messages.

    messages  those of the store, in any order
    selected  index of the selected row; top: of the first one shown
    search    the active filter, which `messages` have passed already
    """

    size: tuple
    messages: tuple = ()
    selected: int = 0
    top: int = 0
    search: str = ""
    colour: bool = True

    def frame(self, box=None):
        screen = kept("list-wide" if self.size[0] >= WIDE else "list")
        header = widened(screen[1], screen[1].characters.index("RECIPIENTS"),
                         self.size[0] - len(screen[1]))
        blank = put(header, 2, "")
        body = [header] + ([] if self.messages else [self._nothing()])
        messages = sorted(self.messages, key=lambda message: -message.id)
        for index, message in list(enumerate(messages))[self.top:]:
            row = self._row(blank, header.characters.index("RECIPIENTS"), message,
                            ">" if index == self.selected else " ")
            body.append(selected(row) if index == self.selected else row)
        room = self.size[1] - FRAME_ROWS
        body = [*(body + [blank] * room)[:room - 2], blank, self._legend()]
        title, line, _, end = (stretched(screen[index], self.size[0]) for index in (0, -3, -2, -1))
        footer = stretched(kept("list-wide")[-2], self.size[0])  # all of it
        return with_box(Frame.of([title, *body, line, footer, end]), box, self.colour)

    def _nothing(self):
        row = kept("list-nothing-found")[2]
        if not self.search:
            row = put(row, row.characters.index("No message"), GREY("No messages sent."))
        return stretched(row, self.size[0])

    def _row(self, blank, recipients, message, mark):
        """The row of a message. An identifier of more than three digits moves what follows it.

        recipients  the column of the bar
        """
        marks = [GREY(f"[{word}] ") for word, on in
                 [("revoked", message.is_revoked), ("expired", message.is_expired)] if on]
        title = BOLD(message.title) + " · " if message.title else ""
        text = joined("", [f"{mark}{message.id:>3}  {message.short_date:<11}  ", *marks, title,
                           message.text.split("\n")[0]])
        moved = len(str(max(message.id, 100))) - 3
        recipients += moved if self.size[0] >= WIDE else min(moved, 1)
        said = summary(message) if self.size[0] >= WIDE else message.share
        return put(put(blank, 2, text, recipients - 2), recipients, bar(message) + "  " + said)

    def _legend(self):
        row = stretched(kept("list-search" if self.search else "list")[-4], self.size[0])
        if self.search:
            said = GREY(f"search: «{self.search}» (Esc to clear)")
            row = put(row, row.characters.index("search:"), said)
        return row


def widened(row, column, columns):
    """The row with more or fewer columns before this one."""
    blanks = Text(" " * columns, row.letters[column - 1])
    return row[:column + min(columns, 0)] + blanks + row[column:]


def selected(row):
    return put(row, 2, SELECTION(row[2:-2].characters))


# ---- One message --------------------------------------------------------------------------

TEXT_LINES = 6
NAME, NAME_END = 3, 16  # columns


@dataclass(frozen=True)
class DetailPage:
    """One message.

    history  the lines of its tab, or None on the Recipients tab
    lines    those of the text as they are shown, by default as textwrap makes them
    """

    size: tuple
    message: object
    history: list = None
    scroll: int = 0
    lines: list = None
    colour: bool = True

    def frame(self, box=None):
        message = self.message
        screen = kept("message" if self.history is None else "message-history")
        rows = [stretched(row, self.size[0]) for row in screen]
        title = f"Message {message.id}" + (f" · {message.title}" if message.title else "")
        rows[0] = retitled(rows[0], title)
        tabs = row_with(screen, " History ")
        line, blank = rows[row_with(rows, "│  │ ")], rows[tabs - 1]
        body = [put(blank, 3, self._facts()), *(put(line, 5, text) for text in self._text()), blank,
                self._tabs(screen[tabs], blank), blank]
        if self.history is None:
            body.append(rows[row_with(rows, " USER ")])
            column = screen[row_with(screen, "  alex ")].characters.index("confirmed")
            body += [put(put(blank, NAME, user, NAME_END), column, state)
                     for user, state in self._states()[self.scroll:]]
        elif self.history:
            body += [put(blank, 3, event) for event in self.history[self.scroll:]]
        else:
            body.append(put(blank, 3, GREY("No events in the system log.")))
        room = self.size[1] - FRAME_ROWS
        body = (body + [blank] * room)[:room]
        return with_box(Frame.of([rows[0], *body, *rows[-3:]]), box, self.colour)

    def _facts(self):
        message = self.message
        line = (BOLD(message.title or "no title") + f" · {message.short_date} · "
                + f"from {message.author}")
        if message.expires:
            verb = "expired" if message.is_expired else "expires"
            line = line + f" · {verb} on {message.short_expiry}"
        if message.is_revoked:
            line = line + " · " + RED(f"revoked on {message.short_revocation}")
        return line

    def _text(self):
        if self.lines is not None:
            return self.lines
        width = self.size[0] - 8
        paragraphs = self.message.text.removesuffix("\n").split("\n") if self.message.text else []
        lines = [line for paragraph in paragraphs
                 for line in wrap(paragraph, width, break_on_hyphens=False) or [""]]
        return lines if len(lines) <= TEXT_LINES else [*lines[:TEXT_LINES - 1], "…"]

    def _tabs(self, row, blank):
        """The kept row, with the recipients of this message."""
        number, cells = row.characters.index("6"), row.characters.index("█")
        count = Text(str(len(self.message.recipients)), row.letters[number])
        left = row[:number] + count + row[number + 1:cells]
        return put(blank, 2, left[2:] + bar(self.message) + "  " + summary(self.message))

    def _states(self):
        colours = {"confirmed": GREEN, "delivered": YELLOW, "sent": RED}
        return [(user, colours[state](text)) for user, state, text in self.message.recipients]


# ---- The form -----------------------------------------------------------------------------

FIELDS = ["To", "Title", "Expires"]
LABEL, LABEL_END = 3, 13  # columns


@dataclass(frozen=True)
class FormPage:
    """The form for a new message.

    at      the cursor in the focused field: characters before it (None: at the end), or in
            the text (line, characters before it)
    scroll  columns of the focused field, or line, that stand left of their place
    top     first line of the text that is shown, by default as few lines down as show its end
    hidden  rows that make room above the one with the cursor on a low terminal
    notice  what stands beside the size of the text, in red
    preview what stands below To in place of its hint: an error in red, or a count in grey
    """

    size: tuple
    to: str = ""
    title: str = ""
    expires: str = ""
    text: str = ""
    focus: str = "To"
    at: object = None
    scroll: int = 0
    top: int = None
    hidden: int = 0
    preview: object = None
    notice: str = ""
    colour: bool = True

    def frame(self, box=None):
        rows = [stretched(row, self.size[0]) for row in kept("form")]
        first, end = row_with(rows, "  Text ") + 1, row_with(rows, " └")
        rows[first:end] = [rows[first]] * max(end - first + self.size[1] - len(rows), 1)
        self._mark_label(rows)
        cursor = self._write_fields(rows) or (None, None)
        cursor = self._write_text(rows, first) or cursor
        self._write_below(rows)
        body = rows[1:-3][self.hidden:][:self.size[1] - FRAME_ROWS]
        return with_box(Frame.of([rows[0], *body, *rows[-3:]],
                                 (cursor[0] - self.hidden, cursor[1])), box, self.colour)

    def _mark_label(self, rows):
        """The kept form has its cursor in To."""
        for name, letters in (("To", style(".")), (self.focus, BOLD)):
            row = row_with(rows, f"  {name} ")
            label = rows[row][LABEL:LABEL_END].characters
            rows[row] = put(rows[row], LABEL, letters(label), LABEL_END)

    def _write_fields(self, rows):
        """Returns row and column of the cursor, if it is in one of the fields."""
        cursor = None
        for name in FIELDS:
            row, value = row_with(rows, f"  {name} "), getattr(self, name.lower())
            if name == self.focus:
                at = len(value) if self.at is None else self.at
                cursor = row, field(rows[row])[0] + at - self.scroll
                value = value[self.scroll:]
            rows[row] = put(rows[row], field(rows[row])[0], value, field(rows[row])[1])
        return cursor

    def _write_text(self, rows, first):
        """Returns row and column of the cursor, if it is in the text."""
        start, end = field(rows[first])
        room = row_with(rows, " └") - first
        lines = self.text.split("\n")
        line, at = self.at if self.focus == "Text" and self.at else (len(lines) - 1, len(lines[-1]))
        top = max(len(lines) - room, 0) if self.top is None else self.top
        if self.focus == "Text":
            lines[line] = lines[line][self.scroll:]
        for row, shown in enumerate(lines[top:top + room], start=first):
            rows[row] = put(rows[row], start, shown, end)
        return (first + line - top, start + at - self.scroll) if self.focus == "Text" else None

    def _write_below(self, rows):
        """What stands below To and below the text, if it is not as it was."""
        if self.preview:
            row = row_with(rows, "user, @group")
            preview = GREY(self.preview) if isinstance(self.preview, str) else self.preview
            rows[row] = put(rows[row], rows[row].characters.index("user"), preview)
        row, size = row_with(rows, "0 of 65536 bytes"), len(self.text.encode())
        said = (RED if size > 65536 else GREY)(f"{size} of 65536 bytes")
        said = said + " · " + RED(self.notice) if self.notice else said
        rows[row] = put(rows[row], rows[row].characters.index("0 of"), said)

    def discard(self):
        return confirmation("Discard the message?", "The message you are writing will be lost.")

    def review(self, recipients):
        """The question before sending; `recipients` is the preview."""
        body = ["To: " + Text(self.to) + " (" + as_text(recipients) + ")"]
        body += [f"Title: {self.title}"] if self.title else []
        body += [f"Expires: {self.expires}"] if self.expires else []
        return confirmation("Send the message?", *body, f"Text: {len(self.text.encode())} bytes")


def field(row):
    """The columns of an empty field: the blanks inside its brackets or borders."""
    start, end = filling(row)
    return start + 1, end - 1
