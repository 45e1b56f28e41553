"""Which shells load the hook by themselves, and where not a byte may be printed."""

import os

import pytest
from prerequisites import need_programs
from recipient import PROGRAM, TELLBOX, plain
from shells import PROMPT, Shell
from test_prompt import shown

PROFILE = 'for file in /etc/profile.d/*.sh; do . "$file"; done\n'
PERMIT = "".join(f"{kind} required pam_permit.so\n"
                 for kind in ("auth", "account", "password", "session"))


@pytest.fixture
def installed(machine):
    """The machine with the files that the package puts into /etc."""
    machine.install("profile", "/etc/profile.d/tellbox.sh")
    machine.write("/etc/profile", PROFILE)
    machine.write("/etc/shells", "/bin/bash\n/bin/sh\n/usr/bin/zsh\n/usr/bin/fish\n")
    machine.write_home("pat", ".bash_profile", ". ~/.bashrc\n")
    return machine


# ---- Login shells ---------------------------------------------------------------------------

@pytest.mark.parametrize("hushed", [False, True])
def test_a_login_shell_of_bash_has_the_hook(installed, hushed):
    installed.deliver(7)
    if hushed:
        installed.write_home("pat", ".hushlogin", "")
    shell = Shell(installed, "bash", "", argv=["bash", "-l"])
    assert shown(7) in shell.greeting
    installed.deliver(8)
    assert shell.run() == shown(8)


@pytest.mark.parametrize("name", ["dash", "mksh"])
def test_a_login_shell_without_a_hook_shows_messages_at_login(installed, name):
    need_programs(name)
    installed.deliver(7)
    terminal = installed.on_terminal(name, "-l", env={"PS1": "$ "})
    terminal.wait_for("Answer with: tellbox")
    terminal.wait_for(lambda: terminal.rows()[terminal.cursor()[0]].strip() == "$")
    assert plain(terminal.raw).startswith(shown(7))


def test_hushlogin_silences_such_a_login(installed):
    installed.deliver(7)
    installed.write_home("pat", ".hushlogin", "")
    terminal = installed.on_terminal("dash", "-l", env={"PS1": "$ "})
    terminal.wait_for(lambda: terminal.raw.endswith(b"$ "))
    assert "Tellbox" not in terminal.frame()


@pytest.mark.parametrize("options", ["-u", "-e", "-x", "-uexa", "-o posix", "-o noglob"])
def test_a_login_shell_loads_the_hook_under_every_option(installed, options):
    installed.deliver(7)
    installed.write("/etc/profile.d/before.sh", f"set {options}\n")
    shell = Shell(installed, "bash", "", argv=["bash", "-l"])
    assert shown(7) in shell.greeting
    assert "unbound" not in shell.greeting and "__tellbox_load" not in shell.greeting
    assert "Starts the program" not in shell.greeting


def test_a_login_bash_that_is_called_sh_has_the_hook(installed):
    installed.deliver(7)
    installed.write_home("pat", ".profile", PROMPT["bash"])
    shell = Shell(installed, "bash", "", argv=["bash", "-c", "exec -a sh bash -l"])
    assert shown(7) in shell.greeting
    installed.deliver(8)
    assert shell.run() == shown(8)


@pytest.mark.parametrize("how", ["emulate sh -c '. /etc/profile'", ". /etc/profile",
                                 "setopt no_unset err_exit; . /etc/profile"])
def test_a_login_zsh_that_reads_the_profile_has_the_hook(installed, how):
    need_programs("zsh")
    installed.deliver(7)
    installed.path("/etc/zsh").mkdir()
    installed.write("/etc/zsh/zprofile", f"{how}\n")
    shell = Shell(installed, "zsh", "", argv=["zsh", "-l"])
    assert shell.greeting == shown(7)
    installed.deliver(8)
    assert shell.run() == shown(8)


def test_a_restricted_shell_shows_messages_at_login_and_has_no_errors(installed):
    installed.deliver(7)
    shell = Shell(installed, "bash", "", argv=["bash", "-rl"])
    assert shell.greeting == shown(7)
    installed.deliver(8)
    assert shell.run() == ""


def test_a_login_shell_that_runs_a_command_prints_not_a_byte(installed):
    installed.deliver(7)
    installed.write_home("pat", ".bashrc", "")
    for name in ("bash", "dash", "sh"):
        terminal = installed.on_terminal(name, "-lc", "true")
        terminal.wait_exit()
        assert terminal.raw == b"", name


def test_test_mode_does_not_reach_the_shells_that_are_installed(installed):
    installed.deliver(7)
    shell = Shell(installed, "bash", "", argv=["bash", "-l"],
                  env={"TBX_TEST": "1", "TBX_VAR": "/nowhere"})
    assert shown(7) in shell.greeting


def test_a_profile_without_the_program_is_silent(installed):
    installed.deliver(7)
    installed.path(PROGRAM).unlink()
    shell = Shell(installed, "bash", "", argv=["bash", "-l"])
    assert "ellbox" not in shell.greeting
    assert shell.run("declare -p PROMPT_COMMAND 2>&1").count("tellbox") == 0


def test_fish_loads_the_hook_from_its_vendor_folder(installed):
    need_programs("fish")
    installed.install("fish-hook", "/run/share/fish/vendor_conf.d/tellbox.fish")
    installed.deliver(7)
    shell = Shell(installed, "fish", "", env={"XDG_DATA_DIRS": "/run/share:/usr/share"})
    assert shown(7) in shell.greeting
    installed.deliver(8)
    assert shell.run() == shown(8)


# ---- Becoming somebody else -----------------------------------------------------------------

@pytest.mark.parametrize("command", [["su", "-", "pat"], ["/usr/bin/sudo", "-i", "-u", "pat"]],
                         ids=["su", "sudo"])
def test_whoever_becomes_the_user_sees_the_users_messages(installed, command):
    need_programs("su", "sudo")
    installed.path("/etc/pam.d").mkdir()
    installed.write("/etc/pam.d/other", PERMIT)
    installed.write("/etc/sudoers", "root ALL=(ALL:ALL) ALL\n", 0o440)
    installed.deliver(7)
    installed.write_home("pat", ".bashrc", PROMPT["bash"])
    terminal = installed.on_terminal(*command, user="root", rows=40, columns=100)
    terminal.wait_for("ready>")
    assert shown(7) in plain(terminal.raw)


def test_two_panes_of_tmux_show_a_message_once(installed):
    need_programs("tmux")
    installed.store.make_mailbox("pat")
    installed.write_home("pat", ".bashrc", PROMPT["bash"])
    tmux = ["tmux", "-f", "/dev/null", "-S", "/run/home/pat/socket"]
    terminal = installed.on_terminal(*tmux, "new-session", "bash -l", ";", "split-window",
                                     "bash -l", rows=40, columns=100, env={"TERM": "vt100"})
    # Without an alternate screen, of which the terminal here knows one program only.
    terminal.wait_for(lambda: terminal.frame().count("ready>") == 2)
    installed.deliver(7)
    for pane in (0, 1):
        installed.shell(" ".join([*tmux, "send-keys", "-t", f":.{pane}", "Enter"]), user="pat")
    terminal.wait_for(lambda: terminal.frame().count("ready>") == 4)
    assert terminal.frame().count("Answer with: tellbox") == 1


# ---- Over the network -----------------------------------------------------------------------

@pytest.fixture
def server(installed):
    """An ssh server in a network of its own; server(script) runs a script beside it."""
    need_programs("dropbear", "dropbearkey", "dbclient", "scp", "sftp", "rsync", "ip")
    installed.path("/run/ssh").mkdir()
    installed.write("/etc/profile.d/path.sh", "PATH=/run/stand-in:/usr/bin:/bin\n")
    for kind in ("host", "user"):
        installed.shell(f"dropbearkey -t ed25519 -f /run/ssh/{kind}")
    public = installed.shell("dropbearkey -y -f /run/ssh/user | grep ^ssh-").stdout
    installed.write_home("pat", ".ssh/authorized_keys", public)
    installed.home("pat").joinpath(".ssh").chmod(0o700)
    installed.home("pat").joinpath(".ssh/authorized_keys").chmod(0o600)
    installed.write_home("pat", ".bashrc", PROMPT["bash"].replace("bind", "[ -t 0 ] && bind") +
                         f'eval "$({TELLBOX} hook bash)"\n')
    installed.write("/run/ssh/client", "#!/bin/sh\nexec dbclient -y -i /run/ssh/user "
                    "-p 2222 \"$@\"\n", 0o755)
    start = ("ip link set lo up && dropbear -E -r /run/ssh/host -p 127.0.0.1:2222 </dev/null "
             ">/run/ssh/log 2>&1 && ")

    def beside_server(script):
        return ["unshare", "-n", "sh", "-c", start + script]

    return beside_server


def test_an_ssh_session_shows_the_message(installed, server):
    installed.deliver(7)
    terminal = installed.on_terminal(*server("/run/ssh/client pat@127.0.0.1"), user="root",
                                     rows=40, columns=100)
    terminal.wait_for("ready>")
    terminal.wait_for("Answer with")
    assert shown(7) in plain(terminal.raw)
    terminal.send("tellbox read 7\r")
    terminal.wait_for("Message 7 confirmed.")


SILENT = {
    "command": ("/run/ssh/client pat@127.0.0.1 echo done", "done\n"),
    "interactive command": ("/run/ssh/client pat@127.0.0.1 bash -ic true", None),
    "scp": ("scp -O -q -S /run/ssh/client pat@127.0.0.1:/etc/shells /run/ssh/copy && echo done",
            "done\n"),
    "sftp": ("echo get /etc/shells /run/ssh/copy >/run/ssh/batch && "
             "sftp -q -b /run/ssh/batch -S /run/ssh/client pat@127.0.0.1 >/dev/null && echo done",
             "done\n"),
    "rsync": ("rsync -e /run/ssh/client pat@127.0.0.1:/etc/shells /run/ssh/copy && echo done",
              "done\n"),
}


@pytest.mark.parametrize("script, output", SILENT.values(), ids=SILENT)
def test_what_is_no_session_of_a_person_sees_not_a_byte(installed, server, script, output):
    installed.deliver(7)
    program, *arguments = server(script)
    result = installed.run(*arguments, program=program)
    assert "ellbox" not in result.stdout + result.stderr
    if output is not None:
        assert result.stdout == output, result
    assert installed.files() == ["inbox/7"]


# ---- tellbox-user shells on|off -------------------------------------------------------------

BASHRC = "# the system's own\nalias l=ls"  # without an end of line


@pytest.fixture
def files(installed):
    installed.write("/etc/bash.bashrc", BASHRC, 0o640)
    installed.path("/etc/zsh").mkdir()
    installed.write("/etc/zsh/zshrc", "# of zsh\n", 0o755)
    os.chown(installed.path("/etc/zsh/zshrc"), 7, 8)
    return installed


def switch(machine, word):
    return machine.user_program("shells", word, user=None)


def facts(machine, name):
    status = machine.path(name).stat()
    return (status.st_mode, status.st_uid, status.st_gid, machine.path(name).read_text())


def test_shells_on_and_off_leave_the_files_as_they_were(files):
    names = ("/etc/bash.bashrc", "/etc/zsh/zshrc")
    before = [facts(files, name) for name in names]
    assert switch(files, "on").stdout == ("bash: now on (/etc/bash.bashrc)\n"
                                          "zsh: now on (/etc/zsh/zshrc)\n")
    during = [facts(files, name) for name in names]
    assert [fact[:3] for fact in during] == [fact[:3] for fact in before]
    assert during[0][3].startswith(BASHRC + "\n# >>> tellbox >>>\n")
    assert switch(files, "on").stdout == ("bash: already on (/etc/bash.bashrc)\n"
                                          "zsh: already on (/etc/zsh/zshrc)\n")
    assert [facts(files, name) for name in names] == during
    assert switch(files, "off").status == 0
    assert [facts(files, name) for name in names] == before
    assert switch(files, "off").stdout == ("bash: already off (/etc/bash.bashrc)\n"
                                           "zsh: already off (/etc/zsh/zshrc)\n")
    assert sorted(os.listdir(files.path("/etc/zsh"))) == ["zshrc"]


@pytest.mark.parametrize("name, file", [("bash", "/etc/bash.bashrc"), ("zsh", "/etc/zsh/zshrc")])
def test_with_shells_on_the_other_shells_have_the_hook_too(files, name, file):
    need_programs(name)
    files.deliver(7)
    assert "Tellbox" not in Shell(files, name, "").greeting
    switch(files, "on")
    files.path(file).chmod(0o644)
    shell = Shell(files, name, "")
    assert shown(7) in shell.greeting
    files.deliver(8)
    assert shell.run() == shown(8)


def test_shells_follows_a_link_to_the_file(files):
    files.path("/etc/bash.bashrc").rename(files.path("/etc/real"))
    files.path("/etc/bash.bashrc").symlink_to("real")
    switch(files, "on")
    assert files.path("/etc/bash.bashrc").is_symlink()
    assert "tellbox" in files.path("/etc/real").read_text()


@pytest.mark.parametrize("kind", ["pipe", "folder"])
def test_shells_leaves_what_is_no_file(files, kind):
    files.path("/etc/bash.bashrc").unlink()
    if kind == "pipe":
        os.mkfifo(files.path("/etc/bash.bashrc"))
    else:
        files.path("/etc/bash.bashrc").mkdir()
    result = files.user_program("shells", "on", user=None, timeout=20)
    assert (result.status, result.stderr) == (
        1, "tellbox: /etc/bash.bashrc is not a regular file\n")


def test_shells_says_where_it_looked_for_a_file_in_vain(files):
    files.path("/etc/bash.bashrc").unlink()
    files.path("/etc/zsh/zshrc").rename(files.path("/etc/zshrc"))
    result = switch(files, "on")
    assert (result.status, result.stderr, result.stdout) == (
        0, "", "bash: has no file here (/etc/bash.bashrc or /etc/bashrc)\n"
        "zsh: now on (/etc/zshrc)\n")


def test_shells_at_once_write_one_block(files):
    output = files.shell(f"for i in $(seq 30); do {PROGRAM} shells on & done; wait").stdout
    assert output.count("bash: now on") == 1 and output.count("bash: already on") == 29
    assert facts(files, "/etc/bash.bashrc")[3].count("# >>> tellbox >>>") == 1
    output = files.shell(f"for i in $(seq 15); do {PROGRAM} shells on & {PROGRAM} shells off & "
                         f"done; wait; {PROGRAM} shells off").stdout
    assert "bash: " in output
    assert facts(files, "/etc/bash.bashrc")[3] == BASHRC


def test_shells_is_for_root_alone(files):
    result = files.user_program("shells", "on", user="pat")
    assert (result.status, result.stderr) == (
        1, "tellbox: only root can change the shells' files in /etc\n")
    assert facts(files, "/etc/bash.bashrc")[3] == BASHRC


def test_shells_leaves_a_damaged_block(files):
    files.write("/etc/bash.bashrc", "# >>> tellbox >>>\n")
    result = switch(files, "off")
    assert (result.status, result.stderr) == (
        1, "tellbox: /etc/bash.bashrc: the tellbox block is damaged, remove it by hand\n")
    assert files.path("/etc/bash.bashrc").read_text() == "# >>> tellbox >>>\n"


def test_shells_tells_a_file_that_cannot_be_written(files):
    files.shell("mount --bind /etc /etc && mount -o remount,ro,bind /etc")
    result = switch(files, "on")
    assert result.status == 1
    assert "tellbox: /etc/bash.bashrc: Read-only file system\n" in result.stderr
    assert facts(files, "/etc/bash.bashrc")[3] == BASHRC


@pytest.mark.parametrize("words", [[], ["up"], ["on", "off"]])
def test_shells_takes_one_of_two_words(files, words):
    result = files.user_program("shells", *words, user=None)
    assert result.status == 1 and result.stderr.startswith("tellbox: ")
