"""Plugins of the configuration daemon ymgrd: processes that implement the configuration.

A plugin subscribes to configuration paths, supplies state data and implements operations:

    from ymgrplugin import Change, Plugin, Reject

    plugin = Plugin("hostname")

    @plugin.config("/ex-sys:system/hostname", priority=10)
    def hostname_changed(change: Change) -> None:
        name = plugin.value(change.path)
        if name == "localhost":
            raise Reject("this name is taken", code=7)
        ...

    plugin.run()

Python can not wipe its memory: what handles secrets is better written with the C library.
"""

from .errors import ConnectionLost, PluginError, Reject
from .markup import Content, Element, Namespace
from .paths import quoted
from .plugin import Call, Change, Op, Plugin, Query

__all__ = [
    "Call",
    "Change",
    "ConnectionLost",
    "Content",
    "Element",
    "Namespace",
    "Op",
    "Plugin",
    "PluginError",
    "Query",
    "Reject",
    "quoted",
]
