// Sensitive leaves from end to end: cipher text wherever values are kept, clear values for who may have them.
#include <filesystem>
#include <regex>

#include "integration/plugins/plugins_fixture.h"
#include "support/working_key.h"

namespace {

const char sensitive[] = R"(["/ex-sec:vault/master", "/ex-sec:vault/spare", "/ex-sec:vault/community",
  "/ex-sec:vault/psk", "/ex-sec:vault/user/password", "/ex-sec:vault/user/pin", "/ex-sec:vault/user/token",
  "/ex-sec:vault/user/ex-sec-more:otp", "/ex-sec:vault/state/session-key",
  "/ex-sec:login/password", "/ex-sec:login/token"])";

class secrets : public plugins_fixture {
protected:
  void SetUp() override
  {
    for (const char *module : {"ex-sec", "ex-sec-more"}) {
      std::string file = std::string(module) + ".yang";
      std::filesystem::copy_file(std::string(SECRETS_DIR) + "/" + file, daemon.modules_dir() + "/" + file);
      daemon.options().modules.push_back({module});
    }
    daemon.options().profile["sensitive-key"] = sensitive;
    daemon.options().working_key = support::provision_key(dir.path());
    plugins_fixture::SetUp();
  }

  static std::string vault(const std::string &content)
  {
    return "<vault xmlns=\"urn:ex-sec\" xmlns:nc=\"urn:ietf:params:xml:ns:netconf:base:1.0\">" + content + "</vault>";
  }
  static std::string user(const std::string &name, const std::string &content)
  {
    return "<user><name>" + name + "</name>" + content + "</user>";
  }
  static std::string edit_vault(const std::string &content, const std::string &target = "running")
  {
    return support::edit_config(target, vault(content));
  }
  // From the daemon's memory, and from Redis.
  void expect_read(const std::string &request, const std::string &part)
  {
    EXPECT_TRUE(contains(session->rpc(request), part)) << part;
    forget_kept();
    EXPECT_TRUE(contains(session->rpc(request), part)) << part;
  }
  void forget_kept() { redis.command(RUNNING_DB, {"SET", "/foreign", "1"}); }
  static std::string filtered(const std::string &content)
  {
    return "<get-config><source><running/></source><filter type=\"subtree\">" + vault(content) +
           "</filter></get-config>";
  }
  // What runs, as a plugin or a thief sees Redis.
  std::string stored(const std::string &key, const std::string &field)
  {
    std::vector<std::string> value = redis.command(RUNNING_DB, {"HGET", key, field});
    return value.empty() || value[0].size() < 8 ? "" : value[0].substr(4, value[0].size() - 8);
  }
  void store(const std::string &key, const std::string &field, const std::string &text)
  {
    redis.command(RUNNING_DB, {"HSET", key, field, std::string("\0\0\0\1", 4) + text + std::string(4, '\0')});
  }
  void expect_nowhere(const std::vector<std::string> &values)
  {
    std::string kept = daemon.log_text();
    for (int db : {RUNNING_DB, CANDIDATE_DB, STARTUP_DB, STATUS_DB, 10, 12}) {
      kept += redis.dump(db);
    }
    for (const std::string &value : values) {
      EXPECT_FALSE(contains(kept, value)) << value << "\n" << kept;
    }
  }
  static constexpr const char *VAULT_KEY = "/ex-sec/vault";
};

} // namespace

TEST_F(secrets, are_kept_as_cipher_text_and_read_back_in_clear)
{
  const std::string anna =
      user("anna", "<password>pa$$&lt;w&gt;&amp;\"o\"</password><pin>0815</pin><token>t-anna</token>"
                   "<otp xmlns=\"urn:ex-sec-more\">otp-anna</otp>");
  ASSERT_TRUE(session->ok(
      edit_vault("<master>open-sesame</master><psk>pre-shared</psk><note>plain</note>" + anna, "candidate")));
  ASSERT_TRUE(session->ok(COMMIT));
  ASSERT_TRUE(session->ok(support::copy_config("startup", "<running/>")));
  for (const std::string &request :
       {support::get_config("running"), support::get_config("startup"), std::string("<get/>"), filtered("")}) {
    for (const char *part : {"<master>open-sesame</master>", "<psk>pre-shared</psk>", "<community>public</community>",
                             "<password>pa$$&lt;w&gt;&amp;", "<pin>815</pin>", ">otp-anna</otp>"}) {
      expect_read(request, part);
    }
  }
  EXPECT_TRUE(stored(VAULT_KEY, "master").starts_with("#%"));
  EXPECT_TRUE(stored("/ex-sec/vault/user[name=\"anna\"]", "pin").starts_with("#%"));
  expect_nowhere({"open-sesame", "pre-shared", "pa$$", "0815", "t-anna", "otp-anna"});
  ASSERT_TRUE(daemon.restart());
  session = &connect();
  EXPECT_TRUE(contains(session->rpc(support::get_config("running")), "<master>open-sesame</master>"));
  // The case goes with its secret; a whole copy brings it back.
  ASSERT_TRUE(session->ok(edit_vault("<certificate>c</certificate>")));
  EXPECT_FALSE(contains(session->rpc(support::get_config("running")), "pre-shared"));
  ASSERT_TRUE(session->ok(support::copy_config("running", "<startup/>")));
  EXPECT_TRUE(contains(session->rpc(support::get_config("running")), "pre-shared"));
}

TEST_F(secrets, wrong_values_are_refused_without_naming_them)
{
  ASSERT_TRUE(session->ok(edit_vault(user("anna", "<password>right</password><pin>7</pin>"))));
  const std::string before = redis.dump(RUNNING_DB);
  for (const char *wrong : {"<password>abc</password>", "<pin>70815</pin>", "<pin/>", "<pin>many-70815</pin>",
                            "<token>with blank</token>", "<password><b>70815</b></password>"}) {
    support::rpc_error_t error = session->error(edit_vault(user("anna", wrong)));
    EXPECT_EQ(error.tag, "invalid-value") << wrong;
    EXPECT_TRUE(error.path.starts_with("/ex-sec:vault/ex-sec:user[ex-sec:name='anna']/ex-sec:")) << error.path;
    EXPECT_EQ(contains(error.message, "0x21 to 0x7E"), contains(wrong, "blank")) << error.message;
    EXPECT_FALSE(contains(error.message, "70815") || contains(error.message, "abc")) << error.message;
  }
  EXPECT_EQ(redis.dump(RUNNING_DB), before);
  expect_nowhere({"70815", "with blank", ">abc<"});
  ASSERT_TRUE(session->ok(edit_vault(user("anna", "<pin nc:operation=\"delete\"/>"))));
  EXPECT_FALSE(contains(session->rpc(support::get_config("running")), "<pin>"));
}

TEST_F(secrets, an_equal_value_is_no_change_and_another_one_is_pulled_in_clear)
{
  ASSERT_TRUE(session->ok(edit_vault("<master>first-value</master><note>n</note>")));
  const std::string first = stored(VAULT_KEY, "master");
  plugin_peer peer = started("peer", "/ex-sec:vault/master", 10);
  const std::string same = "<master>first-value</master>";
  for (const std::string &request :
       {edit_vault(same), edit_vault("<master nc:operation=\"replace\">first-value</master>"), edit_vault(first),
        support::copy_config("running", "<config>" + vault(same + "<note>n</note>") + "</config>")}) {
    (void)session->rpc(request);
    EXPECT_EQ(stored(VAULT_KEY, "master"), first) << request;
  }
  EXPECT_EQ(session->error(edit_vault("<master nc:operation=\"create\">first-value</master>")).tag, "data-exists");
  // There and back again, in candidate: nothing is left to be published.
  ASSERT_TRUE(session->ok(edit_vault("<master>other-value</master>", "candidate")));
  ASSERT_TRUE(session->ok(edit_vault(same, "candidate")));
  ASSERT_TRUE(session->ok(COMMIT));
  ASSERT_TRUE(session->ok(edit_vault("<master nc:operation=\"delete\"/>", "candidate")));
  ASSERT_TRUE(session->ok(edit_vault(same, "candidate")));
  ASSERT_TRUE(session->ok(COMMIT));
  EXPECT_EQ(peer.next(std::chrono::milliseconds(100)).method, "");

  ASSERT_TRUE(session->ok(edit_vault("<master>second-value</master>", "candidate")));
  ASSERT_TRUE(session->send(COMMIT));
  plugin_call_t call = peer.next();
  EXPECT_EQ(call.change(), "4 /ex-sec:vault/master");
  EXPECT_TRUE(contains(peer.pull("/ex-sec:vault/master"), "<master>second-value</master>"));
  EXPECT_TRUE(contains(peer.pull("/ex-sec:vault/master", true), "<master>first-value</master>"));
  peer.accept(call);
  EXPECT_TRUE(support::is_ok(session->receive()));
  expect_nowhere({"first-value", "second-value"});
}

TEST_F(secrets, filters_compare_clear_values)
{
  std::string users;
  for (const char *name : {"anna", "bert"}) {
    users += user(name, std::string("<password>pass-") + name + "</password><pin>7</pin><extra><b a=\"1\"/></extra>");
  }
  ASSERT_TRUE(session->ok(edit_vault("<note>n</note>" + users)));
  const std::string found = "<name>bert</name>";
  for (const std::string &filter :
       {user("", "<password>pass-bert</password>"), user("", "<password> pass-bert </password><pin>007</pin>")}) {
    std::string named = filter;
    named.replace(named.find("<name></name>"), 13, "<name/>");
    for (int round = 0; round < 2; round++) { // from memory, from Redis
      std::string reply = session->rpc(filtered(named));
      EXPECT_TRUE(contains(reply, found) && contains(reply, "<password>pass-bert</password>")) << reply;
      EXPECT_FALSE(contains(reply, "anna")) << reply;
      forget_kept();
    }
  }
  EXPECT_FALSE(contains(session->rpc(filtered("<user><password>pass-</password></user>")), "<user>"));
  expect_nowhere({"pass-"});
}

TEST_F(secrets, conditions_see_clear_values_and_leave_no_trace)
{
  ASSERT_TRUE(session->ok(edit_vault("<master>long-enough</master>")));
  const std::string before = redis.dump(RUNNING_DB);
  const std::string twins = user("a", "<token>same</token>") + user("b", "<token>same</token>");
  for (int round = 0; round < 2; round++) { // by the changes; of the whole
    for (const std::string &wrong : {std::string("<master>short</master>"), std::string("<spare>long-enough</spare>"),
                                     std::string("<spare>x</spare><master>x</master>"), twins}) {
      EXPECT_TRUE(support::find_error(session->rpc(edit_vault(wrong)))) << wrong;
    }
    EXPECT_EQ(redis.dump(RUNNING_DB), before);
    expect_read(support::get_config("running"), "<master>long-enough</master>");
    forget_kept();
    redis.command(RUNNING_DB, {"DEL", "/foreign"});
  }
  EXPECT_FALSE(contains(session->rpc(support::get_config("running")), "<hint>"));
  ASSERT_TRUE(session->ok(edit_vault("<master>open-sesame</master><spare>long-enough</spare>")));
  EXPECT_TRUE(contains(session->rpc(support::get_config("running")), "<hint>of the door</hint>"));
  ASSERT_TRUE(session->ok(edit_vault(user("a", "<token>one</token>") + user("b", "<token>two</token>"))));
  expect_read(support::get_config("running"), "<token>one</token>");
  expect_nowhere({"long-enough", "open-sesame", "<token>one"});
}

TEST_F(secrets, of_state_and_operations_are_protected_too)
{
  ASSERT_TRUE(session->ok(edit_vault(user("anna", "<password>pass-anna</password>"))));
  plugin_peer peer = plugin("peer");
  peer.status("/ex-sec:vault/state").operation("/ex-sec:login").start();
  auto push = [&](const std::string &key) {
    return peer.request("push", "<path>/ex-sec:vault/state</path><data>" +
                                    vault("<state><session-key>" + key + "</session-key><uptime>9</uptime></state>") +
                                    "</data>");
  };
  EXPECT_EQ(push("key-of-session"), "");
  std::string refused = push("bad");
  EXPECT_TRUE(refused.starts_with("ERROR ") && !contains(refused, ">bad<")) << refused;
  ASSERT_TRUE(session->send("<get/>"));
  plugin_call_t call = peer.next();
  peer.accept(call, "");
  EXPECT_TRUE(contains(session->receive(), "<session-key>key-of-session</session-key>"));

  auto login = [](const std::string &password) {
    return "<login xmlns=\"urn:ex-sec\"><password>" + password + "</password></login>";
  };
  EXPECT_NE(session->error(login("pass-nobody")).tag, ""); // no such user: a condition on the configuration
  plugin_peer second = plugin("second");
  second.operation("/ex-sec:login").start();
  ASSERT_TRUE(session->send(login("pass-anna")));
  peer.refuse(peer.next(), 5, "can not");
  call = second.next(); // the request that was kept meanwhile
  EXPECT_TRUE(contains(call.xml, "<password>pass-anna</password>")) << call.xml;
  second.accept(call,
                "<token xmlns=\"urn:ex-sec\">t&lt;o&gt;k&amp;n</token><greeting xmlns=\"urn:ex-sec\">hi</greeting>");
  std::string reply = session->receive();
  EXPECT_TRUE(contains(reply, ">t&lt;o&gt;k&amp;n</token>") && contains(reply, ">hi</greeting>")) << reply;
  ASSERT_TRUE(session->send(login("pass-anna")));
  peer.refuse(peer.next(), 5, "can not");
  second.accept(second.next(), "<token xmlns=\"urn:ex-sec\">bad</token>");
  EXPECT_FALSE(contains(received_error().message, ">bad<"));
  expect_nowhere({"key-of-session", "pass-anna", "pass-nobody", "t&lt;o", "t<o>k"});
}

TEST_F(secrets, cipher_text_elsewhere_stays_and_damaged_one_can_be_overwritten)
{
  ASSERT_TRUE(session->ok(edit_vault("<master>clear-master</master>")));
  const std::string cipher_text = stored(VAULT_KEY, "master");
  std::string escaped;
  for (char c : cipher_text) {
    escaped += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
  }
  // Whoever may write a plain leaf must not learn what a cipher text holds, nor try guesses on it.
  ASSERT_TRUE(session->ok(edit_vault("<note>" + escaped + "</note>")));
  EXPECT_EQ(stored(VAULT_KEY, "note"), cipher_text);
  EXPECT_FALSE(contains(session->rpc(filtered("<note/>")), "clear-master"));
  EXPECT_FALSE(contains(session->rpc(filtered("<note>clear-master</note>")), "<note>"));
  ASSERT_TRUE(session->ok(edit_vault("<note>clear-master</note>")));
  EXPECT_EQ(stored(VAULT_KEY, "note"), "clear-master");
  plugin_peer peer = started("peer", "/ex-sec:vault/certificate", 10);
  const std::string damaged = "#%AAAABBBBCCCCDDDDEEEEFFFF#%";
  store(VAULT_KEY, "psk", damaged);
  expect_read(support::get_config("running"), "<psk>" + damaged + "</psk>");
  EXPECT_TRUE(contains(peer.pull("/ex-sec:vault/psk"), damaged));
  EXPECT_TRUE(contains(daemon.log_text(), "Decrypt text of node(psk) failed."));
  ASSERT_TRUE(session->ok(edit_vault("<psk>mended</psk>")));
  expect_read(support::get_config("running"), "<psk>mended</psk>");
  // Without the key nothing new is taken, and what is there is shown as it is stored.
  std::filesystem::remove(dir.path() + "/table2.key");
  EXPECT_EQ(session->error(edit_vault("<psk>without-key</psk>")).tag, "operation-failed");
  expect_read(filtered("<psk/>"), "<psk>#%");
  EXPECT_TRUE(session->ok(edit_vault("<note>still works</note>")));
  expect_nowhere({"without-key", "mended"});
}

TEST_F(secrets, a_start_is_refused_when_a_leaf_can_not_be_protected)
{
  auto fails_with = [&](const std::string &profile, const std::string &text) {
    daemon.options().profile["sensitive-key"] = profile;
    ASSERT_TRUE(daemon.stop());
    ASSERT_TRUE(daemon.launch());
    EXPECT_TRUE(daemon.wait()) << profile;
    EXPECT_TRUE(contains(daemon.log_text(), text)) << daemon.log_text();
    daemon.options().profile["sensitive-key"] = sensitive;
  };
  fails_with(R"(["/ex-sec:vault/user/name"])", "a list key");
  ASSERT_TRUE(daemon.start());
  fails_with(R"(["/ex-sec:vault/user"])", "no leaf");
  for (auto &module : daemon.options().modules) {
    module.features = module.name == "ex-sec" ? std::vector<std::string>{"mirror"} : module.features;
  }
  daemon.options().profile["sensitive-key"] = R"(["/ex-sec:nowhere"])";
  ASSERT_TRUE(daemon.start());
  EXPECT_TRUE(contains(daemon.log_text(), "Sensitive leaf </ex-sec:nowhere> is not in the schema."));
  fails_with(sensitive, "refers to a sensitive leaf");
  daemon.options().working_key.clear();
  for (auto &module : daemon.options().modules) {
    module.features = module.name == "ex-sec" ? std::vector<std::string>{} : module.features;
  }
  ASSERT_TRUE(daemon.launch());
  EXPECT_TRUE(daemon.wait());
  EXPECT_TRUE(contains(daemon.log_text(), "have sen-k only."));
}

TEST_F(secrets, stored_values_follow_the_profile)
{
  std::string &key_list = daemon.options().profile["sensitive-key"];
  const std::string protected_leaves = std::exchange(key_list, "[]");
  ASSERT_TRUE(daemon.restart());
  session = &connect();
  ASSERT_TRUE(session->ok(
      edit_vault("<master>open-sesame</master><psk>#%look-alike#%</psk>" + user("anna", "<pin>8151</pin>"))));
  ASSERT_TRUE(session->ok(support::copy_config("startup", "<running/>")));
  EXPECT_EQ("open-sesame", stored(VAULT_KEY, "master"));

  key_list = protected_leaves;
  for (bool is_smooth : {false, true}) { // an ordinary start finds them in startup, a smooth one in running
    if (is_smooth) {
      store(VAULT_KEY, "master", "open-sesame");
      redis.command(RUNNING_DB, {"DEL", "ymgrd-sensitive"});
      daemon.options().arguments = {"--smooth"};
    }
    ASSERT_TRUE(daemon.restart());
    session = &connect();
    expect_nowhere({"open-sesame", "8151", "look-alike"});
    EXPECT_TRUE(contains(session->rpc(support::get_config("running")), "<master>open-sesame</master>"));
    EXPECT_TRUE(contains(session->rpc(filtered(user("anna", "<pin/>"))), "<pin>8151</pin>"));
  }

  // What a module that is not loaded has left in startup stays cipher text, although the profile names it no more.
  ASSERT_TRUE(session->ok(edit_vault(user("anna", "<otp xmlns=\"urn:ex-sec-more\">once-only</otp>"))));
  ASSERT_TRUE(session->ok(support::copy_config("startup", "<running/>")));
  daemon.options().arguments.clear();
  std::erase_if(daemon.options().modules, [](const auto &module) { return module.name == "ex-sec-more"; });
  key_list = std::regex_replace(protected_leaves, std::regex("[^,]*more:otp\","), "");
  ASSERT_TRUE(daemon.restart());
  expect_nowhere({"once-only"});
  daemon.options().modules.push_back({"ex-sec-more"});
  key_list = protected_leaves;
  ASSERT_TRUE(daemon.restart());
  session = &connect();
  EXPECT_TRUE(contains(session->rpc(support::get_config("running")), ">once-only</otp>"));

  // One that cannot be decrypted keeps this conversion from its end, as a kill would: the next one has all to do.
  store(VAULT_KEY, "spare", "#%damaged#%");
  daemon.options().arguments.clear();
  for (bool is_protected : {false, true}) {
    key_list = is_protected ? protected_leaves : "[]";
    ASSERT_TRUE(daemon.restart());
    session = &connect();
    EXPECT_EQ(is_protected, "open-sesame" != stored(VAULT_KEY, "master"));
    EXPECT_TRUE(contains(session->rpc(support::get_config("running")), "<pin>8151</pin>"));
  }
}
