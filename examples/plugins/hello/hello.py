#!/usr/bin/env python3
"""Greets whom the configuration names: what hello.c does, in Python."""

import sys

from ymgrplugin import Change, Element, Namespace, Op, Plugin, Query, Reject

HELLO = Namespace("urn:ex-hello")
plugin = Plugin("hello")
greeting = "Hello"


@plugin.config("/ex-hello:hello/name", priority=10)
def name_changed(change: Change) -> None:
    global greeting
    name = plugin.value("/ex-hello:hello/name", old=Op.ROLLBACK in change.oper_type)
    if name == "nobody":
        raise Reject("nobody is not greeted", code=2)
    greeting = f"Hello, {name}" if name else "Hello"


@plugin.status("/ex-hello:hello/greeting")
def tell_greeting(_: Query) -> Element:
    return HELLO("hello", HELLO("greeting", greeting))


if __name__ == "__main__":
    sys.exit(plugin.main())
