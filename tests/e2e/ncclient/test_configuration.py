"""Operations that change datastores."""

from lxml import etree
from ncclient.operations import MissingCapabilityError, RPCError

from cases import BASE, Case, system


class Editing(Case):
    def user(self, operation: str, name: str, more: str = "") -> str:
        return system(f'<user nc:operation="{operation}"><name>{name}</name>{more}</user>')

    def names(self) -> list:
        return self.read("sys:system/sys:user/sys:name")

    def test_merge_adds_and_changes(self):
        self.edit(system("<hostname>a</hostname><location>hall</location>"))
        self.edit(system("<hostname>b</hostname>"))
        self.assertEqual(self.read("//sys:hostname | //sys:location"), ["b", "hall"])

    def test_create_and_delete_of_an_entry(self):
        self.edit(self.user("create", "alice"))
        self.edit(self.user("create", "bob"))
        self.edit(self.user("delete", "alice"))
        self.assertEqual(self.names(), ["bob"])

    def test_remove_of_what_is_not_there_is_no_fault(self):
        self.edit(self.user("create", "alice"))
        for _ in range(2):
            self.assertTrue(self.edit(self.user("remove", "alice")).ok)
        self.assertEqual(self.names(), [])

    def test_replace_of_an_entry_drops_its_other_leaves(self):
        self.edit(self.user("create", "alice", "<uid>1</uid>"))
        self.edit(self.user("replace", "alice", "<full-name>Alice</full-name>"))
        self.assertEqual(self.read("//sys:user/sys:full-name | //sys:user/sys:uid"), ["Alice"])

    def test_default_operation_replace_replaces_the_datastore(self):
        self.edit(system("<hostname>a</hostname><location>hall</location>"))
        self.edit(system("<hostname>b</hostname>"), default_operation="replace")
        self.assertEqual(self.read("//sys:hostname | //sys:location"), ["b"])

    def test_default_operation_none_touches_named_nodes_only(self):
        self.edit(system("<hostname>a</hostname>"))
        self.edit(system('<hostname>b</hostname><location nc:operation="create">hall</location>'), default_operation="none")
        self.assertEqual(self.read("//sys:hostname | //sys:location"), ["a", "hall"])

    def test_order_by_user_is_kept_and_changed_by_insert(self):
        self.edit(system("<rule><id>b</id></rule><rule><id>c</id></rule>"))
        self.edit('<system xmlns="urn:ex-sys" xmlns:yang="urn:ietf:params:xml:ns:yang:1"><rule yang:insert="first"><id>a</id></rule>'
                  """<rule yang:insert="after" yang:key="[sys:id='a']"><id>c</id></rule></system>""")
        self.assertEqual(self.read("sys:system/sys:rule/sys:id"), ["a", "c", "b"])

    def test_error_options_are_taken(self):
        for option in ("stop-on-error", "rollback-on-error"):
            self.edit(system("<hostname>a</hostname>"), error_option=option)

    def test_refused_edit_with_rollback_changes_nothing(self):
        with self.refused("data-missing"):
            self.edit(system('<hostname>a</hostname><location nc:operation="delete"/>'), error_option="rollback-on-error")
        self.assertEqual(self.read("sys:system/*"), [])

    def test_a_plugin_carries_the_change_out(self):
        self.edit('<dsys:system><dsys:hostname>gw</dsys:hostname></dsys:system>')
        self.assertEqual((self.box.dir / "root/etc/hostname").read_text(), "gw\n")

    def test_what_a_plugin_refuses_is_taken_back(self):
        with self.refused("operation-failed") as caught:
            self.edit("<dsys:system><dsys:hostname>gw</dsys:hostname></dsys:system><hello:hello><hello:name>nobody</hello:name>"
                      "</hello:hello>")
        self.assertIn("nobody is not greeted", caught.error.message)
        self.assertEqual(caught.error.app_tag, "2")
        self.assertEqual(self.read("dsys:system/*"), [])
        self.assertFalse((self.box.dir / "root/etc/hostname").exists())


class Datastores(Case):
    def names(self) -> list:
        return [self.read("//sys:hostname", source) for source in ("running", "candidate", "startup")]

    def test_commit_makes_candidate_run(self):
        self.edit(system("<hostname>a</hostname>"), target="candidate")
        self.client.commit()
        self.assertEqual(self.names(), [["a"], ["a"], []])

    def test_discard_changes_drops_what_is_pending(self):
        self.edit(system("<hostname>a</hostname>"), target="candidate")
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

    def test_copy_config_of_a_document(self):
        source = f'<source xmlns="{BASE}"><config>{system("<hostname>a</hostname>")}</config></source>'
        self.client.copy_config(source=source, target="candidate")
        self.assertEqual(self.names(), [[], ["a"], []])

    def test_delete_config_empties_startup_and_never_running(self):
        self.edit(system("<hostname>a</hostname>"))
        self.client.copy_config(source="running", target="startup")
        self.client.delete_config("startup")
        with self.assertRaises(RPCError):
            self.client.delete_config("running")
        self.assertEqual(self.names(), [["a"], ["a"], []])

    def test_what_is_not_announced_is_not_sent(self):
        for ask in (self.client.validate, lambda: self.client.commit(confirmed=True), self.client.cancel_commit,
                    lambda: self.edit("", test_option="test-only")):
            with self.assertRaises(MissingCapabilityError):
                ask()

    def test_confirmed_commit_sent_all_the_same_is_refused(self):
        self.edit(system("<hostname>a</hostname>"), target="candidate")
        with self.assertRaises(RPCError):
            self.client.rpc(etree.fromstring(f'<commit xmlns="{BASE}"><confirmed/></commit>'))
        self.assertEqual(self.names()[0], [])


class Locking(Case):
    def test_locked_blocks_others_until_it_ends(self):
        other = self.connect()
        for target in ("running", "candidate", "startup"):
            with self.client.locked(target):
                with self.refused("lock-denied") as caught:
                    other.lock(target)
                self.assertIn(f"<session-id>{self.client.session_id}</session-id>", caught.error.info.replace("nc:", ""))
            with other.locked(target):
                pass

    def test_edit_of_what_another_has_locked_is_refused(self):
        other = self.connect()
        with other.locked("running"), self.assertRaises(RPCError) as caught:
            self.edit(system("<hostname>a</hostname>"))
        self.assertEqual((caught.exception.type, self.read("//sys:hostname")), ("protocol", []))

    def test_unlock_of_what_another_holds_is_refused(self):
        other = self.connect()
        with other.locked("running"), self.assertRaises(RPCError):
            self.client.unlock("running")
