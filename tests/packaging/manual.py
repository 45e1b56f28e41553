"""The examples and pictures of the user manual, made with the real program.

In the chapters (docs/manual/), <pre class="run"> holds commands in <kbd>, each followed by what
it prints. All of them run one after the other, in the order of the page, on one scratch machine.
The attribute data-before says what happens before:

    pat confirms 1, pat postpones 1    a user answers
    journal                            what has been recorded so far can be read
    crash                              a send is interrupted
    fleet                              there are hosts that ssh reaches, and one that it does not

<pre class="terminal" data-banner="N"> holds the Nth thing that was written to pat's terminal.
"""

import difflib
import html
import re
import sys
import time
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parent.parent.parent
MANUAL = REPOSITORY / "docs" / "manual"
sys.path.append(str(REPOSITORY / "tests"))

from harness.history import Entry, History, record  # noqa: E402
from harness.machine import Box  # noqa: E402
from harness.pseudo_terminal import ENTER, TAB, Terminal  # noqa: E402

HOME = "/var/lib/box"
CHAPTERS = sorted(MANUAL.glob("[0-9]*.html"))

RUN = re.compile(r'<pre class="run"(?: data-before="([^"]*)")?>(.*?)</pre>', re.DOTALL)
COMMAND = re.compile(r"(<b>[#$] </b><kbd>(.*?)</kbd>\n)", re.DOTALL)
BANNER = re.compile(r'(<pre class="terminal" data-banner="(\d+)">)(.*?)(</pre>)', re.DOTALL)
TIMES = re.compile(r"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d|\d\d/\d\d \d\d:\d\d|\d\d:\d\d:\d\d)")

SSH = """while [ "$1" = -o ]; do shift 2; done
[ "$1" != gamma ] || { echo 'ssh: connect to host gamma port 22: No route to host' >&2; exit 255; }
export TBX_VAR=/var/lib/box/$1
shift
eval "$*"
"""
SUDO = """while [ "$1" = -n ] || [ "$1" = -- ]; do shift; done
[ "$1" != /usr/local/bin/tbx ] || { shift; set -- /run/tbx/tbx "$@"; }
exec "$@"
"""


def comparable(text):
    """The text without what is different each time: when the example ran."""
    return TIMES.sub(lambda moment: re.sub(r"\d", "0", moment[0]), text)


def merged(old, fresh):
    """The fresh text, but each of its lines as it was where nothing but a time is different."""
    old_lines, fresh_lines = old.splitlines(keepends=True), fresh.splitlines(keepends=True)
    matcher = difflib.SequenceMatcher(None, [comparable(line) for line in old_lines],
                                      [comparable(line) for line in fresh_lines], autojunk=False)
    kept = []
    for kind, begin, end, fresh_begin, fresh_end in matcher.get_opcodes():
        kept += old_lines[begin:end] if kind == "equal" else fresh_lines[fresh_begin:fresh_end]
    return "".join(kept)


class Stage:
    """The machine on which the examples run."""

    def __init__(self, binary):
        self.box = Box(binary)
        self.box.add_group("staff", 2001, ["pat", "sam"])
        self.box.add_group("developers", 2002, ["alex"])
        self.box.add_session("1", "pat")
        self.box.stand_in("sudo", SUDO)
        self.box.env["PATH"] += ":/run/tbx"
        self.box.env["SUDO_USER"] = "alex"  # the administrator
        self.box.write(f"{HOME}/notice.txt", "The mail server is down from 22:00 to 23:00.\n")
        self._history = History(self.box)
        self._answers = []  # (records before it, entry)
        self._written = 0

    def close(self):
        self.box.close()

    def prints(self, command):
        """What a command prints, its errors included."""
        result = self.box.run("-c", f"cd {HOME}; {{ {command}\n}} 2>&1", program="/bin/sh")
        return result.stdout

    def banner(self, number):
        """What was written to pat's terminal as the Nth message."""
        text = self.box.terminal.read_text(encoding="utf-8").replace("\r", "")
        return "── Tellbox" + text.split("\n── Tellbox")[number]

    # ---- What happens between the examples ----------------------------------------------------

    def prepare(self, happenings):
        for happening in filter(None, (happenings or "").split("; ")):
            match happening.split():
                case [user, "confirms", number]:
                    self.box.store.confirm(user, int(number), int(time.time()))
                    self._answer("CONFIRMED", user, number, "confirmed reading", "terminal")
                case [user, "postpones", number]:
                    self.box.store.mark_shown(user, int(number), int(time.time()), "gui")
                    self._answer("POSTPONED", user, number, "postponed", "desktop")
                case [name]:
                    getattr(self, f"_{name}")()

    def _answer(self, event, user, number, verb, channel):
        self._answers.append((len(self.box.journal.records()), record(
            event, user=user, message=number, channel=channel, uid=self.box.uid(user),
            sentence=f"user {user}: {verb} message {number} ({channel})")))

    def _journal(self):
        """Adds to the journal what has been recorded since the last time."""
        entries = []
        for at, received in enumerate(self.box.journal.records()):
            entries += [entry for position, entry in self._answers if position == at]
            fields = [(name, value.encode()) for name, value in received.fields]
            entries.append(Entry(0, [*fields, ("_UID", str(received.uid).encode())]))
        entries += [entry for position, entry in self._answers
                    if position == len(self.box.journal.records())]
        first = int((self.box.store.sent(1, "msg").read_text().split("date: ")[1]).split()[0])
        for second, entry in enumerate(entries):
            entry.usec = (first + second) * 1_000_000
        self._history.write(*entries[self._written:])
        self._written = len(entries)

    def _crash(self):
        present = (self.box.store.top / "sent").glob("[0-9]*")
        number = 1 + max(int(path.name) for path in present)
        self.box.store.make_message(
            number, "The printer on floor 2 is back.\n", to=("kim", "pat"), date=int(time.time()),
            author="alex", delivered=[("kim", int(time.time()), 0)], copies=("kim",),
            markers=("incomplete",))

    def _fleet(self):
        self.box.stand_in("ssh", SSH)
        self.box.write(f"{HOME}/hosts", "alpha\nbeta\ngamma\n")
        chapter = (MANUAL / "50-fleet.html").read_text(encoding="utf-8")
        script = re.search(r'<pre id="fleet-script"><code>(.*?)</code></pre>', chapter, re.DOTALL)
        self.box.write(f"{HOME}/fleet-send", html.unescape(script[1]) + "\n", mode=0o755)


def rewritten(chapters, stage):
    """The chapters, a dict of name to text, with what the program really prints."""
    def run_block(block):
        stage.prepare(block[1])
        commands = COMMAND.findall(block[2])
        assert commands, f"no command in {block[0]}"
        printed = "".join(shown + html.escape(stage.prints(html.unescape(command)), quote=False)
                          for shown, command in commands)
        before = f' data-before="{block[1]}"' if block[1] else ""
        return f'<pre class="run"{before}>{printed}</pre>'

    def show_banner(block):
        return block[1] + html.escape(stage.banner(int(block[2])), quote=False) + block[4]

    with_output = {name: RUN.sub(run_block, text) for name, text in chapters.items()}
    return {name: BANNER.sub(show_banner, text) for name, text in with_output.items()}


# ---- Pictures -------------------------------------------------------------------------------

DATE = 1790000000  # 21 September 2026
COLUMNS = 84  # fit the page


def picture(terminal, label):
    """The screen as a <pre>, with its colours."""
    lines = []
    for row in range(terminal.screen.lines):
        cells = [terminal.screen.buffer[row][column] for column in range(terminal.screen.columns)]
        lines.append("".join(spans(cells)).rstrip())
    text = re.sub(r"updated at \d\d:\d\d:\d\d", "updated at 09:41:00", "\n".join(lines))
    return (f'<pre class="screen" tabindex="0" role="img" aria-label="{label}">'
            f"{text}\n</pre>\n")


def spans(cells):
    """A row of the screen in runs of one style."""
    run, style = "", ""
    for cell in [*cells, None]:
        wanted = cell and style_of(cell)
        if wanted != style or cell is None:
            text = html.escape(run, quote=False)
            yield f'<span class="{style}">{text}</span>' if style else text
            run, style = "", wanted
        run += cell.data if cell else ""


def style_of(cell):
    """The classes of the style sheet for a cell of the screen."""
    colour = {"default": "", "brown": "yellow"}.get(cell.fg, cell.fg)
    names = [colour, "b" * cell.bold, "d" * cell.italics, "r" * cell.reverse]
    return " ".join(filter(None, names))


def furnish(box):
    """A store as an administrator has it after some days."""
    box.add_group("staff", 2001, ["pat", "sam"])
    hour, day = 3600, 86400
    store = box.store
    store.make_message(11, "New password policy: see the intranet.\n", title="Passwords",
                       to=("alex", "kim", "pat", "sam"), date=DATE - 3 * day, author="alex",
                       delivered=[(user, DATE - 3 * day, 0)
                                  for user in ("alex", "kim", "pat", "sam")])
    store.make_message(12, "The backup runs tonight at ten. Please log off.\n", title="Backup",
                       to=("pat", "sam"), date=DATE - 2 * day, author="alex",
                       delivered=[("pat", DATE, 1), ("sam", DATE, 1)], revoked=DATE - 2 * day + 90)
    store.make_message(13, "Lunch is in the kitchen.\n", to=("kim", "pat", "sam"), author="alex",
                       date=DATE - day, expires=DATE - day + hour,
                       delivered=[(user, DATE - day, 1) for user in ("kim", "pat", "sam")])
    store.make_message(14, "The machine restarts at 22:00.\nPlease save your work.\n",
                       title="Maintenance tonight", to=("alex", "kim", "pat", "sam"), date=DATE,
                       author="alex", delivered=[("alex", DATE, 0), ("kim", DATE, 2),
                                                 ("pat", DATE, 1), ("sam", DATE, 1)])
    for number, users in ((11, ("alex", "kim", "pat", "sam")), (13, ("pat",)), (14, ("kim", "pat"))):
        for user in users:
            store.confirm(user, number, DATE - (14 - number) * day + 300, "terminal")
    store.mark_shown("sam", 14, DATE + 600, "gui")
    write_history(box)


def write_history(box):
    def event(name, second, user="", **more):
        sender = box.uid(user) if name in ("CONFIRMED", "POSTPONED") else sender_uid
        return record(name, when=DATE + second, message=14, user=user, uid=sender, **more)
    sender_uid = box.uid(box.account_running_tests())
    terminals = {"alex": "0", "kim": "2", "pat": "1", "sam": "1"}
    History(box).write(
        *[event("DELIVERED", 0, user, details=count) for user, count in terminals.items()],
        event("SENT", 1, details=" ".join(terminals), author="alex"),
        event("CONFIRMED", 180, "pat", channel="terminal"),
        event("CONFIRMED", 300, "kim", channel="desktop"),
        event("POSTPONED", 600, "sam", channel="desktop"))


def pictures(binary):
    """Every picture by its name."""
    box = Box(binary)
    opened = []

    def start(*arguments, columns=COLUMNS, rows=20):
        terminal = Terminal([*box._enter(), "/run/tbx/tbx", *arguments], env=box.env,
                            columns=columns, rows=rows)
        opened.append(terminal)
        return terminal

    try:
        furnish(box)
        shots = {}
        guide = start("help", rows=22)
        guide.wait_for("q quit")
        shots["guide"] = picture(guide, "The guide on a terminal, first tab")
        tbx = start()
        tbx.wait_for("? keys")
        shots["list"] = picture(tbx, "The list of messages")
        tbx.send(ENTER)
        tbx.wait_for("recipients/history")
        shots["recipients"] = picture(tbx, "A message and its recipients")
        tbx.send(TAB)
        tbx.wait_for("postponed message 14")
        shots["history"] = picture(tbx, "A message and its history")
        tbx = start()
        tbx.wait_for("? keys")
        tbx.send("n")
        tbx.wait_for("New message")
        tbx.send(f"@staff,kim{TAB}Coffee{TAB}2h{TAB}There is cake in the kitchen.")
        tbx.wait_for("kitchen.")
        shots["compose"] = picture(tbx, "The form for a new message")
        tbx.send("\x13")
        tbx.wait_for("Send the message?")
        shots["review"] = picture(tbx, "The question before a message is sent")
        return shots
    finally:
        for terminal in opened:
            terminal.close()
        box.close()
