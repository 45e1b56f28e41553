"""What the interface has to show, worked out from its rules.

A `Text` is characters with a style each; pages and dialogs are lists of them; `page()` makes a
whole `Frame` of one. Style letters are those of harness.pseudo_terminal.STYLE_LETTERS.

    frame = page((80, 24), "Keys", [KEY("q") + " quit"], footer="")
    frame.text, frame.styles, frame.cursor
"""

from dataclasses import dataclass, replace

CLOCK = "12:00:00"  # in place of the time of day in every frame
UPDATED = f"updated at {CLOCK}"

# Terminals that frames are compared on: the smallest, the usual, both sides of the list's change
# to wide rows, and large ones.
SIZES = [(80, 20), (80, 24), (109, 24), (110, 24), (120, 40), (200, 60)]

FRAME_ROWS = 4  # of a page, beside its body
SIDE_COLUMNS = 4


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
DIM, BOLD, KEY, HEADING, TITLE = style("d"), style("B"), style("G"), style("Y"), style("C")
CURSOR_MARK = Text(" ", "r")


def joined(separator, texts):
    result = Text()
    for place, text in enumerate(texts):
        result = result + (separator if place else "") + text
    return result


def fit(text, width):
    """Cut or padded to exactly `width` columns."""
    return as_text(text)[:width] + " " * (width - len(text))


def hints(*pairs):
    """A footer: names of keys, and what they do."""
    return joined("   ", [KEY(name) + f" {label}" for name, label in pairs])


# ---- Frames -------------------------------------------------------------------------------


@dataclass(frozen=True)
class Frame:
    """A whole screen, as Terminal.frame(), Terminal.styles() and Terminal.cursor() tell it."""

    text: str
    styles: str
    cursor: tuple = None

    def without_colour(self):
        """The same where NO_COLOR is set: the cursor of a prompt is an underscore."""
        plain = [("_" if letter == "r" else char) for char, letter in zip(self.text, self.styles)]
        letters = ["\n" if letter == "\n" else "." for letter in self.styles]
        return replace(self, text="".join(plain), styles="".join(letters))


def page(size, title, body, footer, status="", cursor=None):
    """A page's frame.

    size    (columns, rows) of the terminal
    cursor  (line of the body, column in it), from 0, or None while it is hidden
    """
    columns, rows = size
    inner = columns - SIDE_COLUMNS
    right = GREY(f" {status} ─" if status else "")
    left = TITLE(f"─ {title[:columns - 2 - len(right) - 3]} ")
    fill = DIM("─" * (columns - 2 - len(left) - len(right)))
    lines = [DIM("┌") + left + fill + right + GREY("┐")]
    body = list(body)[:rows - FRAME_ROWS]
    body += [""] * (rows - FRAME_ROWS - len(body))
    lines += [framed(line, inner) for line in body]
    lines += [DIM("├" + "─" * (columns - 2) + "┤"), framed(footer, inner),
              DIM("└" + "─" * (columns - 2) + "┘")]
    place = (cursor[0] + 1, cursor[1] + 2) if cursor else None
    return Frame("".join(line.characters + "\n" for line in lines),
                 "".join(line.letters + "\n" for line in lines), place)


def framed(line, width):
    return DIM("│") + " " + fit(line, width) + " " + DIM("│")


# ---- Dialogs ------------------------------------------------------------------------------

ANY_KEY = "any key to continue"
CONFIRM_BUTTONS = SELECTION(" y  Confirm ") + "     " + DIM(" n  Cancel ")
CONFIRM_FOOTER = KEY("y") + " confirm   " + KEY("n") + " or " + KEY("Esc") + " cancel"
PROMPT_FOOTER = hints(("Enter", "confirm"), ("Esc", "cancel"))


@dataclass(frozen=True)
class Box:
    """A dialog over a page."""

    title: str
    body: list
    button: object
    footer: object

    def over(self, size, lines):
        """The lines of the page with the box over them."""
        columns, rows = size
        width = max([60] + [len(line) + 6 for line in self.body])
        if columns - 7 <= width:
            margin, width = 2, columns - 8
        else:
            margin = (columns - 4 - width) // 2
        free = (rows - FRAME_ROWS) - (len(self.body) + 5)
        first = free // 2 if free >= 2 else 1

        title = self.title[:width - 5]
        painted = [BOLD(f"┌─ {title} " + "─" * (width - 5 - len(title)) + "┐")]
        for line in ["", *self.body, "", self.button]:
            painted.append(BOLD("│") + "  " + fit(line, width - 6) + "  " + BOLD("│"))
        painted.append(BOLD("└" + "─" * (width - 2) + "┘"))
        lines = list(lines) + [""] * (first + len(painted) - len(lines))
        lines[first:first + len(painted)] = [" " * margin + line for line in painted]
        return lines


def confirmation(title, *body):
    return Box(title, list(body), CONFIRM_BUTTONS, CONFIRM_FOOTER)


def message_box(title, *body):
    return Box(title, list(body), ANY_KEY, ANY_KEY)


def prompt(size, title, question, value):
    """The end of a value too long for the widest box is shown."""
    room = size[0] - 8 - 6 - len("[ ") - 1 - len(" ]")
    field = "[ " + Text(value[-room:] if value else "") + CURSOR_MARK + " ]"
    return Box(title, [question, "", field], "", PROMPT_FOOTER)


KEYS_BOX = message_box(
    "Keys",
    *(fit(KEY(name), 16) + does for name, does in [
        ("↑ ↓ PgUp PgDn", "move through the list"),
        ("Enter", "open the message: recipients and history"),
        ("n", "write and send a new message"),
        ("r", "revoke the selected message"),
        ("m", "remind whoever has not confirmed"),
        ("p", "delete old messages"),
        ("/", "search the messages by text or title"),
        ("q", "quit"),
    ]),
    "", "The list updates by itself every 3 seconds.", "The complete guide: tbx --help.")


def search_box(size, value=""):
    return prompt(size, "Search", "Show only the messages containing:", value)


def purge_box(size, value="90d"):
    return prompt(size, "Delete old messages",
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


# ---- How far a message got ----------------------------------------------------------------


def bar(confirmed, delivered, sent):
    total = max(confirmed + delivered + sent, 1)
    green, red = confirmed * 12 // total, sent * 12 // total
    if sent:
        red = max(red, 1)
    if delivered and green + red == 12:
        green = max(green - 1, 0)
    return GREEN("█" * green) + YELLOW("▒" * (12 - green - red)) + RED("░" * red)


def summary(message):
    confirmed, delivered, sent = message.counts
    if not delivered and not sent:
        return GREEN(f"all confirmed ({confirmed})")
    counts = [(GREEN, confirmed, "confirmed"), (YELLOW, delivered, "delivered"),
              (RED, sent, "sent")]
    return joined(" · ", [colour(f"{count} {word}") for colour, count, word in counts if count])


# ---- The list -----------------------------------------------------------------------------

LIST_TITLE = "Tellbox · sent messages"
LIST_HINTS = hints(("Enter", "open"), ("n", "new"), ("r", "revoke"), ("m", "remind"),
                   ("p", "purge"), ("/", "search"), ("?", "keys"), ("q", "quit"))


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

    @property
    def is_wide(self):
        return self.size[0] - SIDE_COLUMNS >= 106

    def body(self):
        width = max(self.size[0] - 37 - (44 if self.is_wide else 7), 10)
        lines = [" " + HEADING(f" ID  {'DATE':<11}  {'MESSAGE':<{width}}  RECIPIENTS")]
        rows = sorted(self.messages, key=lambda message: -message.id)
        if not rows:
            lines.append("   " + GREY("No message contains the search text." if self.search else
                                      "No messages sent."))
        last = self.top + self.size[1] - 7
        for index, message in list(enumerate(rows))[self.top:last]:
            lines.append(self._row(message, width, index == self.selected))
        lines += [""] * (self.size[1] - 5 - len(lines))
        return lines + [self._legend()]

    def _row(self, message, width, is_selected):
        if not self.is_wide:  # a long identifier takes columns of the message
            width = max(width - max(len(str(message.id)) - 4, 0), 10)
        confirmed, delivered, sent = message.counts
        marks = [GREY(f"[{word}] ") for word, on in
                 [("revoked", message.is_revoked), ("expired", message.is_expired)] if on]
        title = BOLD(message.title) + " · " if message.title else ""
        text = joined("", [*marks, title, message.text.split("\n")[0]])
        row = (f"{'>' if is_selected else ' '}{message.id:>3}  {message.short_date:<11}  "
               + fit(text, width) + "  " + bar(confirmed, delivered, sent) + "  "
               + (summary(message) if self.is_wide else
                  self._short_recipients(message)))
        if is_selected and self.colour:
            return SELECTION(fit(row, self.size[0] - SIDE_COLUMNS).characters)
        return row

    @staticmethod
    def _short_recipients(message):
        """Five columns are left, or four behind an identifier of more than three digits."""
        confirmed, total = message.counts[0], sum(message.counts)
        room = 5 if len(str(message.id)) <= 3 else 4
        texts = (f"{confirmed}/{total}", f"{confirmed * 100 // max(total, 1)}%")
        return next((text for text in texts if len(text) <= room), "")

    def _legend(self):
        line = (GREEN("█") + " confirmed   " + YELLOW("▒") + " delivered   " + RED("░") + " sent")
        if self.search:
            line = line + "      " + GREY(f"search: «{self.search}» (Esc to clear)")
        return line

    def frame(self, box=None):
        """The page's frame, with a dialog over it."""
        return page_or_box(self, LIST_TITLE, LIST_HINTS, UPDATED, box=box)


def page_or_box(shown, title, footer, status="", cursor=None, box=None):
    frame = page(shown.size, title, shown.body(), footer, status, cursor)
    if box:
        frame = page(shown.size, title, box.over(shown.size, shown.body()), box.footer, status)
    return frame if shown.colour else frame.without_colour()


# ---- One message --------------------------------------------------------------------------

DETAIL_HINTS = hints(("Tab", "recipients/history"), ("↑/↓", "scroll"), ("m", "remind"),
                     ("r", "revoke"), ("Esc", "back"))


def wrapped(text, width):
    lines = []
    for paragraph in text.removesuffix("\n").split("\n") if text else []:
        while len(paragraph) > width:
            blank = paragraph.rfind(" ", 0, width + 1)  # one right behind the width counts
            end, rest = (blank, blank + 1) if blank > 0 else (width, width)
            lines.append(paragraph[:end])
            paragraph = paragraph[rest:]
        lines.append(paragraph)
    return lines


@dataclass(frozen=True)
class DetailPage:
    """One message; `history` is the lines of its tab, or None on the Recipients tab."""

    size: tuple
    message: object
    history: list = None
    scroll: int = 0
    colour: bool = True

    def body(self):
        message = self.message
        text = wrapped(message.text, self.size[0] - 8)
        if len(text) > 6:
            text = text[:5] + ["…"]
        lines = [self._facts(), *(" " + DIM("│") + " " + line for line in text), "",
                 self._tabs(), ""]
        if self.history is None:
            lines.append(" " + HEADING(f"{'USER':<14}STATE"))
        visible = max(self.size[1] - FRAME_ROWS - len(lines), 0)
        if self.history == []:
            return lines + [" " + GREY("No events in the system log.")]
        entries = [" " + Text(line) for line in self.history or []]
        if self.history is None:
            entries = [" " + fit(user, 13) + " " + colour(state)
                       for user, colour, state in map(self._recipient, message.recipients)]
        return lines + entries[self.scroll:self.scroll + visible]

    @staticmethod
    def _recipient(recipient):
        user, state, text = recipient
        return user, {"confirmed": GREEN, "delivered": YELLOW, "sent": RED}[state], text

    def _facts(self):
        message = self.message
        line = (" " + BOLD(message.title or "no title") + f" · {message.short_date} · "
                + f"from {message.author}")
        if message.expires:
            verb = "expired" if message.is_expired else "expires"
            line = line + f" · {verb} on {message.short_expiry}"
        if message.is_revoked:
            line = line + " · " + RED(f"revoked on {message.short_revocation}")
        return line

    def _tabs(self):
        active, other = SELECTION, DIM
        if self.history is not None:
            active, other = other, active
        return (" " + active(f" Recipients ({len(self.message.recipients)}) ") + " "
                + other(" History ") + "    " + bar(*self.message.counts) + "  "
                + summary(self.message))

    def frame(self, box=None):
        message = self.message
        title = f"Message {message.id}" + (f" · {message.title}" if message.title else "")
        return page_or_box(self, title, DETAIL_HINTS, UPDATED, box=box)


# ---- The form -----------------------------------------------------------------------------

FORM_HINTS = hints(("Tab", "next field"), ("Ctrl+E", "open in the editor"), ("Ctrl+S", "send"),
                   ("Esc", "cancel"))
FIELD_HINTS = {"To": "user, @group, all or online, separated by commas",
               "Title": "optional, one line",
               "Expires": "optional: 30m, 2h, 3d or a date"}
FORM_FIELDS = [*FIELD_HINTS, "Text"]
VALUE_COLUMN = 14


@dataclass(frozen=True)
class FormPage:
    """The form for a new message.

    at      the cursor in the focused field: characters before it (None: at the end), or in
            the text (line, characters before it)
    scroll  columns that stand left of their place, by field; a number is of the focused one
    top     first line of the text that is shown, by default as few lines down as can be
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
    scroll: object = 0
    top: int = None
    preview: object = None
    notice: str = ""
    colour: bool = True

    @property
    def _width(self):
        return max(self.size[0] - 26, 1)

    @property
    def _rows(self):
        return max(self.size[1] - 14, 1)

    def _top(self):
        return max(self._place()[0] - self._rows + 1, 0) if self.top is None else self.top

    def _scroll(self, name):
        scrolls = self.scroll if isinstance(self.scroll, dict) else {self.focus: self.scroll}
        return scrolls.get(name, 0)

    def _label(self, name):
        text = fit(name, 10).characters
        return " " + (BOLD(text) if name == self.focus else Text(text)) + " "

    def _fields(self):
        for name, hint in FIELD_HINTS.items():
            shown = getattr(self, name.lower())[self._scroll(name):]
            yield self._label(name) + "[ " + fit(shown, self._width) + " ]"
            side = self.preview if name == "To" and self.preview else hint
            yield " " * VALUE_COLUMN + (GREY(side) if isinstance(side, str) else side)

    def _text(self):
        yield self._label("Text") + DIM("┌" + "─" * (self._width + 2) + "┐")
        lines = self.text.split("\n")
        for row in range(self._top(), self._top() + self._rows):
            line = lines[row] if row < len(lines) else ""
            if row == self._place()[0]:
                line = line[self._scroll("Text"):]
            yield " " * 12 + DIM("│") + " " + fit(line, self._width) + " " + DIM("│")
        yield " " * 12 + DIM("└" + "─" * (self._width + 2) + "┘")
        size = len(self.text.encode())
        notice = " · " + RED(self.notice) if self.notice else ""
        yield (" " * VALUE_COLUMN + (RED if size > 65536 else GREY)(f"{size} of 65536 bytes")
               + notice)

    def _place(self):
        if self.focus == "Text" and self.at is not None:
            return self.at
        lines = self.text.split("\n")
        return (len(lines) - 1, len(lines[-1]))

    def _cursor_line(self):
        if self.focus == "Text":
            return 8 + self._place()[0] - self._top()
        return 1 + 2 * FORM_FIELDS.index(self.focus)

    def _hidden(self):
        """Lines at the top that make room for the one with the cursor on a low terminal."""
        return max(self._cursor_line() + 1 - (self.size[1] - FRAME_ROWS), 0)

    def body(self):
        return ["", *self._fields(), *self._text()][self._hidden():]

    def cursor(self):
        """Line of the body, and column in it."""
        if self.focus == "Text":
            column = self._place()[1]
        else:
            column = len(getattr(self, self.focus.lower())) if self.at is None else self.at
        return (self._cursor_line() - self._hidden(),
                VALUE_COLUMN + column - self._scroll(self.focus))

    def frame(self, box=None):
        return page_or_box(self, "New message", FORM_HINTS, cursor=self.cursor(), box=box)

    def discard(self):
        return confirmation("Discard the message?", "The message you are writing will be lost.")

    def review(self, recipients):
        """The question before sending; `recipients` is the preview."""
        body = ["To: " + Text(self.to) + " (" + as_text(recipients) + ")"]
        body += [f"Title: {self.title}"] if self.title else []
        body += [f"Expires: {self.expires}"] if self.expires else []
        return confirmation("Send the message?", *body, f"Text: {len(self.text.encode())} bytes")
