"""Does what note.c does, in another order, and refuses some host names."""

import pathlib

from ymgrplugin import Op, Plugin, Reject

plugin = Plugin("py")
is_restored = False


def note(change, leaf=""):
    value = plugin.value(change.path + leaf, old=Op.ROLLBACK in change.oper_type)
    if value is not None and value.startswith("bad"):
        raise Reject("no such host")
    global is_restored
    if Op.CFGR in change.oper_type and not is_restored:
        for file in pathlib.Path().glob("py_*"):
            file.unlink()
    is_restored = Op.CFGR in change.oper_type
    file = pathlib.Path("py" + change.path.replace("/", "_"))
    file.unlink(missing_ok=True)
    if value is not None:
        file.write_text(value)


plugin.config("/ex-sys:system/hostname", priority=20)(note)
plugin.config("/ex-sys:system/user", priority=40)(lambda change: note(change, "/uid"))
plugin.run()
