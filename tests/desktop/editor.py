"""A window in which somebody writes."""

import subprocess

from processes import await_condition, end

KEYS_PER_SECOND = 20
DELAY_MS = str(1000 // KEYS_PER_SECOND)
# Types words that all differ, with blanks and Enters among them, until there is a file; then says
# how many.
ON_AND_ON = """
n=0
until [ -e "$1" ]; do
    n=$((n + 1))
    xdotool type --delay "$2" "type $n
"
done
echo $n
"""


class Editor:
    """A terminal with the focus, whose keys arrive in a file."""

    def __init__(self, screen, folder):
        self._screen, self._typed = screen, folder / "typed"
        self._process = screen.start("xterm", "-T", "editor", "-e", "sh", "-c",
                                     f"stty raw -echo; exec cat >{self._typed}")
        self._typist, self._text, self._stop = None, "", folder / "stop typing"
        self.window = screen.await_window("editor")
        screen.focus(self.window)
        await_condition(self._typed.exists, "the editor")

    def type_on(self, text):
        """Somebody begins to type."""
        self._text = text
        self._typist = self._screen.start("xdotool", "type", "--delay", DELAY_MS, text)

    def type_until_stopped(self):
        """Somebody begins to type, and goes on."""
        self._typist = self._screen.start("sh", "-c", ON_AND_ON, "sh", str(self._stop), DELAY_MS,
                                          stdout=subprocess.PIPE, text=True)

    def await_everything_typed(self):
        """Every key has arrived here, in order."""
        await_condition(lambda: self._typist.poll() is not None, "the typist ends", seconds=120)
        await_condition(lambda: self._typed.read_text().replace("\r", "\n") == self._text,
                        "every key in the editor")

    def stop_typing(self):
        """The typist ends. Every key has arrived here. Returns how many there were."""
        assert self._typist.poll() is None, "the typist is still at work"
        self._stop.touch()
        words = int(self._typist.communicate(timeout=60)[0])
        self._text = "".join(f"type {n}\n" for n in range(1, words + 1))
        self.await_everything_typed()
        return len(self._text)

    def close(self):
        for process in (self._process, self._typist):
            if process:
                end(process)
