// Operations on whole datastores, and what may be tested or set without a test.
#include "datastore_fixture.h"

using support::COMMIT;
using support::DISCARD_CHANGES;

namespace {

std::string named(const std::string &operation, const std::string &target)
{
  return "<" + operation + "><target><" + target + "/></target></" + operation + ">";
}

class whole_datastore : public datastore_fixture {
protected:
  static std::string copy(const std::string &source, const std::string &target)
  {
    return "<copy-config><target><" + target + "/></target><source>" + source + "</source></copy-config>";
  }
  static std::string config(const std::string &content) { return "<config>" + system(content) + "</config>"; }
  void commit(const std::string &content)
  {
    ASSERT_TRUE(session->ok(edit(content)));
    ASSERT_TRUE(session->ok(COMMIT));
  }
};

} // namespace

TEST_F(whole_datastore, scratch)
{
  std::cerr << session->rpc(support::edit_config("candidate", "")) << "\n";
  commit("<hostname>box</hostname><user><name>alice</name><uid>7</uid></user><user><name>bob</name></user><dns>10.0.0.1</dns><dns>10.0.0.2</dns><dns>10.0.0.3</dns>");
  std::cerr << session->rpc(support::edit_config("running", "")) << "\n";
  std::cerr << data("running") << "\n";
  std::cerr << session->rpc(copy("<running/>", "startup")) << "\n";
  EXPECT_EQ(dump(RUNNING_DB), dump(STARTUP_DB));
  commit("<hostname>next</hostname><user nc:operation='delete'><name>alice</name></user><user><name>carl</name></user><dns nc:operation='delete'>10.0.0.1</dns>");
  std::cerr << session->rpc(copy("<startup/>", "running")) << "\n";
  EXPECT_EQ(dump(RUNNING_DB), dump(STARTUP_DB));
  std::cerr << data("running") << "\n" << data("startup") << "\n";
  std::cerr << session->rpc(copy(config("<hostname>x</hostname><dns>10.0.0.3</dns><dns>10.0.0.2</dns>"), "candidate")) << "\n";
  std::cerr << data("candidate") << "\n";
  std::cerr << session->rpc(copy("<candidate/>", "running")) << "\n";
  std::cerr << session->rpc(copy("<startup/>", "candidate")) << "\n";
  std::cerr << session->rpc(copy("<candidate/>", "running")) << "\n";
  std::cerr << session->rpc(copy(config("<user nc:operation='delete'><name>a</name></user>"), "candidate")) << "\n";
  std::cerr << session->rpc(copy(config("<hostname>x</hostname><dns>10.0.0.3</dns><dns>10.0.0.2</dns>"), "candidate")) << "\n";
  std::cerr << session->rpc(COMMIT) << "\n";
  std::cerr << data("running") << "\n";
  std::cerr << session->rpc(copy("<config/>", "running")) << "\n";
  std::cerr << data("running") << "\n";
  std::cerr << dump(RUNNING_DB) << "\n";
  std::cerr << session->rpc(named("lock", "candidate")) << "\n";
  std::cerr << session->rpc(named("lock", "candidate")) << "\n";
  std::cerr << session->rpc(named("unlock", "candidate")) << "\n";
  std::cerr << session->rpc(named("unlock", "candidate")) << "\n";
  std::cerr << session->rpc(named("delete-config", "startup")) << "\n";
  std::cerr << dump(STARTUP_DB) << "\n";
  std::cerr << session->rpc(named("delete-config", "running")) << "\n";
  FAIL();
}
