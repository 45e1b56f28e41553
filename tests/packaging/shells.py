"""Interactive shells, driven through a terminal as a person drives them."""

import re

import pexpect

PATIENCE_SECONDS = 60
PROMPT = "ready> "
SHOW_LINE = "\x07"  # Ctrl+G: prints the line as it stands, between « and »
LIST = "\x0c"  # Ctrl+L: lists what could come next

ESCAPES = re.compile(r"\x1b\[[0-9;?]*[A-Za-z]|\x1b[()][A-Z0-9]|\x1b[=>]|[\x0e\x0f\x07]|.\x08")


class Shell:
    """A shell with a prompt. Keys are dealt with one after the other, so nothing has to be
    waited for but the answer to the last one."""

    def __init__(self, command, env, setup, prompt=f"PS1='{PROMPT}'"):
        self._child = pexpect.spawn(command[0], command[1:], env=env, encoding="utf-8",
                                    dimensions=(50, 200), timeout=PATIENCE_SECONDS, echo=False)
        for line in setup:
            self._child.send(line + "\r")
        self._child.send(f"{prompt}; echo set''up\r")
        self._child.expect("setup\r?\n")
        self._child.expect(PROMPT)

    def completed(self, typed):
        """What the line is once Tab is pressed behind `typed`."""
        self._child.send(typed + "\t" + SHOW_LINE)
        self._child.expect("«([^»]*)»")
        line = self._child.match[1]
        self._clear()
        return line

    def listed(self, typed):
        """The words that the shell lists behind `typed`."""
        self._child.send(typed + LIST + SHOW_LINE)
        self._child.expect("«[^»]*»")
        shown = ESCAPES.sub("", self._child.before).split("\n", 1)
        self._clear()
        words = shown[1].split() if len(shown) > 1 else []
        return {word for word in words if word not in PROMPT and word not in typed.split()}

    def _clear(self):
        self._child.send("\x03")
        self._child.expect(PROMPT)

    def close(self):
        self._child.close(force=True)


def data_folders(completions):
    return {"XDG_DATA_DIRS": f"{completions}:/usr/share"} if completions else {}


# completions   folder that takes the place of /usr/local/share, which is searched without it
# enter         command line put before the shell's own


def bash(env, completions=None, enter=()):
    return Shell([*enter, "bash", "--norc", "--noprofile", "-i"],
                 {**env, **data_folders(completions)}, [
        "bind 'set enable-bracketed-paste off'; bind 'set completion-query-items 0'",
        "bind 'set page-completions off'; bind 'set completion-ignore-case off'",
        ". /usr/share/bash-completion/bash_completion",
        """bind -x '"\\C-g": printf "«%s»\\n" "$READLINE_LINE"'""",
        "bind '\"\\C-l\": possible-completions'",
    ])


def zsh(env, completions=None, enter=()):
    functions = f"{completions}/zsh/site-functions" if completions else ""
    return Shell([*enter, "zsh", "-f", "-i"], env, [
        "unsetopt zle_bracketed_paste prompt_sp prompt_cr auto_menu; unset zle_bracketed_paste",
        f"fpath=({functions} $fpath)",
        "autoload -U compinit; compinit -D -u",
        "zstyle ':completion:*' verbose no; LISTMAX=0",
        "show() { print -r -- «$BUFFER» }; zle -N show; bindkey '^G' show",
        "bindkey '^L' list-choices",
    ])


def fish(env, completions=None, enter=()):
    # Without this folder fish reads every manual page of the machine at its first start.
    start = "mkdir -p ~/.local/share/fish/generated_completions; exec fish -i"
    return Shell([*enter, "sh", "-c", start], {**env, **data_folders(completions)}, [
        "set -g fish_greeting; set -g fish_autosuggestion_enabled 0",
        "bind \\cg 'echo \"«\"(commandline)\"»\"'",
        "bind \\cl 'echo; complete -C (commandline) | string replace -r \"\\t.*\" \"\"'",
    ], prompt=f"function fish_prompt; printf '{PROMPT}'; end")
