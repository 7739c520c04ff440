"""Does what note.c does, in another order, and refuses some host names."""

import pathlib

from ymgrplugin import Op, Plugin, Reject

plugin = Plugin("py")


def note(change, leaf=""):
    value = plugin.value(change.path + leaf, old=Op.ROLLBACK in change.oper_type)
    if value is not None and value.startswith("bad"):
        raise Reject("no such host")
    file = pathlib.Path("py" + change.path.replace("/", "_"))
    file.unlink(missing_ok=True)
    if value is not None:
        file.write_text(value)


plugin.config("/ex-sys:system/hostname", priority=20)(note)
plugin.config("/ex-sys:system/user", priority=40)(lambda change: note(change, "/uid"))
plugin.run()
