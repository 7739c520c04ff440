// What the tests of the datastores share: a daemon with the sample modules and one session.
#pragma once

#include "support/daemon_test.h"

constexpr int RUNNING_DB = 4;
constexpr int CANDIDATE_DB = 6;
constexpr int STARTUP_DB = 2;

class datastore_fixture : public support::daemon_test {
protected:
  void SetUp() override
  {
    daemon.options().modules.push_back({"ex-ext"});
    ASSERT_TRUE(daemon.start());
    session = &connect();
  }

  static std::string system(const std::string &content)
  {
    return "<system xmlns=\"urn:ex-sys\" xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\" "
           "xmlns:yang=\"urn:ietf:params:xml:ns:yang:1\">" +
           content + "</system>";
  }
  static std::string edit(const std::string &content, const std::string &options = "")
  {
    return support::edit_config("candidate", system(content), options);
  }
  // Text of a part of a datastore, siblings sorted: the system's children without the defaults that come by themselves.
  std::string data(const std::string &datastore)
  {
    return support::reply_data(session->rpc(support::get_config(datastore)), support::siblings::sorted);
  }
  bool holds(const std::string &datastore, const std::string &part) { return contains(data(datastore), part); }
  static bool contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

  support::netconf_session *session = nullptr;
};
