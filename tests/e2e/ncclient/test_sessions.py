"""How sessions begin, what they carry, how they end. The last tests stop the daemon."""

import signal
import time
from concurrent.futures import ThreadPoolExecutor
from xml.sax.saxutils import escape

from ncclient.operations import RaiseMode
from ncclient.transport.errors import TransportError
from ncclient.transport.session import NetconfBase

from cases import MAX_MESSAGE, SESSIONS, Case, add_tests, subtree, system, texts

OFFERED = (":base:1.0", ":base:1.1", ":candidate", ":startup", ":writable-running", ":rollback-on-error", ":notification", ":interleave")
NOT_OFFERED = (":xpath", ":validate", ":url", ":confirmed-commit", ":with-defaults")
ENTRIES = 10000


def entries(count: int) -> str:
    return "<bench xmlns='urn:ex-bench'>" + "".join(
        f"<entry><name>port-{number}</name><description>Uplink to the distribution switch</description><mtu>1500</mtu>"
        f"<enabled>true</enabled><weight>{number}</weight><unit><id>1</id><label>a</label></unit></entry>"
        for number in range(count)) + "</bench>"


def together(actions: list) -> list:
    """Runs each in a thread of its own. Their results; a failure of one is raised."""
    with ThreadPoolExecutor(len(actions)) as pool:
        return [future.result() for future in [pool.submit(action) for action in actions]]


class Hello(Case):
    def test_hello_names_what_the_device_can(self):
        capabilities = self.client.server_capabilities
        self.assertEqual([name for name in OFFERED + NOT_OFFERED if name in capabilities], list(OFFERED))

    def test_hello_names_modules_with_features_and_deviations(self):
        uri = next(uri for uri in self.client.server_capabilities if uri.startswith("urn:ex-sys?"))
        self.assertEqual(self.client.server_capabilities[uri].parameters,
                         {"module": "ex-sys", "revision": "2026-01-01", "features": "ftp", "deviations": "ex-sys-dev"})

    def test_framing_is_the_best_that_the_client_knows(self):
        old = self.connect(old=True)
        self.assertEqual([client._session._base for client in (self.client, old)], [NetconfBase.BASE_11, NetconfBase.BASE_10])
        self.assertTrue(old.get_config("running").ok)


STRANGE = {
    "markup": ("<a href=\"x\">&amp; 'y' ]]> <!-- --> <![CDATA[z",),
    "end_of_message": ("a]]>]]>b",),
    "chunk_heads": ("a\n##\nb\n#3\nc",),
    "text_beyond_ascii": ("Zürich, 東京, \U0001f30d, e\u0301, \u00a0",),
}


class Content(Case):
    def survives(self, text: str) -> None:
        for client in (self.client, self.connect(old=True)):
            self.edit(system(f"<location>{escape(text)}</location>"), client=client)
            self.assertEqual(client.get_config("running").data.findtext(".//{urn:ex-sys}location"), text)

    def test_large_edit_and_large_reply(self):
        self.edit(entries(ENTRIES), "candidate")
        self.client.commit()
        for client in (self.client, self.connect(old=True)):
            data = client.get_config("running", subtree("<bench:bench/>")).data
            self.assertEqual(texts(data, "bench:bench/bench:entry/bench:weight"), [str(number) for number in range(ENTRIES)])

    def test_message_beyond_the_limit_is_refused_and_the_session_goes_on(self):
        for client in (self.client, self.connect(old=True)):
            with self.refused("too-big"):
                self.edit(system(f"<location>{MAX_MESSAGE * 'x'}</location>"), client=client)
            self.assertEqual(client.get_config("running").data.find(".//{urn:ex-sys}location"), None)

    def test_outstanding_requests_get_their_own_replies(self):
        self.edit(entries(50))
        self.client.async_mode = True
        asked = [self.client.get_config("running", subtree(
            f"<bench:bench><bench:entry><bench:name>port-{number}</bench:name></bench:entry></bench:bench>")) for number in range(50)]
        self.client.async_mode = False
        for number, request in enumerate(asked):
            self.assertTrue(request.event.wait(60))
            self.assertEqual(texts(request.reply.data, "//bench:weight"), [str(number)])


add_tests(Content, {f"{name}_in_a_value_survives_both_framings": row for name, row in STRANGE.items()}, Content.survives)


class Sessions(Case):
    def frees_locks(self, how) -> None:
        """What ends a session frees its lock."""
        other = self.connect()
        other.lock("running")
        how(other)
        self.wait_until(lambda: not other.connected, "the client notices")
        self.client.raise_mode = RaiseMode.NONE
        self.wait_until(lambda: self.client.lock("running").ok, "the lock is freed")
        self.client.unlock("running")

    def test_close_session_is_answered_and_frees_locks(self):
        self.frees_locks(lambda other: self.assertTrue(other.close_session().ok))

    def test_connection_that_breaks_frees_locks(self):
        self.frees_locks(lambda other: other._session.transport.sock.close())

    def test_kill_session_ends_another_and_frees_its_locks(self):
        self.frees_locks(lambda other: self.client.kill_session(other.session_id))

    def test_kill_session_of_oneself_or_nobody_is_refused(self):
        for number in (self.client.session_id, "4000"):
            with self.refused("invalid-value"):
                self.client.kill_session(number)

    def test_idle_session_stays(self):
        time.sleep(3)
        self.assertTrue(self.client.get_config("running").ok)

    def test_as_many_clients_as_allowed_and_not_one_more(self):
        clients = together([self.connect] * (SESSIONS - 1)) + [self.client]
        self.assertEqual(len({client.session_id for client in clients}), SESSIONS)
        self.assertRaises(TransportError, self.box.connect)
        self.assertTrue(all(reply.ok for reply in together([lambda m=m: m.get_config("running") for m in clients])))
        clients[0].close_session()
        self.assertTrue(self.connect().get_config("running").ok)

    def test_edits_in_parallel_under_locks_are_all_kept(self):
        def work(number: int, client) -> None:
            client.raise_mode = RaiseMode.NONE
            for turn in range(5):
                self.wait_until(lambda: client.lock("candidate").ok, "the lock is free")
                self.edit(system(f"<tag>{number}-{turn}</tag>"), "candidate", client)
                self.assertTrue(client.commit().ok)
                client.unlock("candidate")

        together([lambda pair=pair: work(*pair) for pair in enumerate([self.connect() for _ in range(4)])])
        self.assertCountEqual(self.read("//sys:tag"), [f"{number}-{turn}" for number in range(4) for turn in range(5)])

    def test_startup_is_what_runs_after_a_restart(self):
        self.edit(system("<hostname>kept</hostname>"))
        self.client.copy_config(source="running", target="startup")
        self.edit(system("<hostname>lost</hostname>"))
        self.box.stop_daemon()
        self.wait_until(lambda: not self.client.connected, "the client notices")
        self.box.start_daemon()
        self.client = self.connect()
        self.assertEqual(self.read("//sys:hostname"), ["kept"])

    def test_client_notices_that_the_daemon_was_killed(self):
        self.addCleanup(lambda: self.assertTrue(self.connect().get_config("running").ok))
        self.addCleanup(self.box.start_daemon)
        self.box.stop_daemon(signal.SIGKILL)
        self.wait_until(lambda: not self.client.connected, "the client notices")
        self.assertRaises(TransportError, self.client.get_config, "running")
        self.assertRaises(TransportError, self.box.connect)
