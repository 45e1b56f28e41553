"""Presses a button of the message's window as a screen reader does, or says what it shows.

    press.py text            prints the text
    press.py NAME            presses the button of this name
"""

import sys
import time

import gi

gi.require_version("Atspi", "2.0")
from gi.repository import Atspi, GLib  # noqa: E402


def everything(node):
    yield node
    for index in range(node.get_child_count()):
        child = node.get_child_at_index(index)
        if child:
            yield from everything(child)


def find(role, name):
    """The widget, once there is one."""
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline:
        try:
            for node in everything(Atspi.get_desktop(0)):
                if (node.get_role_name(), node.get_name()) == (role, name):
                    return node
        except GLib.GError:
            pass  # something went while it was looked at
        time.sleep(0.05)
    sys.exit(f"no {role} {name}")


if sys.argv[1] == "text":
    text = find("text", "Message")
    print(Atspi.Text.get_text(text, 0, Atspi.Text.get_character_count(text)))
else:
    Atspi.Action.do_action(find("push button", sys.argv[1]), 0)
