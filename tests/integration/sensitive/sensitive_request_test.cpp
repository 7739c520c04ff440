// Requests with sensitive values: what clients are told, and what the log and a plugin see.
#include "support/daemon_test.h"
#include "support/plugin_peer.h"
#include "support/working_key.h"

using namespace support;

namespace {

class sensitive_request : public daemon_test {
protected:
  void SetUp() override
  {
    daemon.options().working_key = provision_key(dir.path());
    daemon.options().profile["sensitive-key"] =
        R"(["/ex-sys:system/user/password", "/ex-sys:restart-service/delay", "/ex-sys:restart-service/pid"])";
    ASSERT_TRUE(daemon.start());
  }
};

} // namespace

TEST_F(sensitive_request, refused_value_is_named_by_its_entry_and_not_logged)
{
  netconf_session &session = connect();
  auto edit = [](const std::string &content) {
    return edit_config("running", "<system xmlns=\"urn:ex-sys\"><user><name>ann</name>" + content + "</user></system>");
  };
  ASSERT_TRUE(session.ok(edit("<uid>7</uid><password>S3cret&amp;&lt;</password>")));
  rpc_error_t error = session.error(edit("<password>S3cret one</password>"));
  EXPECT_EQ("invalid-value", error.tag);
  EXPECT_EQ("/ex-sys:system/ex-sys:user[ex-sys:name='ann']/ex-sys:password", error.path);
  EXPECT_EQ("invalid-value", session.error(edit("<password/>")).tag); // too short
  EXPECT_EQ("unknown-element", session.error(edit("<pass><password>S3cret</password></pass>")).tag);
  EXPECT_EQ("S3cret&<", find_text(session.rpc(get_config("running")), "password"));
  EXPECT_FALSE(contains(daemon.log_text(), "S3cret"));
}

TEST_F(sensitive_request, plugin_that_performs_an_operation_is_given_clear_values)
{
  netconf_session &session = connect();
  auto restart = [](const std::string &delay) {
    return "<restart-service xmlns=\"urn:ex-sys\"><name>ntp</name><delay>" + delay + "</delay></restart-service>";
  };
  std::list<plugin_peer> plugins;
  for (const char *name : {"one", "two"}) {
    plugins.emplace_back(daemon.run_dir(), name).operation("/ex-sys:restart-service").start("");
  }
  session.send(restart("04711"));
  plugins.front().refuse(plugins.front().next(), 5, "can not");
  plugin_call_t call = plugins.back().next(); // the request that was kept meanwhile
  EXPECT_TRUE(contains(call.xml, restart("4711"))) << call.xml;
  plugins.back().accept(call, "<pid xmlns=\"urn:ex-sys\">81547</pid>");
  EXPECT_EQ("81547", find_text(session.receive(), "pid"));
  EXPECT_EQ("invalid-value", session.error(restart("99999")).tag);
  for (const char *value : {"4711", "81547", "99999"}) {
    EXPECT_FALSE(contains(daemon.log_text(), value)) << value;
  }
}
