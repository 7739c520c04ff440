// edit-config of candidate: every operation at every level, inheritance, and what must not change.
#include "datastore_fixture.h"

using support::COMMIT;
using support::DISCARD_CHANGES;

namespace {

class edit_config : public datastore_fixture {};

const char ALICE[] = "<user><name>alice</name><uid>1</uid></user>";

std::string with_operation(const std::string &element, const std::string &operation)
{
  size_t end = element.find_first_of(" >/");
  return element.substr(0, end) + " nc:operation=\"" + operation + "\"" + element.substr(end);
}

} // namespace

TEST_F(edit_config, merge_creates_containers_lists_leafs_and_leaf_lists)
{
  ASSERT_TRUE(
      session->ok(edit("<hostname>box</hostname><logging><level>debug</level></logging>"
                       "<user><name>alice</name><key><index>1</index><data>AAA</data></key></user>"
                       "<primary-user>alice</primary-user><dns>10.0.0.2</dns><dns>10.0.0.1</dns>"
                       "<telnet/><ntp xmlns=\"urn:ex-ext\"><server><address>a.example</address></server></ntp>")));
  std::string candidate = data("candidate");
  for (const char *part : {"<hostname>box</hostname>", "<level>debug</level>", "<name>alice</name>", "<data>AAA</data>",
                           "<primary-user>alice</primary-user>", "<dns>10.0.0.2</dns><dns>10.0.0.1</dns>", "<telnet>",
                           "<address>a.example</address>"}) {
    EXPECT_TRUE(contains(candidate, part)) << part << "\n" << candidate;
  }
  EXPECT_FALSE(holds("running", "box"));
}

TEST_F(edit_config, defaults_of_what_was_touched_become_data)
{
  ASSERT_TRUE(session->ok(edit("<telnet/><user><name>bob</name></user>")));
  std::string candidate = data("candidate");
  EXPECT_TRUE(contains(candidate, "<port>23</port>")) << candidate;
  EXPECT_TRUE(contains(candidate, "<shell>/bin/sh</shell>")) << candidate;
  EXPECT_TRUE(contains(candidate, "<high>80</high>")) << candidate;    // below a container that the edit does not name
  EXPECT_TRUE(contains(candidate, "<drift>0.5</drift>")) << candidate; // of a default case
}

TEST_F(edit_config, create_of_existing_data_is_refused_at_every_level)
{
  ASSERT_TRUE(session->ok(edit(std::string("<hostname>box</hostname><dns>10.0.0.1</dns><telnet/>") + ALICE)));
  std::string before = dump(CANDIDATE_DB);
  for (const char *element : {"<hostname>other</hostname>", "<dns>10.0.0.1</dns>", "<telnet/>", ALICE}) {
    support::rpc_error_t error = session->error(edit(with_operation(element, "create")));
    EXPECT_EQ(error.tag, "data-exists") << element;
    EXPECT_FALSE(error.path.empty()) << element;
  }
  EXPECT_EQ(dump(CANDIDATE_DB), before);
  EXPECT_TRUE(session->ok(edit(with_operation("<user><name>carol</name></user>", "create"))));
}

TEST_F(edit_config, delete_needs_the_data_and_remove_does_not)
{
  ASSERT_TRUE(session->ok(edit(std::string("<hostname>box</hostname><dns>10.0.0.1</dns><telnet/>") + ALICE)));
  for (const char *element : {"<location/>", "<dns>10.0.0.9</dns>", "<user><name>nobody</name></user>", "<dhcp/>"}) {
    support::rpc_error_t error = session->error(edit(with_operation(element, "delete")));
    EXPECT_EQ(error.tag, "data-missing") << element;
    EXPECT_TRUE(session->ok(edit(with_operation(element, "remove")))) << element;
  }
  for (const char *element : {"<hostname/>", "<dns>10.0.0.1</dns>", "<telnet/>", "<user><name>alice</name></user>"}) {
    EXPECT_TRUE(session->ok(edit(with_operation(element, "delete")))) << element;
  }
  std::string candidate = data("candidate");
  for (const char *gone : {"hostname", "dns", "telnet", "alice"}) {
    EXPECT_FALSE(contains(candidate, gone)) << gone << "\n" << candidate;
  }
}

TEST_F(edit_config, empty_element_deletes_a_leaf_whose_type_refuses_the_empty_value)
{
  ASSERT_TRUE(session->ok(edit("<location>hall</location><contact>10.0.0.1</contact><options>beep</options>")));
  ASSERT_TRUE(session->ok(edit("<contact nc:operation=\"delete\"/><options nc:operation=\"remove\"/>")));
  EXPECT_FALSE(holds("candidate", "contact"));
  EXPECT_FALSE(holds("candidate", "options"));
  EXPECT_EQ(session->error(edit("<contact/>")).tag, "invalid-value");
  ASSERT_TRUE(session->ok(edit("<contact nc:operation=\"remove\"/><contact>10.0.0.2</contact>"))); // in this order
  EXPECT_TRUE(holds("candidate", "<contact>10.0.0.2</contact>"));
  ASSERT_TRUE(session->ok(edit("<rule><id>a</id><action nc:operation=\"remove\"/><action>permit</action><port>1</port>"
                               "<port>2</port><port>3</port></rule>")));
}

TEST_F(edit_config, delete_of_a_leaf_with_default_brings_the_default_back)
{
  ASSERT_TRUE(session->ok(edit("<port>999</port>")));
  ASSERT_TRUE(session->ok(edit("<port nc:operation=\"delete\"/>")));
  EXPECT_TRUE(holds("candidate", "<port>830</port>"));
  ASSERT_TRUE(session->ok(edit("<port nc:operation=\"delete\"/>", "<default-operation>none</default-operation>")));
  EXPECT_TRUE(holds("candidate", "<port>830</port>"));
}

TEST_F(edit_config, replace_drops_what_the_request_does_not_name)
{
  ASSERT_TRUE(session->ok(edit("<user><name>alice</name><full-name>A</full-name><uid>1</uid><key><index>1</index>"
                               "<data>AAA</data></key></user><user><name>bob</name></user>")));
  ASSERT_TRUE(session->ok(edit("<user nc:operation=\"replace\"><name>alice</name><uid>2</uid></user>")));
  std::string candidate = data("candidate");
  EXPECT_TRUE(contains(candidate, "<uid>2</uid>")) << candidate;
  EXPECT_TRUE(contains(candidate, "bob")) << candidate;
  EXPECT_FALSE(contains(candidate, "full-name")) << candidate;
  EXPECT_FALSE(contains(candidate, "AAA")) << candidate;
}

TEST_F(edit_config, operations_are_inherited_and_conflicts_refused)
{
  // An inherited create holds for the whole subtree.
  ASSERT_TRUE(session->ok(edit("<user nc:operation=\"create\"><name>alice</name><key><index>1</index><data>A</data>"
                               "</key></user>")));
  struct {
    const char *what;
    const char *content;
  } conflicts[] = {
      {"create below delete", "<user nc:operation=\"delete\"><name>alice</name><key nc:operation=\"create\">"
                              "<index>1</index><data>B</data></key></user>"},
      {"delete below replace",
       "<user nc:operation=\"replace\"><name>alice</name><uid nc:operation=\"delete\"/></user>"},
      {"remove below create", "<user nc:operation=\"create\"><name>dave</name><uid nc:operation=\"remove\"/></user>"},
      {"delete of a key", "<user><name nc:operation=\"delete\">alice</name></user>"},
      {"create of a key", "<user><name nc:operation=\"create\">alice</name></user>"},
  };
  std::string before = dump(CANDIDATE_DB);
  for (const auto &conflict : conflicts) {
    EXPECT_EQ(session->error(edit(conflict.content)).tag, "operation-failed") << conflict.what;
  }
  EXPECT_TRUE(daemon.wait_for_log("operation (3) differ from parent (4)"));
  EXPECT_EQ(dump(CANDIDATE_DB), before);
  EXPECT_TRUE(session->ok(edit("<user nc:operation=\"merge\"><name nc:operation=\"merge\">alice</name></user>")));
}

TEST_F(edit_config, default_operation_decides_about_nodes_without_one)
{
  ASSERT_TRUE(session->ok(edit("<hostname>box</hostname>" + std::string(ALICE))));
  const std::string none = "<default-operation>none</default-operation>";
  EXPECT_EQ(session->error(edit("<user><name>nobody</name></user>", none)).tag, "data-missing");
  ASSERT_TRUE(session->ok(edit("<hostname>ignored</hostname><user><name>alice</name><uid nc:operation=\"merge\">7</uid>"
                               "</user>",
                               none)));
  EXPECT_TRUE(holds("candidate", "<hostname>box</hostname>"));
  EXPECT_TRUE(holds("candidate", "<uid>7</uid>"));
  ASSERT_TRUE(session->ok(support::edit_config(
      "candidate", "<routes xmlns=\"urn:ex-sys\"><route><dest>10.0.0.0</dest><mask>8</mask></route></routes>",
      "<default-operation>replace</default-operation>")));
  EXPECT_FALSE(holds("candidate", "box"));
  EXPECT_TRUE(holds("candidate", "<dest>10.0.0.0</dest>"));
}

TEST_F(edit_config, choosing_a_case_removes_the_other)
{
  ASSERT_TRUE(
      session->ok(edit("<ntp-server>n.example</ntp-server><resolver-pool><member>10.0.0.1</member></resolver-pool>")));
  ASSERT_TRUE(session->ok(edit("<resolver-address>10.0.0.2</resolver-address>"))); // shorthand case of a nested choice
  EXPECT_FALSE(holds("candidate", "resolver-pool"));
  EXPECT_TRUE(holds("candidate", "n.example"));
  ASSERT_TRUE(session->ok(edit("<dial xmlns=\"urn:ex-ext\">555</dial>"))); // a case added by another module
  EXPECT_FALSE(holds("candidate", "n.example"));
  EXPECT_FALSE(holds("candidate", "resolver-address"));
  ASSERT_TRUE(session->ok(edit("<dhcp/>")));
  EXPECT_FALSE(holds("candidate", "555"));
  ASSERT_TRUE(session->ok(edit("<input>pps</input>")));
  EXPECT_FALSE(holds("candidate", "drift")); // the default case gives way
  ASSERT_TRUE(session->ok(edit("<input nc:operation=\"delete\"/>")));
  EXPECT_TRUE(holds("candidate", "drift"));
}

TEST_F(edit_config, empty_container_of_a_case_stays)
{
  ASSERT_TRUE(session->ok(edit("<resolver-pool/>")));
  ASSERT_TRUE(session->ok(edit("<location>hall</location>"))); // validated once more
  EXPECT_TRUE(holds("candidate", "<resolver-pool>"));
  ASSERT_TRUE(session->ok(edit("<resolver-address>10.0.0.1</resolver-address>")));
  EXPECT_EQ(dump(CANDIDATE_DB).find("resolver-pool"), std::string::npos);
}

TEST_F(edit_config, without_content_changes_nothing)
{
  ASSERT_TRUE(session->ok(edit("<hostname>box</hostname>")));
  ASSERT_TRUE(session->ok(COMMIT));
  ASSERT_TRUE(session->ok(support::edit_config("candidate", "")));
  EXPECT_TRUE(holds("candidate", "<hostname>box</hostname>"));
  EXPECT_TRUE(holds("running", "<hostname>box</hostname>"));
}

TEST_F(edit_config, user_ordered_entries_stand_where_they_were_put)
{
  auto order = [this](const char *list) {
    std::string text = data("candidate");
    std::string found;
    size_t at = 0;
    std::string open = std::string("<") + list + ">";
    while ((at = text.find(open, at)) != std::string::npos) {
      at += open.size();
      found += text.substr(at, text.find('<', at) - at) + " ";
    }
    return found;
  };
  ASSERT_TRUE(
      session->ok(edit("<rule><id>a</id></rule><rule><id>b</id></rule><rule yang:insert=\"first\"><id>c</id></rule>")));
  EXPECT_EQ(order("id"), "c a b ");
  ASSERT_TRUE(session->ok(edit("<rule yang:insert=\"after\" yang:key=\"[id='c']\"><id>d</id></rule>")));
  EXPECT_EQ(order("id"), "c d a b ");
  ASSERT_TRUE(session->ok(edit("<rule yang:insert=\"before\" yang:key=\"[id='d']\"><id>b</id></rule>")));
  EXPECT_EQ(order("id"), "c b d a ");
  ASSERT_TRUE(session->ok(edit("<rule yang:insert=\"last\"><id>c</id></rule>")));
  EXPECT_EQ(order("id"), "b d a c ");
  support::rpc_error_t error =
      session->error(edit("<rule yang:insert=\"after\" yang:key=\"[id='x']\"><id>b</id></rule>"));
  EXPECT_EQ(error.tag, "bad-attribute");
  EXPECT_EQ(error.app_tag, "missing-instance");
  ASSERT_TRUE(session->ok(edit(
      "<dns>10.0.0.1</dns><dns>10.0.0.2</dns><dns yang:insert=\"before\" yang:value=\"10.0.0.2\">10.0.0.3</dns>")));
  EXPECT_EQ(order("dns"), "10.0.0.1 10.0.0.3 10.0.0.2 ");
}

TEST_F(edit_config, values_come_back_as_they_went_in)
{
  const std::string content =
      "<location>a &lt;b&gt; &amp; \"quoted\" \\ back\ttab</location><port> 0098</port>"
      "<tag>say \"hi\", [x]='y'/z</tag><contact>10.0.0.1</contact><options>beep lock-panel</options><read-only/>"
      "<transport xmlns:t=\"urn:ex-types\">t:tcp</transport><logo>QUJD</logo>"
      "<watched xmlns:s=\"urn:ex-sys\">/s:system/s:user[s:name='alice']/s:uid</watched>" +
      std::string(ALICE);
  ASSERT_TRUE(session->ok(edit(content)));
  ASSERT_TRUE(session->ok(COMMIT));
  std::string first = data("running");
  for (const char *part : {"a &lt;b&gt; &amp; &quot;quoted&quot; \\ back&#9;tab", "say &quot;hi&quot;, [x]='y'/z",
                           "<port>98</port>", "beep lock-panel", "QUJD", "ex-types:tcp", "ex-sys:uid"}) {
    EXPECT_TRUE(contains(first, part)) << part << "\n" << first;
  }
  // What was read can be written again and changes nothing.
  ASSERT_TRUE(session->ok(support::edit_config("candidate", first)));
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_TRUE(daemon.wait_for_log("Nothing to be committed."));
  EXPECT_EQ(data("running"), first);
}

TEST_F(edit_config, edit_that_changes_nothing_leaves_nothing_to_commit)
{
  ASSERT_TRUE(session->ok(edit(std::string("<hostname>box</hostname>") + ALICE)));
  ASSERT_TRUE(session->ok(COMMIT));
  std::string before = dump(CANDIDATE_DB);
  ASSERT_TRUE(session->ok(edit(std::string("<hostname>box</hostname>") + ALICE)));
  ASSERT_TRUE(session->ok(DISCARD_CHANGES));
  EXPECT_TRUE(daemon.wait_for_log("Nothing to be discarded."));
  EXPECT_EQ(dump(CANDIDATE_DB), before);
}

TEST_F(edit_config, running_can_be_edited_directly_unless_candidate_was_changed)
{
  ASSERT_TRUE(session->ok(support::edit_config("running", system("<hostname>direct</hostname>"))));
  EXPECT_TRUE(holds("running", "direct"));
  EXPECT_TRUE(holds("candidate", "direct"));
  ASSERT_TRUE(session->ok(edit("<location>hall</location>")));
  support::rpc_error_t error = session->error(support::edit_config("running", system("<hostname>other</hostname>")));
  EXPECT_EQ(error.message, "Candidate database is different from running database.");
  EXPECT_TRUE(holds("running", "direct"));
}

TEST_F(edit_config, condition_of_a_when_is_checked)
{
  EXPECT_EQ(session->error(edit("<banner-text>hello</banner-text>")).tag, "unknown-element");
  EXPECT_TRUE(session->ok(edit("<banner>true</banner><banner-text>hello</banner-text>")));
}
