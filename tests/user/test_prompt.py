"""Messages at the prompt of bash, zsh and fish."""

import itertools
import os
import shutil
import subprocess
import termios
import time

import pytest
from harness.waiting import wait_for
from prerequisites import need_programs
from recipient import PROGRAM, TELLBOX
from shells import LOAD, Shell, last_prompt

MESSAGE = "── Tellbox · Message from the administrator · 21/09 14:13 ──\n"
RULE = "─" * 40 + "\n"
AN_HOUR = 60  # the status of a look after which the next is due in so many minutes
ANSWER = "Answer with: tellbox   or: tellbox read {0} · tellbox later {0}\n"


def shown(message_id, text="Hello\n"):
    return MESSAGE + text + RULE + ANSWER.format(message_id)


def let_the_clock_go_on(machine, user="pat"):
    """The hook takes times that are equal for a change: this makes those of the folders older."""
    past = time.time() - 60
    for folder in ("inbox", "state"):
        os.utime(machine.store.mailbox(user, folder), (past, past))


# ---- What is shown --------------------------------------------------------------------------

def test_a_message_is_shown_once_at_the_next_prompt(machine, shell_name):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, shell_name)
    assert MESSAGE not in shell.greeting
    machine.deliver(7)
    assert shell.run() == shown(7)
    assert shell.run() == ""
    assert machine.store.mailbox("pat", "state", "7.term").read_text() == "shown\n"


def test_a_message_that_waits_is_shown_when_the_shell_starts(machine, shell_name):
    machine.deliver(7)
    assert shown(7) in Shell(machine, shell_name).greeting


def test_a_mailbox_that_is_made_later_is_found(machine, shell_name):
    shell = Shell(machine, shell_name)
    assert shell.run() == ""
    machine.deliver(7)
    assert shell.run() == shown(7)


def test_only_one_of_several_shells_shows_it(machine, shell_name):
    machine.store.make_mailbox("pat")
    first, second = Shell(machine, shell_name), Shell(machine, shell_name)
    machine.deliver(7)
    assert first.run() == shown(7)
    assert second.run() == ""


def test_two_shells_that_look_at_the_same_moment_show_it_once(machine):
    machine.store.make_mailbox("pat")
    shells = [Shell(machine, "bash"), Shell(machine, "zsh")]
    machine.deliver(7)
    holder = machine.start("-c", "exec 9</var/lib/tellbox/users/pat; flock 9; echo held; cat",
                           program="/bin/sh", user="pat", stdin=subprocess.PIPE)
    wait_for(lambda: machine.shell("! flock -n /var/lib/tellbox/users/pat true",
                                   check=False).status == 0)
    for shell in shells:
        shell.type("\r")
    wait_for(lambda: machine.shell("pgrep -c tellbox-user", check=False).stdout == "2\n")
    machine.shell("pkill -x cat")
    holder.wait()
    for shell in shells:
        shell.run()
    assert sum(shell.terminal.frame().count("Answer with") for shell in shells) == 1


def prepare_a_short_pause(machine):
    """A message that was shown, and comes back after two seconds."""
    machine.write("/etc/tellbox.conf", "")
    machine.path("/etc/tellbox").mkdir()
    machine.write("/etc/tellbox/tellbox.conf", "TBX_REMIND_MINUTES=1\n")
    machine.deliver(7)
    machine.store.mark_shown("pat", 7, int(time.time()) - 58)


def test_a_message_comes_back_when_its_time_is_over(machine, shell_name):
    prepare_a_short_pause(machine)
    shell = Shell(machine, shell_name)
    assert MESSAGE not in shell.greeting
    wait_for(lambda: shell.run() == shown(7), limit_seconds=10)


def test_a_reminded_message_comes_back_at_once(machine, shell_name):
    machine.deliver(7)
    shell = Shell(machine, shell_name)
    let_the_clock_go_on(machine)
    machine.store.mailbox("pat", "state", "7.term").unlink()
    assert shell.run() == shown(7)


def test_what_was_postponed_on_the_desktop_is_not_shown(machine, shell_name):
    machine.deliver(7)
    machine.store.write_as("pat", ("state", "7.gui"), b"postponed\n")
    machine.deliver(8)
    machine.store.write_as("pat", ("state", "8.gui"), b"shown\n")
    shell = Shell(machine, shell_name)
    assert shown(8) in shell.greeting and shown(7) not in shell.greeting


def test_what_was_answered_or_has_expired_is_not_shown(machine, shell_name):
    machine.deliver(7)
    machine.store.confirm("pat", 7, 1790000000)
    machine.deliver(8, expires=1790000001)
    assert "Tellbox" not in Shell(machine, shell_name).greeting


# ---- What it leaves alone -------------------------------------------------------------------

def test_what_is_typed_ahead_belongs_to_the_shell(machine, shell_name):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, shell_name)
    machine.deliver(7)
    shell.type("\recho r; echo l; echo $status$?\r" if shell_name != "fish" else
               "\recho r; echo l\r")
    shell.terminal.wait_for(lambda: "Answer with" in shell.terminal.frame())
    shell.terminal.poll_for(lambda: shell.terminal.frame().count("ready>") >= 3)
    assert machine.answers() == {}
    assert "inbox/7" in machine.files()
    assert "echo r; echo l" in shell.terminal.frame()


@pytest.mark.parametrize("due", [False, True])
def test_the_status_of_the_last_command_stays(machine, shell_name, due):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, shell_name)
    if due:
        machine.deliver(7)
    shell.run("sh -c 'exit 3'")
    assert shell.run("echo $status" if shell_name == "fish" else "echo $?") == "3\n"


def test_bash_keeps_pipestatus_and_the_last_argument(machine):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "bash")
    machine.deliver(7)
    shell.run("false | (exit 4) | true last")
    assert shell.run('echo "${PIPESTATUS[*]}"') == "1 4 0\n"
    shell.run("true one two")
    assert shell.run('echo "$_"') == "two\n"


def test_zsh_keeps_pipestatus_and_the_last_argument(machine):
    need_programs("zsh")
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "zsh")
    machine.deliver(7)
    shell.run("false | (exit 4) | true last")
    assert shell.run('echo "$pipestatus"') == "1 4 0\n"
    shell.run("true one two")
    assert shell.run('echo "$_"') == "two\n"


def test_fish_keeps_pipestatus(machine):
    need_programs("fish")
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "fish")
    machine.deliver(7)
    shell.run("false | sh -c 'exit 4' | true")
    assert shell.run("echo $pipestatus") == "1 4 0\n"


def test_every_name_that_it_defines_begins_with_its_own(machine, shell_name):
    machine.deliver(7)
    listing = {"bash": "{ compgen -v; compgen -A function; }",
               "zsh": "{ print -l ${(k)parameters} ${(k)functions}; }",
               "fish": "begin; set -n; functions -an; end"}[shell_name]
    names = {}
    for startup in ("", LOAD[shell_name]):
        shell = Shell(machine, shell_name, startup)
        shell.run()
        out = f"/run/home/pat/names-{bool(startup)}"
        shell.run(f"{listing} >{out}")
        shell.run(f"{listing} >{out}")
        names[bool(startup)] = set(machine.path(out).read_text().split())
    new = names[True] - names[False]
    assert [name for name in new if not name.startswith("__tellbox") and
            name not in ("PROMPT_COMMAND", "precmd_functions", "_")] == []
    assert "__tellbox_prompt" in new


def test_loading_it_twice_is_loading_it_once(machine, shell_name):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, shell_name, LOAD[shell_name] * 2)
    machine.deliver(7)
    assert shell.run() == shown(7)
    if shell_name == "bash":
        assert shell.run('echo "${PROMPT_COMMAND[*]}"').count("__tellbox_hook") == 1
    if shell_name == "zsh":
        assert shell.run('echo "$precmd_functions"').count("__tellbox_prompt") == 1


def test_the_history_holds_nothing_of_it(machine, shell_name):
    machine.deliver(7)
    shell = Shell(machine, shell_name)
    shell.run("true mine")
    listed = shell.run("fc -l 1" if shell_name == "zsh" else "history")
    assert "true mine" in listed and "tellbox" not in listed


# ---- bash: options, other hooks, traps ------------------------------------------------------

BASH_SETTINGS = {
    "nounset": "set -u", "errexit": "set -e", "xtrace": "set -x", "noglob": "set -f",
    "posix": "set -o posix", "nullglob": "shopt -s nullglob failglob",
    "globignore": "GLOBIGNORE='*'", "noclobber": "set -C", "allexport": "set -a",
    "functrace": "set -ET", "ifs": "IFS=/.i", "extdebug": "shopt -s extdebug",
    "cdspell": "shopt -s xpg_echo nocasematch nocaseglob",
    "readonly": "readonly status=1 found=1 state=1 now=1",
}


# What would hide the rest of the test.
UNSET = {"set -x": "set +x\n"}


@pytest.mark.parametrize("setting", BASH_SETTINGS.values(), ids=BASH_SETTINGS)
def test_bash_shows_the_message_under_every_option(machine, setting):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "bash")
    shell.run(setting)
    before = shell.run('echo "$-$IFS$(shopt -p)"')
    machine.deliver(7)
    assert shell.run() == shown(7)
    assert shell.run() == ""
    assert shell.run('echo "$-$IFS$(shopt -p)"') == before


@pytest.mark.parametrize("setting", BASH_SETTINGS.values(), ids=BASH_SETTINGS)
def test_bash_loads_it_under_every_option(machine, setting):
    machine.deliver(7)
    shell = Shell(machine, "bash", f"{setting}\n{LOAD['bash']}{UNSET.get(setting, '')}")
    assert shown(7) in shell.greeting
    assert "bash: " not in shell.greeting
    machine.deliver(8)
    assert shown(8) in shell.run()


@pytest.mark.parametrize("start", [["bash", "-ri"], ["bash", "-i"]], ids=["started", "set"])
def test_a_restricted_bash_has_no_hook_and_no_errors(machine, start):
    machine.store.make_mailbox("pat")
    load = "set -r\n" + f". {machine.home_name('pat')}/hook\n".replace("/run/home/pat/", "")
    machine.write_home("pat", "hook", machine.tellbox("hook", "bash").stdout)
    shell = Shell(machine, "bash", LOAD["bash"] if start[1] == "-ri" else load, argv=start)
    machine.deliver(7)
    assert shell.run() == ""
    assert "restricted" not in shell.greeting
    assert "tellbox" not in shell.run("declare -p PROMPT_COMMAND 2>&1")


EXPORTED, EXPORTED_LATER = "export PROMPT_COMMAND=:\n{load}", "{load}export PROMPT_COMMAND\n"


@pytest.mark.parametrize("options, export", [
    *itertools.product(["", "-x", "-u", "-o posix"], [EXPORTED, EXPORTED_LATER]),
    ("-r", EXPORTED)])
def test_a_child_shell_that_inherits_prompt_command_is_silent(machine, options, export):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "bash", export.replace("{load}", LOAD["bash"]))
    machine.deliver(7)
    assert shell.run() == shown(7)
    shell.run("command_not_found_handle() { echo not found; }; "
              "export -f command_not_found_handle; export PS1 PS4=+")
    shell.run(f"exec bash --norc {options}")
    output = shell.run("true")
    assert [line for line in output.splitlines() if not line.startswith("+")] == []
    assert "__tellbox" not in output


def test_bash_traces_nothing_of_it(machine):
    machine.deliver(7)
    shell = Shell(machine, "bash")
    machine.deliver(8)
    shell.run("set -x")
    machine.deliver(9)
    output = shell.run("true")
    assert output == "+ true\n" + shown(9)


def test_bash_does_not_end_under_errexit_after_a_failed_command(machine):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "bash")
    shell.run("set -e")
    machine.deliver(7)
    assert shell.run("false || true") == shown(7)
    assert shell.run("echo $-").count("e") == 1


def test_bash_is_not_ended_by_the_status_of_the_hook(machine):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "bash")
    shell.run("set -e")
    shell.run("(exit 3) || __tellbox_prompt")
    assert shell.run("echo alive") == "alive\n"


def test_bash_exports_nothing_of_it(machine):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "bash")
    shell.run("set -a")
    machine.deliver(7)
    assert shell.run() == shown(7)
    assert "__tellbox" not in shell.run("env")


def test_bash_traces_next_to_nothing_of_it_into_a_file(machine):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "bash", LOAD["bash"] + "exec 8>~/trace\nBASH_XTRACEFD=8\nset -x\n")
    machine.deliver(7)
    assert shell.run() == shown(7)
    assert "tellbox-user" not in (machine.home("pat") / "trace").read_text()


@pytest.mark.parametrize("before, after", [
    ("PROMPT_COMMAND='echo before $?'", "PROMPT_COMMAND+='; echo after $?'"),
    ("PROMPT_COMMAND='echo before $?;'", "PROMPT_COMMAND+='\necho after $?'"),
    ("PROMPT_COMMAND=('echo before $?')", "PROMPT_COMMAND+=('echo after $?')"),
    ("PROMPT_COMMAND='echo before $? # says'", "PROMPT_COMMAND+=('echo after $?')"),
    ("declare -a PROMPT_COMMAND=('echo before $?' ':')", "PROMPT_COMMAND+=('echo after $?')"),
])
def test_bash_runs_other_hooks_before_and_behind(machine, before, after):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "bash", f"{before}\n{LOAD['bash']}{after}\n")
    machine.deliver(7)
    output = shell.run("(exit 5)")
    assert output.startswith("before 5\n" + shown(7) + "after ")
    if "=(" in after:
        assert output.endswith("after 5\n")


@pytest.mark.parametrize("before", ["", "PROMPT_COMMAND=", "PROMPT_COMMAND=()",
                                    "declare -a PROMPT_COMMAND"])
def test_bash_keeps_the_hook_when_a_later_startup_file_sets_prompt_command(machine, before):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "bash", f"{before}\n{LOAD['bash']}"
                  '[ -n "$PROMPT_COMMAND" ] || PROMPT_COMMAND="echo mine"\n')
    machine.deliver(7)
    assert shell.run() == "mine\n" + shown(7)
    assert shell.run("set -u; PROMPT_COMMAND='echo other'") == "other\n"
    machine.deliver(8)
    assert shell.run() == "other\n" + shown(8)


@pytest.mark.parametrize("inherited", ["", "set -E\n"], ids=["own", "inherited"])
def test_bash_springs_no_trap_twice(machine, inherited):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "bash", LOAD["bash"] + inherited + "trap 'echo failed' ERR\ntrap 'echo bye' EXIT\n")
    machine.deliver(7)
    assert shell.run("false") == "failed\n" + shown(7)
    assert "failed" in shell.run("trap -p") and "bye" in shell.run("trap -p")


def test_bash_leaves_a_prompt_command_that_cannot_be_changed(machine):
    machine.deliver(7)
    shell = Shell(machine, "bash", f"readonly PROMPT_COMMAND='echo mine'\n{LOAD['bash']}")
    assert shell.greeting == "mine\n"


# ---- zsh ------------------------------------------------------------------------------------

ZSH_SETTINGS = {
    "nounset": "setopt no_unset", "errexit": "setopt err_exit", "errreturn": "setopt err_return",
    "kshlike": "setopt ksh_arrays sh_word_split", "noglob": "setopt no_glob",
    "nomatch": "setopt no_nomatch null_glob", "warn": "setopt warn_create_global",
    "allexport": "setopt all_export", "posix": "setopt posix_builtins posix_identifiers",
    "noclobber": "setopt no_clobber", "readonly": "readonly found=1 state=1 now=1",
}


@pytest.mark.parametrize("setting", ZSH_SETTINGS.values(), ids=ZSH_SETTINGS)
def test_zsh_shows_the_message_under_every_option(machine, setting):
    need_programs("zsh")
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "zsh")
    shell.run(setting)
    before = shell.run("setopt")
    machine.deliver(7)
    assert shell.run() == shown(7)
    assert shell.run("setopt") == before


@pytest.mark.parametrize("setting", [*ZSH_SETTINGS.values(), "emulate sh", "emulate ksh",
                                     "setopt ignore_braces ignore_close_braces"])
def test_zsh_loads_it_under_every_option(machine, setting):
    need_programs("zsh")
    machine.deliver(7)
    shell = Shell(machine, "zsh", f"{setting}\n{LOAD['zsh']}")
    assert shell.greeting == shown(7)
    machine.deliver(8)
    assert shell.run() == shown(8)


@pytest.mark.parametrize("emulation", ["sh", "ksh", "csh"])
def test_zsh_loads_it_in_the_emulation_of_another_shell(machine, emulation):
    need_programs("zsh")
    machine.store.make_mailbox("pat")
    machine.write_home("pat", "hook", machine.tellbox("hook", "zsh").stdout)
    shell = Shell(machine, "zsh", f"emulate {emulation} -c '. ~/hook'\n")
    assert shell.run() == ""
    machine.deliver(7)
    assert shell.run() == shown(7)


def test_a_restricted_zsh_has_no_errors(machine):
    need_programs("zsh")
    machine.deliver(7)
    shell = Shell(machine, "zsh", argv=["zsh", "-ri"])
    assert shell.greeting == ""
    assert shell.run() == ""


@pytest.mark.parametrize("startup", [
    "autoload -Uz add-zsh-hook\nother() { echo other $? }\nadd-zsh-hook precmd other\n{load}",
    "precmd_functions=(other)\nother() { echo other $? }\n{load}",
    "setopt ksh_arrays\nprecmd_functions=(other)\nother() { echo other $? }\n{load}",
    "other() { echo other $? }\n{load}precmd_functions=(other $precmd_functions)\n",
], ids=["add-zsh-hook", "array", "ksh-arrays", "before"])
def test_zsh_runs_other_hooks_too(machine, startup):
    need_programs("zsh")
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "zsh", startup.replace("{load}", LOAD["zsh"]))
    machine.deliver(7)
    output = shell.run("(exit 5)")
    assert "other 5\n" in output and shown(7) in output


def test_zsh_springs_no_trap(machine):
    need_programs("zsh")
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "zsh", LOAD["zsh"] + "trap 'echo failed' ZERR\n")
    machine.deliver(7)
    assert shell.run("false") == "failed\n" + shown(7)
    assert shell.run() == ""


def test_zsh_traces_nothing_of_it(machine):
    need_programs("zsh")
    machine.store.make_mailbox("pat")
    shell = Shell(machine, "zsh")
    shell.run("setopt xtrace")
    machine.deliver(9)
    output = shell.run("true")
    assert shown(9) in output
    assert "__tellbox" not in output.replace("+__tellbox_prompt", "+", 1)


def test_bash_without_its_own_clock_has_the_hook_too(machine):
    prepare_a_short_pause(machine)
    shell = Shell(machine, "bash", "unset EPOCHSECONDS\n" + LOAD["bash"])
    assert MESSAGE not in shell.greeting
    wait_for(lambda: shell.run() == shown(7), limit_seconds=10)


# ---- fish -----------------------------------------------------------------------------------

def test_fish_without_its_newer_builtins_has_the_hook_too(machine):
    need_programs("fish")
    machine.store.make_mailbox("pat")
    load = f"{TELLBOX} hook fish | string replace -a 'path mtime' 'path nosuch' | source\n"
    shell = Shell(machine, "fish", load)
    machine.deliver(7)
    assert shell.run() == shown(7)
    assert shell.run() == ""


def test_fish_has_the_hook_where_the_program_is_from_the_future(machine):
    os.utime(machine.path(PROGRAM), (time.time() + 5000,) * 2)
    prepare_a_short_pause(machine)
    shell = Shell(machine, "fish")
    assert MESSAGE not in shell.greeting
    assert shell.run() == ""
    wait_for(lambda: shell.run() == shown(7), limit_seconds=10)


# ---- Where it is silent ---------------------------------------------------------------------

@pytest.mark.parametrize("env", [{"TERM": "dumb"}, {"TELLBOX_PROMPT": "off"}],
                         ids=["dumb", "off"])
def test_a_terminal_that_wants_nothing_gets_nothing(machine, shell_name, env):
    machine.deliver(7)
    assert "Tellbox" not in Shell(machine, shell_name, env=env).greeting
    assert "state/7.term" not in machine.files()


@pytest.mark.parametrize("shell_name", ["bash", "zsh"])  # fish gives a terminal a name
def test_a_terminal_without_a_name_gets_nothing(machine, shell_name):
    machine.deliver(7)
    startup = "unset TERM\n" + LOAD[shell_name]
    assert "Tellbox" not in Shell(machine, shell_name, startup).greeting
    assert "state/7.term" not in machine.files()


@pytest.mark.parametrize("env", [{"TERM": "dumb"}, {"TERM": ""}, {"TERM": None},
                                 {"TELLBOX_PROMPT": "off"}], ids=str)
def test_what_is_silenced_needs_no_look_for_an_hour(machine, env):
    machine.deliver(7)
    terminal = machine.on_terminal(PROGRAM, "prompt", "pat", "0", env=env)
    assert (terminal.wait_exit(), terminal.raw, machine.files()) == (AN_HOUR, b"", ["inbox/7"])


def test_without_a_terminal_or_a_mailbox_no_look_is_needed_for_an_hour(machine):
    assert machine.on_terminal(PROGRAM, "prompt", "pat", "0").wait_exit() == AN_HOUR
    machine.deliver(7)
    assert machine.user_program("prompt", "pat", "0").status == AN_HOUR
    assert machine.files() == ["inbox/7"]


def test_a_variable_silences_an_open_shell_and_lets_it_speak_again(machine, shell_name):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, shell_name)
    shell.run("set -g TELLBOX_PROMPT off" if shell_name == "fish" else "TELLBOX_PROMPT=off")
    machine.deliver(7)
    assert shell.run() == ""
    shell.run("set -e TELLBOX_PROMPT" if shell_name == "fish" else "unset TELLBOX_PROMPT")
    assert "state/7.term" in machine.files()


def test_the_shell_behind_the_panels_of_a_file_manager_leaves_messages_to_others(machine,
                                                                                 shell_name):
    machine.store.make_mailbox("pat")
    shutil.copy("/bin/sh", machine.path("/run/mc"))
    behind = Shell(machine, shell_name, argv=["/run/mc", "-c", f"{shell_name} -i; :"],
                   env={"MC_SID": "1"})
    machine.deliver(7)
    assert behind.run() == ""
    assert "state/7.term" not in machine.files()
    behind.type(f"{shell_name} -i\r")
    assert shown(7) in behind.wait()


def test_a_shell_that_only_runs_a_command_prints_not_a_byte(machine, shell_name):
    machine.deliver(7)
    machine.write_home("pat", ".bashrc", LOAD["bash"])
    machine.write_home("pat", ".zshrc", LOAD["zsh"])
    machine.write_home("pat", ".config/fish/config.fish", LOAD["fish"])
    terminal = machine.on_terminal(shell_name, "-ic", "true")
    assert terminal.wait_exit() == 0
    assert b"ellbox" not in terminal.raw
    assert machine.store.mailbox("pat", "state", "7.term").exists() is False


def test_an_interactive_shell_without_a_terminal_prints_not_a_byte(machine, shell_name):
    machine.deliver(7)
    machine.write_home("pat", ".bashrc", LOAD["bash"])
    machine.write_home("pat", ".zshrc", LOAD["zsh"])
    machine.write_home("pat", ".config/fish/config.fish", LOAD["fish"])
    result = machine.run("-i", program=shell_name, user="pat", input="true\nexit\n",
                         env=machine.environment("pat"))
    assert "ellbox" not in result.stdout + result.stderr


def test_an_open_shell_is_silent_when_the_program_is_removed(machine, shell_name):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, shell_name)
    machine.path(PROGRAM).unlink()
    machine.deliver(7)
    assert shell.run() == ""


def test_a_shell_goes_on_if_the_program_fails(machine, shell_name):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, shell_name)
    machine.path(PROGRAM).unlink()
    machine.write(PROGRAM, "#!/bin/sh\necho failed >&2\nexit 1\n", 0o755)
    machine.deliver(7)
    shell.run("sh -c 'exit 3'")
    assert shell.run("echo $status" if shell_name == "fish" else "echo $?") == "3\n"


# ---- Cost -----------------------------------------------------------------------------------

@pytest.mark.parametrize("waiting", [0, 1, 50])
def test_no_process_is_started_while_nothing_is_due(machine, shell_name, waiting):
    machine.store.make_mailbox("pat")
    for message_id in range(1, waiting + 1):
        machine.deliver(message_id)
        machine.store.mark_shown("pat", message_id, int(time.time()))
    shell = Shell(machine, shell_name)
    let_the_clock_go_on(machine)
    shell.run()
    before = last_prompt(machine)
    for _ in range(3):
        assert shell.run() == ""
    assert last_prompt(machine) == before


def make_older(machine, message_id, user="pat"):
    """Lets the clock reach the second behind the message's delivery."""
    path = machine.store.mailbox(user, "inbox", message_id)
    wait_for(lambda: int(time.time()) > int(path.stat().st_ctime))


def test_a_shell_that_cannot_mark_shows_a_message_once_all_the_same(machine, shell_name):
    machine.deliver(7)
    os.chown(machine.store.mailbox("pat", "state"), 0, 0)
    make_older(machine, 7)
    shell = Shell(machine, shell_name)
    assert shown(7) in shell.greeting
    assert shell.run() == ""
    assert shell.run() == ""
    assert "state/7.term" not in machine.files()


def test_a_mark_that_cannot_be_written_silences_no_other_message(machine, shell_name):
    machine.deliver(7)
    machine.store.mailbox("pat", "state", "7.term").mkdir()
    os.chown(machine.store.mailbox("pat", "state", "7.term"), machine.uid("pat"), -1)
    make_older(machine, 7)
    shell = Shell(machine, shell_name)
    assert shown(7) in shell.greeting
    assert shell.run() == ""
    machine.deliver(8)
    assert shell.run() == shown(8)
    assert shell.run() == ""
    machine.store.mailbox("pat", "state", "8.term").unlink()  # reminded
    assert shell.run() == shown(8)
    assert machine.store.mailbox("pat", "state", "7.term").is_dir()


def test_what_could_not_be_marked_comes_back_when_its_time_is_over(machine):
    machine.deliver(7)
    os.chown(machine.store.mailbox("pat", "state"), 0, 0)
    make_older(machine, 7)
    now = int(time.time())
    status = {}
    for ago in (0, 1800, -9999):  # the last one: the clock was set back since
        terminal = machine.on_terminal(PROGRAM, "prompt", "pat", str(now - ago))
        status[ago] = (terminal.wait_exit(), "Hello" in terminal.frame())
    assert status == {0: (214, False), 1800: (213, True), -9999: (213, True)}


def test_a_look_that_fails_is_made_again(machine, shell_name):
    machine.deliver(7)
    machine.store.mailbox("pat", "inbox", 7).chmod(0o000)
    shell = Shell(machine, shell_name)
    assert "Tellbox" not in shell.greeting
    let_the_clock_go_on(machine)
    os.chmod(machine.store.mailbox("pat", "inbox", 7), 0o644)  # changes no folder
    wait_for(lambda: shell.run() == shown(7), limit_seconds=10)


def test_an_expired_message_is_not_counted(machine):
    for message_id in range(1, 30):
        machine.deliver(message_id, expires=1790000001 if message_id > 3 else 0)
    assert "waiting: tellbox" not in Shell(machine, "bash").greeting


def test_a_prompt_looks_no_account_up(machine, shell_name):
    machine.store.make_mailbox("pat")
    shell = Shell(machine, shell_name)
    machine.write("/etc/passwd", "")
    machine.deliver(7)
    assert shell.run() == shown(7)


def test_a_stopped_terminal_holds_no_lock(machine):
    machine.deliver(7)
    terminal = machine.on_terminal("sh", "-c", f"read line; exec {PROGRAM} prompt pat 0")
    tty = os.open(terminal.tty_name, os.O_RDWR | os.O_NOCTTY)
    termios.tcflow(tty, termios.TCOOFF)
    terminal.send("\n")
    wait_for(lambda: machine.shell("pgrep -x tellbox-user", check=False).status == 0)
    flock = "flock --timeout 20 /var/lib/tellbox/users/pat"
    assert machine.shell(f"{flock} true", user="pat").status == 0
    termios.tcflow(tty, termios.TCOON)
    os.close(tty)
    terminal.wait_status()
    assert "state/7.term" in machine.files()
