"""get and get-config: what filters select."""

import os
import pwd

from lxml import etree
from ncclient.operations import MissingCapabilityError, RPCError

from cases import Case, subtree, system, texts

PEOPLE = system("""<hostname>box</hostname>
  <user><name>alice</name><uid>1</uid></user><user><name>bob</name><uid>2</uid></user>
  <ntp xmlns="urn:ex-ext"><server><address>192.0.2.1</address></server></ntp>""")


class Retrieval(Case):
    def setUp(self) -> None:
        super().setUp()
        self.edit(PEOPLE)

    def leaves(self, *filters: str) -> list:
        """All values that are selected, in order."""
        data = self.client.get_config("running", subtree(*filters)).data
        return [node.text for node in data.iter() if len(node) == 0 and node is not data]

    def test_no_filter_selects_everything(self):
        self.edit("<bench:bench><bench:entry><bench:name>a</bench:name></bench:entry></bench:bench>")
        names = self.read("sys:system/sys:user/sys:name | bench:bench/bench:entry/bench:name")
        self.assertCountEqual(names, ["alice", "bob", "a"])

    def test_empty_filter_selects_nothing(self):
        self.assertEqual(self.leaves(), [])

    def test_containment_keeps_siblings_out(self):
        selected = self.leaves("<sys:system><ext:ntp/></sys:system>")
        self.assertIn("192.0.2.1", selected)
        self.assertNotIn("box", selected)

    def test_selection_of_one_leaf_of_all_entries(self):
        data = self.client.get_config("running", subtree("<sys:system><sys:user><sys:uid/></sys:user></sys:system>")).data
        self.assertEqual(texts(data, "sys:system/sys:user/sys:uid"), ["1", "2"])
        self.assertEqual(texts(data, "sys:system/sys:hostname"), [])

    def test_content_match_of_a_key_selects_the_entry(self):
        self.assertEqual(self.leaves(system("<user><name>bob</name></user>"))[:2], ["bob", "2"])

    def test_content_match_that_fails_selects_nothing(self):
        self.assertEqual(self.leaves(system("<user><name>eve</name></user>")), [])

    def test_several_subtrees_are_united(self):
        spec = ["<s:system xmlns:s='urn:ex-sys'><s:hostname/></s:system>", system("<user><name>alice</name><uid/></user>")]
        data = self.client.get_config("running", filter=spec).data
        self.assertEqual(texts(data, "sys:system/sys:hostname | sys:system/sys:user/sys:uid"), ["box", "1"])

    def test_filter_without_a_namespace_selects_by_name(self):
        data = self.client.get_config("running", ("subtree", etree.fromstring('<system xmlns=""><hostname/></system>'))).data
        self.assertIn(texts(data, "*/sys:hostname"), ([], ["box"]))  # a device may match it or not; it must answer

    def test_xpath_is_not_announced_and_refused(self):
        self.assertNotIn(":xpath", self.client.server_capabilities)
        with self.assertRaises(RPCError):
            self.client.get_config("running", filter=("xpath", ({"s": "urn:ex-sys"}, "/s:system")))
        self.assertEqual(self.read("//sys:hostname"), ["box"])

    def test_with_defaults_is_not_offered(self):
        with self.assertRaises(MissingCapabilityError):
            self.client.get_config("running", with_defaults="report-all")

    def test_each_datastore_has_its_own_content(self):
        self.edit(system("<hostname>next</hostname>"), target="candidate")
        names = [self.read("//sys:hostname", source) for source in ("running", "candidate", "startup")]
        self.assertEqual(names, [["box"], ["next"], []])

    def test_unknown_datastore_is_refused(self):
        with self.assertRaises(RPCError):
            self.client.get_config("attic")

    def test_get_adds_state_to_configuration(self):
        self.edit("<hello:hello><hello:name>world</hello:name></hello:hello>")
        data = self.client.get(subtree("<hello:hello/>")).data
        self.assertEqual(texts(data, "hello:hello/*"), ["world", "Hello, world"])
        self.assertEqual(self.read("hello:hello/*", filter=subtree("<hello:hello/>")), ["world"])

    def test_state_shows_the_session_its_user_and_address(self):
        mine = f'd:daemon/d:session[d:id="{self.client.session_id}"]'
        user = pwd.getpwuid(os.getuid()).pw_name
        self.assertEqual(self.state(f"{mine}/d:username | {mine}/d:address"), [user, "127.0.0.1"])

    def test_state_shows_who_holds_a_lock(self):
        with self.client.locked("candidate"):
            holder = self.state('d:daemon/d:datastore[d:name="candidate"]/d:lock-holder')
        self.assertEqual(holder, [self.client.session_id])
