"""Interactive shells on a terminal."""

import os
import re

from recipient import TELLBOX, plain

READY = "ready>"

LOAD = {"bash": f'eval "$({TELLBOX} hook bash)"\n',
        "zsh": f'eval "$({TELLBOX} hook zsh)"\n',
        "fish": f"{TELLBOX} hook fish | source\n"}

# The prompt, and nothing that would disturb what a test compares.
PROMPT = {"bash": "PS1='ready> '\nbind 'set enable-bracketed-paste off'\n",
          "zsh": "PS1='ready> '\nunset zle_bracketed_paste\nunsetopt prompt_sp\n",
          "fish": "function fish_prompt\n    echo -n 'ready> '\nend\n"
                  "set -g fish_greeting\nset -g fish_autosuggestion_enabled 0\n"}

STARTUP = {"bash": ".bashrc", "zsh": ".zshrc", "fish": ".config/fish/config.fish"}


# How fish makes sure that its prompt begins a line.
LINE_MARK = re.compile("⏎ *⏎ ?")


def printed(raw):
    """What was printed before the prompt that `raw` ends with."""
    return LINE_MARK.sub("", plain(raw).rpartition(READY)[0])


class Shell:
    """An interactive shell with a known prompt.

    startup   what its startup file holds behind the prompt
    """

    def __init__(self, machine, name, startup=None, *, user="pat", argv=None, env=None, rows=40,
                 columns=100):
        self.name = name
        lines = LOAD[name] if startup is None else startup
        machine.write_home(user, STARTUP[name], PROMPT[name] + lines)
        self.terminal = machine.on_terminal(*(argv or [name, "-i"]), user=user, env=env, rows=rows,
                                            columns=columns)
        self._begin = 0
        self.greeting = self.wait()

    def _is_ready(self):
        cursor = self.terminal.cursor()
        return cursor is not None and self.terminal.rows()[cursor[0]].strip() == READY

    def wait(self):
        """Waits for the prompt and returns what came before it."""
        begin = self._begin
        self.terminal.wait_for(lambda: b"ready>" in self.terminal.raw[begin:] and self._is_ready())
        self._begin = len(self.terminal.raw)
        return printed(self.terminal.raw[begin:])

    def type(self, text):
        self.terminal.send(text)

    def run(self, command=""):
        """Types a command, waits for the next prompt and returns what was printed meanwhile."""
        begin = self._begin
        self.terminal.send(command + "\r")
        self.terminal.wait_for(lambda: b"\n" in self.terminal.raw[begin:] and
                               b"ready>" in self.terminal.raw[begin:].rpartition(b"\n")[2] and
                               self._is_ready())
        self._begin = len(self.terminal.raw)
        return printed(self.terminal.raw[begin:]).partition("\n")[2]


def last_prompt(machine, user="pat"):
    """When a shell's program last looked."""
    return os.stat(machine.store.mailbox(user, "state", ".prompt")).st_mtime_ns
