"""The accessibility interface: how screen readers and tests see windows.

Its library reads the address of the session bus from this process's environment once, so every
test of a process uses the same bus.
"""

from processes import await_condition


def _library():
    import gi  # pylint: disable=import-outside-toplevel
    gi.require_version("Atspi", "2.0")
    from gi.repository import Atspi  # pylint: disable=import-outside-toplevel
    return Atspi


class Widget:
    """One object of the accessibility tree."""

    def __init__(self, node):
        self._node = node
        node.clear_cache()

    @property
    def role(self):
        return self._node.get_role_name()

    @property
    def name(self):
        return self._node.get_name()

    @property
    def description(self):
        return self._node.get_description()

    @property
    def states(self):
        return {state.value_nick for state in self._node.get_state_set().get_states()}

    @property
    def text(self):
        """The whole text of a text view."""
        text = _library().Text
        return text.get_text(self._node, 0, text.get_character_count(self._node))

    @property
    def place(self):
        """Left, top, width, height within the window."""
        atspi = _library()
        box = atspi.Component.get_extents(self._node, atspi.CoordType.WINDOW)
        return box.x, box.y, box.width, box.height

    def children(self):
        count = self._node.get_child_count()
        nodes = (self._node.get_child_at_index(index) for index in range(count))
        return [Widget(node) for node in nodes if node]

    def everything(self):
        """This one and all below it."""
        yield self
        for child in self.children():
            yield from child.everything()

    def find(self, role, name):
        """The one below with this role and name."""
        found = [widget for widget in self.everything()
                 if (widget.role, widget.name) == (role, name)]
        assert len(found) == 1, f"{len(found)} times {role} {name!r}"
        return found[0]

    def activate(self):
        """Does what a screen reader does to press a button."""
        assert _library().Action.do_action(self._node, 0)


def dialogs(pid):
    """The dialogs of a process."""
    desktop = _library().get_desktop(0)
    found = []
    for index in range(desktop.get_child_count()):
        application = desktop.get_child_at_index(index)
        if application and application.get_process_id() == pid:
            found += [child for child in Widget(application).children()]
    return found


def await_dialog(pid):
    """The one dialog of a process."""
    return await_condition(lambda: dialogs(pid), "a dialog in the accessibility tree")[0]
