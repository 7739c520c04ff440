// What a subscriber is told of the daemon: sessions, configurations, capabilities.
#include <arpa/inet.h>
#include <unistd.h>

#include "integration/plugins/plugins_fixture.h"
#include "libconf/conf_client_area.h"

namespace {

using support::edit_config;

class base_events : public plugins_fixture {
protected:
  void SetUp() override
  {
    daemon.options().profile["notification"] =
        R"({"db-enabled": true, "streams": [{"name": "NETCONF", "replay": true}]})";
    daemon.options().profile["max-message-size"] = "65536";
    plugins_fixture::SetUp();
    subscribe("");
    author_ = "<changed-by><username>tester</username><session-id>1</session-id></changed-by><datastore>";
  }

  void subscribe(const std::string &parameters)
  {
    ASSERT_TRUE(session->ok("<create-subscription xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\">" +
                            parameters + "</create-subscription>"));
  }
  // The next event, without its envelope and its namespaces.
  std::string next()
  {
    std::string text = session->next_notification();
    size_t begin = text.find("</eventTime><");
    size_t inside = text.find('>', begin + sizeof("</eventTime>"));
    size_t name = begin + sizeof("</eventTime>");
    if (begin == std::string::npos || inside == std::string::npos) {
      return text;
    }
    return text.substr(name, text.find(' ', name) - name) + ":" +
           text.substr(inside + 1, text.rfind("</", text.rfind("</") - 1) - inside - 1);
  }
  std::string change(const std::string &datastore, const std::vector<std::pair<std::string, std::string>> &edits)
  {
    std::string text = "netconf-config-change:" + author_ + datastore + "</datastore>";
    for (const auto &[operation, target] : edits) {
      text += "<edit><target>" + target + "</target><operation>" + operation + "</operation></edit>";
    }
    return text;
  }

  std::string author_;
};

} // namespace

TEST_F(base_events, each_session_starts_and_ends_once)
{
  const auto of = [](const support::netconf_session &peer) {
    return "<username>operator</username><session-id>" + std::to_string(peer.id()) + "</session-id>";
  };
  const auto start = [&]() -> support::netconf_session & {
    support::netconf_session &peer = connect("operator");
    EXPECT_EQ(next(), "netconf-session-start:" + of(peer));
    return peer;
  };
  conf_client_info_t client = {getpid(), AF_INET6, {}};
  ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::7", client.address), 1);
  ASSERT_EQ(conf_register_client(daemon.run_dir(), client), 0);
  support::netconf_session &known = connect("operator");
  const std::string host = "<source-host>2001:db8::7</source-host>";
  EXPECT_EQ(next(), "netconf-session-start:" + of(known) + host);
  ASSERT_TRUE(known.ok("<close-session/>"));
  EXPECT_EQ(next(), "netconf-session-end:" + of(known) + host + "<termination-reason>closed</termination-reason>");

  support::netconf_session &victim = start();
  ASSERT_TRUE(session->ok("<kill-session><session-id>" + std::to_string(victim.id()) + "</session-id></kill-session>"));
  EXPECT_EQ(next(), "netconf-session-end:" + of(victim) +
                        "<killed-by>1</killed-by><termination-reason>killed</termination-reason>");
  support::netconf_session &lost = start();
  lost.close();
  EXPECT_EQ(next(), "netconf-session-end:" + of(lost) + "<termination-reason>dropped</termination-reason>");
  support::netconf_session &talker = start();
  ASSERT_TRUE(talker.send(std::string(65536, ' ')));
  EXPECT_EQ(next(), "netconf-session-end:" + of(talker) + "<termination-reason>other</termination-reason>");

  // A connection that says nothing of itself is no session. What is left ends with the daemon.
  std::string reason;
  ymgr_connect(daemon.run_dir(), &reason).reset();
  support::netconf_session &last = start();
  ASSERT_TRUE(daemon.restart());
  session = &connect();
  subscribe("<startTime>2000-01-01T00:00:00Z</startTime>");
  std::string event;
  do {
    event = next();
    EXPECT_FALSE(event.empty());
  } while (!event.empty() &&
           event != "netconf-session-end:" + of(last) + "<termination-reason>other</termination-reason>");
}

TEST_F(base_events, changes_of_running_and_startup_name_what_changed)
{
  const std::string top = "/ex-sys:system";
  ASSERT_TRUE(commit("<hostname>a</hostname><rule><id>it's</id></rule><rule><id>b</id></rule><tag>\"</tag>"));
  EXPECT_EQ(next(), change("running", {{"create", top}}));
  ASSERT_TRUE(session->ok(edit("<hostname>b</hostname><rule><id>it's</id><source>192.0.2.0/24</source></rule>"
                               "<tag nc:operation='delete'>\"</tag><rule yang:insert='first'><id>b</id></rule>"
                               "<ntp xmlns='urn:ex-ext'><server><address>192.0.2.1</address></server></ntp>")));
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_EQ(next(), change("running", {{"replace", top + "/ex-sys:hostname"},
                                       {"create", top + "/ex-sys:rule[ex-sys:id=\"it's\"]/ex-sys:source"},
                                       {"delete", top + "/ex-sys:tag[.='\"']"},
                                       {"merge", top + "/ex-sys:rule[ex-sys:id='b']"}, // stands elsewhere
                                       {"create", top + "/ex-ext:ntp/ex-ext:server[ex-ext:address='192.0.2.1']"}}));

  // Too many to be named: the top node stands for them.
  std::string tags;
  for (int i = 0; i <= 100; i++) {
    tags += "<tag>" + std::to_string(i) + "</tag>";
  }
  ASSERT_TRUE(session->ok(edit_config("running", system(tags))));
  EXPECT_EQ(next(), change("running", {{"merge", top}}));
  ASSERT_TRUE(session->ok(support::copy_config("startup", "<running/>")));
  EXPECT_EQ(next(), change("startup", {}));
  ASSERT_TRUE(session->ok("<delete-config><target><startup/></target></delete-config>"));
  EXPECT_EQ(next(), change("startup", {}));
}

TEST_F(base_events, refused_change_is_told_to_be_taken_back)
{
  ASSERT_TRUE(commit("<hostname>a</hostname><tag>old</tag>"));
  EXPECT_EQ(next(), change("running", {{"create", "/ex-sys:system"}}));
  plugin_peer refuser = started("refuser", "/ex-sys:system/hostname", 1);
  begin_commit("<hostname>b</hostname><tag>new</tag><tag nc:operation='delete'>old</tag>");
  std::string announced = next(); // before the plugins have decided
  refuser.refuse(refuser.next(), 1, "no");
  EXPECT_FALSE(received_error().tag.empty());
  std::string undone = next();
  for (const char *tag : {"new", "old"}) {
    std::string target = std::string("<target>/ex-sys:system/ex-sys:tag[.='") + tag + "']</target><operation>";
    EXPECT_TRUE(contains(announced, target + (tag == std::string("new") ? "create" : "delete"))) << announced;
    EXPECT_TRUE(contains(undone, target + (tag == std::string("new") ? "delete" : "create"))) << undone;
  }
  EXPECT_LT(announced.find("ex-sys:hostname"), announced.find("ex-sys:tag"));
  EXPECT_GT(undone.find("ex-sys:hostname"), undone.find("ex-sys:tag"));
}

TEST_F(base_events, capabilities_that_change_with_a_restart)
{
  const auto told_after_restart = [&] {
    EXPECT_TRUE(daemon.restart());
    session = &connect();
    subscribe("<startTime>2000-01-01T00:00:00Z</startTime>");
    std::string found;
    for (std::string event = next(); !event.empty() && !contains(event, "replayComplete"); event = next()) {
      found = event.starts_with("netconf-capability-change:") ? event.substr(event.find(':') + 1) : found;
    }
    return found;
  };
  const std::string by_server = "<changed-by><server/></changed-by>";
  EXPECT_EQ(told_after_restart(), "");
  daemon.options().modules.back() = {"ex-bench"};
  daemon.options().modules[3].features = {"ftp"};
  std::string told = told_after_restart();
  EXPECT_TRUE(told.starts_with(by_server + "<added-capability>urn:ex-bench?")) << told;
  EXPECT_TRUE(contains(told, "<deleted-capability>urn:ex-ext?")) << told;
  EXPECT_TRUE(contains(told, "<modified-capability>urn:ex-sys?")) << told;
}
