// What plugins are offered of a change, and what becomes of a change that one of them refuses.
#include "plugins_fixture.h"

namespace {

class publish : public plugins_fixture {
protected:
  void SetUp() override
  {
    plugins_fixture::SetUp();
    ASSERT_TRUE(commit("<user><name>old</name></user><rule><id>a</id></rule><rule><id>b</id></rule>"));
    // Registered last first: priorities decide.
    (void)whole.emplace(plugin("whole")).config("/ex-sys:system", 30).start();
    (void)parts.emplace(plugin("parts"))
        .config("/ex-sys:system/hostname", 21)
        .config("/ex-sys:system/rule", 20)
        .start();
    (void)users.emplace(plugin("users")).config("/ex-sys:system/user", 10).start();
  }

  // What all are offered of CHANGE up to the one of the least priority, which is left to the test.
  void take_change()
  {
    EXPECT_EQ(users->take(), "2 /ex-sys:system/user[name=\"old\"]");
    EXPECT_EQ(users->take(), "1 /ex-sys:system/user[name=\"new\"]");
    EXPECT_EQ(parts->take(), "24 /ex-sys:system/rule[id=\"b\"]");
    EXPECT_EQ(parts->take(), "1 /ex-sys:system/hostname");
  }

  static constexpr char CHANGE[] =
      "<user nc:operation=\"delete\"><name>old</name></user><user><name>new</name></user><hostname>box</hostname>"
      "<rule yang:insert=\"first\"><id>b</id><action>permit</action></rule>";

  std::optional<plugin_peer> users, parts, whole;
};

} // namespace

TEST_F(publish, each_changed_entry_is_offered_once_by_priority_with_what_happened_to_it)
{
  begin_commit(CHANGE);
  plugin_call_t first = users->next();
  EXPECT_EQ(support::find_text(first.xml, "session-id"), std::to_string(session->id()));
  EXPECT_EQ(support::find_text(first.xml, "callback"), "10");
  EXPECT_EQ(support::find_text(first.xml, "more-flag"), "1");
  users->accept(first);
  EXPECT_EQ(users->take(), "1 /ex-sys:system/user[name=\"new\"]");
  EXPECT_EQ(parts->take(), "24 /ex-sys:system/rule[id=\"b\"]");
  EXPECT_EQ(parts->take(), "1 /ex-sys:system/hostname");
  EXPECT_EQ(whole->take(), "8 /ex-sys:system");
  EXPECT_TRUE(support::is_ok(session->receive()));
  EXPECT_TRUE(holds("running", "<hostname>box</hostname>"));
}

TEST_F(publish, a_refused_commit_is_taken_back_in_reverse_order_and_leaves_running_as_it_was)
{
  std::string before = tree(RUNNING_DB);
  begin_commit(CHANGE);
  take_change();
  whole->refuse(whole->next(), 42, "no &lt;way>");
  EXPECT_EQ(parts->take(), "32769 /ex-sys:system/hostname");
  plugin_call_t call = parts->next(); // it can not refuse this
  EXPECT_EQ(call.change(), "32792 /ex-sys:system/rule[id=\"b\"]");
  parts->refuse(call, 1, "never");
  EXPECT_EQ(users->take(), "32769 /ex-sys:system/user[name=\"new\"]");
  EXPECT_EQ(users->take(), "32770 /ex-sys:system/user[name=\"old\"]");
  std::string reply = session->receive();
  support::rpc_error_t error = support::find_error(reply).value();
  EXPECT_EQ(error.tag, "operation-failed");
  EXPECT_EQ(error.app_tag, "42");
  EXPECT_EQ(error.message, "no <way>");
  EXPECT_EQ(error.path, "/ex-sys:system");
  EXPECT_TRUE(contains(reply, "Error on node /ex-sys:system (plugin whole)")) << reply;
  size_t failed_rollback = reply.find("rollback-failed"); // what failed on the way comes last
  EXPECT_TRUE(failed_rollback != std::string::npos && failed_rollback > reply.find("no &lt;way")) << reply;
  EXPECT_EQ(before, tree(RUNNING_DB));
  EXPECT_EQ(data("running"), data("candidate")); // the refused change is dropped
  begin_commit(CHANGE);
  take_change();
  EXPECT_EQ(whole->take(), "8 /ex-sys:system");
  EXPECT_TRUE(support::is_ok(session->receive()));
}

TEST_F(publish, error_options_of_an_edit_of_running_decide_what_a_refusal_leaves)
{
  auto change = [this](const std::string &option, const std::string &host) {
    ASSERT_TRUE(session->send(support::edit_config(
        "running", system("<user><name>" + host + "</name></user><hostname>" + host + "</hostname>"),
        "<error-option>" + option + "</error-option>")));
    users->refuse(users->next(), 1, "refused by users");
  };
  change("continue-on-error", "a");
  parts->refuse(parts->next(), 2, "refused by parts");
  EXPECT_EQ(whole->take(), "8 /ex-sys:system");
  std::string reply = session->receive();
  for (const char *part :
       {"refused by users", "refused by parts", "hostname (plugin parts)", "\"a\"] (plugin users)"}) {
    EXPECT_TRUE(contains(reply, part)) << part << reply;
  }
  EXPECT_TRUE(holds("running", "<hostname>a</hostname>")); // what the others applied stays

  change("stop-on-error", "b");
  EXPECT_EQ(received_error().message, "refused by users");
  EXPECT_TRUE(holds("running", "<hostname>b</hostname>"));

  change("rollback-on-error", "c"); // the failed offer itself is not taken back
  EXPECT_EQ(received_error().message, "refused by users");
  EXPECT_TRUE(holds("running", "<hostname>b</hostname>"));
  EXPECT_EQ(data("running"), data("candidate"));

  // Who dies is passed over, with what it was still to get.
  ASSERT_TRUE(
      session->send(support::edit_config("running", system("<user><name>d</name></user><user><name>e</name></user>"),
                                         "<error-option>continue-on-error</error-option>")));
  (void)users->next();
  users->die();
  EXPECT_EQ(whole->take(), "8 /ex-sys:system");
  EXPECT_TRUE(contains(session->receive(), "(plugin users)"));
  EXPECT_TRUE(holds("running", "<name>e</name>"));
}

TEST_F(publish, the_reply_and_conflicting_requests_wait_for_a_plugin_others_run)
{
  support::netconf_session &other = connect("other");
  begin_commit(CHANGE);
  ASSERT_TRUE(session->send(support::get_config("running"))); // stays in the socket
  take_change();
  plugin_call_t call = whole->next();
  EXPECT_TRUE(
      contains(other.rpc("<get-capability xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/>"), "<capability"));
  ASSERT_TRUE(other.send(support::get_config("running")));
  whole->accept(call);
  EXPECT_TRUE(support::is_ok(session->receive()));
  for (support::netconf_session *reader : {session, &other}) {
    EXPECT_TRUE(contains(reader->receive(), "<hostname>box</hostname>")); // it ran after the publication
  }
}

TEST_F(publish, requests_that_wait_run_in_turn_and_a_killed_session_drops_its_own_but_ends_what_runs)
{
  support::netconf_session &runs = connect("runs"), &next = connect("next"), &drops = connect("drops"),
                           &last = connect("last");
  ASSERT_TRUE(runs.ok(edit(CHANGE)));
  ASSERT_TRUE(runs.send(COMMIT));
  take_change();
  plugin_call_t call = whole->next();
  for (support::netconf_session *waits : {session, &drops, &next}) {
    ASSERT_TRUE(waits->send(edit("<location>" + std::to_string(waits->id()) + "</location>")));
  }
  for (const support::netconf_session *victim : {&drops, &runs}) {
    EXPECT_TRUE(last.ok("<kill-session><session-id>" + std::to_string(victim->id()) + "</session-id></kill-session>"));
  }
  EXPECT_TRUE(support::is_closed_by_daemon(drops.client()));
  EXPECT_FALSE(ymgr_receive(runs.client(), std::chrono::milliseconds(0)));
  EXPECT_EQ(ymgr_last_error(runs.client()), "timed out");
  whole->accept(call);
  EXPECT_TRUE(support::is_ok(runs.receive()));
  EXPECT_TRUE(support::is_closed_by_daemon(runs.client()));
  EXPECT_TRUE(support::is_ok(next.receive()) && support::is_ok(session->receive()));
  // After the one that ran it was the turn of the next, then of the first.
  EXPECT_TRUE(holds("candidate", "<location>" + std::to_string(session->id()) + "</location>"));
}

TEST_F(publish, a_change_whose_session_has_gone_stands_all_the_same)
{
  support::netconf_session &other = connect("other");
  ASSERT_TRUE(other.ok(edit(CHANGE)));
  ASSERT_TRUE(other.send(COMMIT));
  take_change();
  plugin_call_t call = whole->next();
  other.close();
  EXPECT_NE(connect().id(), other.id()); // that the late reply finds nobody
  ASSERT_TRUE(session->send(support::get_config("running")));
  whole->accept(call);
  EXPECT_TRUE(contains(session->receive(), "<hostname>box</hostname>"));
  EXPECT_EQ(tree(RUNNING_DB), tree(CANDIDATE_DB));
  EXPECT_EQ(connect().id(), other.id());
}

TEST_F(publish, a_copy_to_running_offers_what_differs_and_is_answered_when_it_was_taken)
{
  const std::string load = support::copy_config("running", "<startup/>");
  ASSERT_TRUE(session->ok(support::copy_config("startup", "<running/>")));
  ASSERT_TRUE(session->ok(load)); // nothing differs, nobody is asked
  begin_commit(CHANGE);
  take_change();
  EXPECT_EQ(whole->take(), "8 /ex-sys:system");
  ASSERT_TRUE(support::is_ok(session->receive()));
  ASSERT_TRUE(session->send(load));
  EXPECT_EQ(users->take(), "2 /ex-sys:system/user[name=\"new\"]");
  EXPECT_EQ(users->take(), "1 /ex-sys:system/user[name=\"old\"]");
  EXPECT_EQ(parts->take(), "8 /ex-sys:system/rule[id=\"b\"]");
  EXPECT_EQ(parts->take(), "16 /ex-sys:system/rule[id=\"a\"]");
  EXPECT_EQ(parts->take(), "2 /ex-sys:system/hostname");
  EXPECT_EQ(whole->take(), "8 /ex-sys:system");
  EXPECT_TRUE(support::is_ok(session->receive()));
  EXPECT_TRUE(holds("running", "old"));
  EXPECT_EQ(tree(RUNNING_DB), tree(STARTUP_DB));
}
