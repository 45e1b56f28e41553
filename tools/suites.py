"""Which tests concern which files: the one table behind `tools/check quick` and tools/mutate.

    /usr/bin/python3 tools/suites.py FILE...
    /usr/bin/python3 tools/suites.py --check

The first prints a line for each suite that a change of these files concerns: its folder and its test files,
without "test_" and ".py", the most telling first; "all" for the whole suite. Unit tests are not named: those
of a room begin with its name, and tools/check runs all of them. The second fails if the table names a
test file that is not there.
"""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SUITES = ("cli", "user", "tui", "desktop", "packaging", "cost", "fuzz", "faults", "machine")
ALL = "all"

SENDING = ("send_arguments send_durability send_events send_expiry send_recipients send_revoked "
           "send_store send_text")
FORM = "screen_compose screen_send"
GUIDE = {"cli": "dispatch", "tui": "manual guide", "packaging": "man_page completions"}

# What besides unit tests shows a mistake in a room of src/ (the path without its suffix), by suite.
ROOMS = {
    "common/characters": {"cli": "list", "tui": "screen_text screen_wide"},
    "common/child": {"tui": "screen_haste screen_send screen_signals"},
    "common/core": {
        "cli": "send_durability send_store send_text list status failing_lookups log_files",
        "tui": "screen_list"},
    "common/environment": {"cli": "environment dispatch send_store", "packaging": "install"},
    "common/event": {"cli": "send_events log revoke remind recovery_run"},
    "common/message": {"cli": "send_text send_store list status log_forged hostile_texts"},
    "common/pager": {"cli": "dispatch", "tui": "manual descriptors"},
    "common/texts": {"packaging": "translations"},
    "common/style": {"cli": "status list log", "tui": "manual guide screen_detail"},
    "common/width": {"tui": "screen_wide screen_text", "user": "commands"},
    "tbx/accounts": {"cli": "failing_lookups flaky_accounts send_recipients storable_names status "
                            "purge recovery_run"},
    "tbx/agent": {"cli": "agent send_events story recovery_run"},
    "tbx/command": {"cli": "send_expiry purge status log send_events sudo dispatch"},
    "tbx/confirmation": {"cli": "status list remind mailbox story"},
    "tbx/history": {"cli": "log log_files log_forged", "tui": "screen_detail"},
    "tbx/mailbox": {"cli": "mailbox privileges send_revoked revoke remind purge recovery_run "
                           "failing_lookups"},
    "tbx/main": {"cli": "dispatch sudo environment story send_arguments failing_lookups "
                        "lost_output",
                 "tui": "manual screen_list descriptors", "packaging": "completions man_page"},
    "tbx/mounts": {"cli": "mailbox purge revoke recovery_run"},
    "tbx/purge": {"cli": "purge two_at_once failing_lookups flaky_accounts",
                  "tui": "screen_dialogs"},
    "tbx/recipient_state": {"cli": "status list remind failing_lookups story",
                            "tui": "screen_list screen_detail"},
    "tbx/recipients": {"cli": "send_recipients storable_names failing_lookups send_arguments"},
    "tbx/recovery": {"cli": "recovery_run recovery_many two_at_once failing_lookups send_revoked"},
    "tbx/remind": {"cli": "remind two_at_once failing_lookups agent", "tui": "screen_dialogs"},
    "tbx/revoke": {"cli": "revoke two_at_once failing_lookups flaky_accounts",
                   "tui": "screen_dialogs"},
    "tbx/send": {"cli": f"{SENDING} failing_lookups two_at_once mailbox terminal agent",
                 "tui": "screen_send descriptors"},
    "tbx/sent": {"cli": "send_store send_durability status failing_lookups recovery_run revoke "
                        "purge"},
    "tbx/status": {"cli": "status list failing_lookups story",
                   "tui": "screen_list screen_detail screen_captures"},
    "tbx/terminal": {"cli": "terminal send_text send_recipients send_events"},
    "tbx/user_child": {"cli": "mailbox privileges status revoke recovery_run failing_lookups"},
    "tbx/withdrawal": {"cli": "revoke purge recovery_run recovery_many send_revoked "
                              "failing_lookups flaky_accounts"},
    "tbx/guide/browser": {"tui": "guide"},
    "tbx/guide/guide": {"tui": "manual guide"},
    "tbx/guide/keys": {"tui": "guide"},
    "tbx/guide/manual": GUIDE,
    "tbx/guide/texts": GUIDE,
    "tbx/screen/frame": {"tui": "screen_list screen_text screen_resize screen_wide guide"},
    "tbx/screen/keys": {"tui": "screen_list_keys guide screen_compose screen_dialogs"},
    "tbx/screen/session": {"tui": "screen_signals screen_list screen_haste guide"},
    "tbx/screen/width": {"tui": "screen_wide screen_text"},
    "tbx/tui/compose": {"tui": FORM},
    "tbx/tui/compose_draw": {"tui": f"{FORM} screen_captures"},
    "tbx/tui/compose_editor": {"tui": "screen_compose_editor screen_haste descriptors"},
    "tbx/tui/compose_tries": {"tui": "screen_haste"},
    "tbx/tui/compose_form": {"tui": FORM},
    "tbx/tui/detail": {"tui": "screen_detail screen_captures"},
    "tbx/tui/dialog": {"tui": "screen_dialogs screen_text screen_captures"},
    "tbx/tui/job": {"tui": "screen_haste screen_send screen_dialogs descriptors"},
    "tbx/tui/list": {"tui": "screen_list screen_list_keys screen_dialogs screen_captures"},
    "tbx/tui/list_dialogs": {"tui": "screen_dialogs screen_captures"},
    "tbx/tui/screen": {"tui": "screen_list screen_text screen_signals"},
    "tbx/tui/text": {"tui": "screen_text screen_list screen_compose"},
    "user/agent": {"desktop": "agent one_agent notification wayland", "faults": "agent",
                   "machine": "machine_desktop"},
    "user/desktop": {"desktop": "agent wayland", "machine": "machine_desktop"},
    "user/dialog": {"desktop": "agent"},
    "user/instance": {"desktop": "one_agent"},
    "user/notice": {"desktop": "notification mako"},
    "user/notification": {"desktop": "notification real_services mako"},
    "user/watch": {"desktop": "agent"},
    "user/agenda": {"desktop": "agent notification"},
    "user/desktop_answer": {"desktop": "agent notification", "faults": "agent"},
    "user/environment_query": {"desktop": "agent", "machine": "machine_desktop"},
    "user/retry": {"desktop": "agent"},
    "user/sessions": {"machine": "machine_desktop"},
    "user/answer": {"user": ALL, "faults": "answers questions agent", "desktop": "agent"},
    "user/ask": {"user": "question commands hostile", "faults": "questions"},
    "user/command": {"user": "commands question prompt hostile", "faults": "answers questions"},
    "user/help": {"user": "commands", "packaging": "user_completions man_page"},
    "user/hooks": {"user": "login prompt"},
    "user/inbox": {"user": ALL, "faults": "answers questions", "desktop": "agent"},
    "user/list": {"user": "commands hostile", "packaging": "user_completions"},
    "user/main": {"user": "commands login", "packaging": "user_completions"},
    "user/prompt": {"user": "prompt hostile", "faults": "answers"},
    "user/question": {"user": "question", "faults": "questions"},
    "user/reply": {"user": "commands hostile", "faults": "answers"},
    "user/shell": {"user": "login prompt", "faults": "shells", "packaging": "install"},
}

# A room without a row of its own, such as a new command: what shows a mistake in its wing.
WINGS = {
    "common": {"cli": ALL, "tui": "screen_list guide"},
    "tbx": {"cli": f"dispatch sudo story status list {SENDING}", "tui": "manual screen_list",
            "packaging": "man_page completions"},
    "user": {"user": ALL},
    "window": {"desktop": ALL},
}

# The examples of the user manual use every command and page, in a second.
MANUAL = {"packaging": "manual"}

# Other files, by a pattern of their path.
OTHERS = (
    (r"packaging/desktop", {"desktop": "installation", "machine": "machine_desktop machine_story"}),
    (r"packaging/", {"packaging": ALL, "machine": "machine_package machine_story"}),
    (r"docs/(manual|pictures)/", MANUAL),
    (r"(po/|tools/po)", {"packaging": "translations", "machine": "machine_story"}),
    (r"tools/(demo|install-deps|lib)", {"packaging": "demo"}),
    (r"tests/tui/expected/screens/", {"tui": ALL}),
    (r"tests/tui/expected/", {"tui": "manual guide"}),
    (r"tests/harness/pseudo_terminal", {"tui": "guide screen_list", "user": "question"}),
    (r"tests/harness/", {"cli": "story status dispatch log terminal agent"}),
    (r"bench/", {"cost": ALL}),
    (r"tests/machine/user_side/", {"machine": ALL}),
)


def suites_of_room(room):
    """{suite: its test files, in one text} of a room of src/."""
    return ROOMS.get(room) or WINGS.get(room.split("/")[0], {})


def suites_of_file(path):
    """The same of any file, by its path in the checkout."""
    if path.startswith("src/"):
        return suites_of_room(path.removeprefix("src/").rsplit(".", 1)[0])
    if found := re.fullmatch(r"tests/(\w+)/test_(\w+)\.py", path):
        return {found[1]: found[2]}
    for pattern, suites in OTHERS:
        if re.match(pattern, path):
            return suites
    if (found := re.fullmatch(r"tests/(\w+)/[^/]+\.py", path)) and found[1] in SUITES:
        return {found[1]: ALL}
    return {}


def concerned(paths):
    """{suite: test files} of several files, in the order of SUITES; those that are not there, as
    those of a room to come, are left out."""
    wanted = {}
    for path in paths:
        always = MANUAL if re.match(r"src/(common|tbx)/", path) else {}
        for suite, names in (*suites_of_file(path).items(), *always.items()):
            wanted.setdefault(suite, {}).update(dict.fromkeys(names.split()))
    found = {}
    for suite in filter(wanted.get, SUITES):
        names = [name for name in wanted[suite] if is_there(suite, name)]
        if names:
            found[suite] = [ALL] if ALL in names else names
    return found


def is_there(suite, name):
    path = ROOT / "tests" / suite
    return path.is_dir() if name == ALL else (path / f"test_{name}.py").exists()


def named_in_vain():
    """Test files that the row of a room names, and that are not there."""
    rooms = [room for room in ROOMS if (ROOT / "src" / f"{room}.cpp").exists()]
    return [f"{room}: tests/{suite}/test_{name}.py" for room in rooms
            for suite, names in ROOMS[room].items() for name in names.split()
            if not is_there(suite, name)]


def main(arguments):
    if arguments == ["--check"]:
        print(*(f"tools/suites.py names what is not there: {line}" for line in named_in_vain()),
              sep="\n", end="\n" if named_in_vain() else "")
        return 1 if named_in_vain() else 0
    for suite, names in concerned(arguments).items():
        print(suite, *names)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
