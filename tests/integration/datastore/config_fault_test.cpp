// Edits that break the schema: one rpc-error with the right tag, path and message, and nothing changed.
#include "datastore_fixture.h"

namespace {

class invalid_edit : public datastore_fixture {};

typedef struct _fault {
  const char *what;
  const char *content; // below <system>
  const char *tag;
  const char *path_part;
  const char *message_part;
} fault_t;

const fault_t faults[] = {
    {"type", "<port>many</port>", "invalid-value", "port", "many"},
    {"hexadecimal", "<port>0x10</port>", "invalid-value", "port", ""},
    {"range", "<window><min>2000</min></window>", "invalid-value", "min", ""},
    {"length", "<hostname></hostname>", "invalid-value", "hostname", ""},
    {"pattern", "<hostname>-x-</hostname>", "invalid-value", "hostname", ""},
    {"enumeration", "<logging><level>loud</level></logging>", "invalid-value", "level", "loud"},
    {"identity", "<transport>pigeon</transport>", "invalid-value", "transport", ""},
    {"union", "<contact>no contact</contact>", "invalid-value", "contact", ""},
    {"missing key", "<user><uid>1</uid></user>", "missing-element", "user", "name"},
    {"key", "<user><name>-x-</name><uid>1</uid></user>", "invalid-value", "name", "-x-"},
    {"leafref", "<primary-user>ghost</primary-user>", "data-missing", "primary-user", ""},
    {"must", "<window><min>9</min><max>3</max></window>", "operation-failed", "window",
     "The window ends before it begins."},
    {"mandatory", "<user><name>a</name><key><index>1</index></key></user>", "data-missing", "key", "data"},
    {"unique", "<user><name>a</name><uid>1</uid></user><user><name>b</name><uid>1</uid></user>", "operation-failed",
     "user", ""},
    {"unknown element", "<colour>red</colour>", "unknown-element", "", "colour"},
    {"unknown namespace", "<colour xmlns=\"urn:nowhere\">red</colour>", "unknown-namespace", "", ""},
    {"element of a module in another's place", "<state/>", "unknown-element", "", ""},
    {"unknown attribute", "<hostname colour=\"red\">x</hostname>", "unknown-attribute", "hostname", ""},
    {"operation without namespace", "<hostname operation=\"delete\">x</hostname>", "unknown-attribute", "hostname", ""},
    {"unknown operation", "<hostname nc:operation=\"paint\">x</hostname>", "bad-attribute", "hostname", ""},
    {"text in a container", "<logging>x</logging>", "", "", ""},
    {"disabled feature", "<ftp><root>/</root></ftp>", "unknown-element", "", "ftp"},
};

} // namespace

TEST_F(invalid_edit, is_answered_with_one_error_and_changes_nothing)
{
  ASSERT_TRUE(session->ok(edit("<location>hall</location>")));
  std::string candidate = dump(CANDIDATE_DB);
  std::string running = dump(RUNNING_DB);
  for (const fault_t &fault : faults) {
    SCOPED_TRACE(fault.what);
    std::string reply = session->rpc(edit(fault.content));
    std::optional<support::rpc_error_t> error = support::find_error(reply);
    ASSERT_TRUE(error.has_value()) << reply;
    EXPECT_EQ(reply.find("<rpc-error>"), reply.rfind("<rpc-error>"));
    EXPECT_TRUE(*fault.tag == '\0' || error->tag == fault.tag) << reply;
    EXPECT_TRUE(contains(error->path, fault.path_part)) << reply;
    EXPECT_TRUE(contains(error->message, fault.message_part)) << reply;
    EXPECT_EQ(dump(RUNNING_DB), running);
  }
  EXPECT_TRUE(holds("candidate", "<location>hall</location>"));
  ASSERT_TRUE(session->ok(support::DISCARD_CHANGES));
}

TEST_F(invalid_edit, model_app_tag_reaches_the_client)
{
  EXPECT_EQ(session->error(edit("<window><min>9</min><max>3</max></window>")).app_tag, "window-order");
  EXPECT_EQ(session->error(edit("<primary-user>ghost</primary-user>")).app_tag, "instance-required");
}

TEST_F(invalid_edit, state_data_rpcs_notifications_and_nameless_elements_are_no_configuration)
{
  for (const char *config :
       {"<state xmlns=\"urn:ex-sys\"><uptime>1</uptime></state>",
        "<restart-service xmlns=\"urn:ex-sys\"><name>a</name></restart-service>",
        "<service-failed xmlns=\"urn:ex-sys\"><name>a</name></service-failed>", "<system/>",
        // Crashed libyang when it was handed over as it came.
        "<system xmlns=\"\" xmlns:yang=\"urn:ietf:params:xml:ns:yang:1\"><rule yang:insert=\"after\" "
        "yang:key=\"[id='a']\"><id>b</id></rule></system>"}) {
    EXPECT_FALSE(session->error(support::edit_config("candidate", config)).tag.empty()) << config;
  }
}

TEST_F(invalid_edit, parameters_of_the_operation_are_checked)
{
  const std::string config = "<config>" + system("<hostname>x</hostname>") + "</config>";
  struct {
    const char *what;
    std::string operation;
  } requests[] = {
      {"no target", "<edit-config>" + config + "</edit-config>"},
      {"unknown target", "<edit-config><target><shelf/></target>" + config + "</edit-config>"},
      {"two targets in one", "<edit-config><target><running/><candidate/></target>" + config + "</edit-config>"},
      {"startup", "<edit-config><target><startup/></target>" + config + "</edit-config>"},
      {"no config", "<edit-config><target><candidate/></target></edit-config>"},
      {"unknown error-option",
       "<edit-config><target><candidate/></target><error-option>shrug</error-option>" + config + "</edit-config>"},
      {"unknown default-operation", "<edit-config><target><candidate/></target><default-operation>paint"
                                    "</default-operation>" +
                                        config + "</edit-config>"},
      {"no source", "<get-config/>"},
      {"an operation of no handler", "<validate><source><candidate/></source></validate>"},
  };
  for (const auto &request : requests) {
    EXPECT_FALSE(session->error(request.operation).tag.empty()) << request.what;
  }
  EXPECT_FALSE(holds("candidate", "hostname"));
}

TEST_F(invalid_edit, texts_of_the_operation_are_reached_when_a_request_declares_a_further_namespace)
{
  const std::string config = "<config>" + system("<hostname>x</hostname>") + "</config>";
  auto edit_of = [&config](const std::string &parameters) {
    return "<edit-config xmlns:x=\"urn:ex-sys\">" + parameters + config + "</edit-config>";
  };
  EXPECT_EQ(session->error(edit_of("<target><running/><candidate/></target>")).message, "invalid source or target.");
  EXPECT_EQ(session->error(edit_of("<target><startup/></target>")).message, "startup can not be edit by edit-config");
  EXPECT_EQ(session->error(edit_of("<target><candidate/></target><error-option>shrug</error-option>")).message,
            "error-option invalid.");
  support::rpc_error_t url = session->error(edit_of("<target><url>file:x</url></target>"));
  EXPECT_EQ(url.tag, "invalid-value");
}
