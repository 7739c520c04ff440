"""Reading and changing datastores, and how refusals reach a client."""

import os
import pwd

from ncclient.operations import MissingCapabilityError, RaiseMode, RPCError

from cases import Case, add_tests, element, parse, subtree, system, texts

NAMES = "//sys:hostname | //sys:location | //sys:user/sys:name | //sys:uid | //sys:rule/sys:id | //ext:address"
PEOPLE = system("<hostname>box</hostname><user><name>alice</name><uid>1</uid></user><user><name>bob</name><uid>2</uid></user>"
                '<ntp xmlns="urn:ex-ext"><server><address>192.0.2.1</address></server></ntp>')
FILTERS = {
    "no_filter_selects_everything": (None, ["box", "alice", "1", "bob", "2", "192.0.2.1"]),
    "empty_filter_selects_nothing": ("", []),
    "containment_keeps_siblings_out": ("<sys:system><ext:ntp/></sys:system>", ["192.0.2.1"]),
    "selection_of_one_leaf_of_all_entries": ("<sys:system><sys:user><sys:uid/></sys:user></sys:system>", ["1", "2"]),
    "content_match_of_a_key_selects_the_entry": (system("<user><name>bob</name></user>"), ["bob", "2"]),
    "content_match_that_fails_selects_nothing": (system("<user><name>eve</name></user>"), []),
    "subtrees_with_any_prefix_are_united": ("<s:system xmlns:s='urn:ex-sys'><s:hostname/></s:system>"
                                            + system("<user><name>alice</name></user>"), ["box", "alice", "1"]),
}


class Filters(Case):
    def setUp(self) -> None:
        super().setUp()
        self.edit(PEOPLE)

    def selects(self, content: str, wanted: list) -> None:
        self.assertEqual(self.read(NAMES, content=content), wanted)

    def test_xpath_is_not_announced_and_refused(self):
        with self.assertRaises(RPCError):
            self.client.get_config("running", filter=("xpath", ({"s": "urn:ex-sys"}, "/s:system")))


add_tests(Filters, FILTERS, Filters.selects)

EDITS = {
    "merge_adds_and_changes": ([system("<hostname>a</hostname>"), system("<hostname>b</hostname><location>hall</location>")], {},
                               ["b", "hall"]),
    "create_and_delete_of_entries": (
        [system(f'<user nc:operation="{operation}"><name>{name}</name></user>')
         for operation, name in (("create", "alice"), ("create", "bob"), ("delete", "alice"))], {}, ["bob"]),
    "remove_of_what_is_there_and_is_not": (
        [system("<location>hall</location>")] + 2 * [system('<location nc:operation="remove"/>')], {}, []),
    "replace_of_an_entry_drops_its_other_leaves": (
        [PEOPLE, system('<user nc:operation="replace"><name>bob</name></user>')], {},
        ["box", "alice", "1", "bob", "192.0.2.1"]),
    "default_operation_replace_replaces_the_datastore": (
        [PEOPLE, system("<location>hall</location>")], {"default_operation": "replace"}, ["hall"]),
    "default_operation_none_touches_what_has_an_operation": (
        ['<sys:system nc:operation="merge"><sys:hostname>a</sys:hostname></sys:system>',
         system('<hostname>b</hostname><location nc:operation="create">hall</location>')], {"default_operation": "none"}, ["a", "hall"]),
    "insert_decides_the_order": (
        [system("<rule><id>b</id></rule><rule><id>c</id></rule>"),
         system("""<rule yang:insert="first"><id>a</id></rule><rule yang:insert="after" yang:key="[sys:id='a']"><id>c</id></rule>""")],
        {}, ["a", "c", "b"]),
    "error_option_rollback_is_taken": ([system("<hostname>a</hostname>")], {"error_option": "rollback-on-error"}, ["a"]),
}


class Editing(Case):
    def makes(self, contents: list, options: dict, wanted: list) -> None:
        for target in ("running", "candidate"):
            for content in contents:
                self.assertTrue(self.edit(content, target, **options).ok)
            self.assertEqual(self.read(NAMES, target), wanted)
            self.empty()

    def test_a_plugin_carries_a_change_out_and_supplies_state(self):
        self.edit("<dsys:system><dsys:hostname>gw</dsys:hostname></dsys:system><hello:hello><hello:name>world</hello:name></hello:hello>")
        self.assertEqual((self.box.dir / "root/etc/hostname").read_text(), "gw\n")
        self.assertEqual(texts(self.client.get(subtree("<hello:hello/>")).data, "*/*"), ["world", "Hello, world"])
        self.assertEqual(self.read("*/*", content="<hello:hello/>"), ["world"])

    def test_what_a_plugin_refuses_is_taken_back(self):
        with self.refused("operation-failed") as errors:
            self.edit("<dsys:system><dsys:hostname>gw</dsys:hostname></dsys:system>"
                      "<hello:hello><hello:name>nobody</hello:name></hello:hello>")
        self.assertEqual((errors[0].app_tag, "nobody is not greeted" in errors[0].message), ("2", True))
        self.assertEqual(self.read("dsys:system/*"), [])
        self.assertFalse((self.box.dir / "root/etc/hostname").exists())


add_tests(Editing, EDITS, Editing.makes)


class Datastores(Case):
    def names(self) -> list:
        return [self.read("//sys:hostname", source) for source in ("running", "candidate", "startup")]

    def test_commit_makes_candidate_run(self):
        self.edit(system("<hostname>a</hostname>"), "candidate")
        self.assertEqual(self.names(), [[], ["a"], []])
        self.client.commit()
        self.assertEqual(self.names(), [["a"], ["a"], []])

    def test_discard_changes_drops_what_is_pending(self):
        self.edit(system("<hostname>a</hostname>"), "candidate")
        self.assertEqual(self.state("//d:datastore/d:pending-changes"), ["true"])
        self.client.discard_changes()
        self.assertEqual(self.names(), [[], [], []])

    def test_copy_config_between_datastores(self):
        self.edit(system("<hostname>a</hostname>"))
        self.client.copy_config(source="running", target="startup")
        self.edit(system('<hostname nc:operation="delete"/>'))
        self.assertEqual(self.names(), [[], [], ["a"]])
        self.client.copy_config(source="startup", target="candidate")
        self.client.commit()
        self.assertEqual(self.names(), [["a"], ["a"], ["a"]])

    def test_delete_config_empties_startup_and_never_running(self):
        self.edit(system("<hostname>a</hostname>"))
        self.client.copy_config(source="running", target="startup")
        self.client.delete_config("startup")
        with self.assertRaises(RPCError):
            self.client.delete_config("running")
        self.assertEqual(self.names(), [["a"], ["a"], []])

    def test_locked_keeps_others_out_until_it_ends(self):
        other = self.connect()
        for target in ("running", "candidate", "startup"):
            with self.client.locked(target):
                self.assertEqual(self.state(f'//d:datastore[d:name="{target}"]/d:lock-holder'), [self.client.session_id])
                with self.refused("lock-denied") as errors:
                    other.lock(target)
                self.assertEqual(texts(parse(errors[0].info), "nc:session-id"), [self.client.session_id])
                self.assertRaises(RPCError, other.unlock, target)
            with other.locked(target), self.refused("operation-failed") as errors:
                self.client.copy_config(source="running" if target != "running" else "startup", target=target)
            self.assertIn("locked", errors[0].message)

    def test_what_is_not_announced_is_refused(self):
        for ask in (self.client.validate, lambda: self.client.commit(confirmed=True), self.client.cancel_commit,
                    lambda: self.edit("", test_option="test-only"), lambda: self.client.get(with_defaults="report-all")):
            self.assertRaises(MissingCapabilityError, ask)
        self.edit(system("<hostname>a</hostname>"), "candidate")
        for operation in ("<nc:commit><nc:confirmed/></nc:commit>", "<nc:validate><nc:source><nc:candidate/></nc:source></nc:validate>"):
            with self.assertRaises(RPCError):
                self.client.dispatch(element(operation))
        self.assertRaises(RPCError, self.client.get_schema, "ex-sys")
        self.assertEqual(self.names()[0], [])


# What is edited, and parts of what the error says: its tag, the end of its path, its message and details.
REFUSALS = {
    "unknown_element": ("<colour/>", "unknown-element", "colour", ""),
    "unknown_namespace": ('<colour xmlns="urn:nowhere"/>', "unknown-namespace", "", "urn:nowhere"),
    "unknown_attribute": ('<port nc:colour="red">1</port>', "unknown-attribute", "port", "<bad-attribute>colour</bad-attribute>"),
    "unknown_operation": ('<port nc:operation="paint">1</port>', "bad-attribute", "port", "<bad-attribute>operation</bad-attribute>"),
    "value_out_of_range": ("<port>65536</port>", "invalid-value", "/ex-sys:system/ex-sys:port", "65536"),
    "bad_value_in_an_entry": ("<user><name>eve</name><uid>-1</uid></user>", "invalid-value",
                              "/ex-sys:system/ex-sys:user[ex-sys:name='eve']/ex-sys:uid", "-1"),
    "create_of_what_is_there": ('<location nc:operation="create">x</location>', "data-exists", "ex-sys:location", ""),
    "delete_of_what_is_not_there": ('<contact nc:operation="delete"/>', "data-missing", "ex-sys:contact", ""),
    "entry_without_key": ("<user><uid>1</uid></user>", "missing-element", "user", "<bad-element>name</bad-element>"),
    "entry_without_mandatory_leaf": ("<user><name>a</name><key><index>1</index></key></user>", "data-missing", "data", ""),
    "reference_to_nothing": ("<primary-user>ghost</primary-user>", "data-missing", "ex-sys:primary-user", "ghost"),
    "broken_constraint": ("<window><min>9</min><max>3</max></window>", "operation-failed", "ex-sys:window", "ends before it begins."),
}


class Refusals(Case):
    def are(self, content: str, tag: str, path: str, part: str) -> None:
        self.edit(system("<location>hall</location>"))
        with self.refused(tag) as errors:
            self.edit(system(content), "candidate")
        self.assertEqual(errors[0].type, "application")
        self.assertTrue((errors[0].path or "").endswith(path), errors[0].path)
        self.assertIn(part, f"{errors[0].message} {errors[0].info}")
        self.assertEqual(self.read(NAMES, "candidate"), ["hall"])

    def test_raise_mode_decides_what_is_raised(self):
        fault = system('<location nc:operation="delete"/>')
        for mode in (RaiseMode.ERRORS, RaiseMode.ALL):
            self.client.raise_mode = mode
            self.assertRaises(RPCError, self.edit, fault)
        self.client.raise_mode = RaiseMode.NONE
        reply = self.edit(fault)
        self.assertEqual((reply.ok, reply.error.tag, len(reply.errors)), (False, "data-missing", 1))


add_tests(Refusals, REFUSALS, Refusals.are)


class Operations(Case):
    def test_operations_of_a_plugin_and_of_the_daemon_are_performed(self):
        self.assertIn("urn:ex-sys?", self.client.dispatch(element("<d:get-capability/>")).xml)
        self.edit("<dsys:system><dsys:dns><dsys:search>example.org</dsys:search></dsys:dns></dsys:system>")
        reply = self.client.dispatch(element("<dsys:check-name><dsys:name>WWW</dsys:name></dsys:check-name>"))
        self.assertIn("www.example.org", texts(parse(reply.xml), "//dsys:candidate"))

    def test_operation_that_cannot_be_performed_is_refused_and_the_session_goes_on(self):
        for operation in ("<dsys:check-name/>", "<sys:restart-service><sys:name>web</sys:name></sys:restart-service>",
                          '<paint xmlns="urn:nowhere"/>', "<nc:paint/>"):
            with self.assertRaises(RPCError):
                self.client.dispatch(element(operation))
        self.assertTrue(self.client.get_config("running").ok)

    def test_state_shows_the_session_its_user_and_address(self):
        mine = f'//d:session[d:id="{self.client.session_id}"]'
        self.assertEqual(self.state(f"{mine}/d:username | {mine}/d:address"), [pwd.getpwuid(os.getuid()).pw_name, "127.0.0.1"])
