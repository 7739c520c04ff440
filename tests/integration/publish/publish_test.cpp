// What subscribers of configuration are offered, and what becomes of a change that one of them refuses.
#include <cstdlib>
#include <filesystem>

#include "integration/datastore/datastore_fixture.h"

using support::COMMIT;
using texts = std::vector<std::string>;

namespace {

class publish : public datastore_fixture {
protected:
  void SetUp() override
  {
    setenv("YMGR_SCRIPT_DIR", dir.path().c_str(), 1);
    daemon.options().binary = SCRIPTED_YMGRD;
    support::write_file(dir / "subscribers", "30 /ex-sys:system\n"
                                             "10 /ex-sys:system/user\n"
                                             "20 /ex-sys:system/rule\n"
                                             "20 /ex-sys:system/hostname\n");
    datastore_fixture::SetUp();
    ASSERT_TRUE(session->ok(edit("<user><name>old</name></user><rule><id>a</id></rule><rule><id>b</id></rule>")));
    ASSERT_TRUE(session->ok(COMMIT));
    (void)take_offers();
  }

  void answer(const std::string &lines) { support::write_file(dir / "answers", lines); }

  texts take_offers()
  {
    texts offers = support::read_lines(dir / "offers");
    std::filesystem::remove(dir / "offers");
    return offers;
  }

  static constexpr char CHANGE[] =
      "<user nc:operation=\"delete\"><name>old</name></user><user><name>new</name></user><hostname>box</hostname>"
      "<rule yang:insert=\"first\"><id>b</id><action>permit</action></rule>";
};

} // namespace

TEST_F(publish, each_changed_entry_is_offered_once_by_priority_with_what_happened_to_it)
{
  ASSERT_TRUE(session->ok(edit(CHANGE)));
  EXPECT_EQ(texts(), take_offers()); // candidate is nobody's business
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_EQ((texts{"10 2 1 /ex-sys:system/user[name=\"old\"]", "10 1 0 /ex-sys:system/user[name=\"new\"]",
                   "20 24 0 /ex-sys:system/rule[id=\"b\"]", "20 1 0 /ex-sys:system/hostname", "30 8 0 /ex-sys:system"}),
            take_offers());
  EXPECT_TRUE(holds("running", "<hostname>box</hostname>"));
}

TEST_F(publish, a_refused_commit_is_taken_back_in_reverse_order_and_leaves_running_as_it_was)
{
  std::string before = tree(RUNNING_DB);
  answer("30 8 refuse /ex-sys:system\n");
  ASSERT_TRUE(session->ok(edit(CHANGE)));
  support::rpc_error_t error = session->error(COMMIT);
  EXPECT_EQ("operation-failed", error.tag);
  EXPECT_EQ("42", error.app_tag);
  EXPECT_EQ("refused by 30", error.message);
  texts offers = take_offers();
  ASSERT_EQ(9U, offers.size());
  EXPECT_EQ((texts{"20 32769 0 /ex-sys:system/hostname", "20 32792 0 /ex-sys:system/rule[id=\"b\"]",
                   "10 32769 0 /ex-sys:system/user[name=\"new\"]", "10 32770 0 /ex-sys:system/user[name=\"old\"]"}),
            texts(offers.begin() + 5, offers.end()));
  EXPECT_EQ(before, tree(RUNNING_DB));
  EXPECT_EQ(data("running"), data("candidate")); // the refused change is dropped
  answer("");
  ASSERT_TRUE(session->ok(edit(CHANGE)));
  EXPECT_TRUE(session->ok(COMMIT));
}

TEST_F(publish, error_options_of_an_edit_of_running_decide_what_a_refusal_leaves)
{
  auto change = [this](const std::string &option, const std::string &host) {
    return session->rpc(support::edit_config(
        "running", system("<user><name>" + host + "</name></user><hostname>" + host + "</hostname>"),
        "<error-option>" + option + "</error-option>"));
  };
  answer("10 1 refuse /ex-sys:system/user[name=\"a\"]\n20 1 refuse /ex-sys:system/hostname\n"
         "10 1 refuse /ex-sys:system/user[name=\"b\"]\n10 1 refuse /ex-sys:system/user[name=\"c\"]\n");
  std::string reply = change("continue-on-error", "a");
  EXPECT_TRUE(contains(reply, "refused by 10")) << reply;
  EXPECT_TRUE(contains(reply, "refused by 20")) << reply;
  EXPECT_TRUE(contains(reply, ">/ex-sys:system/ex-sys:user[ex-sys:name='a']</error-path>")) << reply;
  EXPECT_TRUE(contains(reply, "<error-info>Error on node /ex-sys:system/hostname</error-info>")) << reply;
  EXPECT_EQ(3U, take_offers().size());
  EXPECT_TRUE(holds("running", "<hostname>a</hostname>")); // what the others applied stays

  reply = change("stop-on-error", "b");
  EXPECT_TRUE(contains(reply, "refused by 10")) << reply;
  EXPECT_EQ(1U, take_offers().size());
  EXPECT_TRUE(holds("running", "<hostname>b</hostname>"));

  reply = change("rollback-on-error", "c");
  EXPECT_TRUE(contains(reply, "refused by 10")) << reply;
  EXPECT_EQ(1U, take_offers().size()); // the failed offer itself is not taken back
  EXPECT_TRUE(holds("running", "<hostname>b</hostname>"));
  EXPECT_EQ(data("running"), data("candidate"));
}

TEST_F(publish, the_reply_and_conflicting_requests_wait_for_a_subscriber_others_run)
{
  support::netconf_session &other = connect("other");
  answer("30 8 wait /ex-sys:system\n");
  ASSERT_TRUE(session->ok(edit(CHANGE)));
  ASSERT_TRUE(session->send(COMMIT));
  ASSERT_TRUE(support::wait_until([this] { return contains(support::read_file(dir / "offers"), "30 8"); }));
  EXPECT_TRUE(
      contains(other.rpc("<get-capability xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>"), "<capability"));
  ASSERT_TRUE(other.send(support::get_config("running")));
  support::write_file(dir / "go", "");
  EXPECT_TRUE(support::is_ok(session->receive()));
  EXPECT_TRUE(contains(other.receive(), "<hostname>box</hostname>")); // it ran after the publication
}

TEST_F(publish, a_change_whose_session_has_gone_stands_all_the_same)
{
  support::netconf_session &other = connect("other");
  answer("30 8 wait /ex-sys:system\n");
  ASSERT_TRUE(other.ok(edit(CHANGE)));
  ASSERT_TRUE(other.send(COMMIT));
  ASSERT_TRUE(support::wait_until([this] { return contains(support::read_file(dir / "offers"), "30 8"); }));
  other.close();
  support::write_file(dir / "go", "");
  EXPECT_TRUE(support::wait_until([this] { return holds("running", "<hostname>box</hostname>"); }));
  EXPECT_EQ(tree(RUNNING_DB), tree(CANDIDATE_DB));
}

TEST_F(publish, a_copy_to_running_offers_what_differs_and_is_answered_when_it_was_taken)
{
  const std::string save = support::copy_config("startup", "<running/>");
  const std::string load = support::copy_config("running", "<startup/>");
  ASSERT_TRUE(session->ok(save));
  ASSERT_TRUE(session->ok(load));
  EXPECT_EQ(texts(), take_offers());
  ASSERT_TRUE(session->ok(edit(CHANGE)));
  ASSERT_TRUE(session->ok(COMMIT));
  (void)take_offers();
  std::string before = tree(RUNNING_DB);
  answer("30 8 refuse /ex-sys:system\n");
  EXPECT_EQ("refused by 30", session->error(load).message);
  EXPECT_EQ(before, tree(RUNNING_DB));
  (void)take_offers();
  answer("30 8 wait /ex-sys:system\n");
  ASSERT_TRUE(session->send(load));
  ASSERT_TRUE(support::wait_until([this] { return contains(support::read_file(dir / "offers"), "30 8"); }));
  EXPECT_EQ((texts{"10 2 1 /ex-sys:system/user[name=\"new\"]", "10 1 0 /ex-sys:system/user[name=\"old\"]",
                   "20 8 1 /ex-sys:system/rule[id=\"b\"]", "20 16 0 /ex-sys:system/rule[id=\"a\"]",
                   "20 2 0 /ex-sys:system/hostname", "30 8 0 /ex-sys:system"}),
            take_offers());
  support::write_file(dir / "go", "");
  EXPECT_TRUE(support::is_ok(session->receive()));
  EXPECT_TRUE(holds("running", "old"));
  EXPECT_EQ(tree(RUNNING_DB), tree(STARTUP_DB));
}

TEST_F(publish, a_get_waits_for_its_publishers_and_survives_its_session)
{
  support::netconf_session &gone = connect("gone");
  support::netconf_session &other = connect("other");
  auto begun = [this] { return contains(support::read_file(dir / "offers"), "state /zentra-ymgrd:daemon"); };
  answer("0 0 wait /zentra-ymgrd:daemon\n");
  ASSERT_TRUE(gone.send("<get/>"));
  ASSERT_TRUE(support::wait_until(begun));
  gone.close();
  ASSERT_TRUE(other.send("<get/>")); // its turn comes when the first is over
  support::write_file(dir / "go", "");
  std::filesystem::remove(dir / "offers");
  ASSERT_TRUE(support::wait_until(begun));
  support::write_file(dir / "go", "");
  EXPECT_TRUE(contains(other.receive(), "<id>a</id>"));
  answer("");
  EXPECT_TRUE(contains(session->rpc("<get/>"), "<uptime>"));
}
