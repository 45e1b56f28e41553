"""What tests say about the outcome of a run."""

from .store import parse_message_file


def assert_refused(machine, message, *arguments, **options):
    """The run ends with the one line of the error, and no state directory was made."""
    result = machine.run(*arguments, **options)
    assert (result.stderr, result.stdout, result.status) == (f"tbx: {message}\n", "", 1)
    assert not machine.store.top.exists()


def assert_fails(machine, message, *arguments, **options):
    """The run ends with the one line of the error and nothing on standard output."""
    result = machine.run(*arguments, **options)
    assert (result.stderr, result.stdout, result.status) == (f"tbx: {message}\n", "", 1)


def assert_sent(machine, *arguments, message_id=1, recipients=1, **options):
    """The message goes to all its recipients; returns the stored message as a dict."""
    result = machine.run("send", *arguments, **options)
    noun = "user" if recipients == 1 else "users"
    assert (result.stdout, result.stderr, result.status) == (
        f"Message {message_id} sent to {recipients} {noun}.\n", "", 0)
    assert not machine.store.sent(message_id, "incomplete").exists()
    return parse_message_file(machine.store.sent(message_id, "msg").read_bytes())


def mode(path):
    """Permission bits of a file, without following a link."""
    return path.lstat().st_mode & 0o7777
