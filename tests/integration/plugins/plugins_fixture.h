// A daemon, a session and plugins that the test plays itself.
#pragma once

#include "integration/datastore/datastore_fixture.h"
#include "support/plugin_peer.h"

using support::COMMIT;
using support::plugin_call_t;
using support::plugin_peer;
using texts = std::vector<std::string>;

class plugins_fixture : public datastore_fixture {
protected:
  plugin_peer plugin(const std::string &name) { return plugin_peer(daemon.run_dir(), name); }
  // Subscribed to one path, and ready.
  plugin_peer started(const std::string &name, const std::string &path, int priority)
  {
    plugin_peer peer = plugin(name);
    (void)peer.config(path, priority).start();
    return peer;
  }
  testing::AssertionResult commit(const std::string &content)
  {
    testing::AssertionResult edited = session->ok(edit(content));
    return edited ? session->ok(COMMIT) : edited;
  }
  // Edits, and leaves the commit to the plugins.
  void begin_commit(const std::string &content)
  {
    ASSERT_TRUE(session->ok(edit(content)));
    ASSERT_TRUE(session->send(COMMIT));
  }
  support::rpc_error_t received_error()
  {
    std::string reply = session->receive();
    std::optional<support::rpc_error_t> error = support::find_error(reply);
    EXPECT_TRUE(error) << reply;
    return error.value_or(support::rpc_error_t{});
  }
};
