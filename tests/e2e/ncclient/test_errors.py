"""How refusals reach a client: tag, type, severity, path, message, details."""

from lxml import etree
from ncclient.operations import RaiseMode, RPCError

from cases import BASE, Case, config, subtree, system

# What is sent, by name: content of an edit, and what the error says: tag, path, and a part of message or details.
REFUSED = {
    "unknown_element": (system("<colour/>"), "unknown-element", "system", "colour"),
    "unknown_namespace": ('<system xmlns="urn:nowhere"/>', "unknown-namespace", "", "urn:nowhere"),
    "unknown_attribute": (system('<hostname nc:colour="red">a</hostname>'), "unknown-attribute", "hostname", "colour"),
    "value_out_of_range": (system("<port>65536</port>"), "invalid-value", "/ex-sys:system/ex-sys:port", ""),
    "value_that_no_pattern_fits": (system("<hostname>-</hostname>"), "invalid-value", "/ex-sys:system/ex-sys:hostname", ""),
    "unknown_operation": (system('<hostname nc:operation="paint">a</hostname>'), "bad-attribute", "hostname", "operation"),
    "existing_node": (system('<location nc:operation="create">x</location>'), "data-exists", "/ex-sys:system/ex-sys:location", ""),
    "absent_node": (system('<dns nc:operation="delete">192.0.2.1</dns>'), "data-missing", "/ex-sys:system/ex-sys:dns", ""),
    "entry_without_key": (system("<user><uid>1</uid></user>"), "missing-element", "user", "name"),
    "mandatory_leaf": (system("<user><name>a</name><key><index>1</index></key></user>"), "data-missing", "data", ""),
    "reference_to_nothing": (system("<primary-user>ghost</primary-user>"), "data-missing", "/ex-sys:system/ex-sys:primary-user", ""),
    "broken_must": (system("<window><min>9</min><max>3</max></window>"), "operation-failed", "/ex-sys:system/ex-sys:window",
                    "The window ends before it begins."),
    "entry_that_is_not_unique": (system("<user><name>a</name><uid>1</uid></user><user><name>b</name><uid>1</uid></user>"),
                                 "operation-failed", "user", ""),
}


class Refusals(Case):
    def setUp(self) -> None:
        super().setUp()
        self.edit(system("<location>hall</location>"), target="candidate")
        self.client.commit()


def refusal(row):
    content, tag, path, part = row

    def test(self) -> None:
        with self.refused(tag) as caught:
            self.edit(content, target="candidate")
        error = caught.error
        self.assertIn(error.type, ("application", "protocol"))
        self.assertIn(path, error.path or "")
        self.assertIn(part, f"{error.message} {error.info}")
        self.assertEqual(self.read("sys:system/*", "candidate"), self.read("sys:system/*"))

    return test


for name, row in REFUSED.items():
    setattr(Refusals, f"test_{name}_is_refused", refusal(row))


class Errors(Case):
    def test_each_fault_is_reported_once_with_its_path(self):
        with self.refused("invalid-value") as caught:
            self.edit(system("<user><name>alice</name><uid>-1</uid></user>"))
        self.assertIn("""ex-sys:user[ex-sys:name='alice']/ex-sys:uid""", caught.error.path.replace('"', "'"))

    def test_raise_mode_decides_what_is_raised(self):
        fault = system('<location nc:operation="delete"/>')
        for mode in (RaiseMode.ERRORS, RaiseMode.ALL):
            self.client.raise_mode = mode
            self.assertRaises(RPCError, self.edit, fault)
        self.client.raise_mode = RaiseMode.NONE
        reply = self.edit(fault)
        self.assertEqual((reply.ok, reply.error.tag, len(reply.errors)), (False, "data-missing", 1))

    def test_unknown_operation_is_refused_and_the_session_goes_on(self):
        for operation in ('<paint xmlns="urn:nowhere"/>', f'<paint xmlns="{BASE}"/>'):
            with self.assertRaises(RPCError):
                self.client.dispatch(etree.fromstring(operation))
        self.assertTrue(self.client.get_config("running").ok)

    def test_schemas_are_not_offered_for_reading(self):
        with self.assertRaises(RPCError):
            self.client.get_schema("ex-sys")

    def test_operation_without_a_plugin_is_refused(self):
        with self.assertRaises(RPCError) as caught:
            self.client.dispatch(etree.fromstring('<restart-service xmlns="urn:ex-sys"><name>web</name></restart-service>'))
        self.assertEqual(caught.exception.severity, "error")

    def test_operation_of_a_plugin_is_performed(self):
        self.edit("<dsys:system><dsys:dns><dsys:search>example.org</dsys:search></dsys:dns></dsys:system>")
        reply = self.client.dispatch(etree.fromstring('<check-name xmlns="urn:ex-device-system"><name>WWW</name></check-name>'))
        tree = etree.fromstring(reply.xml.encode())
        self.assertIn("www.example.org", tree.xpath("//*[local-name()='candidate']/text()"))

    def test_operation_with_a_bad_parameter_is_refused(self):
        with self.refused("data-missing"):
            self.client.dispatch(etree.fromstring('<check-name xmlns="urn:ex-device-system"/>'))
