// What plugins read and supply: old and new configuration, places in lists, state data, operations.
#include "plugins_fixture.h"

namespace {

const char sample_module[] = R"(
module sample {
  yang-version 1.1; namespace "urn:sample"; prefix s; revision 2026-01-01;
  container top {
    list at { key n; leaf n { type instance-identifier { require-instance false; } } leaf v { type uint8; } }
    list item { key k; leaf k { type string; } leaf v { type uint8; }
      container stats { config false; leaf packets { type uint32; } } }
  }
})";

class plugin_data : public plugins_fixture {
protected:
  void SetUp() override
  {
    support::write_file(daemon.modules_dir() + "/sample.yang", sample_module);
    daemon.options().modules.push_back({"sample"});
    plugins_fixture::SetUp();
  }

  static std::string sys(const std::string &content) { return "<system xmlns=\"urn:ex-sys\">" + content + "</system>"; }
  static std::string state(const std::string &content) { return "<state xmlns=\"urn:ex-sys\">" + content + "</state>"; }
  std::string get_state()
  {
    return support::reply_data(session->rpc("<get><filter type=\"subtree\">" + state("") + "</filter></get>"));
  }
  static std::string push_of(const std::string &path, const std::string &content)
  {
    return "<path>" + path + "</path><data>" + content + "</data>";
  }
};

} // namespace

TEST_F(plugin_data, old_and_new_configuration_differ_only_while_a_change_is_published)
{
  ASSERT_TRUE(
      commit("<hostname>old</hostname><user><name>u</name><key><index>1</index><data>AAAA</data></key></user>"));
  plugin_peer peer = started("peer", "/ex-sys:system/hostname", 10);
  plugin_peer last = started("last", "/ex-sys:system/hostname", 20);
  const std::string path = "/ex-sys:system/hostname";
  const std::string old_text = sys("<hostname>old</hostname>");
  const std::string new_text = sys("<hostname>new</hostname>");
  EXPECT_EQ(peer.pull(path), old_text);
  for (const char *target : {"candidate", "running"}) {
    ASSERT_TRUE(session->send(support::edit_config(target, new_text)));
    if (target == std::string("candidate")) {
      ASSERT_TRUE(support::is_ok(session->receive()));
      EXPECT_EQ(peer.pull(path), old_text); // not committed yet
      ASSERT_TRUE(session->send(COMMIT));
    }
    plugin_call_t call = peer.next();
    EXPECT_EQ(peer.pull(path), new_text);
    EXPECT_EQ(peer.pull(path, true), old_text);
    peer.accept(call);
    last.refuse(last.next(), 1, "no");
    call = peer.next();
    EXPECT_EQ(peer.pull(path, true), old_text) << "in the rollback";
    peer.accept(call);
    EXPECT_EQ(received_error().message, "no");
    EXPECT_EQ(peer.pull(path), old_text);
  }
}

TEST_F(plugin_data, pulls_find_what_the_path_names_with_the_way_to_it_from_the_tree_as_from_the_database)
{
  const std::string user = "<user><name>u</name><key><index>1</index><data>AAAA</data></key></user>";
  const std::string route = "<route xmlns=\"urn:ex-sys\"><dest>10.0.0.0</dest><mask>8</mask></route>";
  ASSERT_TRUE(commit("<tag>x</tag><tag>y/'\"</tag><user><name>v</name></user>" + user));
  ASSERT_TRUE(session->ok(support::edit_config("running", "<routes xmlns=\"urn:ex-sys\">" + route + "</routes>")));
  plugin_peer peer = started("peer", "/ex-sys:services", 10);
  for (bool is_kept : {true, false}) {
    auto pulled = [&](const std::string &path) {
      redis.command(RUNNING_DB, {"SET", "/foreign", "1"}); // from here on Redis is read
      if (is_kept) {
        (void)session->rpc(support::get_config("running"));
      }
      return peer.pull(path);
    };
    EXPECT_EQ(pulled("/ex-sys:system/user[name='u']/key[index='01']/data"), sys(user));
    EXPECT_EQ(pulled("/ex-sys:system/ex-sys:user[ex-sys:name=\"u\"]/name"), sys("<user><name>u</name></user>"));
    EXPECT_EQ(pulled("/ex-sys:system/tag"), sys("<tag>x</tag><tag>y/'&quot;</tag>"));
    EXPECT_EQ(pulled("/ex-sys:system/tag[.=\"y/'\\\"\"]"), sys("<tag>y/'&quot;</tag>"));
    EXPECT_TRUE(contains(pulled("/ex-sys:routes/route[mask='08'][dest='10.0.0.0']"), "<mask>8</mask>"));
    for (const char *absent : {"/ex-sys:system/user[name='w']/uid", "/ex-sys:system/user[name='w']/name",
                               "/ex-sys:system/user[name='w']", "/ex-sys:system/mode/static/gateway"}) {
      EXPECT_EQ(pulled(absent), "") << absent;
    }
    for (const char *part : {"<tag>x</tag>", "<name>v</name>", "<data>AAAA</data>", "<dest>10.0.0.0</dest>"}) {
      EXPECT_TRUE(contains(pulled("/"), part)) << part;
    }
  }
  for (const char *wrong :
       {"", "system", "/none:system", "/ex-sys:system/usr", "/ex-sys:system/user/uid", "/ex-sys:system[k='1']",
        "/ex-sys:system/user[uid='1']", "/ex-sys:system/user[name='u'", "/ex-sys:routes/route[dest='10.0.0.0']"}) {
    EXPECT_TRUE(peer.pull(wrong).starts_with("ERROR ")) << wrong;
  }
}

TEST_F(plugin_data, entries_named_by_paths_are_found_by_the_keys_that_changes_have)
{
  plugin_peer peer = started("peer", "/sample:top/at", 10);
  ASSERT_TRUE(session->ok(support::edit_config(
      "candidate", "<top xmlns=\"urn:sample\" xmlns:s=\"urn:ex-sys\"><at><n>/s:system/s:user[s:name='u']/s:uid</n>"
                   "<v>1</v></at></top>")));
  ASSERT_TRUE(session->send(COMMIT));
  plugin_call_t call = peer.next();
  const std::string key = "/sample:top/at[n=\"/ex-sys:system/user[name='u']/uid\"]";
  EXPECT_TRUE(contains(call.change(), key)) << call.change();
  peer.accept(call);
  ASSERT_TRUE(support::is_ok(session->receive()));
  for (const char *rest : {"", "/v"}) { // from the tree, then from Redis
    EXPECT_TRUE(contains(peer.pull(key + rest), "/ex-sys:system/ex-sys:user[ex-sys:name='u']/ex-sys:uid</n><v>1</v>"));
    redis.command(RUNNING_DB, {"SET", "/foreign", "1"});
  }
}

TEST_F(plugin_data, the_neighbours_of_an_entry_are_told_before_and_after_its_move)
{
  ASSERT_TRUE(
      commit("<rule><id>a</id></rule><rule><id>b</id></rule><rule><id>c</id></rule><dns>::1</dns><dns>::2</dns>"));
  plugin_peer peer = started("peer", "/ex-sys:system/rule", 10);
  EXPECT_EQ(peer.request("locate", "<path>/ex-sys:system/dns[.='0::1']</path><old>0</old>"),
            "<next>/ex-sys:system/dns[.=\"::2\"]</next>");
  auto locate = [&peer](const std::string &id, bool old) {
    return peer.request("locate",
                        "<path>/ex-sys:system/rule[id=\"" + id + "\"]</path><old>" + (old ? "1" : "0") + "</old>");
  };
  auto entry = [](const std::string &name, const std::string &id) {
    return "<" + name + ">/ex-sys:system/rule[id=\"" + id + "\"]</" + name + ">";
  };
  begin_commit("<rule yang:insert=\"first\"><id>c</id></rule>");
  plugin_call_t call = peer.next();
  EXPECT_EQ(call.change(), "16 /ex-sys:system/rule[id=\"c\"]");
  EXPECT_EQ(locate("c", true), entry("prev", "b"));
  EXPECT_EQ(locate("c", false), entry("next", "a"));
  EXPECT_EQ(locate("a", false), entry("prev", "c") + entry("next", "b"));
  EXPECT_TRUE(contains(locate("x", false), "ERROR"));
  EXPECT_TRUE(contains(peer.request("locate", "<path>/ex-sys:system/rule</path><old>0</old>"), "ERROR"));
  peer.accept(call);
  EXPECT_TRUE(support::is_ok(session->receive()));
}

TEST_F(plugin_data, state_is_asked_for_or_pushed_and_must_fit_the_schema)
{
  plugin_peer load = plugin("load");
  load.status("/ex-sys:state/load").start();
  plugin_peer pushed = plugin("pushed");
  pushed.status("/ex-sys:state/interface").start();
  const std::string one = state("<interface><name>a</name><in-octets>1</in-octets></interface>");
  EXPECT_EQ(pushed.request("push", push_of("/ex-sys:state/interface[name=\"a\"]", one)), "");
  for (const std::string &wrong :
       {push_of("/ex-sys:state/uptime", state("<uptime>1</uptime>")),
        push_of("/ex-sys:state/interface", state("<uptime>1</uptime>")),
        push_of("/ex-sys:state/interface", state("<interface><name>a</name><in-octets>x</in-octets></interface>")),
        push_of("/ex-sys:state/interface",
                state("<interface><name>a</name></interface><interface><name>a</name></interface>")),
        push_of("/ex-sys:state/interface", sys("<hostname>a</hostname>")), push_of("/ex-sys:state", one),
        push_of("/ex-sys:state/interface[name=\"b\"]", one), std::string("<path>/ex-sys:state</path>")}) {
    EXPECT_TRUE(contains(pushed.request("push", wrong), "ERROR")) << wrong;
  }
  auto answered = [&](const std::string &answer, const std::string &wanted) {
    ASSERT_TRUE(session->send("<get><filter type=\"subtree\">" + state("") + "</filter></get>"));
    EXPECT_EQ(pushed.take(), "subscribe"); // the order is that of the paths
    plugin_call_t request = load.next();
    EXPECT_EQ(request.method, "subscribe");
    load.accept(request, answer);
    EXPECT_EQ(support::reply_data(session->receive(), support::siblings::by_name),
              support::normalize(wanted, support::siblings::by_name));
  };
  answered(state("<load>0.50</load>"),
           state("<load>0.5</load><interface><name>a</name><in-octets>1</in-octets></interface>"));
  EXPECT_EQ(pushed.request("push", push_of("/ex-sys:state/interface[name=\"a\"]", "")), "");
  answered(state("<load>many</load>"), ""); // left out, and logged with plugin and path
  EXPECT_TRUE(contains(daemon.log_text(), "load") && contains(daemon.log_text(), "/ex-sys:state/load"));
  EXPECT_EQ(pushed.request("push", push_of("/ex-sys:state/interface", one)), "");
  pushed.die();
  load.die(); // the state of who has gone is nobody's
  EXPECT_TRUE(support::wait_until([this] { return get_state().empty(); }));
}

TEST_F(plugin_data, pushed_state_stands_until_it_is_replaced_and_goes_with_its_plugin_alone)
{
  auto top = [](const std::string &content) { return "<top xmlns=\"urn:sample\">" + content + "</top>"; };
  auto octets = [](const std::string &name, int number) {
    return "<interface><name>" + name + "</name><in-octets>" + std::to_string(number) + "</in-octets></interface>";
  };
  const std::string item = "/sample:top/item[k=\"a\"]/stats";
  const std::string stats = "<item><k>a</k><v>1</v><stats><packets>1</packets></stats></item>";
  ASSERT_TRUE(session->ok(support::edit_config("running", top("<item><k>a</k><v>1</v></item>"))));
  plugin_peer first = plugin("first");
  first.status("/ex-sys:state/event").status("/ex-sys:state/interface").status("/sample:top/item").start();
  plugin_peer second = plugin("second");
  second.status("/ex-sys:state/interface").start();
  std::vector<plugin_peer *> publishers = {&first, &first, &first, &second}; // in the order in which they are asked
  auto holds_state = [&](const std::string &wanted) {
    for (int time = 0; time < 2; time++) {
      ASSERT_TRUE(session->send("<get><filter>" + top("") + state("") + "</filter></get>"));
      for (plugin_peer *asked : publishers) {
        EXPECT_EQ(asked->take(), "subscribe");
      }
      EXPECT_EQ(support::reply_data(session->receive(), support::siblings::sorted),
                support::reply_data("<data>" + wanted + "</data>", support::siblings::sorted));
    }
  };
  auto push = [](plugin_peer *peer, const std::string &path, const std::string &content) {
    return peer->request("push", push_of(path, content));
  };
  holds_state(top("<item><k>a</k><v>1</v></item>"));
  EXPECT_EQ(push(&first, item, top("<item><k>a</k><stats><packets>1</packets></stats></item>")), "");
  EXPECT_EQ(push(&first, "/ex-sys:state/interface", state(octets("2", 1) + octets("1", 1))), "");
  EXPECT_EQ(push(&second, "/ex-sys:state/interface[name='2']", state(octets("2", 5))), "");
  holds_state(top(stats) + state(octets("2", 5) + octets("1", 1)));
  EXPECT_EQ(push(&first, "/ex-sys:state/interface", state(octets("3", 1))), "");
  holds_state(top(stats) + state(octets("3", 1) + octets("2", 5)));
  for (const auto &[path, content] : {std::pair<const char *, std::string>{"/sample:top", "<item><k>a</k></item>"},
                                      {"/sample:top/item", "<item><k>a</k><v>2</v><stats/></item>"},
                                      {item.c_str(), "<item><k>b</k><stats/></item>"}}) {
    EXPECT_TRUE(push(&first, path, top(content)).starts_with("ERROR ")) << path;
  }
  EXPECT_TRUE(push(&first, "/ex-sys:state/event", state("<event><text>t</text></event>")).starts_with("ERROR "));
  EXPECT_EQ(push(&first, item, ""), "");
  first.die();
  ASSERT_TRUE(daemon.wait_for_log("Plugin first has gone"));
  publishers = {&second};
  holds_state(top("<item><k>a</k><v>1</v></item>") + state(octets("2", 5)));
}

TEST_F(plugin_data, an_operation_is_checked_routed_chained_and_answered)
{
  auto restart = [](const std::string &content) {
    return "<restart-service xmlns=\"urn:ex-sys\">" + content + "</restart-service>";
  };
  const std::string request = restart("<name>web</name>");
  EXPECT_EQ(session->error(request).tag, "operation-not-supported");
  plugin_peer first = plugin("first");
  first.operation("/ex-sys:restart-service").start();
  plugin_peer second = plugin("second");
  second.operation("/ex-sys:restart-service").start();
  for (const char *invalid :
       {"", "<name>web</name><delay>x</delay>", "<name>web</name><requested-by>nobody</requested-by>"}) {
    EXPECT_NE(session->error(restart(invalid)).tag, "") << invalid; // no plugin hears of it
  }
  auto answer = [&](plugin_peer *peer, const std::string &output) {
    plugin_call_t call = peer->next();
    EXPECT_TRUE(contains(call.xml, request)) << call.xml;
    output.empty() ? peer->refuse(call, 5, "can not") : peer->accept(call, output == "ok" ? "" : output);
  };
  ASSERT_TRUE(session->send(request));
  answer(&first, "<pid xmlns=\"urn:ex-sys\">12</pid>");
  EXPECT_TRUE(contains(session->receive(), "<pid xmlns=\"urn:ex-sys\">12</pid>"));
  ASSERT_TRUE(session->send(request)); // the second is asked when the first can not
  answer(&first, "");
  answer(&second, "ok");
  EXPECT_TRUE(support::is_ok(session->receive()));
  ASSERT_TRUE(session->send(request));
  answer(&first, "<pid xmlns=\"urn:ex-sys\">many</pid>");
  answer(&second, "");
  support::rpc_error_t error = received_error();
  EXPECT_EQ(error.message, "can not");
  EXPECT_EQ(error.app_tag, "5");
  // A session that ends meanwhile gets no answer, nor does the next one of its number.
  support::netconf_session &gone = connect("gone");
  ASSERT_TRUE(gone.send(request));
  plugin_call_t call = first.next();
  gone.close();
  support::netconf_session &next = connect("next");
  first.accept(call, "<pid xmlns=\"urn:ex-sys\">13</pid>");
  EXPECT_TRUE(contains(next.rpc(support::get_config("running")), "<data"));
}
