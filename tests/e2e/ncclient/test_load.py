"""Much at once: large documents, outstanding requests, many clients, strange characters."""

import threading
from xml.sax.saxutils import escape

from ncclient.transport.errors import TransportError

from cases import Case, subtree, system, texts
from device import SESSIONS

ENTRIES = 10000
STRANGE = {
    "markup": "<a href=\"x\">&amp; 'y' ]]> <!-- --> <![CDATA[z",
    "end_of_message": "a]]>]]>b",
    "chunk_heads": "a\n##\nb\n#3\nc",
    "beyond_ascii": "Zürich, 東京, \U0001f30d, e\u0301, \u00a0",
}


def entries(count: int) -> str:
    return "<bench xmlns='urn:ex-bench'>" + "".join(
        f"<entry><name>port-{number}</name><description>Uplink to the distribution switch</description><mtu>1500</mtu>"
        f"<enabled>true</enabled><weight>{number}</weight><unit><id>1</id><label>a</label></unit></entry>"
        for number in range(count)) + "</bench>"


class Load(Case):
    def test_large_edit_and_large_reply(self):
        self.edit(entries(ENTRIES), target="candidate")
        self.client.commit()
        for client in (self.client, self.connect(old=True)):
            data = client.get_config("running", subtree("<bench:bench/>")).data
            self.assertEqual(texts(data, "bench:bench/bench:entry/bench:weight"), [str(n) for n in range(ENTRIES)])

    def test_outstanding_requests_get_their_own_replies(self):
        self.edit(entries(50))
        self.client.async_mode = True
        asked = [self.client.get_config("running", subtree(f"<bench:bench><bench:entry><bench:name>port-{n}</bench:name>"
                                                           "<bench:weight/></bench:entry></bench:bench>")) for n in range(50)]
        for number, request in enumerate(asked):
            self.assertTrue(request.event.wait(60))
            self.assertEqual(texts(request.reply.data, "//bench:weight"), [str(number)])
        self.client.async_mode = False

    def together(self, actions) -> list:
        """Runs each in a thread of its own. Their results; a failure of one is raised."""
        results, faults = [None] * len(actions), []

        def run(index, action):
            try:
                results[index] = action()
            except Exception as fault:  # handed to the main thread
                faults.append(fault)

        threads = [threading.Thread(target=run, args=pair) for pair in enumerate(actions)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if faults:
            raise faults[0]
        return results

    def test_as_many_clients_as_allowed_and_not_one_more(self):
        clients = self.together([self.connect] * (SESSIONS - 1)) + [self.client]
        self.assertEqual(len({client.session_id for client in clients}), SESSIONS)
        with self.assertRaises(TransportError):
            self.box.connect()
        replies = self.together([lambda client=client: client.get_config("running") for client in clients])
        self.assertTrue(all(reply.ok for reply in replies))
        clients[0].close_session()
        self.assertTrue(self.connect().get_config("running").ok)

    def test_edits_in_parallel_under_locks_are_all_kept(self):
        def work(client, number):
            for turn in range(5):
                while not client.lock("candidate").ok:
                    pass
                self.edit(system(f"<tag>{number}-{turn}</tag>"), target="candidate", client=client)
                client.commit()
                client.unlock("candidate")

        clients = [self.connect() for _ in range(4)]
        for client in clients:
            client.raise_mode = 0
        self.together([lambda pair=pair: work(pair[1], pair[0]) for pair in enumerate(clients)])
        self.assertCountEqual(self.read("//sys:tag"), [f"{number}-{turn}" for number in range(4) for turn in range(5)])


def survives(text: str):
    def test(self) -> None:
        for client in (self.client, self.connect(old=True)):
            self.edit(system(f"<location>{escape(text)}</location>"), client=client)
            self.assertEqual(client.get_config("running").data.find(".//{urn:ex-sys}location").text, text)

    return test


for name, text in STRANGE.items():
    setattr(Load, f"test_{name}_in_a_value_comes_back_in_both_framings", survives(text))
