"""A window in which somebody writes."""

from processes import await_condition, end

KEYS_PER_SECOND = 20
BLANKS_AND_ENTERS = "type a word or two \\n" * 40  # half a minute of it


class Editor:
    """A terminal with the focus, whose keys arrive in a file."""

    def __init__(self, screen, folder):
        self._screen, self._typed = screen, folder / "typed"
        self._process = screen.start("xterm", "-T", "editor", "-e", "sh", "-c",
                                     f"stty raw -echo; exec cat >{self._typed}")
        self._typist, self._text = None, ""
        self.window = screen.await_window("editor")
        screen.focus(self.window)
        await_condition(self._typed.exists, "the editor")

    def type_on(self, text=BLANKS_AND_ENTERS):
        """Somebody begins to type, and goes on. Returns who."""
        self._text = text
        self._typist = self._screen.start("xdotool", "type", "--delay",
                                          str(1000 // KEYS_PER_SECOND), text)
        return self._typist

    def await_everything_typed(self):
        """Every key has arrived here, in order."""
        await_condition(lambda: self._typist.poll() is not None, "the typist ends", seconds=120)
        await_condition(lambda: self._typed.read_text().replace("\r", "\n") == self._text,
                        "every key in the editor")

    def close(self):
        for process in (self._process, self._typist):
            if process:
                end(process)
