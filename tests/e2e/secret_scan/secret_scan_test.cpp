// What is secret is found nowhere in clear once the requests that brought it are over.
#include <filesystem>
#include <random>

#include "e2e/secret_scan/secret_scan.h"
#include "support/daemon_test.h"
#include "support/plugin_peer.h"
#include "support/working_key.h"
#include "ymgrd/core/wiping_heap.h"

using support::COMMIT;
using support::DISCARD_CHANGES;
using support::plugin_peer;

namespace {

std::string vault(const std::string &content)
{
  return "<vault xmlns=\"urn:ex-vault\">" + content + "</vault>";
}

std::string door(const std::string &pin, const std::string &more = "", const std::string &name = "a")
{
  return vault("<door><name>" + name + "</name><pin>" + pin + "</pin>" + more + "</door>");
}

std::string edit(const std::string &content)
{
  return support::edit_config("candidate", content);
}

std::string filtered(const std::string &content)
{
  return "<get-config><source><running/></source><filter>" + content + "</filter></get-config>";
}

} // namespace

class secrets : public support::daemon_test {
public:
  void SetUp() override
  {
    if (!WIPING_HEAP_IS_POSSIBLE) {
      GTEST_SKIP() << "a sanitizer's allocator keeps what is freed";
    }
    std::filesystem::copy(VAULT_MODULE, daemon.modules_dir());
    daemon.options().modules.push_back({"ex-vault"});
    daemon.options().profile["sensitive-key"] =
        R"(["/ex-vault:vault/door/pin", "/ex-vault:open/pin", "/ex-vault:open/token", "/ex-vault:vault/seen/pin"])";
    daemon.options().working_key = support::provision_key(dir.path());
    ASSERT_TRUE(daemon.start());
    session = &connect();
    redis.command(0, {"CONFIG", "SET", "rdbcompression", "no"});
  }

  // A new value, as it stands in XML. Short ones live inside objects, long ones in blocks of their own.
  std::string pin()
  {
    std::uniform_int_distribution<int> character(0x28, 0x7e);
    std::uniform_int_distribution<size_t> length(7, ++count_ % 2 == 0 ? 16 : 200);
    std::string value(length(random_), ' ');
    for (char &c : value) {
      c = static_cast<char>(character(random_));
    }
    scan.add(value);
    return scan.in_xml(value);
  }
  std::string word() // that may be taken for a name
  {
    std::string value = "w" + std::to_string(random_()) + std::to_string(random_());
    scan.add(value);
    return value;
  }

  void change_and_read();
  void ask_in_vain();
  void use_plugin();
  void go_in_the_middle();
  std::vector<std::string> look_everywhere();

  std::mt19937_64 random_{std::random_device()()};
  size_t count_ = 0;
  secret_scan scan;
  support::netconf_session *session = nullptr;
};

void secrets::change_and_read()
{
  for (int i = 0; i < 40; i++) {
    std::string value = pin();
    ASSERT_TRUE(session->ok(edit(door(value) + door(pin(), "", "b"))));
    ASSERT_TRUE(session->ok(i % 4 == 3 ? DISCARD_CHANGES : COMMIT));
    if (i % 4 == 1) {
      redis.command(RUNNING_DB, {"SET", "/foreign", "1"}); // from here on Redis is read
    }
    bool is_there = i % 4 != 3;
    EXPECT_EQ(contains(session->rpc(support::get_config("running")), "<pin>" + value), is_there);
    EXPECT_EQ(contains(session->rpc(filtered(door(value))), "<pin>" + value), is_there);
    EXPECT_TRUE(contains(session->rpc("<get><filter>" + vault("<door><pin/></door>") + "</filter></get>"), "<pin>"));
  }
  EXPECT_TRUE(session->ok(support::copy_config("candidate", "<config>" + door(pin()) + "</config>")));
  EXPECT_TRUE(session->ok(COMMIT));
  EXPECT_TRUE(session->ok(support::copy_config("startup", "<running/>")));
  session->rpc(filtered(door(pin())));
  session->rpc("<get><filter>" + door(pin()) + "</filter></get>");
}

void secrets::ask_in_vain()
{
  for (const std::string &content :
       {door(pin() + " "), door(pin() + "\n" + pin()), door(pin(), "<level>none</level>"), door(pin(), "<unknown/>"),
        door(pin() + "<i>" + pin() + "</i>"), vault("<pin>" + pin() + "</pin>"),
        "<door xmlns=\"urn:none\"><pin>" + pin() + "</pin></door>"}) {
    session->error(edit(content));
    session->error(filtered(door(pin(), "<unknown/>")));
  }
  EXPECT_TRUE(session->ok(edit(door("#%" + pin() + "#%")))); // looks like cipher text
  std::string same = pin();
  session->error(edit(door(same, "", "c") + door(same, "", "d"))); // unique
  ASSERT_TRUE(session->ok(DISCARD_CHANGES));
  for (std::string form : {"a&%;b", "%]]>", "<![CDATA[%", "<!-- %", "<?% %", "%\x01", "a<%/>b", "a<%", "<% y=''"}) {
    session->error(edit(door(form.replace(form.find('%'), 1, word()))));
  }
}

void secrets::use_plugin()
{
  plugin_peer peer(daemon.run_dir(), "keeper");
  peer.config("/ex-vault:vault", 1).status("/ex-vault:vault/seen").operation("/ex-vault:open");
  (void)peer.start();
  for (bool is_accepted : {true, false, true, false}) {
    std::string value = pin();
    ASSERT_TRUE(session->ok(edit(door(value))));
    ASSERT_TRUE(session->send(COMMIT));
    support::plugin_call_t call = peer.next();
    EXPECT_TRUE(contains(peer.pull("/ex-vault:vault/door[name=\"a\"]/pin"), value));
    (void)peer.pull("/ex-vault:vault", true);
    is_accepted ? peer.accept(call) : peer.refuse(call, 1, "no");
    (void)session->receive();
  }
  std::string given = pin();
  std::string token = pin();
  ASSERT_TRUE(session->send("<open xmlns=\"urn:ex-vault\"><name>a</name><pin>" + given + "</pin></open>"));
  support::plugin_call_t call = peer.next();
  EXPECT_TRUE(contains(call.xml, given));
  peer.accept(call, "<token xmlns=\"urn:ex-vault\">" + token + "</token>");
  EXPECT_TRUE(contains(session->receive(), token));
  auto push = [&](const std::string &content) {
    std::string data = vault("<seen><pin>" + content + "</pin></seen>");
    return peer.request("push", "<path>/ex-vault:vault/seen</path><data>" + data + "</data>");
  };
  EXPECT_EQ(push(pin()), "");
  (void)push(pin() + "</seen>" + pin()); // no XML
  (void)push("a&" + word() + ";");
  ASSERT_TRUE(session->send("<get/>"));
  peer.accept(peer.next(), vault("<seen><pin>" + pin() + "</pin></seen>"));
  EXPECT_TRUE(contains(session->receive(), "<seen>"));
}

// Connections that end within a message.
void secrets::go_in_the_middle()
{
  std::string unfinished = word() + word();
  auto is_in_memory = [&] {
    std::vector<std::string> places;
    scan.look(daemon.pid(), &places);
    return !places.empty();
  };
  std::string frame = ymgr_frame(support::rpc_of(edit(door(unfinished))), 7);
  frame.resize(frame.size() - 10);
  support::netconf_session &other = connect("other");
  ASSERT_TRUE(ymgr_send_raw(other.client(), frame));
  EXPECT_TRUE(support::wait_until(is_in_memory)) << "what is not found here would not be found anywhere";
  other.close();
  EXPECT_TRUE(support::wait_until([&] { return !is_in_memory(); }));
  plugin_peer peer(daemon.run_dir(), "gone");
  peer.send_raw(frame);
  EXPECT_TRUE(support::wait_until(is_in_memory));
}

std::vector<std::string> secrets::look_everywhere()
{
  std::vector<std::string> places;
  scan.look(daemon.pid(), &places);
  std::string server = redis.command(0, {"INFO", "server"}).at(0);
  scan.look(std::atoi(server.c_str() + server.find("process_id:") + std::strlen("process_id:")), &places);
  redis.command(0, {"SAVE"});
  for (const auto &entry : std::filesystem::recursive_directory_iterator(dir.path())) {
    if (entry.is_regular_file()) {
      scan.look(entry.path(), support::read_file(entry.path()), &places);
    }
  }
  return places;
}

TEST_F(secrets, are_nowhere_in_memory_database_and_log)
{
  for (auto act :
       {&secrets::go_in_the_middle, &secrets::change_and_read, &secrets::use_plugin, &secrets::ask_in_vain}) {
    (this->*act)();
    std::vector<std::string> places;
    (void)support::wait_until([&] { return (places = look_everywhere()).empty(); }, std::chrono::seconds(5));
    for (const std::string &place : places) {
      ADD_FAILURE() << place;
    }
  }
}
