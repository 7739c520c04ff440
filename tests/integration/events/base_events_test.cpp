// What a subscriber is told of the daemon: sessions, configurations, capabilities. And what it is told of a plugin's
// secret.
#include <regex>

#include <arpa/inet.h>
#include <unistd.h>

#include "integration/plugins/plugins_fixture.h"
#include "libconf/conf_client_area.h"
#include "support/working_key.h"

namespace {

class base_events : public plugins_fixture {
protected:
  static constexpr int NOTIFY_DB = 10;

  void SetUp() override
  {
    daemon.options().profile["notification"] =
        R"({"db-enabled": true, "streams": [{"name": "NETCONF", "replay": true}]})";
    daemon.options().profile["max-message-size"] = "65536";
    plugins_fixture::SetUp();
    subscribe("");
  }

  void subscribe(const std::string &parameters)
  {
    ASSERT_TRUE(session->ok("<create-subscription xmlns=\"urn:ietf:params:xml:ns:netconf:notification:1.0\">" +
                            parameters + "</create-subscription>"));
  }
  static std::string event(const std::string &name, const std::string &content)
  {
    return "<" + name + ">" + content + "</" + name + ">";
  }
  // The next event, without namespaces.
  std::string next()
  {
    const std::regex around("^.*</eventTime>| xmlns[^ =]*=\"[^\"]*\"|</notification>$");
    return std::regex_replace(session->next_notification(), around, "");
  }
  static std::string change(const std::string &datastore,
                            const std::vector<std::pair<const char *, const char *>> &edits)
  {
    std::string text = "<changed-by><username>tester</username><session-id>1</session-id>"
                       "</changed-by><datastore>" +
                       datastore + "</datastore>";
    for (const auto &[operation, target] : edits) {
      text += std::string("<edit><target>/ex-sys:system") + target + "</target><operation>" + operation +
              "</operation></edit>";
    }
    return event("netconf-config-change", text);
  }
  // All that is stored of earlier runs, one event in a line.
  std::string after_restart()
  {
    EXPECT_TRUE(daemon.restart());
    session = &connect();
    subscribe("<startTime>2000-01-01T00:00:00Z</startTime>");
    std::string events;
    do {
      events += next() + "\n";
    } while (!HasFailure() && !contains(events, "replayComplete"));
    return events;
  }
};

} // namespace

TEST_F(base_events, each_session_starts_and_ends_once)
{
  const std::string host = "<source-host>2001:db8::7</source-host>";
  std::string who;
  const auto start = [&](const std::string &from) -> support::netconf_session & {
    support::netconf_session &peer = connect("operator");
    who = "<username>operator</username><session-id>" + std::to_string(peer.id()) + "</session-id>" + from;
    EXPECT_EQ(next(), event("netconf-session-start", who));
    return peer;
  };
  const auto end = [&](const std::string &reason) {
    return event("netconf-session-end", who + event("termination-reason", reason));
  };
  conf_client_info_t client = {getpid(), AF_INET6, {}};
  ASSERT_EQ(inet_pton(AF_INET6, "2001:db8::7", client.address), 1);
  ASSERT_EQ(conf_register_client(daemon.run_dir(), client), 0);
  ASSERT_TRUE(start(host).ok("<close-session/>"));
  EXPECT_EQ(next(), end("closed"));
  int victim = start("").id();
  ASSERT_TRUE(session->ok("<kill-session><session-id>" + std::to_string(victim) + "</session-id></kill-session>"));
  who += "<killed-by>1</killed-by>";
  EXPECT_EQ(next(), end("killed"));
  start("").close();
  EXPECT_EQ(next(), end("dropped"));
  ASSERT_TRUE(start("").send(std::string(65536, ' '))); // too long
  EXPECT_EQ(next(), end("other"));
  std::string reason;
  ymgr_connect(daemon.run_dir(), &reason).reset(); // never was a session
  start("");
  EXPECT_TRUE(contains(after_restart(), end("other") + "\n"));
}

TEST_F(base_events, changes_of_running_and_startup_name_what_changed)
{
  ASSERT_TRUE(commit("<hostname>a</hostname><rule><id>it's</id></rule><rule><id>b</id></rule><tag>\"</tag>"));
  EXPECT_EQ(next(), change("running", {{"create", ""}}));
  ASSERT_TRUE(commit("<hostname>b</hostname><rule><id>it's</id><source>192.0.2.0/24</source></rule>"
                     "<tag nc:operation='delete'>\"</tag><rule yang:insert='first'><id>b</id></rule>"
                     "<ntp xmlns='urn:ex-ext'><server><address>192.0.2.1</address></server></ntp>"));
  EXPECT_EQ(next(), change("running", {{"replace", "/ex-sys:hostname"},
                                       {"create", "/ex-sys:rule[ex-sys:id=\"it's\"]/ex-sys:source"},
                                       {"delete", "/ex-sys:tag[.='\"']"},
                                       {"merge", "/ex-sys:rule[ex-sys:id='b']"}, // stands elsewhere
                                       {"create", "/ex-ext:ntp/ex-ext:server[ex-ext:address='192.0.2.1']"}}));
  std::string tags;
  for (int i = 0; i <= 100; i++) { // too many to be named
    tags += "<tag>" + std::to_string(i) + "</tag>";
  }
  ASSERT_TRUE(session->ok(support::edit_config("running", system(tags))));
  EXPECT_EQ(next(), change("running", {{"merge", ""}}));
  ASSERT_TRUE(session->ok(support::copy_config("startup", "<running/>")));
  EXPECT_EQ(next(), change("startup", {}));
  ASSERT_TRUE(session->ok("<delete-config><target><startup/></target></delete-config>"));
  EXPECT_EQ(next(), change("startup", {}));
}

TEST_F(base_events, refused_change_is_told_to_be_taken_back)
{
  ASSERT_TRUE(commit("<hostname>a</hostname><tag>old</tag>"));
  EXPECT_EQ(next(), change("running", {{"create", ""}}));
  plugin_peer refuser = started("refuser", "/ex-sys:system/hostname", 1);
  begin_commit("<hostname>b</hostname><tag nc:operation='delete'>old</tag><tag>new</tag>");
  EXPECT_EQ(next(), change("running", {{"replace", "/ex-sys:hostname"},
                                       {"delete", "/ex-sys:tag[.='old']"},
                                       {"create", "/ex-sys:tag[.='new']"}})); // before the plugin has decided
  refuser.refuse(refuser.next(), 1, "no");
  EXPECT_FALSE(received_error().tag.empty());
  EXPECT_EQ(next(), change("running", {{"delete", "/ex-sys:tag[.='new']"},
                                       {"create", "/ex-sys:tag[.='old']"},
                                       {"replace", "/ex-sys:hostname"}}));
}

TEST_F(base_events, capabilities_that_change_with_a_restart)
{
  EXPECT_FALSE(contains(after_restart(), "capability"));
  daemon.options().modules.back() = {"ex-bench"};
  daemon.options().modules[3].features = {"ftp"};
  std::string told = after_restart();
  for (const char *part :
       {"<netconf-capability-change><changed-by><server/></changed-by><added-capability>urn:ex-bench?",
        "<deleted-capability>urn:ex-ext?", "<modified-capability>urn:ex-sys?"}) {
    EXPECT_TRUE(contains(told, part)) << told << part;
  }
}

TEST_F(base_events, secret_of_an_event_is_clear_for_subscribers_only)
{
  support::write_file(
      daemon.modules_dir() + "/ex-events.yang",
      "module ex-events { namespace \"urn:ex-events\"; prefix e; revision 2026-01-01; "
      "notification hired { leaf name { type string; } leaf password { type string { length 4..8; } } } }");
  daemon.options().modules.push_back({"ex-events"});
  daemon.options().working_key = support::provision_key(dir.path());
  daemon.options().profile["sensitive-key"] = R"(["/ex-events:hired/password"])";
  (void)after_restart();
  for (const char *password : {"too-long-1", "s3cr#t"}) { // the first is refused
    ASSERT_TRUE(
        emit(std::string("<hired xmlns='urn:ex-events'><name>x</name><password>") + password + "</password></hired>"));
  }
  EXPECT_EQ(next(), "<hired><name>x</name><password>s3cr#t</password></hired>");
  std::vector<std::string> last = redis.command(NOTIFY_DB, {"LRANGE", "event_key_list", "-1", "-1"});
  ASSERT_EQ(last.size(), 1U);
  EXPECT_TRUE(contains(last[0], "<password>#%")) << last[0];
  for (const char *password : {"too-long-1", "s3cr#t"}) {
    EXPECT_FALSE(contains(last[0] + daemon.log_text(), password));
  }
}
