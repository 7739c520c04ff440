// Edits of data that earlier edits left valid: what they touch is held to the schema as if all were validated.
#include "integration/datastore/datastore_fixture.h"

namespace {

const char module_text[] = R"(
module ports {
  yang-version 1.1; namespace "urn:ports"; prefix p; revision 2026-01-01;
  container ports {
    leaf limit { type uint8; must "count(../port) <= ."; }
    list port {
      key "name"; unique "number";
      leaf name { type string; }
      leaf number { type uint8; }
      leaf kind { type enumeration { enum slow; enum fast; } }
      leaf speed { when "../kind = 'fast'"; type uint8; default "7"; }
      container extra { when "../kind = 'fast'"; leaf level { type uint8; default "3"; } }
      leaf peer { type leafref { path "../../port/name"; } must ". != ../name"; }
    }
  }
})";

class constraint_edit : public datastore_fixture {
protected:
  void SetUp() override
  {
    support::write_file(daemon.modules_dir() + "/ports.yang", module_text);
    daemon.options().modules.push_back({"ports"});
    datastore_fixture::SetUp();
  }

  static std::string ports(const std::string &content)
  {
    return support::edit_config("candidate", "<ports xmlns=\"urn:ports\" "
                                             "xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" +
                                                 content + "</ports>");
  }
  static std::string port(const std::string &name, const std::string &content, const std::string &operation = "merge")
  {
    return ports("<port nc:operation=\"" + operation + "\"><name>" + name + "</name>" + content + "</port>");
  }
};

TEST_F(constraint_edit, later_edits_are_refused_for_what_they_break_and_nothing_changes)
{
  ASSERT_TRUE(session->ok(ports("<limit>3</limit><port><name>a</name><number>1</number><kind>fast</kind></port>"
                                "<port><name>b</name><number>2</number><peer>a</peer></port>")));
  ASSERT_TRUE(session->ok(support::COMMIT));
  const struct {
    std::string edit;
    std::string app_tag;
  } refused[] = {{port("b", "<number>1</number>"), "data-not-unique"},  {port("a", "", "delete"), "instance-required"},
                 {port("b", "<peer>none</peer>"), "instance-required"}, {port("b", "<peer>b</peer>"), "must-violation"},
                 {ports("<limit>1</limit>"), "must-violation"},         {port("a", "<kind>slow</kind>"), ""}};
  uint8_t number = 10;
  for (const auto &row : refused) {
    // After a refusal the data are read anew. Two edits make sure that the next one meets data validated before.
    ASSERT_TRUE(session->ok(port("b", "<number>" + std::to_string(number++) + "</number>")));
    ASSERT_TRUE(session->ok(port("b", "<number>2</number>")));
    std::string before = dump(CANDIDATE_DB);
    EXPECT_EQ(session->error(row.edit).app_tag, row.app_tag) << row.edit;
    EXPECT_EQ(dump(CANDIDATE_DB), before) << row.edit;
  }
  EXPECT_TRUE(session->ok(port("b", "<peer nc:operation=\"delete\"/>")));
  EXPECT_TRUE(session->ok(port("a", "", "delete")));
}

TEST_F(constraint_edit, a_default_is_stored_once_its_condition_holds)
{
  ASSERT_TRUE(session->ok(port("a", "<kind>slow</kind>")));
  ASSERT_TRUE(session->ok(port("b", "<kind>fast</kind><speed>9</speed>")));
  EXPECT_FALSE(holds("candidate", "<speed>7</speed>"));
  EXPECT_TRUE(holds("candidate", "<level>3</level>"));
  ASSERT_TRUE(session->ok(port("a", "<kind>fast</kind>")));
  EXPECT_TRUE(holds("candidate", "<speed>7</speed>"));
  EXPECT_TRUE(holds("candidate", "<speed>9</speed>"));
}

} // namespace
