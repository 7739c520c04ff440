"""What the tests share: a client for each, a device without configuration, short ways to say and to see things."""

import re
import time
import unittest
from contextlib import contextmanager, suppress

from lxml import etree
from ncclient.manager import Manager
from ncclient.operations import RPCError
from ncclient.transport.errors import TransportError

BASE = "urn:ietf:params:xml:ns:netconf:base:1.0"
PREFIXES = {
    "nc": BASE,
    "yang": "urn:ietf:params:xml:ns:yang:1",
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
SESSIONS, MAX_MESSAGE = 16, 4000000  # as the profile of the device says
PATIENCE = 20  # seconds


def parse(text: str) -> etree._Element:
    return etree.fromstring(text.encode())


def element(text: str) -> etree._Element:
    """With all prefixes declared in the outermost element."""
    return parse(re.sub(r"^<[^\s/>]+", rf"\g<0> {DECLARATIONS}", text))


def system(content: str) -> str:
    return f'<system xmlns="urn:ex-sys">{content}</system>'


def subtree(content: str) -> etree._Element:
    return element(f'<nc:filter type="subtree">{content}</nc:filter>')


def texts(tree: etree._Element, path: str) -> list:
    """The texts of the nodes, without the blanks around them."""
    return [(node.text or "").strip() for node in tree.xpath(path, namespaces=PREFIXES)]


def add_tests(case: type, table: dict, run) -> None:
    """One test for each row: run(case, *row)."""
    for name, row in table.items():
        setattr(case, f"test_{name}", lambda self, row=row: run(self, *row))


class Case(unittest.TestCase):
    """Before each test the datastores are empty and no session is open but that of `client`."""

    client: Manager

    def setUp(self) -> None:
        self.client = self.connect()
        self.empty()

    def empty(self) -> None:
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
        return (client or self.client).edit_config(config=element(f"<nc:config>{content}</nc:config>"), target=target, **options)

    def read(self, path: str, source: str = "running", content: str = None) -> list:
        return texts(self.client.get_config(source, None if content is None else subtree(content)).data, path)

    def state(self, path: str) -> list:
        return texts(self.client.get(subtree("<d:daemon/>")).data, path)

    def wait_until(self, condition, what: str) -> None:
        deadline = time.monotonic() + PATIENCE
        while not condition():
            self.assertLess(time.monotonic(), deadline, f"in vain: {what}")
            time.sleep(0.02)

    @contextmanager
    def refused(self, tag: str):
        """Yields a list to which the error is added."""
        found = []
        with self.assertRaises(RPCError) as context:
            yield found
        found.append(context.exception)
        self.assertEqual((found[0].tag, found[0].severity), (tag, "error"), found[0].message)
