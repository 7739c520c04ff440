"""Plugins of the Python module, and the firewall example, against a daemon that the test plays."""

import logging
import pathlib
import select
import socket
import struct
import tempfile
import threading
import unittest

from firewall import Firewall
from ymgrplugin import ConnectionLost, Namespace, Op, Plugin, PluginError, Reject

EX = Namespace("urn:ex")
HEAD, MAGIC = struct.Struct("=IIHH"), 0xFEDCBAFF
ACCEPTED = "<result></result>"


class PluginTest(unittest.TestCase):
    def setUp(self):
        logging.getLogger("ymgrplugin").setLevel(logging.CRITICAL)
        socket.setdefaulttimeout(10)
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(self.listener.close)
        self.listener.bind(f"{folder.name}/plugin.sock")
        self.listener.listen()
        self.plugin = Plugin("test", folder.name, max_message_size=100_000)
        self.addCleanup(self.plugin.close)

    def accept(self):
        self.peer, _ = self.listener.accept()
        self.addCleanup(self.peer.close)

    def send(self, text, number=1, cut=1_000_000):
        frame = HEAD.pack(MAGIC, len(text.encode()), number, 0) + text.encode()
        for at in range(0, len(frame), cut):
            self.peer.sendall(frame[at : at + cut])

    def ask(self, method, params="", cut=1_000_000):
        self.send(f"<rpc><method>{method}</method><params>{params}</params><id>1</id></rpc>", 1, cut)

    def publish(self, oper_type, path, callback=0, cut=1_000_000):
        info = f"<oper-type>{int(oper_type)}</oper-type><priority>9</priority><more-flag>0</more-flag>"
        head = f"<type>config</type><session-id>3</session-id><callback>{callback}</callback>"
        self.ask("publish", f"{head}<info>{info}<path>{path}</path></info>", cut)

    def expect(self, part):
        _, length, number, _ = HEAD.unpack(self.peer.recv(HEAD.size, socket.MSG_WAITALL))
        text = self.peer.recv(length, socket.MSG_WAITALL).decode()
        self.assertIn(part, text)
        self.assertIn(f"<id>{number}</id>", text)
        return text, number

    def answer(self, part, result=""):
        text, number = self.expect(part)
        self.send(f"<reply><result>{result}</result><id>{number}</id></reply>", number)
        return text

    def welcome(self, pulls=0):
        """Takes a connection until the plugin is ready; gives the text of the activation."""
        self.accept()
        self.answer("<method>register</method>")
        activation = self.answer("<method>activate</method>")
        self.ask("kickoff")
        for _ in range(pulls):
            self.answer("<method>pull</method>")
        self.expect(ACCEPTED)
        return activation

    def start(self, pulls=0):
        thread = threading.Thread(target=self.plugin.run)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(self.plugin.stop)
        return self.welcome(pulls)

    def test_each_publication_is_answered_once_however_its_frame_is_cut(self):
        seen = []

        @self.plugin.config("/ex:a", priority=5)
        def changed(change):
            seen.append((change.session_id, change.path))
            if change.oper_type == Op.RM:
                raise Reject("a < b & \0", code=7)
            if change.oper_type == Op.MOD:
                raise OSError("no space")

        self.start()
        refusal, failure = "<code>7</code><message>a &lt; b &amp; ?</message>", "<code>-1</code><message>no space</"
        for cut in (1_000_000, 1, 13):
            for oper_type, part in {Op.ADD: ACCEPTED, Op.RM: refusal, Op.MOD: failure}.items():
                self.publish(oper_type, '/ex:a/l[k="&lt;]"]', cut=cut)
                self.expect(part)
        self.assertEqual(seen, [(3, '/ex:a/l[k="<]"]')] * 9)
        self.publish(Op.ADD, "/ex:a", callback=9)
        self.expect("unknown callback")

    def test_a_request_that_comes_during_a_pull_waits_for_its_turn(self):
        pulled = []

        @self.plugin.config("/ex:a")
        def changed(_):
            path = '/ex:a/l[k="]/"]/other:k'
            pulled.extend([self.plugin.value(path, old=True), self.plugin.locate(path), self.plugin.pull("/ex:b")])

        @self.plugin.status("/ex:s")
        def state(query):
            return [EX("s", EX("up", True)), EX("s", "x" * 200_000 if query.path == "/ex:long" else 1)]

        self.start()
        self.publish(Op.MOD, "/ex:a")
        _, number = self.expect("<old>1</old>")
        for path in ("/ex:s", "/ex:long"):
            query = f"<session-id>3</session-id><path>{path}</path><callback>0</callback>"
            self.ask("subscribe", f"<type>config</type>{query}")
        entry = '<a xmlns="urn:ex"><l><k>]/</k><o:k xmlns:o="urn:o">v</o:k></l></a>'
        self.send(f"<reply><result>{entry}</result><id>{number}</id></reply>", number)
        self.answer("<method>locate</method>", '<next>/ex:a/l[k="2"]</next>')
        self.answer("<method>pull</method>")
        for part in (ACCEPTED, "up>true</", "<error>"):  # the last one was too long to be sent
            self.expect(part)
        self.assertEqual(pulled, ["v", (None, '/ex:a/l[k="2"]'), None])

    def test_a_connection_lost_within_a_callback_is_made_again_and_nothing_is_answered(self):
        lost = threading.Event()

        @self.plugin.config("/ex:a")
        def changed(_):
            try:
                self.plugin.push("/ex:s", None)
                self.plugin.push("/ex:s", "<s xmlns='urn:ex'/>")
            except ConnectionLost:
                lost.set()
                raise

        self.assertNotIn("with-smooth", self.start())
        self.publish(Op.ADD, "/ex:a")
        self.ask("subscribe")  # to be forgotten with the connection
        self.answer("<data></data>")
        self.expect("<data><s ")
        # Each ends the connection: entities that would be expanded, no frame, a frame that is too long.
        self.send('<!DOCTYPE e [<!ENTITY e "">]><rpc><method>kickoff</method><params>&e;</params><id>1</id></rpc>')
        self.assertTrue(lost.wait(10))
        for garbage in (HEAD.pack(1, 99, 1, 0), HEAD.pack(MAGIC, 100_001, 1, 0)):
            self.assertIn("<with-smooth>1</with-smooth>", self.welcome())
            self.peer.sendall(garbage)
            self.assertEqual(self.peer.recv(1), b"")

    def test_a_refused_registration_ends_it_and_bad_data_is_not_sent(self):
        for bad in ("</data><data>", "<a>", '<!DOCTYPE a><a xmlns="urn:ex"/>', EX("a", "\1")):
            with self.assertRaises(ValueError):
                self.plugin.push("/ex:s", bad)
        loop = select.poll()
        loop.register(self.plugin, select.POLLIN)
        self.assertTrue(loop.poll(0))  # asks for its first turn by itself
        self.plugin.process()
        self.accept()
        self.send("<reply><error><code>-1</code><message>no /ex:a</message></error><id>1</id></reply>")
        self.assertTrue(loop.poll(10_000))
        self.assertRaisesRegex(PluginError, "no /ex:a", self.plugin.process)

    def test_the_firewall_keeps_the_rules_order_and_takes_back_what_others_refuse(self):
        Firewall(self.plugin, self.folder)
        file = self.folder / "etc/ex-firewall.nft"
        ssh = "<name>ssh</name><action>accept</action><protocol>tcp</protocol><source>::/0</source><port>22</port>"
        lan = "<name>lan</name><action>reject</action><source>192.0.2.0/24</source>"
        rest = "<name>rest</name><action>drop</action>"

        def commit(rules, part=ACCEPTED, oper_type=Op.CHAIN):
            self.publish(oper_type, "/ex-firewall:firewall")
            entries = "".join(f"<rule>{rule}</rule>" for rule in rules)
            data = f'<firewall xmlns="urn:ex-firewall">{entries}</firewall>'
            self.answer(f"<old>{int(Op.ROLLBACK in oper_type)}</old>", data)
            self.expect(part)
            return file.read_text()

        self.start(pulls=1)  # nothing is configured: an empty set is put into force
        self.assertIn("policy accept", file.read_text())
        before = commit([ssh, lan, rest])
        lines = [line.partition(" comment ")[0].strip() for line in before.splitlines() if "comment" in line]
        self.assertEqual(lines, ["meta nfproto ipv6 tcp dport 22 accept", "ip saddr 192.0.2.0/24 reject", "drop"])
        self.assertEqual(commit([rest, lan], "rule lan can never match"), before)
        self.assertEqual(commit([ssh.replace("tcp", "icmp")], "rule ssh: a port needs"), before)
        self.assertNotEqual(commit([lan, ssh]), before)
        self.assertEqual(commit([ssh, lan, rest], oper_type=Op.CHAIN | Op.ROLLBACK), before)
        file.with_name(".ex-firewall.nft.new").mkdir()  # stands in the way of the draft
        self.assertEqual(commit([lan], "can not be written"), before)
