"""Pictures of what the recipients see, taken of the real programs: the prompt and the question on a
terminal, the window and the notification on a display of their own. As root."""

import base64
import io
import shlex
import shutil
import sys
import tempfile
import time
from pathlib import Path

import manual
from harness.machine import Machine
from harness.pseudo_terminal import ENTER, Terminal
from harness.user_program import deliver, install_user_program

DESKTOP = manual.REPOSITORY / "tests" / "desktop"
PICTURES = manual.REPOSITORY / "docs" / "pictures"

TITLE = "Restart tonight"
TEXT = "The machine restarts at 22:00.\nPlease save your work.\n"
NOTIFICATION_SERVICE = Path("/usr/share/dbus-1/services/org.xfce.xfce4-notifyd.Notifications.service")
SMALLEST_DIFFERENCE = 48  # of a colour, in 255 parts; less is another way to smooth an edge
DIFFERENT_PIXELS = 0.0005  # the share that may differ: cursors, which blink

RC = """PS1='pat@alpha:~$ '
bind 'set enable-bracketed-paste off'
eval "$(tellbox hook bash)"
"""


class Stage:
    """A machine on which pat has a message, and the administrator knows who has read it."""

    def __init__(self, binary):
        self.machine = Machine(binary)
        install_user_program(self.machine, binary.parent)
        self.machine.add_group("staff", 2001, ["pat", "sam"])
        self.machine.path("/home").mkdir(exist_ok=True)
        self.machine.write("/run/rc", RC)
        self.machine.store.make_message(
            14, TEXT, title=TITLE, to=("alex", "kim", "pat", "sam"), date=manual.DATE, author="root",
            delivered=[(user, manual.DATE, 1) for user in ("alex", "kim", "pat", "sam")])
        self.machine.store.confirm("kim", 14, manual.DATE + 300, "terminal")
        self.machine.store.confirm("sam", 14, manual.DATE + 420, "desktop")
        for user in ("pat", "alex"):
            deliver(self.machine, 14, TEXT, user, title=TITLE, date=manual.DATE, author="root")
        self._opened = []

    def close(self):
        for terminal in self._opened:
            terminal.close()
        self.machine.close()

    def entering(self, user, *command):
        """The command line of the host that runs a command as somebody on the machine."""
        return [*self.machine._enter(), *self.machine._become(user), *command]

    def shell(self, user="pat"):
        """An interactive shell of the user, with the hook."""
        return self.entering(user, "bash", "--noprofile", "--rcfile", "/run/rc", "-i")

    def terminal(self, command, rows):
        self._opened.append(Terminal(command, env={**self.machine.env, "HOME": "/"},
                                     columns=manual.COLUMNS, rows=rows))
        return self._opened[-1]


def await_prompts(terminal, count):
    terminal.wait_for(lambda: sum(row.startswith("pat@alpha:~$") for row in terminal.rows()) == count)


def on_terminals(binary):
    """The pictures that are text, by their names."""
    stage = Stage(binary)
    try:
        asked = stage.terminal(stage.entering("alex", "/run/stand-in/tellbox"), rows=8)
        asked.wait_for("Quit [q]")
        question = manual.picture(asked, "The question that tellbox asks")
        asked.send("q")
        prompt = stage.terminal(stage.shell(), rows=9)
        await_prompts(prompt, 1)
        prompt.send("tellbox read 14" + ENTER)
        await_prompts(prompt, 2)
        return {"prompt": manual.picture(prompt, "A shell that shows a message before its prompt"),
                "question": question}
    finally:
        stage.close()


# ---- On a display -----------------------------------------------------------------------------


class Display:
    """A display and a bus, with a notification service; the modules of tests/desktop."""

    def __init__(self, folder, width, height):
        if str(DESKTOP) not in sys.path:
            sys.path.append(str(DESKTOP))
        import dialog
        import recipient
        import screen
        from bus import SessionBus
        from processes import await_condition, end
        self.dialogs, self.recipients, self._end = dialog, recipient, end
        self.await_condition = await_condition
        self.folder = folder
        (folder / "services").mkdir()
        shutil.copy(NOTIFICATION_SERVICE, folder / "services")
        self.screen = screen.Screen(width, height, home=folder)
        self.bus = SessionBus(folder, env={"DISPLAY": self.screen.name,
                                           "GSETTINGS_BACKEND": "memory"})
        self.screen.environment["DBUS_SESSION_BUS_ADDRESS"] = self.bus.address
        self._opened = []

    def close(self):
        for opened in reversed(self._opened):
            opened.close()
        self.bus.close()
        self.screen.close()

    def open_window(self, program):
        """The message's window; returns its place on the screen with the frame around it."""
        data = self.dialogs.message(TEXT, title=TITLE, sender="root", date=manual.DATE)
        self._opened.append(self.dialogs.Dialog(program, self.screen, data))
        window = self._opened[-1].window
        left, top, width, height = self.screen.place(window)
        extents = self.screen.property(window, "_NET_FRAME_EXTENTS")
        before, after, above, below = (int(number) for number in extents.split(","))
        return left - before, top - above, left + width + after, top + height + below

    def open_terminal(self, place, title, command):
        """An xterm at a place, written as X wants it, in which the command runs."""
        process = self.screen.start(
            "xterm", "-geometry", place, "-T", title, "-fa", "DejaVu Sans Mono", "-fs", "9", "-bg",
            "#161b22", "-fg", "#d7dde5", "+sb", "-uc", "-bc", "-e", *command)
        self._opened.append(Closing(process, self._end))
        return self.screen.await_window(f"^{title}$")

    def still_picture(self):
        """The screen once nothing on it changes for a moment."""
        before = None
        while before is None or before.tobytes() != self.screen.picture().tobytes():
            before = self.screen.picture()
            time.sleep(0.4)
        return before


class Closing:
    def __init__(self, process, end):
        self.close = lambda: end(process)


def window(binary):
    with tempfile.TemporaryDirectory() as folder:
        display = Display(Path(folder), 800, 600)
        try:
            place = display.open_window(binary.parent / "tellbox-window")
            return display.still_picture().crop(place)
        finally:
            display.close()


def notification(binary):
    with tempfile.TemporaryDirectory() as folder:
        display = Display(Path(folder), 800, 600)
        (Path(folder) / "user").mkdir()
        user = display.recipients.Recipient(Path(folder) / "user", binary.parent, display.screen)
        try:
            user.use_window("echo shown; exec sleep 60")
            user.start_agent(env={"DISPLAY": display.screen.name,
                                  "DBUS_SESSION_BUS_ADDRESS": display.bus.address})
            user.send(TEXT, "--title", TITLE)
            bubble = display.await_condition(lambda: display.screen.output(
                "xdotool", "search", "--onlyvisible", "--class", "^xfce4-notifyd$").split(),
                "the notification")[0]
            picture = display.still_picture()
            left, top, width, height = display.screen.place(bubble)
            return picture.crop((left, top, left + width, top + height))
        finally:
            user.close()
            display.close()


def both_sides(binary):
    """The administrator's terminal, a user's terminal and another user's window, on one screen."""
    stage = Stage(binary)
    administrator = ("PS1='root@alpha:~# '; tput civis; "
                     "show() { printf '%s%s\\n' \"$PS1\" \"$*\"; \"$@\"; }; "
                     "show tbx status 14; printf '%s' \"$PS1\"; exec sleep infinity")
    pat = ("tput civis; exec " + shlex.join(["bash", "--noprofile", "--rcfile", "/run/rc", "-i"]))
    stage.machine.env["PATH"] += ":/run/tbx"
    with tempfile.TemporaryDirectory() as folder:
        display = Display(Path(folder), 1152, 456)
        display.screen.environment.update(stage.machine.env, TERM="xterm", HOME="/")
        try:
            display.open_terminal("86x12+8+4", "Administrator",
                                  stage.entering(None, "bash", "-c", administrator))
            terminal = display.open_terminal("86x12+8+240", "pat",
                                             stage.entering("pat", "bash", "-c", pat))
            display.still_picture()
            display.screen.focus(terminal)
            display.screen.output("xdotool", "type", "tellbox read")
            display.open_window(binary.parent / "tellbox-window")
            window_of_sam = display.screen.await_window(display.dialogs.TITLE)
            display.screen.output("xdotool", "windowmove", str(window_of_sam), "710", "70")
            return display.still_picture()
        finally:
            display.close()
            stage.close()


def on_displays(binary):
    """The pictures that are images, by their names."""
    return {"window": window(binary), "notification": notification(binary),
            "both-sides": both_sides(binary)}


# ---- Images as files and in the page ----------------------------------------------------------


def as_png(image):
    data = io.BytesIO()
    image.quantize(64, dither=0).save(data, "PNG", optimize=True)
    return data.getvalue()


LABELS = {
    "window": "The window of a message on the desktop, with the buttons Later and I have read it",
    "notification": "A notification with the title and the first words of a message",
    # Taken by tests/desktop/full_session.py, by hand: it needs a whole desktop.
    "desktop": "A whole desktop with the window of a message and its notification",
}


def kept_image(name):
    from PIL import Image
    return Image.open(PICTURES / f"{name}.png").convert("RGB")


def in_page(name):
    """The kept image as an element that needs no other file."""
    width, height = kept_image(name).size
    text = base64.b64encode((PICTURES / f"{name}.png").read_bytes()).decode("ascii")
    return (f'<img class="shot" alt="{LABELS[name]}" width="{width}" height="{height}" '
            f'src="data:image/png;base64,{text}">\n')


def is_alike(path, image):
    """Whether the file shows the same as an image, but for a cursor."""
    from PIL import ImageChops
    if not path.exists():
        return False
    kept = kept_image(path.stem)
    if kept.size != image.size:
        return False
    counts = ImageChops.difference(kept, image.convert("RGB")).convert("L").histogram()
    return sum(counts[SMALLEST_DIFFERENCE:]) / sum(counts) < DIFFERENT_PIXELS
