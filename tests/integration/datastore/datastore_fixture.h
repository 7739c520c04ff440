// What the tests of the datastores share: a daemon with the sample modules and one session.
#pragma once

#include "support/daemon_test.h"

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
  // The whole content of a datastore, as it came.
  std::string data(const std::string &datastore)
  {
    std::string reply = session->rpc(support::get_config(datastore));
    size_t begin = reply.find("<data>");
    size_t end = reply.rfind("</data>");
    return begin == std::string::npos || end == std::string::npos ? "" : reply.substr(begin + 6, end - begin - 6);
  }
  bool holds(const std::string &datastore, const std::string &part) { return contains(data(datastore), part); }

  support::netconf_session *session = nullptr;
};
