// A plugin's life: registration, restore, loss of the connection in every state, smooth start, rubbish.
#include "plugins_fixture.h"

namespace {

// The time-outs are 15 and 60 seconds: what comes within this was not waited for.
constexpr std::chrono::seconds AT_ONCE{8};

class plugin_life : public plugins_fixture {
protected:
  static constexpr char RESTART[] = "<restart-service xmlns=\"urn:ex-sys\"><name>web</name></restart-service>";
};

} // namespace

TEST_F(plugin_life, a_faulty_registration_is_refused_whole_and_names_the_path)
{
  const struct {
    const char *path;
    plugin_peer &(plugin_peer::*add)(const std::string &path);
    const char *message;
  } faults[] = {
      {"/ex-sys:system/hostnam", nullptr, "/ex-sys:system/hostnam"},
      {"/ex-sys:state", nullptr, "/ex-sys:state"}, // state is no configuration
      {"no path", nullptr, "no path"},
      {"/none:such", &plugin_peer::status, "/none:such"},
      {"/ex-sys:state", &plugin_peer::operation, "/ex-sys:state"},
  };
  for (const auto &fault : faults) {
    plugin_peer peer = plugin("faulty");
    peer.config("/ex-sys:services", 10);
    fault.add == nullptr ? peer.config(fault.path, 20) : (peer.*fault.add)(fault.path);
    std::string answer = peer.register_now();
    EXPECT_TRUE(answer.starts_with("ERROR ") && contains(answer, fault.message)) << fault.path << ": " << answer;
    EXPECT_TRUE(contains(peer.activate(), "ERROR"));
  }
  plugin_peer good = started("good", "/ex-sys:system/gateway", 10); // the names of its cases are left out
  EXPECT_EQ(good.register_now(), "ERROR Plugin has been registered");
  plugin_peer twin = plugin("good");
  EXPECT_TRUE(twin.register_now().starts_with("ERROR "));
  plugin_peer idle = plugin("idle");
  EXPECT_EQ(idle.register_now(), "");
  EXPECT_EQ(idle.pull("/"), "ERROR Plugin has not been activated.");
  begin_commit("<gateway>192.0.2.1</gateway>");
  EXPECT_EQ(good.take(), "1 /ex-sys:system/gateway");
  EXPECT_TRUE(support::is_ok(session->receive()));
  EXPECT_EQ(good.request("deactivate", ""), "");
  EXPECT_TRUE(commit("<gateway>192.0.2.2</gateway>")); // nobody is asked
}

TEST_F(plugin_life, who_comes_late_is_handed_the_configuration_once_in_the_order_of_its_subscriptions)
{
  ASSERT_TRUE(commit("<hostname>box</hostname><user><name>a</name></user><user><name>b</name></user>"));
  auto register_both = [](plugin_peer peer) {
    return peer.config("/ex-sys:system/hostname", 20).config("/ex-sys:system/user", 10).start();
  };
  const texts whole = {"16385 /ex-sys:system/user[name=\"a\"]", "16385 /ex-sys:system/user[name=\"b\"]",
                       "16385 /ex-sys:system/hostname"};
  EXPECT_EQ(register_both(plugin("late")), whole);
  EXPECT_EQ(register_both(plugin("late")), whole); // restarted
  // While one is restored, clients wait, and another one's turn comes behind it. One that refuses is restored all the
  // same.
  // One that goes in the middle makes room for the next.
  plugin_peer dying = plugin("dying");
  plugin_peer first = plugin("first");
  plugin_peer second = plugin("second");
  ASSERT_EQ(dying.config("/ex-sys:system/user", 30).activate(), "");
  EXPECT_EQ(dying.take(), whole[0]);
  EXPECT_EQ(dying.next().change(), whole[1]);
  ASSERT_EQ(first.config("/ex-sys:system/user", 10).activate(), "");
  dying.die();
  plugin_call_t call = first.next(AT_ONCE);
  EXPECT_EQ(call.change(), whole[0]);
  ASSERT_EQ(second.config("/ex-sys:system/user", 5).activate(), "");
  ASSERT_TRUE(session->send(edit("<hostname>other</hostname>")));
  first.refuse(call, 9, "not now");
  EXPECT_EQ(first.take(), whole[1]);
  EXPECT_EQ(first.take(), "kickoff");
  EXPECT_EQ(second.take(), whole[0]);
  EXPECT_EQ(second.take(), whole[1]);
  EXPECT_EQ(second.take(), "kickoff");
  EXPECT_TRUE(support::is_ok(session->receive()));
  EXPECT_TRUE(
      contains(daemon.log_text(), "Plugin first configuration restore failed on(path=/ex-sys:system/user, pri=10)"));
}

TEST_F(plugin_life, one_that_dies_fails_what_it_was_asked_and_nothing_else)
{
  std::optional<plugin_peer> witness = started("witness", "/ex-sys:system/hostname", 10);
  std::optional<plugin_peer> victim;
  auto restart = [&] {
    victim.emplace(plugin("victim"));
    victim->config("/ex-sys:system/location", 20).status("/ex-sys:state").operation("/ex-sys:restart-service");
    return victim->start();
  };
  restart();
  const std::string change = "<hostname>a</hostname><location>b</location>";

  begin_commit(change); // before it answers
  EXPECT_EQ(witness->take(), "1 /ex-sys:system/hostname");
  EXPECT_EQ(victim->next().change(), "1 /ex-sys:system/location");
  victim->die();
  EXPECT_EQ(witness->next(AT_ONCE).change(), "32769 /ex-sys:system/hostname");
  witness->accept({"publish", 0, ""}); // a reply to nothing
  EXPECT_EQ(victim->next().method, "");
  ASSERT_NO_FATAL_FAILURE(witness->die()); // and while a rollback is with it
  std::string reply = session->receive();
  EXPECT_TRUE(contains(reply, "victim") && contains(reply, "Error on node /ex-sys:system/location (plugin victim)"))
      << reply;

  witness.emplace(started("witness", "/ex-sys:system/hostname", 10));
  EXPECT_EQ(restart(), texts()); // running is empty still
  const std::string get = "<get><filter type=\"subtree\"><state xmlns=\"urn:ex-sys\"/></filter></get>";
  for (const std::string &request : {std::string(RESTART), get}) {
    ASSERT_TRUE(session->send(request));
    EXPECT_NE(victim->next().method, "");
    victim->die();
    std::string answer = session->receive();
    EXPECT_EQ(contains(answer, "victim"), request == RESTART) << answer;
    EXPECT_EQ(contains(answer, "<data"), request != RESTART) << answer;
    restart();
  }

  begin_commit(change);
  EXPECT_EQ(witness->take(), "1 /ex-sys:system/hostname");
  EXPECT_EQ(victim->take(), "1 /ex-sys:system/location");
  EXPECT_TRUE(support::is_ok(session->receive()));
  victim->die(); // in its restore
  victim.emplace(plugin("victim"));
  ASSERT_EQ(victim->config("/ex-sys:system/location", 20).activate(), "");
  EXPECT_EQ(victim->next().change(), "16385 /ex-sys:system/location");
  ASSERT_TRUE(session->send(support::get_config("running")));
  victim->die();
  EXPECT_TRUE(contains(session->receive(), "<location>b</location>"));
  EXPECT_EQ(restart(), texts{"16385 /ex-sys:system/location"});
}

TEST_F(plugin_life, a_smooth_start_takes_an_interrupted_publication_back)
{
  ASSERT_TRUE(commit("<hostname>old</hostname><user><name>old</name></user>"));
  plugin_peer peer = plugin("peer");
  (void)peer.config("/ex-sys:system/user", 10).config("/ex-sys:system/hostname", 20).start();
  std::string before = tree(RUNNING_DB);
  begin_commit(
      "<user nc:operation=\"delete\"><name>old</name></user><user><name>new</name></user><hostname>new</hostname>");
  EXPECT_EQ(peer.take(), "2 /ex-sys:system/user[name=\"old\"]");
  EXPECT_EQ(peer.next().change(), "1 /ex-sys:system/user[name=\"new\"]");
  for (int round = 0; round < 2; round++) { // the second one is cut off before its plugin came
    daemon.kill_now();
    daemon.options().arguments = {"--smooth"};
    ASSERT_TRUE(daemon.start());
  }
  EXPECT_EQ(before, tree(RUNNING_DB));
  plugin_peer again = plugin("peer");
  plugin_peer fresh = plugin("fresh");
  EXPECT_EQ(
      again.config("/ex-sys:system/user", 10).config("/ex-sys:system/hostname", 20).start("<with-cfgr/><with-smooth/>"),
      (texts{"65537 /ex-sys:system/user[name=\"old\"]", "65538 /ex-sys:system/user[name=\"new\"]",
             "65540 /ex-sys:system/hostname"}));
  EXPECT_EQ(again.pull("/ex-sys:system/hostname"), "<system xmlns=\"urn:ex-sys\"><hostname>old</hostname></system>");
  EXPECT_TRUE(contains(again.request("push", "<path>/ex-sys:state</path><data/>"), "SMOOTH_START"));
  EXPECT_EQ(fresh.config("/ex-sys:system/hostname", 10).start(), texts{"16385 /ex-sys:system/hostname"});
  session = &connect();
  EXPECT_TRUE(holds("running", "<hostname>old</hostname>")); // ends the smooth start
  plugin_peer later = plugin("later");
  EXPECT_EQ(later.config("/ex-sys:system/hostname", 10).start("<with-cfgr/><with-smooth/>"),
            texts{"16385 /ex-sys:system/hostname"});
}

TEST_F(plugin_life, a_publication_that_was_cut_off_is_told_as_running_stands_now)
{
  ASSERT_TRUE(commit("<hostname>old</hostname><rule><id>a</id></rule><rule><id>b</id></rule>"));
  auto subscribe = [this] {
    plugin_peer peer = plugin("peer");
    (void)peer.config("/ex-sys:system/rule", 10).config("/ex-sys:system/hostname", 20);
    return peer;
  };
  plugin_peer peer = subscribe();
  (void)peer.start();
  begin_commit("<rule nc:operation=\"delete\"><id>a</id></rule><rule yang:insert=\"first\"><id>c</id></rule>"
               "<hostname>new</hostname>");
  plugin_call_t call = peer.next();
  std::string journal = redis.command(RUNNING_DB, {"GET", "ymgrd-publication"}).front();
  peer.accept(call);
  (void)peer.take(), (void)peer.take();
  ASSERT_TRUE(support::is_ok(session->receive()));
  auto told = [&] {
    daemon.kill_now();
    redis.command(RUNNING_DB, {"SET", "ymgrd-publication", journal});
    daemon.options().arguments = {"--smooth"};
    EXPECT_TRUE(daemon.start());
    return subscribe().start("<with-cfgr/><with-smooth/>");
  };
  const texts rules = {"65538 /ex-sys:system/rule[id=\"a\"]", "65553 /ex-sys:system/rule[id=\"c\"]"};
  EXPECT_EQ(told(), (texts{rules[0], rules[1], "65540 /ex-sys:system/hostname"}));
  journal.pop_back(); // what can be read of it
  EXPECT_EQ(told(), rules);
  ASSERT_TRUE(connect().ok(edit(""))); // ends the smooth start
  EXPECT_EQ(redis.command(RUNNING_DB, {"EXISTS", "ymgrd-publication"}).front(), "0");
}

TEST_F(plugin_life, rubbish_is_answered_or_ends_the_connection_and_concerns_nobody_else)
{
  plugin_peer good = started("good", "/ex-sys:system/hostname", 10);
  const std::string texts_of_all_kinds[] = {
      "",
      "<rpc/>",
      "<rpc><method>register</method></rpc>",
      "<reply><result/><id>9</id></reply>",
      "no xml",
      "<!DOCTYPE x [<!ENTITY a \"b\">]><rpc><method>&a;</method><params/><id>1</id></rpc>",
      "<rpc><method>fly</method><params/><id>3</id></rpc>",
      "<reply><id>4</id></reply>",
      std::string(70000, '<')};
  plugin_peer bad = plugin("bad");
  for (const std::string &text : texts_of_all_kinds) {
    bad.send_text(text, 7);
  }
  bad.send_raw(std::string(5000, 'x'));
  EXPECT_EQ(bad.request("fly", ""), "ERROR Unsupport method.");
  bad.send_raw(std::string("\xff\xba\xdc\xfe\xff\xff\xff\xff", 8) + std::string(100, '\0')); // 4 GiB announced
  EXPECT_TRUE(bad.is_cut_off());
  begin_commit("<hostname>a</hostname>");
  plugin_call_t call = good.next();
  good.accept({call.method, call.id + 1, ""}); // the wrong number answers nothing
  good.accept(call);
  EXPECT_TRUE(support::is_ok(session->receive()));
}

TEST_F(plugin_life, many_plugins_hear_of_each_commit_once_in_the_order_in_which_they_came)
{
  constexpr int PLUGINS = 12;
  constexpr int COMMITS = 20;
  std::vector<plugin_peer> peers;
  for (int i = 0; i < PLUGINS; i++) {
    plugin_peer &peer = peers.emplace_back(plugin("peer" + std::to_string(i)));
    for (int path = 0; path < 50; path++) {
      peer.config(path == 0 ? "/ex-sys:system/hostname" : "/ex-sys:services", 10 + path);
    }
    ASSERT_EQ(peer.start(), texts());
  }
  for (int commit_no = 0; commit_no < COMMITS; commit_no++) {
    begin_commit("<hostname>h" + std::to_string(commit_no) + "</hostname>");
    for (plugin_peer &peer : peers) {
      EXPECT_EQ(peer.take(), commit_no == 0 ? "1 /ex-sys:system/hostname" : "4 /ex-sys:system/hostname");
    }
    EXPECT_TRUE(support::is_ok(session->receive()));
  }
  for (plugin_peer &peer : peers) {
    EXPECT_EQ(peer.next(std::chrono::milliseconds(0)).method, "");
  }
}
