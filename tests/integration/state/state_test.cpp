// What the daemon tells of itself.
#include <regex>

#include "support/daemon_test.h"
#include "support/plugin_peer.h"

namespace {

using texts = std::vector<std::string>;

class daemon_state : public support::daemon_test {
protected:
  void SetUp() override
  {
    ASSERT_TRUE(daemon.start());
    session = &connect("alice");
  }

  std::string state(const std::string &filter = "<filter type=\"subtree\"><daemon xmlns=\"" + NAMESPACE +
                                                "\"/></filter>")
  {
    return support::normalize(session->rpc("<get>" + filter + "</get>"));
  }
  // Texts of all elements of the name, sorted.
  static texts all(const std::string &xml, const std::string &name)
  {
    const std::regex form("<" + name + ">([^<]*)</" + name + ">");
    texts found;
    for (std::sregex_iterator match(xml.begin(), xml.end(), form), end; match != end; ++match) {
      found.push_back((*match)[1]);
    }
    std::sort(found.begin(), found.end());
    return found;
  }
  // From the first element of the name to the end of the last one.
  static std::string part(const std::string &xml, const std::string &name)
  {
    size_t begin = xml.find("<" + name + ">");
    size_t end = xml.rfind("</" + name + ">");
    return begin == std::string::npos || end == std::string::npos ? "" : xml.substr(begin, end - begin);
  }
  // The first such leaf.
  std::string leaf(const std::string &node, const std::string &name)
  {
    std::smatch match;
    std::string from = part(state(), node);
    return std::regex_search(from, match, std::regex("<" + name + ">([^<]*)<")) ? match[1].str() : "";
  }
  testing::AssertionResult is_becoming(const std::string &plugin_status)
  {
    bool is_so = support::wait_until([&] { return leaf("plugin", "status") == plugin_status; });
    return is_so ? testing::AssertionSuccess() : testing::AssertionFailure() << part(state(), "plugin");
  }
  static std::string edit(const std::string &hostname)
  {
    return support::edit_config("candidate",
                                "<system xmlns=\"urn:ex-sys\"><hostname>" + hostname + "</hostname></system>");
  }

  static inline const std::string NAMESPACE = "com:zentra:netconf:private:opal:device:ymgrd";
  support::netconf_session *session = nullptr;
};

} // namespace

TEST_F(daemon_state, names_the_sessions_and_locks_of_now)
{
  support::netconf_session &other = connect("bob");
  ASSERT_TRUE(other.ok("<lock><target><candidate/></target></lock>"));
  std::string first = state();
  EXPECT_EQ(all(first, "username"), (texts{"alice", "bob"}));
  EXPECT_EQ(all(first, "requests"), (texts{"2", "2", "4"})); // of each session, and counted
  EXPECT_EQ(all(first, "id"), (texts{std::to_string(session->id()), std::to_string(other.id())}));
  EXPECT_EQ(all(first, "lock-holder"), texts{std::to_string(other.id())});
  EXPECT_EQ(all(first, "locked-since").size(), 1U);
  EXPECT_EQ(all(part(first, "datastore"), "name"), (texts{"candidate", "running", "startup"}));
  other.close();
  ASSERT_TRUE(support::wait_until([&] { return all(state(), "username") == texts{"alice"}; }));
  std::string last = state();
  EXPECT_EQ(all(last, "lock-holder"), texts());
  EXPECT_EQ(all(last, "locked-since"), texts());
  EXPECT_EQ(all(last, "version").size(), 1U);
}

TEST_F(daemon_state, follows_a_change_to_its_commit)
{
  EXPECT_EQ(all(state(), "pending-changes"), texts{"false"});
  ASSERT_TRUE(session->ok(edit("box")));
  std::string pending = state();
  EXPECT_EQ(all(pending, "pending-changes"), texts{"true"});
  EXPECT_EQ(all(pending, "transaction-state"), (texts{"begun", "begun", "publishing"}));
  EXPECT_EQ(all(pending, "commits"), texts{"0"});
  ASSERT_TRUE(session->ok(support::COMMIT));
  EXPECT_FALSE(session->error("<unlock><target><running/></target></unlock>").tag.empty());
  std::string committed = state();
  EXPECT_EQ(all(committed, "pending-changes"), texts{"false"});
  EXPECT_EQ(all(committed, "commits"), texts{"1"});
  EXPECT_EQ(all(committed, "errors"), texts{"1"});
  EXPECT_EQ(leaf("counters", "requests"), "8"); // with create-session and this one
  EXPECT_EQ(all(part(committed, "operation"), "count"), (texts{"1", "1", "1", "1", "3"})); // of get
  EXPECT_EQ(all(committed, "last-change").size(), 1U);
}

TEST_F(daemon_state, names_its_places_and_answers_for_a_single_leaf)
{
  std::string whole = state();
  EXPECT_EQ(support::find_text(whole, "process-id"), std::to_string(daemon.pid()));
  EXPECT_EQ(support::find_text(whole, "profile"), daemon.profile_path());
  EXPECT_EQ(support::find_text(whole, "modules-directory"), daemon.modules_dir());
  EXPECT_EQ(support::find_text(whole, "run-directory"), daemon.run_dir());
  std::string single =
      state("<filter type=\"subtree\"><daemon xmlns=\"" + NAMESPACE + "\"><max-message-size/></daemon></filter>");
  EXPECT_EQ(all(single, "[a-z-]+"), texts{"67108864"});
  // What another module is asked for costs none of this.
  ASSERT_TRUE(contains(tree(STATUS_DB), "max-message-size"));
  (void)state("<filter type=\"subtree\"><system xmlns=\"urn:ex-sys\"/></filter>");
  EXPECT_FALSE(contains(tree(STATUS_DB), "max-message-size"));
}

TEST_F(daemon_state, counts_what_is_stored_and_notices_a_lost_database)
{
  uint64_t empty = std::stoull(leaf("datastore", "entries"));
  ASSERT_TRUE(session->ok(edit("box")));
  ASSERT_TRUE(session->ok(support::COMMIT));
  EXPECT_EQ(std::stoull(leaf("datastore", "entries")), redis.content(RUNNING_DB).size());
  EXPECT_GT(redis.content(RUNNING_DB).size(), empty);
  EXPECT_EQ(leaf("counters", "database-connections-lost"), "0");
  (void)redis.command(0, {"CLIENT", "KILL", "TYPE", "normal"});
  EXPECT_TRUE(support::wait_until([&] { return leaf("counters", "database-connections-lost") > "0"; }));
}

TEST_F(daemon_state, follows_a_plugin_beyond_its_end)
{
  support::plugin_peer first(daemon.run_dir(), "odd \"one\"");
  first.config("/ex-sys:system", 7);
  ASSERT_EQ(first.register_now(), "");
  EXPECT_TRUE(is_becoming("registered"));
  ASSERT_EQ(first.activate(), "");
  support::plugin_call_t kickoff = first.next();
  EXPECT_TRUE(is_becoming("starting"));
  first.accept(kickoff);
  EXPECT_TRUE(is_becoming("ready"));
  ASSERT_TRUE(session->ok(edit("box")));
  ASSERT_TRUE(session->send(support::COMMIT));
  first.refuse(first.next(), 5, "not this one");
  EXPECT_TRUE(support::find_error(session->receive()));
  std::string refused = state();
  EXPECT_EQ(all(part(refused, "plugin"), "name"), texts{"odd \"one\""});
  EXPECT_EQ(all(refused, "changes-offered"), texts{"1"});
  EXPECT_EQ(all(refused, "changes-refused"), (texts{"1", "1"})); // of the plugin, and counted
  EXPECT_EQ(all(refused, "rollbacks"), texts{"1"});
  EXPECT_EQ(all(refused, "last-error"), texts{"not this one"});
  EXPECT_EQ(all(refused, "configuration-subscriptions"), texts{"1"});
  EXPECT_EQ(all(part(refused, "plugin"), "process-id"), texts{std::to_string(getpid())});
  first.die();
  EXPECT_TRUE(is_becoming("gone"));
  EXPECT_EQ(all(state(), "left").size(), 1U);
  support::plugin_peer second(daemon.run_dir(), "odd \"one\"");
  ASSERT_EQ(second.register_now(), "");
  std::string back = state();
  EXPECT_EQ(all(back, "registrations"), texts{"2"});
  EXPECT_EQ(all(back, "left"), texts());
  EXPECT_EQ(all(back, "last-error"), texts{"not this one"});
}

TEST_F(daemon_state, stands_beside_the_configuration_and_cannot_be_edited)
{
  ASSERT_TRUE(session->ok(edit("box")));
  ASSERT_TRUE(session->ok(support::COMMIT));
  for (int again = 0; again < 2; again++) {
    std::string everything = state("");
    EXPECT_EQ(all(everything, "hostname"), texts{"box"});
    EXPECT_EQ(all(everything, "username"), texts{"alice"});
  }
  std::string config = session->rpc(support::get_config("running"));
  EXPECT_EQ(config.find(NAMESPACE), std::string::npos) << config;
  EXPECT_FALSE(
      session
          ->error(support::edit_config("running", "<daemon xmlns=\"" + NAMESPACE + "\"><version>9</version></daemon>"))
          .tag.empty());
}
