// What plugins read and supply: old and new configuration, places in lists, state data, operations.
#include "plugins_fixture.h"

namespace {

class plugin_data : public plugins_fixture {
protected:
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
  // What stands above it comes with it; what is not there is empty, what can not be is an error.
  EXPECT_EQ(peer.pull("/ex-sys:system/user[name=\"u\"]/key[index=\"1\"]"),
            sys("<user><name>u</name><key><index>1</index><data>AAAA</data></key></user>"));
  EXPECT_EQ(peer.pull("/ex-sys:system/user[name=\"none\"]"), "");
  EXPECT_TRUE(contains(peer.pull("/ex-sys:system/usr"), "ERROR"));
  EXPECT_TRUE(contains(peer.pull("/ex-sys:system/user[name=\"u\""), "ERROR"));
  EXPECT_TRUE(contains(peer.pull("/"), "<hostname>old</hostname>"));
}

TEST_F(plugin_data, the_neighbours_of_an_entry_are_told_before_and_after_its_move)
{
  ASSERT_TRUE(commit("<rule><id>a</id></rule><rule><id>b</id></rule><rule><id>c</id></rule>"));
  plugin_peer peer = started("peer", "/ex-sys:system/rule", 10);
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
        push_of("/ex-sys:state/interface", sys("<hostname>a</hostname>")), std::string("<path>/ex-sys:state</path>")}) {
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
