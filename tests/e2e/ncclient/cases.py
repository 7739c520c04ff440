"""What the tests share: a client for each, a device without configuration, short ways to say and to see things."""

import unittest
from contextlib import contextmanager, suppress

from lxml import etree
from ncclient.manager import Manager
from ncclient.operations import RPCError
from ncclient.transport.errors import TransportError

from device import Device

BASE = "urn:ietf:params:xml:ns:netconf:base:1.0"
PREFIXES = {
    "nc": BASE,
    "sys": "urn:ex-sys",
    "ext": "urn:ex-ext",
    "bench": "urn:ex-bench",
    "hello": "urn:ex-hello",
    "dsys": "urn:ex-device-system",
    "d": "com:zentra:netconf:private:opal:device:ymgrd",
    "n": "urn:ietf:params:xml:ns:netconf:notification:1.0",
    "ncn": "urn:ietf:params:xml:ns:yang:ietf-netconf-notifications",
}
DECLARATIONS = " ".join(f'xmlns:{prefix}="{name}"' for prefix, name in PREFIXES.items())



def config(content: str) -> str:
    return f"<nc:config {DECLARATIONS}>{content}</nc:config>"


def system(content: str) -> str:
    return f'<system xmlns="urn:ex-sys">{content}</system>'


def subtree(*filters: str) -> etree._Element:
    return etree.fromstring(f'<nc:filter {DECLARATIONS} type="subtree">{"".join(filters)}</nc:filter>')


def texts(tree: etree._Element, path: str) -> list:
    """The texts of the nodes, without the blanks around them."""
    return [(node.text or "").strip() for node in tree.xpath(path, namespaces=PREFIXES)]


class Case(unittest.TestCase):
    """Before each test the datastores are empty and no session is open but that of `client`."""

    box: Device  # set by the program
    client: Manager

    def setUp(self) -> None:
        self.client = self.connect()
        self.client.discard_changes()
        self.client.copy_config(source=f'<source xmlns="{BASE}"><config/></source>', target="running")
        self.client.copy_config(source="running", target="startup")

    def connect(self, **how) -> Manager:
        client = self.box.connect(**how)
        self.addCleanup(self.close, client)
        return client

    def close(self, client: Manager) -> None:
        with suppress(TransportError):  # it may be ending by itself
            if client.connected:
                client.close_session()

    def edit(self, content: str, target: str = "running", client: Manager = None, **options):
        return (client or self.client).edit_config(config=config(content), target=target, **options)

    def read(self, path: str, source: str = "running", filter=None) -> list:
        return texts(self.client.get_config(source, filter).data, path)

    def state(self, path: str, content: str = "<d:daemon/>") -> list:
        return texts(self.client.get(subtree(content)).data, path)

    @contextmanager
    def refused(self, tag: str):
        """Yields an object whose `error` is the one error of the reply, when there was one."""
        caught = type("Caught", (), {"error": None})()
        with self.assertRaises(RPCError) as context:
            yield caught
        caught.error = context.exception
        self.assertEqual((caught.error.tag, caught.error.severity), (tag, "error"), caught.error.message)
