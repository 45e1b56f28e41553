#!/usr/bin/python3
"""What the hooks cost at a prompt, beside a bare prompt, the shell's own mail check and an empty hook;
and what `tellbox list` and one look cost in a mailbox with 10,000 messages.

usage: bench/prompt.py [--tree BUILD] [--prompts N] [SHELL...]

Each shell runs on a terminal of its own, in test mode on a mailbox of its own. All of its variants take
turns, in an order that changes, N prompts each. Printed are the medians of the time from Enter to the
next prompt and of the processor time of the shell, of which other programs take less; and what both are
above the bare prompt. tools/bench runs this too. Needs no root.
"""

import argparse
import os
import pty
import pwd
import random
import select
import shutil
import signal
import statistics
import subprocess
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
READY = b"ready> "
PROMPTS = {
    "bash": "PS1='ready> '\nbind 'set enable-bracketed-paste off'\nunset MAILCHECK\n",
    "zsh": "PS1='ready> '\nunsetopt zle prompt_sp\nMAILCHECK=999999\n",
    "fish": "function fish_prompt\n    echo -n 'ready> '\nend\nset -g fish_greeting\n",
}
MAIL_CHECK = {"bash": "MAILPATH={mail}\nMAILCHECK=0\n", "zsh": "mailpath=({mail})\nMAILCHECK=0\n"}
EMPTY_HOOK = {"bash": "PROMPT_COMMAND=:\n",
              "zsh": "nothing() { :; }\nprecmd_functions+=(nothing)\n",
              "fish": "function nothing --on-event fish_prompt\nend\n"}
START = {"bash": ["bash", "--noprofile", "--rcfile", "{rc}", "-i"], "zsh": ["zsh", "-i"],
         "fish": ["fish", "-i"]}
WAITING = (0, 1, 1000)  # messages that wait and are not due
QUIET_SECONDS = 0.003  # without output: the shell waits for keys
MANY = 10_000
RUNS = 7


class Variant:
    """A shell that waits at its prompt."""

    def __init__(self, name, what, folder, startup, env):
        self.what, self.times, self.processor_times = what, [], []
        folder.mkdir()
        rc = folder / {"bash": "rc", "zsh": ".zshrc", "fish": "fish/config.fish"}[name]
        rc.parent.mkdir(exist_ok=True)
        rc.write_text(PROMPTS[name] + startup, encoding="ascii")
        argv = [word.format(rc=rc) for word in START[name]]
        env = {**env, "ZDOTDIR": str(folder), "XDG_CONFIG_HOME": str(folder), "HOME": str(folder)}
        self._pid, self._terminal = pty.fork()
        if self._pid == 0:
            os.execvpe(argv[0], argv, env)
        self._await_prompt()

    def _await_prompt(self):
        """Returns when the prompt came. Whatever follows it is read, too."""
        seen = b""
        while READY not in seen:
            if not select.select([self._terminal], [], [], 30)[0]:
                raise SystemExit(f"{self.what}: no prompt came: {seen[-200:]!r}")
            seen += os.read(self._terminal, 65536)
        came = time.perf_counter()
        while select.select([self._terminal], [], [], QUIET_SECONDS)[0]:
            os.read(self._terminal, 65536)
        return came

    def _processor_seconds(self):
        threads = Path(f"/proc/{self._pid}/task").glob("*/schedstat")
        return sum(int(thread.read_text(encoding="ascii").split()[0]) for thread in threads) / 1e9

    def prompt(self):
        before, began = self._processor_seconds(), time.perf_counter()
        os.write(self._terminal, b"\r")
        self.times.append(self._await_prompt() - began)
        self.processor_times.append(self._processor_seconds() - before)

    def medians(self):
        """Milliseconds: until the prompt, of the shell's processor time."""
        return [statistics.median(times[2:]) * 1000
                for times in (self.times, self.processor_times)]

    def close(self):
        os.kill(self._pid, signal.SIGKILL)  # the other shells hold its terminal open
        os.close(self._terminal)
        os.waitpid(self._pid, 0)


def make_mailbox(state, waiting, due=False, header=""):
    """The own mailbox with so many messages, which were shown just now unless they are due."""
    box = state / "users" / pwd.getpwuid(os.geteuid()).pw_name
    for folder in ("inbox", "read", "acks", "state"):
        (box / folder).mkdir(parents=True)
    for number in range(1, waiting + 1):
        (box / f"inbox/{number}").write_text(f"date: 1790000000\n{header}\nHello\n",
                                               encoding="ascii")
        if not due:
            (box / f"state/{number}.term").write_text("shown\n", encoding="ascii")
    for folder in ("inbox", "state"):
        os.utime(box / folder, (1, 1))  # long before any look
    return box


def variants_of(shell, tree, scratch):
    env = {"PATH": f"{tree}:/usr/bin:/bin", "TERM": "xterm", "LANG": "C.UTF-8", "TBX_TEST": "1"}
    load = {"fish": "{0} hook fish | source\n"}.get(shell, 'eval "$({0} hook ' + shell + ')"\n')
    load = load.format(tree / "tellbox-user")
    yield Variant(shell, "bare prompt", scratch / "bare", "", env)
    if shell in MAIL_CHECK:
        mail = scratch / "mail"
        mail.touch()
        yield Variant(shell, "mail check", scratch / "checked",
                      MAIL_CHECK[shell].format(mail=mail), env)
    yield Variant(shell, "hook that does nothing", scratch / "nothing", EMPTY_HOOK[shell], env)
    for waiting in WAITING:
        state = scratch / f"state-{waiting}"
        make_mailbox(state, waiting)
        yield Variant(shell, f"hook, {waiting} waiting", scratch / f"hook-{waiting}", load,
                      {**env, "TBX_VAR": str(state)})


def due_times(shell, tree, scratch, count):
    """Prompts that show a message: each finds a new one."""
    state = scratch / "state-due"
    box = make_mailbox(state, 0)
    env = {"PATH": f"{tree}:/usr/bin:/bin", "TERM": "xterm", "LANG": "C.UTF-8", "TBX_TEST": "1",
           "TBX_VAR": str(state)}
    load = {"fish": "{0} hook fish | source\n"}.get(shell, 'eval "$({0} hook ' + shell + ')"\n')
    variant = Variant(shell, "hook, one due", scratch / "due", load.format(tree / "tellbox-user"),
                      env)
    for number in range(1, count + 1):
        (box / f"inbox/{number}").write_text("date: 1790000000\n\nHello\n", encoding="ascii")
        variant.prompt()
    shown = len(list((box / "state").glob("*.term")))
    if shown != count:
        raise SystemExit(f"{shell}: {shown} of {count} messages were shown")
    return variant


def median_run(command, env):
    """Seconds of one run on a terminal, whatever its exit status says."""
    times = []
    for _ in range(RUNS):
        master, slave = pty.openpty()
        began = time.perf_counter()
        program = subprocess.Popen(command, env=env, stdin=subprocess.DEVNULL, stdout=slave)
        os.close(slave)
        while program.poll() is None or select.select([master], [], [], 0)[0]:
            if select.select([master], [], [], 0.01)[0]:
                try:
                    os.read(master, 65536)
                except OSError:
                    break  # the last one that had it open has ended
        program.wait()
        times.append(time.perf_counter() - began)
        os.close(master)
    return statistics.median(times)


def measure_many(tree, scratch):
    """One run in mailboxes with many messages."""
    name = pwd.getpwuid(os.geteuid()).pw_name
    look = ["prompt", name, "0"]
    for what, command, options in (
            ("list", ["list"], {}), ("look, none due", look, {}),
            ("look, all expired", look, {"due": True, "header": "expires: 1790000001\n"})):
        state = scratch / f"many-{what}"
        make_mailbox(state, MANY, **options)
        env = {"TERM": "xterm", "TBX_TEST": "1", "TBX_VAR": str(state)}
        seconds = median_run([tree / "tellbox-user", *command], env)
        print(f"{MANY:,} messages: {what:22} {seconds * 1000:8.1f} ms")


def measure(shell, tree, count, scratch):
    variants = list(variants_of(shell, tree, scratch))
    for _ in range(count + 2):
        for variant in random.sample(variants, len(variants)):
            variant.prompt()
    for variant in variants:
        variant.close()  # a fish that starts a process waits for other ones that are open
    variants.append(due_times(shell, tree, scratch, min(count, 50)))
    variants[-1].close()
    bare = variants[0].medians()
    for variant in variants:
        columns = [f"{mine:8.3f} {mine - its:+8.3f} ms" for mine, its in
                   zip(variant.medians(), bare)]
        print(f"{shell:5} {variant.what:22} {'   processor'.join(columns)}")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("shells", nargs="*", metavar="SHELL")
    parser.add_argument("--tree", type=Path, default=ROOT / "build" / "release")
    parser.add_argument("--prompts", type=int, default=300)
    options = parser.parse_args()
    for shell in options.shells or [name for name in PROMPTS if shutil.which(name)]:
        with tempfile.TemporaryDirectory() as scratch:
            measure(shell, options.tree.resolve(), options.prompts, Path(scratch))
    with tempfile.TemporaryDirectory() as scratch:
        measure_many(options.tree.resolve(), Path(scratch))


main()
