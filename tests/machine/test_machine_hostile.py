"""A recipient who means no good, with all that an ordinary user may do, harms nobody else.

mal owns a mailbox and does there what they like while messages arrive.
"""

import contextlib
import os
import re
import signal
import stat

import pytest

from booted import end_process
from furnished import STORE, TOOLS
from harness.waiting import PATIENCE_SECONDS, await_condition

MAILBOX = f"{STORE}/users/mal"

# Less than it takes until a child that hangs is given up, so that a command that ends in it has
# met nothing to hang at.
WITHOUT_HANGING_SECONDS = 15
WITH_ONE_HANGING_SECONDS = 60

NOT_DELIVERED = ("tbx: message {} not delivered to: mal (see the log; the next tbx command will "
                 "retry)\n")


def as_mal(machine, script):
    """Runs a shell script as mal, in mal's mailbox."""
    machine.run("sh", "-ec", f"cd {MAILBOX}; {script}", user="mal")


@pytest.fixture
def mailbox(machine):
    """The machine on which mal has a mailbox, and pat too."""
    machine.send("--to", "mal,pat", "first", recipients=2)
    return machine


@pytest.fixture
def untouched(mailbox):
    """Fails if anything changed outside of mal's mailbox and of what sends must write."""
    written = [f"{STORE}/sent", MAILBOX, f"{STORE}/users/pat/inbox"]
    before = mailbox.disk(*written)
    yield
    assert mailbox.disk(*written) == before


def assert_pat_has(machine, *message_ids):
    """pat's mailbox holds the copies of these messages, and nothing else."""
    inbox = machine.mailbox("pat", "inbox")
    assert sorted(int(path.name) for path in inbox.iterdir()) == list(message_ids)
    for message_id in message_ids:
        assert machine.mailbox("pat", "inbox", message_id).read_bytes() == machine.sent(
            message_id, "msg").read_bytes()


def send_to_mal_and_pat(machine, message_id, timeout=WITHOUT_HANGING_SECONDS):
    """Sends; mal's part may fail. Returns whether it did not."""
    result = machine.tbx("send", "--to", "mal,pat", f"text {message_id}", timeout=timeout)
    *earlier, last = ["", *result.stderr.splitlines(keepends=True)]
    if result.returncode == 0:
        assert result.stdout == f"Message {message_id} sent to 2 users.\n"
        earlier.append(last)
    else:
        assert result.stdout == f"Message {message_id} delivered to 1 of 2 recipients.\n"
        assert last == NOT_DELIVERED.format(message_id)
    for line in filter(None, earlier):
        assert re.match("tbx: (completed delivery of message|message [0-9]+ still not)", line)
    return result.returncode == 0


def send_until_one_fails(machine):
    """Sends while an attack is on, until mal's part fails; returns the last message's number."""
    for message_id in range(2, 100):
        if not send_to_mal_and_pat(machine, message_id, WITH_ONE_HANGING_SECONDS):
            return message_id
    raise AssertionError("the attack never hit")


def run_every_command(machine, message_id):
    """All that an administrator can ask about a message; each command ends by itself, soon."""
    for arguments in (["list"], ["status", message_id], ["log", message_id],
                      ["remind", message_id], ["revoke", message_id], ["purge", "0m"]):
        result = machine.tbx(*arguments, timeout=WITHOUT_HANGING_SECONDS)
        assert result.returncode in (0, 1), arguments


# ---- What stands in the mailbox -----------------------------------------------------------

def test_folders_that_turn_into_links_lead_nobody_out_of_the_mailbox(mailbox, untouched):
    attack = mailbox.attack("swap", "/etc", "/root", f"{STORE}/sent", f"{STORE}/sent/1",
                            f"{STORE}/users/pat", f"{STORE}/users/pat/inbox", "/home/pat")
    for message_id in range(2, 12):
        send_to_mal_and_pat(mailbox, message_id)
    assert_pat_has(mailbox, *range(1, 12))
    assert attack.finish()["swaps"] > 0


def test_no_command_is_led_out_of_the_mailbox_by_folders_that_turn_into_links(mailbox):
    written = [f"{STORE}/sent", MAILBOX, f"{STORE}/users/pat"]
    before = mailbox.disk(*written)
    attack = mailbox.attack("swap", "/etc", "/root", f"{STORE}/sent", f"{STORE}/users/pat/inbox")
    run_every_command(mailbox, 1)
    assert attack.finish()["swaps"] > 0
    assert mailbox.disk(*written) == before


def test_links_in_place_of_the_next_copies_are_not_followed(mailbox, untouched):
    as_mal(mailbox, """for n in 2 3 4; do
        ln -s /etc/passwd inbox/$n; ln -s /etc/shadow inbox/$n.tmp; done""")
    for message_id in (2, 3, 4):
        assert send_to_mal_and_pat(mailbox, message_id)
        assert stat.S_ISREG(mailbox.mailbox("mal", "inbox", message_id).lstat().st_mode)
        assert not mailbox.mailbox("mal", "inbox", f"{message_id}.tmp").is_symlink()
    assert_pat_has(mailbox, 1, 2, 3, 4)


@pytest.mark.parametrize("folder", ["inbox", "acks", "read", "state"])
def test_a_folder_that_is_a_link_to_someone_else_s_stays_a_dead_end(mailbox, untouched, folder):
    as_mal(mailbox, f"rm -r {folder}; ln -s {STORE}/users/pat/{folder} {folder}")
    send_to_mal_and_pat(mailbox, 2)
    assert_pat_has(mailbox, 1, 2)


@pytest.mark.parametrize("target", ["/etc/shadow", f"{STORE}/users/pat/acks/1",
                                    f"{STORE}/sent/1/msg", "/root/secret"])
def test_a_confirmation_that_is_a_deep_link_shows_nothing_that_mal_cannot_read(mailbox, target):
    mailbox.path("/root/secret").write_text("1790000000 secret\n")
    mailbox.answer("pat", "confirm", "1", "terminal")
    as_mal(mailbox, f"""ln -s {target} link0
        for n in $(seq 30); do ln -s ../mal/link$((n - 1)) link$n; done
        ln -s ../link30 acks/1""")
    assert "\nmal              delivered\n" in mailbox.tbx("status", "1").stdout
    assert "1 confirmed · 1 delivered" in mailbox.tbx("list").stdout


def test_pipes_in_place_of_files_hold_no_command_up(mailbox):
    as_mal(mailbox, """for name in acks/1 state/1.term state/1.gui inbox/2 inbox/2.tmp; do
        mkfifo $name; done; rm inbox/1; mkfifo inbox/1""")
    status = mailbox.tbx("status", "1", timeout=WITHOUT_HANGING_SECONDS).stdout
    assert status.endswith("mal              delivered\npat              delivered\n")
    assert send_to_mal_and_pat(mailbox, 2)
    run_every_command(mailbox, 1)


def test_folders_in_place_of_files_hold_no_command_up(mailbox):
    as_mal(mailbox, """rm inbox/1
        for name in inbox/1 acks/1 read/1 state/1.term inbox/2 inbox/2.tmp; do
            mkdir $name; touch $name/file; done""")
    assert not send_to_mal_and_pat(mailbox, 2)
    run_every_command(mailbox, 1)
    assert_pat_has(mailbox, 2)


def test_huge_files_hold_no_command_up(mailbox):
    as_mal(mailbox, """echo 1790000000 terminal > acks/1
        for name in acks/1 inbox/1 inbox/2.tmp state/1.term read/3; do truncate -s 1T $name; done
        mkdir many; cd acks; seq 2 30000 | xargs touch; cd ../state; seq 2 30000 | xargs touch""")
    assert "confirmed on 21/09 14:13 (terminal)\n" in mailbox.tbx("status", "1").stdout
    assert send_to_mal_and_pat(mailbox, 2)
    run_every_command(mailbox, 1)


@pytest.mark.parametrize("mode", ["000", "100", "400", "500"])
def test_a_mailbox_without_rights_fails_alone_and_is_completed_later(mailbox, untouched, mode):
    as_mal(mailbox, f"chmod {mode} inbox .")
    assert not send_to_mal_and_pat(mailbox, 2)
    assert_pat_has(mailbox, 1, 2)
    mailbox.run("sh", "-c", f"chmod 700 {MAILBOX}; chmod 755 {MAILBOX}/inbox", user="mal")
    assert mailbox.tbx("list").stderr == "tbx: completed delivery of message 2 to 1 recipients\n"
    assert mailbox.mailbox("mal", "inbox", 2).exists()


def test_a_mailbox_that_mal_cannot_enter_is_shown_as_far_as_it_is_known(mailbox):
    mailbox.answer("mal", "confirm", "1", "terminal")
    as_mal(mailbox, "chmod 000 .")
    assert mailbox.tbx("status", "1").stdout.endswith("mal              delivered\n"
                                                      "pat              delivered\n")


def test_a_confirmation_does_not_drive_the_administrator_s_terminal(mailbox):
    as_mal(mailbox, r"printf '1790000000 \033]0;owned\007a\033[2Jb\rc\302\233d\n' > acks/1")
    assert "mal              confirmed on 21/09 14:13 (abcd)\n" in mailbox.tbx(
        "status", "1").stdout


def test_a_confirmation_cannot_add_lines_about_others(mailbox):
    as_mal(mailbox, r"printf '1790000000 x\nA 1 1790000000 x\nS 1 5\n' > acks/1")
    assert mailbox.tbx("status", "1").stdout.endswith(
        "mal              confirmed on 21/09 14:13 (x)\npat              delivered\n")


# ---- What happens to the processes --------------------------------------------------------

@pytest.fixture
def slow(mailbox):
    """The machine on which every step in mal's mailbox takes so long that it can be met."""
    as_mal(mailbox, """long=$(printf './%.0s' $(seq 2000))
        mkdir turns
        for folder in inbox acks read; do
            mv $folder turns/${folder}0
            for n in $(seq 36); do ln -s $long$folder$((n - 1)) turns/$folder$n; done
            ln -s turns/${folder}36 $folder; done""")
    return mailbox


def test_children_that_are_killed_fail_alone(slow, untouched):
    attack = slow.attack("signal_children", int(signal.SIGKILL))
    last = send_until_one_fails(slow)
    assert_pat_has(slow, *range(1, last + 1))
    attack.finish()
    assert slow.tbx("list").stderr == (
        f"tbx: completed delivery of message {last} to 1 recipients\n")


def test_a_child_that_is_stopped_holds_a_send_up_for_its_bound_only(slow, untouched):
    attack = slow.attack("signal_children", int(signal.SIGSTOP))
    last = send_until_one_fails(slow)
    assert_pat_has(slow, *range(1, last + 1))
    attack.finish()
    assert slow.run("pgrep", "-u", "mal", check=False).stdout == ""


def test_a_stopped_child_shows_nothing_of_root_s(slow):
    attack = slow.attack("look_into_children")
    for message_id in range(2, 12):
        assert send_to_mal_and_pat(slow, message_id)
    outcome = attack.finish()
    assert outcome["looked_into"] > 0
    assert outcome["opened"] == []


def stopped_send(machine):
    """Sends while an attack stops the children; returns the Run that waits for a stopped one."""
    for _ in range(100):
        send = machine.launch("send", "--to", "mal,pat", "text")
        await_condition(lambda: send.has_ended() or is_stopped_child_there(machine),
                        PATIENCE_SECONDS, "a send that has ended or waits")
        if not send.has_ended():
            return send
    raise AssertionError("the attack never hit")


def is_stopped_child_there(machine):
    return "T" in machine.run("ps", "-C", "tbx", "-o", "stat=", check=False).stdout


def test_a_stopped_child_does_not_keep_the_lock_of_a_send_that_was_killed(slow):
    attack = slow.attack("signal_children", int(signal.SIGSTOP))
    send = stopped_send(slow)
    send.kill()
    attack.finish()
    assert re.fullmatch("tbx: completed delivery of message [0-9]+ to 2 recipients\n",
                        slow.tbx("list").stderr)
    # One that was stopped before it could ask to be killed with its parent ends when it goes on.
    slow.run("pkill", "-CONT", "-u", "mal", check=False)
    await_condition(lambda: slow.run("pgrep", "-u", "mal", check=False).stdout == "",
                    PATIENCE_SECONDS, "the end of mal's last child")


@pytest.fixture
def mount_silent_files(mailbox, own_file_systems):
    """mount_silent_files(folder): whoever looks for a file there waits for mal, for ever."""
    with contextlib.ExitStack() as undoing:
        def mount(folder):
            device = os.open("/dev/fuse", os.O_RDWR | os.O_CLOEXEC)
            program = mailbox.start("python3", "-B", f"{TOOLS}/silent_files.py", device, folder,
                                    mailbox.uid("mal"), mailbox.gid("mal"), pass_fds=[device])
            os.close(device)  # the program's end shall be the file system's
            undoing.callback(mailbox.run, "umount", "--lazy", folder)
            undoing.callback(end_process, program)
            assert program.stdout.readline() == "at work\n"
        yield mount


def test_an_inbox_that_answers_nothing_holds_up_no_run_for_longer_than_one_child(
        mailbox, mount_silent_files):
    for message_id in (2, 3, 4):
        mailbox.send("--to", "mal,pat", "text", recipients=2, message_id=message_id)
    for message_id in (2, 3, 4):
        mailbox.sent(message_id, "incomplete").touch()
    mount_silent_files(f"{MAILBOX}/inbox")
    killed = mailbox.run("strace", "-qq", "-e", "trace=kill", "-e", "signal=none",
                         "tbx", "list", timeout=WITH_ONE_HANGING_SECONDS).stderr
    assert killed.count("SIGKILL") == 1
    for message_id in (2, 3, 4):
        assert f"message {message_id} still not delivered to 1 recipients" in killed
        assert mailbox.sent(message_id, "incomplete").exists()
    assert_pat_has(mailbox, 1, 2, 3, 4)


# A mailbox that is a mount of its user's is never asked by root: not even one child hangs.
def test_a_mailbox_that_a_user_mounted_fails_alone_and_at_once(mailbox, mount_silent_files):
    mount_silent_files(MAILBOX)
    assert not send_to_mal_and_pat(mailbox, 2)
    assert_pat_has(mailbox, 1, 2)
    assert "1 delivered · 1 sent" in mailbox.tbx("list", timeout=WITHOUT_HANGING_SECONDS).stdout
    run_every_command(mailbox, 1)


@pytest.mark.parametrize("place", [MAILBOX, f"{STORE}/users"])
def test_a_mount_of_the_administrator_s_goes_on_working(mailbox, own_file_systems, place):
    mailbox.run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", place)
    try:
        assert send_to_mal_and_pat(mailbox, 2)
        assert mailbox.run("ls", f"{MAILBOX}/inbox").stdout == "2\n"
        assert mailbox.tbx("revoke", "2").stdout == "Message 2 revoked.\n"
        assert mailbox.run("ls", f"{MAILBOX}/inbox").stdout == ""
    finally:
        mailbox.run("umount", place)


def test_no_process_of_mal_s_has_the_administrator_s_terminal(mailbox):
    mailbox.open_session("mal", "wayland")
    terminal = mailbox.open_terminal("pat")
    attack = mailbox.attack("take_descriptors")
    send = ("exec setsid --ctty --wait tbx send --to mal,pat 'to all' "
            f"<>{terminal.path} >&0 2>&0")
    mailbox.run("sh", "-c", send, timeout=WITH_ONE_HANGING_SECONDS)
    outcome = attack.finish()
    assert "systemd-stdio-b" in outcome["looked_into"]  # it was there to be robbed
    assert [found for found in outcome["taken"] if terminal.path in found[2]] == []
    assert_pat_has(mailbox, 1, 2)


def test_a_mute_bus_keeps_no_pipeline_of_the_administrator_s_open(mailbox):
    mailbox.open_session("mal", "wayland")
    attack = mailbox.attack("take_descriptors")
    printed = mailbox.run("sh", "-c", "tbx send --to mal,pat text 2>&1 | cat",
                          timeout=WITH_ONE_HANGING_SECONDS).stdout
    assert printed == "Message 2 sent to 2 users.\n"
    assert "systemd-stdio-b" in attack.finish()["looked_into"]


def test_what_mal_s_own_bus_says_does_not_reach_the_administrator(mailbox):
    mailbox.open_session("mal", "wayland")
    attack = mailbox.attack("answer_as_bus", "\x1b]0;owned\x07\x1b[2JPassword:")
    assert send_to_mal_and_pat(mailbox, 2)
    assert_pat_has(mailbox, 1, 2)
    assert attack.finish()["starts"] == 1


def test_mal_cannot_reach_the_store(mailbox, untouched):
    for command in (["rm", "-rf", f"{STORE}/sent"], ["mv", MAILBOX, f"{STORE}/users/other"],
                    ["touch", f"{STORE}/users/file"], ["cat", f"{STORE}/users/pat/inbox/1"]):
        assert mailbox.run(*command, user="mal", check=False).returncode != 0
    assert mailbox.sent(1, "msg").exists()
