"""Large stores and inputs, and machines that have nothing left."""

import os
import re
import shutil
from pathlib import Path

import pytest

from harness.clock import now
from harness.stopped import without_leak_check
from harness.store import short_time
from prerequisites import need_root, skip

DATE = 1790000000
INPUT_MAX = 64 * 1024 * 1024
PATH_MAX = 4095  # without the NUL
NAME_MAX = 255


# Long inputs.

def write_long(box, size, end):
    """A text file of that many bytes: only control characters between "Oh" and its end."""
    path = box.path("/var/lib/box/long")
    with path.open("wb") as file:
        file.write(b"Oh")
        file.truncate(size - len(end))
        file.seek(0, os.SEEK_END)
        file.write(end)
    return path


def test_a_file_of_64_mib_is_read_whole(box):
    write_long(box, INPUT_MAX, b"hello")
    result = box.run("send", "--to", "pat", "--file", "/var/lib/box/long")
    assert tuple(result) == ("Message 1 sent to 1 user.\n", "", 0)
    assert box.store.mailbox("pat", "inbox", 1).read_bytes().endswith(b"\n\nOhhello\n")


def test_a_longer_file_is_refused(box):
    write_long(box, INPUT_MAX + 1, b"hello")
    result = box.run("send", "--to", "pat", "--file", "/var/lib/box/long")
    assert tuple(result) == ("", "tbx: /var/lib/box/long: File too large\n", 1)
    assert not box.store.top.exists()


@pytest.mark.parametrize("beyond", [b"", b"not read"])
def test_standard_input_is_read_up_to_64_mib(box, beyond):
    path = write_long(box, INPUT_MAX + len(beyond), b"hello" + beyond)
    with path.open("rb") as text:
        result = box.run("send", "--to", "pat", stdin=text)
    assert tuple(result) == ("Message 1 sent to 1 user.\n", "", 0)
    assert box.store.mailbox("pat", "inbox", 1).read_bytes().endswith(b"\n\nOhhello\n")


# Long files of the store.

def recipients_of(size):
    """A recipients file of that many bytes, and how many names stand in it."""
    whole, rest = divmod(size, NAME_MAX + 1)
    names = [f"{number:05}".ljust(NAME_MAX, "n") for number in range(whole)]
    if rest > 1:
        names.append("x" * (rest - 1))
    text = "\n".join(names) + "\n" * (1 if rest != 1 else 2)
    assert len(text) == size
    return text.encode(), len(names)


@pytest.mark.parametrize("size", [4 * 1024 * 1024 - 1, 4 * 1024 * 1024])
def test_a_recipients_file_at_its_limit_is_read(box, size):
    text, names = recipients_of(size)
    box.store.make_message(7)
    box.store.write_private(box.store.sent(7, "recipients"), text)
    out, err, status = box.run("status", "7")
    assert (err, status) == ("", 0)
    assert out.count(" sent, not delivered\n") == names


def test_a_longer_recipients_file_names_nobody(box):
    box.store.make_message(7)
    box.store.write_private(box.store.sent(7, "recipients"), recipients_of(4 * 1024 * 1024 + 1)[0])
    out, err, status = box.run("status", "7")
    assert (err, status) == ("", 0)
    assert out.endswith("\nUSER             STATE\n")


@pytest.mark.parametrize("beyond, state", [(0, "delivered"), (1, "sent, not delivered")])
def test_a_delivery_log_counts_up_to_its_limit(box, beyond, state):
    line = b"pat 1790000000 0\n"
    box.store.make_message(7)
    log = b"#" * (16 * 1024 * 1024 + beyond - len(line) - 1) + b"\n" + line
    box.store.write_private(box.store.sent(7, "delivery"), log)
    out, err, status = box.run("status", "7")
    assert (err, status) == ("", 0)
    assert out.endswith(f"\npat              {state}\n")


# Long names.

def test_a_user_with_the_longest_name_gets_the_message(box):
    name = "n" * NAME_MAX
    box.add_user(name, 2000)
    assert tuple(box.run("send", "--to", name, "hello")) == ("Message 1 sent to 1 user.\n", "", 0)
    assert box.store.mailbox(name, "inbox", 1).read_bytes().endswith(b"hello\n")
    assert box.run("status", "1").stdout.endswith(f"\n{name} delivered\n")
    assert tuple(box.run("revoke", "1")) == ("Message 1 revoked.\n", "", 0)
    assert not box.store.mailbox(name, "inbox", 1).exists()


def test_a_name_that_no_folder_can_have_keeps_the_message_from_nobody_else(box):
    name = "n" * (NAME_MAX + 1)
    box.add_user(name, 2000)
    out, err, status = box.run("send", "--to", f"{name},pat", "hello")
    assert (out, status) == ("Message 1 delivered to 1 of 2 recipients.\n", 1)
    assert err.startswith(f"tbx: message 1 not delivered to: {name} (")
    assert box.store.mailbox("pat", "inbox", 1).exists()


def test_a_file_with_the_longest_path_is_read(box):
    folder = "/var/lib/box" + f"/{'d' * 200}" * 19 + f"/{'e' * 60}"
    longest = f"{folder}/{'f' * (PATH_MAX - len(folder) - 1)}"
    box.shell(f"mkdir -p {folder} && echo hello > {longest}")
    assert box.run("send", "--to", "pat", "--file", longest).status == 0
    refused = box.run("send", "--to", "pat", "--file", f"{longest}x")
    assert tuple(refused) == ("", f"tbx: {longest}x: File name too long\n", 1)


def deep_state(box, length):
    """A state directory of which no file name of a message is longer than `length`."""
    longest_inside = "/sent/1/recipients.tmp"
    assert len("/users/pat/inbox/1.tmp") == len(longest_inside)
    top = "/var/lib/box"
    while len(top) < length - len(longest_inside) - NAME_MAX - 2:
        top += "/" + "d" * 200
    top += "/" + "e" * (length - len(longest_inside) - len(top) - 1)
    box.shell(f"mkdir -p {top}")
    return {"TBX_VAR": top}


def test_a_state_directory_of_the_longest_name_works(box):
    env = deep_state(box, PATH_MAX)
    assert tuple(box.run("send", "--to", "pat", "hello", env=env)) == (
        "Message 1 sent to 1 user.\n", "", 0)
    assert re.search(r"\npat +delivered, .*\n$", box.run("status", "1", env=env).stdout)
    assert tuple(box.run("revoke", "1", env=env)) == ("Message 1 revoked.\n", "", 0)


def test_a_state_directory_of_a_longer_name_ends_the_send(box):
    env = deep_state(box, PATH_MAX + 1)
    out, err, status = box.run("send", "--to", "pat", "hello", env=env)
    assert (out, err, status) == ("", f"tbx: {env['TBX_VAR']}/sent/1: File name too long\n", 1)
    out, err, status = box.run("list", env=env)
    assert status == 0
    assert err == "tbx: message 1 was interrupted before being saved and has been cancelled\n"


# Nothing left: files, processes.

NOT_LOADED = 127  # the system could not even load the program's libraries


class Trial:
    """A command on a store, and what it has done when it succeeds."""

    def __init__(self, *arguments, prepare=lambda store: None, done, right="", settled):
        self.arguments, self.prepare = arguments, prepare
        self._done, self._right, self._settled = done, right, settled

    def judge(self, box, result):
        """Whether it succeeded; fails when it did neither that nor said what is wrong."""
        if result.status != 0:
            told = re.search(r"^tbx: .*\n\Z", result.stderr, re.MULTILINE)
            assert result.status == NOT_LOADED or (result.status == 1 and told), result
            return False
        assert re.search(self._right, result.stdout), result
        return self._done(box.store)

    def judge_later(self, box):
        """The next command has finished, or cancelled, whatever was begun."""
        later = box.run("list")
        assert later.status == 0
        top = box.store.top / "sent"
        entries = os.listdir(top) if top.exists() else []
        assert not [name for name in entries if name.startswith(".deleting")]
        for name in entries:
            assert not {"incomplete", "revoking"} & set(os.listdir(top / name)
                                                       if name.isdigit() else [])
        assert self._settled(box.store)


def has_copies(store, message_id, *users):
    return [user for user in ("alex", "pat")
            if store.mailbox(user, "inbox", message_id).exists()] == list(users)


def delivered(store):
    store.make_message(7, to=["alex", "pat"], copies=["alex", "pat"],
                       delivered=[("alex", DATE, 0), ("pat", DATE, 0)])
    store.confirm("pat", 7, DATE + 60)
    store.mark_shown("alex", 7, DATE)


def interrupted(store):
    store.make_message(7, to=["alex", "pat"], markers=["incomplete"])


def half_revoked(store):
    delivered(store)
    store.write_private(store.sent(7, "revoked"), f"{DATE}\n".encode())
    store.write_private(store.sent(7, "revoking"), b"")


def half_purged(store):
    delivered(store)
    store.sent(7).rename(store.top / "sent/.deleting-7")


def purged_whole(store):
    return not [path for path in store.tree() if "7" in os.path.basename(path)]


def untouched_or(done):
    return lambda store: not store.top.exists() or not store.sent(1).exists() or done(store)


TRIALS = {
    "send": Trial("send", "--to", "alex,pat", "--expires", "tomorrow", "hello",
                  right=r"^Message 1 sent to 2 users\.\n$",
                  done=lambda store: has_copies(store, 1, "alex", "pat"),
                  settled=untouched_or(lambda store: has_copies(store, 1, "alex", "pat")
                                       or store.sent(1, "failed").exists())),
    "revoke": Trial("revoke", "7", prepare=delivered, right=r"^Message 7 revoked\.\n$",
                    done=lambda store: has_copies(store, 7),
                    settled=lambda store: has_copies(store, 7)
                    if store.sent(7, "revoked").exists() else has_copies(store, 7, "alex", "pat")),
    "remind": Trial("remind", "7", prepare=delivered,
                    right=r"^Message 7: (1 recipient|0 recipients) reminded\.\n$",
                    done=lambda store: not store.mailbox("alex", "state", "7.term").exists(),
                    settled=lambda store: has_copies(store, 7, "alex", "pat")),
    "purge": Trial("purge", "1d", prepare=delivered, right=r"^Deleted 1 message older than 1d\.\n$",
                   done=purged_whole,
                   settled=lambda store: purged_whole(store)
                   or has_copies(store, 7, "alex", "pat")),
    "list": Trial("list", prepare=delivered, right=r"^ID .*\n(7 .* 1 confirmed · 1 delivered\n)?$",
                  done=lambda store: True,
                  settled=lambda store: has_copies(store, 7, "alex", "pat")),
    "status": Trial("status", "7", prepare=delivered,
                    right=r"\nalex +delivered, .*\npat +confirmed on \S+ \S+ \(terminal\)\n$",
                    done=lambda store: True,
                    settled=lambda store: has_copies(store, 7, "alex", "pat")),
    "log": Trial("log", "7", prepare=delivered, right=rf"^Message 7 · {short_time(DATE)}\n$",
                 done=lambda store: True,
                 settled=lambda store: has_copies(store, 7, "alex", "pat")),
    "an interrupted send": Trial("list", prepare=interrupted,
                                 done=lambda store: has_copies(store, 7, "alex", "pat"),
                                 settled=lambda store: has_copies(store, 7, "alex", "pat")),
    "an interrupted revoke": Trial("list", prepare=half_revoked,
                                   done=lambda store: has_copies(store, 7),
                                   settled=lambda store: has_copies(store, 7)),
    "an interrupted purge": Trial("list", prepare=half_purged, done=purged_whole,
                                  settled=purged_whole),
}


NEEDS_NO_CHILD = {"list", "log"}  # they go on without one, and show less


def start_over(box, trial):
    shutil.rmtree(box.store.top, ignore_errors=True)
    trial.prepare(box.store)


@pytest.mark.parametrize("name", TRIALS)
def test_with_few_descriptors_a_command_works_or_says_what_is_wrong(box, name):
    trial = TRIALS[name]
    outcomes = []
    for limit in range(3, 24):
        start_over(box, trial)
        result = box.run(*trial.arguments, wrap=["prlimit", f"--nofile={limit}:{limit}"],
                         env=without_leak_check(box))
        outcomes.append(trial.judge(box, result))
        trial.judge_later(box)
    assert not outcomes[0]
    assert outcomes[-6:] == [True] * 6, "it never works"
    assert sorted(outcomes) == outcomes, "more descriptors, and it fails again"


@pytest.fixture
def town(box):
    """A machine on which tbx runs as an account that nothing else runs as."""
    box.add_user("lone", 40_000 + os.getpid() % 20_000)
    box.path("/var/lib/box").chmod(0o777)
    return box


def run_alone(town, trial, processes):
    start_over(town, trial)
    if town.store.top.exists():
        town.shell(f"chown -R {town.uid('lone')} {town.state_name}")
    return town.run(*trial.arguments, user="lone", env=without_leak_check(town),
                    wrap=["prlimit", f"--nproc={processes}:{processes}"])


@pytest.mark.parametrize("name", TRIALS)
def test_a_user_without_processes_is_told_what_is_wrong(town, name):
    need_root("an account that nothing else runs as")
    trial = TRIALS[name]
    assert not trial.judge(town, run_alone(town, trial, 1)) or NEEDS_NO_CHILD & {*trial.arguments}
    trial.judge_later(town)
    assert trial.judge(town, run_alone(town, trial, 2)), "one child at a time is enough"


@pytest.fixture
def control_group():
    """A control group that limits processes: (folder, most processes) for `limited`."""
    tops = [Path("/sys/fs/cgroup/pids"), Path("/sys/fs/cgroup")]
    for top in tops:
        group = top / f"tbx-test-{os.getpid()}"
        try:
            group.mkdir()
        except OSError:
            continue
        if (group / "pids.max").exists():
            yield group
            group.rmdir()
            return
        group.rmdir()
    skip("needs control groups that limit processes")


def test_root_without_processes_is_told_what_is_wrong(machine, control_group):
    (control_group / "pids.max").write_text("1")
    join = ["/bin/sh", "-c", f"echo 0 > {control_group}/cgroup.procs; exec \"$@\"", "sh"]
    for name, trial in TRIALS.items():
        start_over(machine, trial)
        result = machine.run(*trial.arguments, wrap=join, env=without_leak_check(machine))
        assert not trial.judge(machine, result) or NEEDS_NO_CHILD & {*trial.arguments}, name
        trial.judge_later(machine)


# A clock that jumps back: to the store of a machine, it has been written in the future.

LATER = 4_000_000_000
assert LATER > now()


def from_the_future(store, **others):
    store.make_message(7, date=LATER, delivered=[("pat", LATER, 0)], copies=["pat"], **others)
    store.write_private(store.top / "sent/.seq", b"7\n")
    store.mark_shown("pat", 7, LATER)


def test_after_the_clock_jumps_back_numbers_still_go_on(box):
    from_the_future(box.store)
    assert box.run("send", "--to", "pat", "hello").stdout == "Message 8 sent to 1 user.\n"
    assert [line.split()[0] for line in box.run("list").stdout.splitlines()[1:]] == ["7", "8"]


def test_after_the_clock_jumps_back_a_purge_leaves_what_is_newer(box):
    from_the_future(box.store)
    before = box.store.tree()
    assert tuple(box.run("purge", "1m")) == ("No messages older than 1m.\n", "", 0)
    assert box.store.tree() == before


def test_after_the_clock_jumps_back_a_confirmation_still_counts(box):
    from_the_future(box.store)
    box.store.confirm("pat", 7, LATER + 60)
    assert box.run("status", "7").stdout.endswith(
        f"\npat              confirmed on {short_time(LATER + 60)} (terminal)\n")


def test_after_the_clock_jumps_back_a_message_is_revoked_and_reminded(box):
    from_the_future(box.store)
    assert box.run("remind", "7").stdout == "Message 7: 1 recipient reminded.\n"
    assert not box.store.mailbox("pat", "state", "7.term").exists()
    assert tuple(box.run("revoke", "7")) == ("Message 7 revoked.\n", "", 0)
    assert not box.store.mailbox("pat", "inbox", 7).exists()
    assert int(box.store.sent(7, "revoked").read_text()) <= now()


def test_after_the_clock_jumps_back_an_interrupted_send_is_finished(box):
    box.store.make_message(7, date=LATER, to=["alex", "pat"], delivered=[("pat", LATER, 0)],
                           copies=["pat"], markers=["incomplete"])
    out, err, status = box.run("list")
    assert (err, status) == ("tbx: completed delivery of message 7 to 1 recipients\n", 0)
    assert has_copies(box.store, 7, "alex", "pat")
