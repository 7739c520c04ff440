#!/usr/bin/env python3
"""Greets the hostname, and refuses one."""

import sys

from ymgrplugin import Change, Plugin, Reject

plugin = Plugin("hello-python")


@plugin.config("/ex-sys:system/hostname", priority=10)
def hostname_changed(change: Change) -> None:
    name = plugin.value(change.path)
    if name == "nobody":
        raise Reject("nobody is not a name", code=7)
    print(f"{change.path}: {change.oper_type!r}: hello, {name or 'you without a name'}", flush=True)


if __name__ == "__main__":
    sys.exit(plugin.main())
