// What the daemon tells of itself.
#include <regex>

#include "support/daemon_test.h"

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
  EXPECT_EQ(all(first, "id"), (texts{std::to_string(session->id()), std::to_string(other.id())}));
  EXPECT_EQ(all(first, "lock-holder"), texts{std::to_string(other.id())});
  EXPECT_EQ(all(first, "locked-since").size(), 1U);
  EXPECT_EQ(all(first, "name"), (texts{"candidate", "running", "startup"}));
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
  EXPECT_EQ(all(committed, "requests"), texts{"7"}); // with create-session and this one
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
