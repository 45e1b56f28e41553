#!/usr/bin/python3
"""A notification service that keeps strictly to the rules, and breaks one when it is told to.

    notification_service.py MODE

Prints a line of JSON for everything that it is asked, and first {"ready": true}. Commands come on
standard input, a line each:

    act NUMBER KEY [TOKEN]     the user chooses an action
    close NUMBER REASON        the notification goes
    tell                       says when everything before was sent
    leave                      it gives its name up, but stays on the bus
    reply                      in the mode "slow": answers the calls that wait

MODE is one of

    strict      everything as it should be
    plain       it draws no actions, and says so
    drops       it closes what it is given at once, as expired
    eager       it says at once that the user has chosen the first action
    errors      every call fails
    mute        no call is answered
    slow        Notify is answered when `reply` comes
    nonsense    it answers with other types than it should
    zero        it answers with the number 0
"""

import json
import os
import sys

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

NAME = "org.freedesktop.Notifications"
PATH = "/org/freedesktop/Notifications"

INTERFACE = """
<node><interface name="org.freedesktop.Notifications">
  <method name="GetCapabilities"><arg type="as" direction="out"/></method>
  <method name="Notify">
    <arg type="s" direction="in"/><arg type="u" direction="in"/><arg type="s" direction="in"/>
    <arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="as" direction="in"/>
    <arg type="a{sv}" direction="in"/><arg type="i" direction="in"/>
    <arg type="u" direction="out"/>
  </method>
  <method name="CloseNotification"><arg type="u" direction="in"/></method>
  <method name="GetServerInformation">
    <arg type="s" direction="out"/><arg type="s" direction="out"/>
    <arg type="s" direction="out"/><arg type="s" direction="out"/>
  </method>
</interface></node>
"""


def tell(**what):
    print(json.dumps(what), flush=True)


class Service:
    def __init__(self, mode):
        self.mode, self.last, self.waiting, self.commands = mode, 0, [], b""
        self.first_action = None
        self.bus = Gio.bus_get_sync(Gio.BusType.SESSION)
        self.bus.add_filter(self.before_dispatch)
        node = Gio.DBusNodeInfo.new_for_xml(INTERFACE)
        self.bus.register_object(PATH, node.interfaces[0], self.called, None, None)
        self.name = Gio.bus_own_name_on_connection(self.bus, NAME, Gio.BusNameOwnerFlags.REPLACE,
                                       lambda *_: tell(ready=True), lambda *_: sys.exit(1))
        GLib.io_add_watch(0, GLib.PRIORITY_DEFAULT, GLib.IO_IN | GLib.IO_HUP, self.commanded)

    def before_dispatch(self, bus, message, incoming):
        """Answers nonsense where the library would refuse to."""
        if (incoming and self.mode == "nonsense" and message.get_interface() == NAME
                and message.get_member() in ("Notify", "GetCapabilities")):
            reply = message.new_method_reply()
            reply.set_body(GLib.Variant("(a{ss})", ({"number": "one"},)))
            bus.send_message(reply, Gio.DBusSendMessageFlags.NONE)
            tell(call=message.get_member())
            return None
        return message

    def called(self, _bus, _sender, _path, _interface, method, arguments, call):
        values = arguments.unpack()
        tell(call=method, arguments=values if method != "Notify" else {
            "app": values[0], "replaces": values[1], "icon": values[2], "summary": values[3],
            "body": values[4], "actions": values[5], "hints": values[6], "timeout": values[7]})
        if self.mode == "mute":
            self.waiting.append(call)  # kept, for the library would answer what is dropped
        elif self.mode == "errors":
            call.return_dbus_error(f"{NAME}.Error.Failed", "not today")
        elif method == "GetCapabilities":
            names = ["body"] if self.mode == "plain" else ["body", "body-markup", "actions"]
            call.return_value(GLib.Variant("(as)", (names,)))
        elif method == "Notify" and self.mode == "slow":
            self.waiting.append(call)
        elif method == "Notify":
            self.first_action = values[5][0] if values[5] else ""
            self.answer(call)
        elif method == "CloseNotification":
            call.return_value(None)
            self.signal("NotificationClosed", GLib.Variant("(uu)", (values[0], 3)))
        else:
            call.return_value(GLib.Variant("(ssss)", ("strict", "tests", "1", "1.2")))

    def answer(self, call):
        self.last += 1
        number = 0 if self.mode == "zero" else self.last
        call.return_value(GLib.Variant("(u)", (number,)))
        tell(number=number)
        if self.mode == "eager":
            self.signal("ActionInvoked", GLib.Variant("(us)", (number, self.first_action)))
        if self.mode == "drops":
            self.signal("NotificationClosed", GLib.Variant("(uu)", (number, 1)))

    def signal(self, name, arguments):
        self.bus.emit_signal(None, PATH, NAME, name, arguments)

    def commanded(self, *_):
        arrived = os.read(0, 4096)
        if not arrived:
            sys.exit(0)
        *lines, self.commands = (self.commands + arrived).split(b"\n")
        for line in lines:
            self.command(*line.decode().split())
        return True

    def command(self, command, *words):
        if command == "act":
            if len(words) > 2:
                self.signal("ActivationToken", GLib.Variant("(us)", (int(words[0]), words[2])))
            self.signal("ActionInvoked", GLib.Variant("(us)", (int(words[0]), words[1])))
        elif command == "close":
            self.signal("NotificationClosed",
                        GLib.Variant("(uu)", (int(words[0]), int(words[1]))))
        elif command == "tell":
            self.bus.flush_sync(None)
            tell(told=True)
        elif command == "leave":
            Gio.bus_unown_name(self.name)
        elif command == "reply":
            for call in self.waiting:
                self.answer(call)
            self.waiting.clear()


service = Service(sys.argv[1])
GLib.MainLoop().run()
