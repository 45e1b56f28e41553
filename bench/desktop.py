#!/usr/bin/python3
"""What the desktop's side costs: the way of a message to its window, the agent while nothing happens,
and a mailbox of 1,000 messages.

usage: bench/desktop.py [--tree BUILD] [--times N] [--idle SECONDS]

The agent runs in test mode with a mailbox, a display (Xvfb with openbox) and a bus of its own. Needs
root, for a /run of the agent's own.
"""

import argparse
import os
import re
import statistics
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.dont_write_bytecode = True
sys.path[:0] = [str(ROOT / "tests" / "desktop"), str(ROOT / "tests")]

from bus import SessionBus  # noqa: E402
from recipient import Recipient  # noqa: E402
from screen import Screen  # noqa: E402

WAITING = 1000
PATIENCE_SECONDS = 60
TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")


def await_path(path):
    deadline = time.monotonic() + PATIENCE_SECONDS
    while not path.exists():
        if time.monotonic() > deadline:
            raise SystemExit(f"bench: {path} does not come")
        time.sleep(0.0005)


def await_gone(agent):
    deadline = time.monotonic() + PATIENCE_SECONDS
    while agent.windows():
        if time.monotonic() > deadline:
            raise SystemExit("bench: the window does not go")
        time.sleep(0.005)


def facts(pid):
    """Wakes, seconds of processor time, and KiB of memory of its own."""
    status = Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    fields = Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()
    return (int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", status, re.MULTILINE)[1]),
            (int(fields[11]) + int(fields[12])) / TICKS_PER_SECOND,
            int(re.search(r"^RssAnon:\s+(\d+)", status, re.MULTILINE)[1]))


def tell(what, seconds):
    print(f"{what:44} median {statistics.median(seconds) * 1000:7.1f} ms   "
          f"worst {max(seconds) * 1000:7.1f} ms   of {len(seconds)}", flush=True)


def time_to_first_frame(user, agent, times):
    """From the start of `tbx send` until the window has said that it is shown."""
    taken = []
    for _ in range(times):
        began = time.monotonic()
        number = user.send()
        await_path(user.file("state", f"{number}.gui"))
        taken.append(time.monotonic() - began)
        user.file("inbox", number).unlink()
        await_gone(agent)
    tell("tbx send to the window's first frame", taken)


def time_of_the_agent(user, agent, times):
    """From the copy in the inbox until the window's program runs: a script in its place, which writes
    the time down. The time of the copy is exact to some milliseconds only: it can be too early."""
    began = user.folder / "began"
    user.use_window(f'date +%s%N >"{began}"; echo shown; exec sleep 60')
    taken = []
    for _ in range(times):
        number = user.send()
        copy = user.file("inbox", number)
        delivered = copy.stat().st_ctime_ns
        await_path(user.file("state", f"{number}.gui"))
        taken.append((int(began.read_text(encoding="ascii")) - delivered) / 1e9)
        copy.unlink()
        await_gone(agent)
    tell("of which the agent", taken)


def many_messages(user, screen):
    """A mailbox in which 1,000 messages wait."""
    text = "format: 1\nid: 1\nfrom: root\ndate: 1790000000\ntitle: \nexpires: \n\nHello\n"
    for folder in ("inbox", "state", "acks", "read"):
        user.file(folder).mkdir(parents=True, exist_ok=True)
    for number in range(1, WAITING + 1):
        user.file("inbox", number).write_text(text, encoding="ascii")
    began = time.monotonic()
    agent = user.start_agent(wait=False)
    await_path(user.file("state", "1.gui"))
    taken = time.monotonic() - began
    pid = agent.process.pid
    time.sleep(1)
    _, processor, memory = facts(pid)
    print(f"{WAITING:,} messages wait: start to the first frame {taken * 1000:.0f} ms, "
          f"{processor:.2f} s of processor time, RssAnon {memory} KiB", flush=True)


def idle(agent, seconds):
    time.sleep(2)
    wakes, processor, _ = facts(agent.process.pid)
    time.sleep(seconds)
    wakes_after, processor_after, memory = facts(agent.process.pid)
    print(f"idle for {seconds} s: {wakes_after - wakes} wakes, "
          f"{(processor_after - processor) * 1000:.0f} ms of processor time, RssAnon {memory} KiB",
          flush=True)


def with_user(tree, screen, measure):
    """Calls measure(user) with a new user."""
    with tempfile.TemporaryDirectory() as folder:
        user = Recipient(Path(folder), tree, screen)
        try:
            measure(user)
        finally:
            user.close()


def one_after_the_other(user, options):
    agent = user.start_agent()
    time_to_first_frame(user, agent, options.times)
    time_of_the_agent(user, agent, options.times)
    if options.idle:
        idle(agent, options.idle)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--tree", type=Path, default=ROOT / "build" / "release")
    parser.add_argument("--times", type=int, default=20)
    parser.add_argument("--idle", type=int, default=600, metavar="SECONDS")
    options = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("bench: must be run as root: the agent gets a /run of its own")
    tree = options.tree.resolve()
    with tempfile.TemporaryDirectory() as folder:
        bus = SessionBus(Path(folder))
        screen = Screen(bus=bus.address, home=Path(folder))
        try:
            with_user(tree, screen, lambda user: many_messages(user, screen))
            with_user(tree, screen, lambda user: one_after_the_other(user, options))
        finally:
            screen.close()
            bus.close()
    print(f"load: {os.getloadavg()[0]:.1f}")


main()
