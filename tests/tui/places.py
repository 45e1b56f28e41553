"""Every page and dialog of the interface, the keys that lead there, and what it shows then."""

from dataclasses import replace

from harness.pseudo_terminal import CTRL_S, ENTER, ESCAPE, TAB
from kept_frames import RED
from messages import FUTURE, USERS, Message
from pages import (
    KEYS_BOX, DetailPage, FormPage, ListPage, message_box, purge_box, purge_confirmation,
    remind_confirmation, revoke_confirmation, search_box)

SENT = 1700000000  # the newest message
DAY = 86400
NOTICE = ("The mail server is replaced tonight between 22:00 and 23:00. Mail that is sent in that "
          "hour arrives afterwards.\n\nPlease close your mail program before you leave.\n")

PLACES = [
    "list", "list-search", "list-nothing-found",
    "keys", "search", "purge", "purge-question", "purge-result",
    "revoke-question", "revoke-result", "remind-question", "remind-result",
    "message", "message-history", "message-revoke-question", "message-revoke-result",
    "message-remind-question", "message-remind-result",
    "form", "form-filled-in", "form-error", "form-discard-question", "form-review", "form-sent",
    "form-sending-result",
]
WITH_HISTORY = [name for name in PLACES if "history" in name]


class Places:
    """The places, as they look on a terminal of this size.

    users    accounts: at least six
    history  lines that the History tab shows
    """

    def __init__(self, size=(80, 24), colour=True, users=USERS, history=()):
        self.history = list(history)
        self.messages = (
            Message(1, "Welcome to the new machine.\n", confirmed=users[:6], delivered=(),
                    date=SENT - 9 * DAY),
            Message(2, "The printer on the second floor is out of order.\n", date=SENT - 7 * DAY,
                    confirmed=users[:2], delivered=users[2:5], revoked=SENT - 6 * DAY),
            Message(3, "Who wants to join us, please tell the reception.\n", title="Autumn party",
                    confirmed=users[:4], delivered=users[4:6], date=SENT - 5 * DAY,
                    expires=SENT - 2 * DAY),
            Message(4, NOTICE, title="Mail server", confirmed=users[:3], delivered=users[3:5],
                    sent=users[5:6], date=SENT, expires=FUTURE),
        )
        self._users = users
        self.size, self.colour = size, colour

    @property
    def _list(self):
        return ListPage(self.size, self.messages, colour=self.colour)

    @property
    def _form(self):
        return FormPage(self.size, colour=self.colour)

    def steps(self, name):
        """(keys, page, box) of each step that leads from the list to the place."""
        family = name.split("-")[0]
        if family in ("message", "form"):
            return getattr(self, f"_{family}_steps")(name)
        return self._list_steps(name)

    def shown(self, name):
        """The page and the box of the place itself."""
        steps = self.steps(name)
        return steps[-1][1:] if steps else (self._list, None)

    def _list_steps(self, name):
        page = self._list
        found = replace(page, messages=self.messages[2:], search="p")
        purge, question = purge_box(), purge_confirmation()
        return {
            "list": [],
            "list-search": [("/party\r", replace(found, messages=self.messages[2:3],
                                                 search="party"), None)],
            "list-nothing-found": [("/absent\r", replace(found, messages=(), search="absent"),
                                    None)],
            "keys": [("?", page, KEYS_BOX)],
            "search": [("/party", page, search_box("party"))],
            "purge": [("p", page, purge)],
            "purge-question": [("p", page, purge), (ENTER, page, question)],
            "purge-result": [
                ("p\x7f\x7f\x7f9", page, purge_box("9")),
                (ENTER, page, purge_confirmation("9")),
                ("y", page, message_box(
                    "Delete old messages",
                    "tbx: invalid duration: 9 (for example 90d, 12h, 30m)"))],
            **self._question_steps("", [], page),
        }[name]

    def _question_steps(self, prefix, before, page):
        """The questions about the newest message, over `page`."""
        message = self.messages[-1]
        steps = {}
        for key, name, question, result in [
                ("r", "revoke", revoke_confirmation(message), "Message 4 revoked."),
                ("m", "remind", remind_confirmation(message), "Message 4: 2 recipients reminded.")]:
            asked = [*before, (key, page, question)]
            steps[f"{prefix}{name}-question"] = asked
            steps[f"{prefix}{name}-result"] = [
                *asked, ("y", page, message_box(question.title, result))]
        return steps

    def _message_steps(self, name):
        page = DetailPage(self.size, self.messages[-1], colour=self.colour)
        opened = [(ENTER, page, None)]
        return {
            "message": opened,
            "message-history": [*opened, (TAB, replace(page, history=self.history), None)],
            **self._question_steps("message-", opened, page),
        }[name]

    def _form_steps(self, name):
        form, users = self._form, self._users
        opened = [("n", form, None)]
        written = replace(form, to=f"{users[0]},{users[1]}", title="Maintenance", expires="2h",
                          text="The machine restarts at noon.\nPlease save your work.",
                          focus="Text", preview="2 recipients")
        write = [*opened, (TAB.join([written.to, written.title, written.expires,
                                     written.text.replace("\n", ENTER)]), written, None)]
        wrong = replace(form, to="nobody-here", text="Hello", focus="Text",
                        preview=RED("tbx: no such user: nobody-here"))
        mistake = [*opened, ("nobody-here" + TAB * 3 + "Hello", wrong, None)]
        review = (CTRL_S, written, written.review("2 recipients"))
        return {
            "form": opened,
            "form-filled-in": write,
            "form-error": mistake,
            "form-discard-question": [*write, (ESCAPE, written, written.discard())],
            "form-review": [*write, review],
            "form-sent": [*write, review, ("y", written, message_box(
                "Message sent", "Message 5 sent to 2 users."))],
            "form-sending-result": [
                *mistake, (CTRL_S, wrong, wrong.review(wrong.preview)),
                ("y", wrong, message_box("Sending result", "tbx: no such user: nobody-here"))],
        }[name]
