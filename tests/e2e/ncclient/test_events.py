"""Notifications: live, filtered, replayed, between replies."""

import socket
import time
from datetime import datetime, timedelta, timezone

from lxml import etree
from ncclient.operations import RPCError

from cases import PATIENCE, PREFIXES, Case, system, texts

CONFIG_CHANGE = "netconf-config-change"
FAILURE = '<service-failed xmlns="urn:ex-sys"><name>ftp</name><exit-code>1</exit-code></service-failed>'


def moment(seconds: float = 0) -> str:
    return (datetime.now(timezone.utc) + timedelta(seconds=seconds)).strftime("%Y-%m-%dT%H:%M:%SZ")


def names_of(contents: list) -> list:
    return [etree.QName(content).localname for content in contents]


class Events(Case):
    def until(self, last: str, client=None) -> list:
        """The notifications up to the first of this name; their contents."""
        contents = []
        while last not in names_of(contents):
            notification = (client or self.client).take_notification(timeout=PATIENCE)
            self.assertIsNotNone(notification, f"no {last} came after {contents}")
            event_time, content = notification.notification_ele
            datetime.fromisoformat(event_time.text)
            contents.append(content)
        return contents

    def send_event(self) -> None:
        """As a plugin does."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.sendto(FAILURE.encode(), str(self.box.run_dir / "notify.sock"))

    def test_change_of_running_names_who_and_what(self):
        self.edit(system("<hostname>a</hostname>"))
        self.client.create_subscription(stream_name="NETCONF")
        other = self.connect()
        self.edit(system("<user><name>alice</name></user>"), client=other)
        event = self.until(CONFIG_CHANGE)[-1]
        said = texts(event, "ncn:changed-by/ncn:session-id | .//ncn:source-host | ncn:datastore | .//ncn:operation")
        self.assertCountEqual(said, [other.session_id, "127.0.0.1", "running", "create"])
        self.assertIn("alice", texts(event, "ncn:edit/ncn:target")[0])

    def test_sessions_of_others_are_told(self):
        self.client.create_subscription()
        closed, killed = self.connect(), self.connect()
        for other in (closed, killed):
            started = self.until("netconf-session-start")[-1]
            self.assertEqual(texts(started, "ncn:session-id | ncn:source-host"), [other.session_id, "127.0.0.1"])
        closed.close_session()
        self.client.kill_session(killed.session_id)
        for said in ([closed.session_id, "closed"], [killed.session_id, self.client.session_id, "killed"]):
            ended = self.until("netconf-session-end")[-1]
            self.assertEqual(texts(ended, "ncn:session-id | ncn:killed-by | ncn:termination-reason"), said)

    def test_filtered_subscription_hears_of_events_of_plugins_only(self):
        # As RFC 5277 has it; and as the client has it for short: in the namespace of get and get-config.
        chosen = '<service-failed xmlns="urn:ex-sys"/>'
        for number, spec in enumerate([f'<filter xmlns="{PREFIXES["n"]}" type="subtree">{chosen}</filter>', ("subtree", chosen)]):
            client = self.connect()
            client.create_subscription(filter=spec)
            self.edit(system(f"<hostname>a{number}</hostname>"))
            self.send_event()
            (event,) = self.until("service-failed", client)
            self.assertEqual(texts(event, "sys:name | sys:exit-code"), ["ftp", "1"])

    def test_requests_go_on_during_a_subscription(self):
        self.client.create_subscription()
        for number in range(20):
            self.edit(system(f"<hostname>a{number}</hostname>"))
        self.assertEqual(self.read("//sys:hostname"), ["a19"])
        for _ in range(20):
            self.until(CONFIG_CHANGE)

    def test_replay_ends_and_live_events_follow(self):
        begin = moment()
        self.edit(system("<hostname>past</hostname>"))
        self.client.create_subscription(start_time=begin)
        self.assertIn(CONFIG_CHANGE, names_of(self.until("replayComplete")))
        self.edit(system("<hostname>live</hostname>"))
        self.until(CONFIG_CHANGE)

    def test_replay_with_an_end_completes(self):
        begin = moment()
        self.edit(system("<hostname>past</hostname>"))
        time.sleep(1.1)  # times of events are whole seconds
        self.client.create_subscription(start_time=begin, stop_time=moment())
        names = names_of(self.until("notificationComplete"))
        self.assertEqual((CONFIG_CHANGE in names, names[-2:]), (True, ["replayComplete", "notificationComplete"]))

    def test_faulty_subscriptions_are_refused(self):
        for parameters in ({"stream_name": "attic"}, {"start_time": moment(3600)}, {"start_time": "yesterday"},
                           {"start_time": moment(-60), "stop_time": moment(-120)}, {"filter": ("xpath", "/a")}):
            with self.subTest(parameters), self.assertRaises(RPCError):
                self.client.create_subscription(**parameters)
