"""A window in which somebody writes."""

import time

from processes import await_condition, end

KEYS_PER_SECOND = 20
# Blanks and Enters among words that all differ; a minute of it.
BLANKS_AND_ENTERS = "".join(f"type {n} \n" for n in range(1000, 2200))


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

    def stop_typing(self):
        """The typist goes. Every key until then has arrived here, in order. Returns how many."""
        assert self._typist.poll() is None, "the typist is still at work"
        self._typist.terminate()
        self._typist.wait()
        typed = await_condition(self._still_text, "no more keys arrive")
        assert self._text.startswith(typed), "a key was lost"
        return len(typed)

    def _still_text(self):
        before = self._typed.read_text()
        time.sleep(0.2)
        after = self._typed.read_text()
        return after.replace("\r", "\n") if before == after else None

    def close(self):
        for process in (self._process, self._typist):
            if process:
                end(process)
