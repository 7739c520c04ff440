"""Does what witness.c does, last of all, and refuses one name."""

import os
import sys

from ymgrplugin import Plugin, Reject

plugin = Plugin("witness-python")


@plugin.config("/ex-sys:system/hostname", priority=30)
def told(change):
    with open(os.environ["WITNESS"], "a") as file:
        print("python", int(change.oper_type), change.path, file=file)
    if plugin.value(change.path) == "refused":
        raise Reject("not this name", code=77)


sys.exit(plugin.main())
