"""Whether what a run told is true: on its standard output, as errors, and in the journal."""

import re
from collections import Counter

from rules import require
from tracing import KILLED
from views import SHOWN, log_users, views

WARNINGS = re.compile(
    r"completed delivery of message \d+ to [1-9]\d* recipients|"
    r"some copies could not be removed from the mailboxes: the next tbx command will retry|"
    r"message \d+ was interrupted before being saved and has been cancelled|"
    r"message \d+ still not delivered to [1-9]\d* recipients \(see tbx status \d+\)")
# A command that has changed something succeeds, though its words were lost.
LOST_OUTPUT = re.compile(r"standard output: .+")
NOT_DELIVERED = re.compile(r"message (\d+) not delivered to:((?: \S+)+) \(see the log; the next "
                           r"tbx command will retry\)")


def check_told(judge, run, at_once, records, clean):
    """The run's words against the tree that it left.

    records  (event, message, user, details) of the journal, in order
    clean    standard output of a run that nothing disturbed
    """
    _check_form(judge, run)
    messages = views(at_once)
    _CHECKS[judge.case.verb](judge, run, messages, records, clean)
    check_events(judge, run, records)


def is_cut_short(run):
    """Whether some of its words did not come through."""
    return run.status == KILLED or any(
        call.path in ("stdout", "stderr") and not call.succeeded for call in run.calls)


def _lost_output(judge, run):
    """Whether its words could not be written, and it said so: what it did stands all the same."""
    lines = [line.removeprefix("tbx: ") for line in run.stderr.splitlines()]
    return judge.case.verb != "list" and is_cut_short(run) and any(
        LOST_OUTPUT.fullmatch(line) for line in lines)


def _check_form(judge, run):
    require(run.status in (0, 1) or (run.status == KILLED and judge.excuses.program_killed),
            f"ended with status {run.status}")
    lines = run.stderr.splitlines()
    require(is_cut_short(run) or all(line.startswith("tbx: ") for line in lines),
            f"told: {run.stderr!r}")
    errors = [line for line in lines if not WARNINGS.fullmatch(line.removeprefix("tbx: "))]
    if run.status == 0 and _lost_output(judge, run):
        errors = [line for line in errors if not LOST_OUTPUT.fullmatch(line.removeprefix("tbx: "))]
    require(len(errors) == run.status or is_cut_short(run),
            f"status {run.status}, and told {errors}")
    if judge.excuses.none and judge.case.told:
        require((run.stdout, run.status) == judge.case.told, f"undisturbed: {run.result}")


def _send(judge, run, messages, _records, _clean):
    fresh = {number: view for number, view in messages.items() if number not in judge.known}
    require(len(fresh) <= 1, f"one send made {sorted(fresh)}")
    if sent := re.fullmatch(r"Message (\d+) sent to (?:1 user|(\d+) users)\.\n", run.stdout):
        view = messages[int(sent[1])]
        require("incomplete" not in view.folder, "told that it was sent, and it is still marked")
        require(view.holders("copy") == set(judge.case.recipients), "told that it was sent")
        require(int(sent[2] or 1) == len(judge.case.recipients), run.stdout)
        logged = set(log_users(view.folder.get("delivery"))[0])
        require(logged == set(judge.case.recipients) or judge.excuses.cannot_write("delivery"),
                f"sent, and the log names {logged}")
    else:
        require(run.status != 0 or _lost_output(judge, run),
                f"status 0, and told {run.stdout!r}")
    if failed := NOT_DELIVERED.search(run.stderr):
        view = messages[int(failed[1])]
        require("incomplete" in view.folder or judge.excuses.cannot_write("incomplete"),
                "told that the next command will retry")
        others = set(judge.case.recipients) - set(failed[2].split())
        require(others <= view.holders("copy"), f"told of {failed[2]} only")
        summary = (f"Message {failed[1]} delivered to {len(others)} of "
                   f"{len(judge.case.recipients)} recipients.\n")
        require(is_cut_short(run) or run.stdout == summary, run.stdout)
    elif run.status == 1:
        require(run.stdout == "" or is_cut_short(run), f"{run.result}")


def _revoke(judge, run, messages, _records, _clean):
    if run.stdout:
        require(run.stdout == f"Message {judge.case.target} revoked.\n", run.stdout)
        view = messages[judge.case.target]
        require("revoked" in view.folder, "told that it is revoked")
        held = view.holders("copy") & {"pat", "alex", "sam", "kim"}
        require(not held, f"told that it is revoked, and {held} have it")
    else:
        require(run.status != 0 or _lost_output(judge, run), "status 0, and told nothing")
    if "the next tbx command will retry" in run.stderr:
        require({"revoked", "revoking"} <= messages[judge.case.target].folder.keys(),
                "told that the next command will retry")


def _remind(judge, run, messages, records, _clean):
    message = judge.known[judge.case.target]
    view = messages[message.id]
    without_marks = {user for user in message.to if not view.held(user).keys() & SHOWN}
    if "everyone has already confirmed" in run.stdout:
        require(set(message.confirmed) == set(message.to), run.stdout)
    elif run.stdout:
        told = re.fullmatch(rf"Message {message.id}: (\d+) recipients? reminded\.\n", run.stdout)
        require(told, run.stdout)
        require(int(told[1]) <= len(without_marks), f"{run.stdout}, but {without_marks}")
        details = [record[3] for record in records if record[0] == "REMINDED"]
        require(details in ([told[1]], []), f"{run.stdout} and the journal says {details}")
    else:
        require(run.status != 0 or _lost_output(judge, run), "status 0, and told nothing")
    if judge.excuses.none:
        kept = view.holders("term", "gui")
        require(kept <= set(message.confirmed), f"{kept} still have their marks")


def _purge(judge, run, messages, records, _clean):
    gone = [number for number, message in judge.known.items() if message.kind != "moved" and
            (number not in messages or messages[number].folder is None)]
    if told := re.fullmatch(r"Deleted (\d+) messages? older than 90d\.\n", run.stdout):
        require(int(told[1]) == len(gone), f"{run.stdout}, and gone are {gone}")
    elif run.stdout:
        require(run.stdout == "No messages older than 90d.\n" and not gone, run.stdout)
    else:
        require(run.status != 0 or _lost_output(judge, run), "status 0, and told nothing")
    deleted = [int(record[1]) for record in records if record[0] == "DELETED"]
    require(len(set(deleted)) == len(deleted) and set(deleted) <= set(gone), f"DELETED {deleted}")
    require(judge.excuses.events_may_be_lost or sorted(deleted) == sorted(gone),
            f"gone are {gone}, and the journal says {deleted}")


LISTED = re.compile(r"(\d+) +(-|\d\d/\d\d \d\d:\d\d) +(.{40})?.*")
COUNTS = re.compile(r"(?:all confirmed \((\d+)\))|(?:(\d+) confirmed)?(?: · )?"
                    r"(?:(\d+) delivered)?(?: · )?(?:(\d+) sent)?")
IDENTITY_COLUMNS = 5 + 1 + 12 + 1 + 40


def _list(judge, run, messages, _records, clean):
    """A line may be missing; one that is there is true."""
    if run.stdout == "No messages sent.\n":
        require(not clean.startswith("ID"), run.stdout)
        return
    identities = {line[:IDENTITY_COLUMNS].rstrip() for line in clean.splitlines()}
    for line in run.stdout.splitlines():
        require(line[:IDENTITY_COLUMNS].rstrip() in identities or "[send cancelled" in line,
                f"a line that was never there: {line!r}")
        if match := LISTED.fullmatch(line):
            _check_listed(judge, messages[int(match[1])], int(match[1]), line)


def _check_listed(judge, view, number, line):
    if "[send cancelled" in line:
        require("failed" in view.folder, line)
        return
    require("failed" not in view.folder, line)
    require(("[revoked]" in line) == ("revoked" in view.folder), line)
    counts = COUNTS.fullmatch(line[IDENTITY_COLUMNS:].strip())
    require(counts, line)
    confirmed = int(counts[1] or counts[2] or 0)
    delivered, sent = int(counts[3] or 0), int(counts[4] or 0)
    message = judge.known[number]
    logged = set(log_users(view.folder.get("delivery"))[0]) & set(message.to)
    require(sent == len(set(message.to) - logged), f"{line}, and the log names {logged}")
    require(confirmed + delivered == len(logged) and confirmed <= len(message.confirmed), line)


_CHECKS = {"send": _send, "revoke": _revoke, "remind": _remind, "purge": _purge, "list": _list}


# ---- The journal --------------------------------------------------------------------------

KNOWN_EVENTS = {"SENT", "DELIVERED", "NOT_DELIVERED", "CANCELLED", "RECOVERED", "DELETED",
                "REMINDED", "REVOKED"}


def journal_records(machine):
    return [(record.event, record["TBX_MESSAGE"], record["TBX_USER"], record["TBX_DETAILS"])
            for record in machine.journal.records()]


def check_events(judge, run, records):
    """No event twice, and none that is not true."""
    require({record[0] for record in records} <= KNOWN_EVENTS, f"{records}")
    once = Counter(record[:3] for record in records if record[0] != "NOT_DELIVERED")
    twice = [event for event, count in once.items() if count > 1 and not (
        event[0] in ("DELIVERED", "RECOVERED") and judge.excuses.cannot_write("delivery"))]
    require(not twice, f"recorded twice: {twice}")
    for event, message, *_ in records:
        if event == "SENT":
            require(int(message) not in judge.known, f"SENT for message {message}")
    if run.status == 0 and not judge.excuses.events_may_be_lost:
        _check_recorded(judge, records)


def _check_recorded(judge, records):
    """A run that succeeded has recorded what it did."""
    names = Counter(record[0] for record in records)
    message = judge.known.get(judge.case.target)
    if judge.case.verb == "send":
        require(names["SENT"] == 1, f"{records}")
    elif judge.case.verb == "revoke":
        require(names["REVOKED"] == (0 if message.revoked else 1), f"{records}")
    elif judge.case.verb == "remind":
        require(names["REMINDED"] == 1, f"{records}")


def check_deliveries_recorded(judge, outcome, records):
    """Each newly delivered message has told so once for each recipient, whoever delivered it."""
    told = Counter((int(record[1]), record[2]) for record in records if record[0] == "DELIVERED")
    for number, what in outcome.items():
        if what != "delivered":
            continue
        message = judge.known.get(number)
        recipients = message.to if message else judge.case.recipients
        before = message.logged_users if message else ()
        for user in recipients:
            count = told[(number, user)]
            if user in before:
                require(count == 0, f"{user} got message {number} before, and now again")
            elif judge.excuses.cannot_write("delivery"):
                require(count <= 2, f"DELIVERED {count} times")
            else:
                require(count == 1 or (count == 0 and judge.excuses.events_may_be_lost),
                        f"message {number} to {user}: DELIVERED {count} times")
