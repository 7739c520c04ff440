"""Notifications: live, filtered, replayed, between replies."""

import socket
import time
from datetime import datetime, timedelta, timezone

from lxml import etree
from ncclient.operations import RPCError

from cases import PREFIXES, Case, config, system, texts

# In the namespace of notifications, as RFC 5277 has it; the client's short form would put it elsewhere.
FAILURES = """<filter xmlns="urn:ietf:params:xml:ns:netconf:notification:1.0" type="subtree">
  <service-failed xmlns="urn:ex-sys"/></filter>"""
CONFIG_CHANGE = "netconf-config-change"


def moment(seconds: float = 0) -> str:
    return (datetime.now(timezone.utc) + timedelta(seconds=seconds)).strftime("%Y-%m-%dT%H:%M:%SZ")


class Events(Case):
    def next(self, name: str, client=None) -> etree._Element:
        """The next notification of this name; others are passed over."""
        deadline = time.monotonic() + 20
        while True:
            notification = (client or self.client).take_notification(timeout=max(0.01, deadline - time.monotonic()))
            self.assertIsNotNone(notification, f"no {name} came")
            tree = notification.notification_ele
            datetime.fromisoformat(tree.findtext("n:eventTime", namespaces=PREFIXES))
            if etree.QName(tree[1]).localname == name:
                return tree

    def names_until(self, last: str) -> list:
        names = []
        while last not in names:
            notification = self.client.take_notification(timeout=20)
            self.assertIsNotNone(notification, f"no {last} came after {names}")
            names.append(etree.QName(notification.notification_ele[1]).localname)
        return names

    def send_event(self, event: str) -> None:
        """As a plugin does."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(event.encode(), str(self.box.run_dir / "notify.sock"))

    def test_change_of_running_names_who_and_what(self):
        self.client.create_subscription()
        other = self.connect()
        self.edit(system("<user><name>alice</name></user>"), client=other)
        event = self.next(CONFIG_CHANGE)
        said = texts(event, "*/ncn:changed-by/ncn:session-id | *//ncn:source-host | *//ncn:datastore | *//ncn:operation")
        self.assertCountEqual(said, [other.session_id, "127.0.0.1", "running", "create"])
        self.assertIn("alice", texts(event, "//ncn:target")[0])

    def test_sessions_of_others_are_told(self):
        self.client.create_subscription(stream_name="NETCONF")
        other = self.connect()
        self.assertEqual(texts(self.next("netconf-session-start"), "*/ncn:session-id | */ncn:source-host"),
                         [other.session_id, "127.0.0.1"])
        other.close_session()
        self.assertEqual(texts(self.next("netconf-session-end"), "*/ncn:session-id | */ncn:termination-reason"),
                         [other.session_id, "closed"])

    def test_killed_session_is_told_with_its_killer(self):
        self.client.create_subscription()
        other = self.connect()
        self.client.kill_session(other.session_id)
        self.assertEqual(texts(self.next("netconf-session-end"), "*/ncn:killed-by | */ncn:termination-reason"),
                         [self.client.session_id, "killed"])

    def test_event_of_a_plugin_arrives(self):
        self.client.create_subscription()
        self.send_event('<service-failed xmlns="urn:ex-sys"><name>ftp</name><exit-code>1</exit-code></service-failed>')
        self.assertEqual(texts(self.next("service-failed"), "*/sys:name | */sys:exit-code"), ["ftp", "1"])

    def test_filter_of_a_subscription_keeps_others_away(self):
        self.client.create_subscription(filter=FAILURES)
        self.edit(system("<hostname>a</hostname>"))
        self.send_event('<service-failed xmlns="urn:ex-sys"><name>ftp</name></service-failed>')
        self.assertEqual(self.names_until("service-failed"), ["service-failed"])

    def test_requests_go_on_during_a_subscription(self):
        self.assertIn(":interleave", self.client.server_capabilities)
        self.client.create_subscription()
        for number in range(20):
            self.edit(system(f"<hostname>a{number}</hostname>"))
        self.assertEqual(self.read("//sys:hostname"), ["a19"])
        self.assertEqual(self.names_until(CONFIG_CHANGE)[-1], CONFIG_CHANGE)
        for _ in range(19):
            self.next(CONFIG_CHANGE)

    def test_replay_ends_and_live_events_follow(self):
        begin = moment()
        self.edit(system("<hostname>past</hostname>"))
        self.client.create_subscription(start_time=begin)
        self.assertIn(CONFIG_CHANGE, self.names_until("replayComplete"))
        self.edit(system("<hostname>live</hostname>"))
        self.next(CONFIG_CHANGE)

    def test_replay_with_an_end_completes(self):
        begin = moment()
        self.edit(system("<hostname>past</hostname>"))
        time.sleep(1.1)  # times of events are whole seconds
        self.client.create_subscription(start_time=begin, stop_time=moment())
        names = self.names_until("notificationComplete")
        self.assertEqual(names[-2:], ["replayComplete", "notificationComplete"])
        self.assertIn(CONFIG_CHANGE, names)
        self.client.create_subscription()

    def test_faulty_subscriptions_are_refused(self):
        for parameters in ({"stream_name": "attic"}, {"start_time": moment(3600)}, {"start_time": moment(), "stop_time": moment(-60)},
                           {"start_time": "yesterday"}):
            with self.subTest(parameters), self.assertRaises(RPCError):
                self.client.create_subscription(**parameters)
        self.client.create_subscription()
        with self.assertRaises(RPCError):
            self.client.create_subscription()
