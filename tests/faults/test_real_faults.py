"""Disks that are really full and files that really may not grow."""

import pytest
from views import views

PAGE_BYTES = 4096
LONG_TEXT = "x" * 60_000


def mount_tmpfs(machine, place, size):
    machine.path(place).mkdir(parents=True, exist_ok=True)
    machine.shell(f"mount -t tmpfs -o size={size},mode=755 tmpfs {place}")


def test_a_full_mailbox_gets_its_copy_once_there_is_room(machine):
    machine.store.create()
    place = f"{machine.state_name}/users/pat"
    mount_tmpfs(machine, place, 2 * PAGE_BYTES)
    machine.shell(f"chown 1001:1001 {place}; chmod 700 {place}; "
                  f"head -c {2 * PAGE_BYTES} /dev/zero > {place}/filler")
    result = machine.run("send", "--to", "pat,sam", "Hello")
    assert result.stdout == "Message 1 delivered to 1 of 2 recipients.\n"
    assert machine.store.sent(1, "incomplete").exists()
    assert list(machine.store.mailbox("pat", "inbox").iterdir()) == []
    machine.shell(f"rm {place}/filler")
    assert machine.run("list").stderr == "tbx: completed delivery of message 1 to 1 recipients\n"
    assert machine.store.mailbox("pat", "inbox", 1).read_bytes() == machine.store.sent(
        1, "msg").read_bytes()


def assert_whole_or_nothing(machine, text, status):
    """Message 1 is with both users, cancelled, or was never begun; a new one can be sent."""
    assert machine.run("list").status == 0
    found = views(machine.store.tree()).get(1)
    if found is None or not found.folder.keys() - {"lock"}:
        assert status != 0
        return
    assert "incomplete" not in found.folder
    if "failed" in found.folder:
        assert status != 0 and not found.boxes
    else:
        assert found.holders("copy") == {"pat", "sam"}
    for files in found.boxes.values():
        assert files == {"copy": found.folder["msg"]}
        assert files["copy"].endswith(text.encode() + b"\n")
    assert machine.run("send", "--to", "pat", "Hello").stdout == "Message 2 sent to 1 user.\n"


@pytest.mark.parametrize("pages", range(13))
def test_a_store_that_fills_up_anywhere_in_a_send_loses_nothing(machine, pages):
    mount_tmpfs(machine, machine.state_name, 64 * PAGE_BYTES)
    machine.shell(f"head -c {(64 - pages) * PAGE_BYTES} /dev/zero > {machine.state_name}/filler")
    result = machine.run("send", "--to", "pat,sam", "Hello")
    machine.shell(f"rm {machine.state_name}/filler")
    assert_whole_or_nothing(machine, "Hello", result.status)


@pytest.mark.parametrize("limit", [0, 1, 2, 5, 8, 20, 60, 1000, 60_000, 60_300])
def test_files_that_may_not_grow_further_lose_nothing(machine, limit):
    machine.write("/run/text", LONG_TEXT)
    result = machine.run("send", "--to", "pat,sam", "--file", "/run/text",
                         wrap=["prlimit", f"--fsize={limit}:", "--"])
    assert_whole_or_nothing(machine, LONG_TEXT, result.status)
