"""How sessions begin and end. The last tests stop the daemon."""

import signal
import time

from lxml import etree
from ncclient.operations import RPCError
from ncclient.transport.errors import TransportError
from ncclient.transport.session import NetconfBase

from cases import PREFIXES, Case, system


class Sessions(Case):
    def ends(self, client) -> bool:
        deadline = time.monotonic() + 20
        while client.connected and time.monotonic() < deadline:
            time.sleep(0.02)
        return not client.connected

    def frees_locks(self, how) -> None:
        """What ends a session frees its lock."""
        other = self.connect()
        other.lock("running")
        how(other)
        self.assertTrue(self.ends(other))
        deadline = time.monotonic() + 20
        self.client.raise_mode = 0
        while not self.client.lock("running").ok:
            self.assertLess(time.monotonic(), deadline, "the lock stays")
        self.client.unlock("running")

    def test_hello_names_what_the_device_can(self):
        capabilities = self.client.server_capabilities
        for name in (":base:1.0", ":base:1.1", ":candidate", ":startup", ":writable-running", ":rollback-on-error", ":notification",
                     ":interleave"):
            self.assertIn(name, capabilities)
        for name in (":xpath", ":validate", ":url", ":confirmed-commit", ":with-defaults"):
            self.assertNotIn(name, capabilities)

    def test_hello_names_modules_as_their_users_look_for_them(self):
        module = self.client.server_capabilities["urn:ex-sys"]
        self.assertEqual(module.parameters, {"module": "ex-sys", "revision": "2026-01-01", "features": "ftp", "deviations": "ex-sys-dev"})

    def test_both_framings_are_negotiated(self):
        self.assertEqual(self.client._session._base, NetconfBase.BASE_11)
        old = self.connect(old=True)
        self.assertEqual(old._session._base, NetconfBase.BASE_10)
        self.assertTrue(old.get_config("running").ok)

    def test_private_operation_lists_capabilities(self):
        reply = self.client.dispatch(etree.Element("{%s}get-capability" % PREFIXES["d"]))
        self.assertIn("urn:ex-sys", reply.xml)

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
        idle = self.connect()
        time.sleep(3)
        self.assertTrue(idle.get_config("running").ok)

    def test_startup_is_what_runs_after_a_restart(self):
        self.edit(system("<hostname>kept</hostname>"))
        self.client.copy_config(source="running", target="startup")
        self.edit(system("<hostname>lost</hostname>"))
        self.box.stop_daemon()
        self.assertTrue(self.ends(self.client))
        self.box.start_daemon()
        self.client = self.connect()
        self.assertEqual(self.read("//sys:hostname"), ["kept"])

    def test_client_notices_that_the_daemon_was_killed(self):
        try:
            self.box.stop_daemon(signal.SIGKILL)
            self.assertTrue(self.ends(self.client))
            self.assertRaises(TransportError, self.client.get_config, "running")
            self.assertRaises(TransportError, self.box.connect)
        finally:
            self.box.start_daemon()
        self.assertTrue(self.connect().get_config("running").ok)
