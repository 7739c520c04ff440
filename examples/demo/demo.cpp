// The main job of an agent against a running daemon: edits candidate, commits, reads running back. Prints what was
// asked, what came back and which Redis keys stand, and ends with 0 only when all of it was right.
// Two plugins are expected to run, which keep their files below ROOT; LOG is the daemon's log.
//   ymgr-demo RUN_DIR REDIS_SOCKET ROOT LOG
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

#include "demo_events.h"
#include "demo_plugins.h"
#include "demo_redis.h"
#include "demo_secrets.h"
#include "demo_steps.h"
#include "demo_xml.h"

namespace {

constexpr const char FIRST_EDIT[] = R"(
  <system xmlns="urn:ex-sys">
    <hostname>gw-north</hostname>
    <location>Rack 7, shelves 2 &amp; 3</location>
    <logging><level>warning</level></logging>
    <user>
      <name>ada</name><full-name>Ada "the first" L.</full-name><uid>1001</uid>
      <key><index>1</index><type xmlns:ext="urn:ex-ext">ext:ecdsa</type><data>AAAAE2VjZHNh</data></key>
      <quota xmlns="urn:ex-ext">500</quota>
    </user>
    <user><name>ben</name><uid>1002</uid></user>
    <primary-user>ada</primary-user>
    <dns>192.0.2.53</dns>
    <dns>2001:db8::53</dns>
    <tag>edge</tag>
    <rule><id>web</id><action>permit</action><port>443</port><port>80</port></rule>
    <ntp xmlns="urn:ex-ext"><server><address>192.0.2.123</address><prefer>true</prefer></server></ntp>
  </system>
  <routes xmlns="urn:ex-sys">
    <route><dest>198.51.100.0</dest><mask>24</mask><next-hop>192.0.2.1</next-hop></route>
  </routes>)";

constexpr const char STATIC_CASE[] =
    R"(<system xmlns="urn:ex-sys"><ntp-server>time.example.net</ntp-server><gateway>192.0.2.1</gateway></system>)";
constexpr const char DHCP_CASE[] =
    R"(<system xmlns="urn:ex-sys"><dhcp><client-id>gw-north</client-id></dhcp></system>)";
constexpr const char DNS_FIRST[] = R"(
  <system xmlns="urn:ex-sys" xmlns:yang="urn:ietf:params:xml:ns:yang:1">
    <dns yang:insert="first">198.51.100.53</dns>
  </system>)";

demo_keys_t read_keys(demo_t *demo, int db)
{
  demo_keys_t keys;
  if (demo_read_keys(demo->redis.get(), db, &keys) != 0) {
    expect(demo, false, "Redis answers");
  }
  return keys;
}

void show_keys(demo_t *demo, const char *name, int db)
{
  demo_keys_t keys = read_keys(demo, db);
  std::printf("   Redis database %d (%s) holds %zu keys%s\n", db, name, keys.size(), keys.empty() ? "" : ":");
  for (const auto &[key, content] : keys) {
    std::printf("      %s\n         %s\n", key.c_str(), content.c_str());
  }
}

void open_session(demo_t *demo)
{
  begin_step(demo, "create-session: the connection becomes the session of a user");
  std::string reply =
      ask(demo, R"(<create-session xmlns="com:zentra:netconf:private:opal:device:ymgrd"><username>demo</username>)"
                "<agent-ppid>" +
                    std::to_string(getpid()) + "</agent-ppid></create-session>");
  expect(demo, !demo_text(reply, {"session-id"}).empty(), "the session has an id");
}

void ask_capabilities(demo_t *demo)
{
  begin_step(demo, "get-capability: what an agent announces to its client");
  std::string reply = ask(demo, R"(<get-capability xmlns="com:zentra:netconf:private:opal:device:ymgrd"/>)");
  bool has_sample = false;
  for (const std::string &capability : demo_texts(reply, {"capabilities", "capability"})) {
    has_sample = has_sample || capability.find("module=ex-sys") != std::string::npos;
  }
  expect(demo, has_sample, "the sample module is among the capabilities");
}

void edit(demo_t *demo)
{
  begin_step(demo, "edit-config of candidate: containers, lists, leaf-lists, a leafref, an augment");
  expect(demo, is_ok(edit_candidate(demo, FIRST_EDIT)), "the edit is accepted");

  begin_step(demo, "edit-config of candidate: one case of a choice");
  expect(demo, is_ok(edit_candidate(demo, STATIC_CASE)), "the edit is accepted");
  begin_step(demo, "edit-config of candidate: the other case takes its place");
  expect(demo, is_ok(edit_candidate(demo, DHCP_CASE)), "the edit is accepted");
  begin_step(demo, "edit-config of candidate: a name server before all others");
  expect(demo, is_ok(edit_candidate(demo, DNS_FIRST)), "the edit is accepted");

  begin_step(demo, "get-config of candidate and running: nothing is in force yet");
  std::string candidate = get_config(demo, "candidate");
  expect(demo, demo_data_holds(candidate, FIRST_EDIT), "candidate holds the first edit");
  expect(demo, demo_data_holds(candidate, DHCP_CASE), "candidate holds the new case");
  expect(demo, demo_text(candidate, {"data", "system", "ntp-server"}).empty(), "the old case has gone");
  expect(demo, demo_data_is_empty(get_config(demo, "running")), "running is empty");
  show_keys(demo, "candidate", DEMO_CANDIDATE_DB);
  show_keys(demo, "running", DEMO_RUNNING_DB);
  expect(demo, read_keys(demo, DEMO_RUNNING_DB).empty(), "no key of running stands in Redis");
}

void commit(demo_t *demo)
{
  begin_step(demo, "commit: candidate becomes running");
  expect(demo, is_ok(ask(demo, "<commit/>")), "the commit is accepted");

  begin_step(demo, "get-config of running");
  std::string running = get_config(demo, "running");
  expect(demo, demo_data_holds(running, FIRST_EDIT), "running holds the first edit");
  expect(demo, demo_data_holds(running, DHCP_CASE), "running holds the chosen case");
  expect(demo, demo_text(running, {"data", "system", "gateway"}).empty(), "the other case is not there");
  const std::vector<std::string> order = {"198.51.100.53", "192.0.2.53", "2001:db8::53"};
  expect(demo, demo_texts(running, {"data", "system", "dns"}) == order,
         "the name servers stand in the order asked for");
  show_keys(demo, "running", DEMO_RUNNING_DB);
  expect(demo, read_keys(demo, DEMO_RUNNING_DB) == read_keys(demo, DEMO_CANDIDATE_DB),
         "candidate and running hold the same keys");
}

void read_parts(demo_t *demo)
{
  begin_step(demo, "get-config with a filter: one user, named by the key, and the rules");
  std::string part = ask(demo, R"(<get-config><source><running/></source><filter type="subtree">)"
                               R"(<system xmlns="urn:ex-sys"><user><name>ada</name><uid/></user><rule/></system>)"
                               "</filter></get-config>");
  expect(demo, demo_text(part, {"data", "system", "user", "uid"}) == "1001", "the leaf that was asked for is there");
  expect(demo, demo_texts(part, {"data", "system", "user", "name"}).size() == 1, "the other user is not");
  expect(demo, demo_texts(part, {"data", "system", "rule", "port"}).size() == 2, "the rules are whole");
  expect(demo, demo_text(part, {"data", "system", "hostname"}).empty(), "nothing else is there");

  begin_step(demo, "get: the daemon's own state");
  std::string state = ask(demo, R"(<get><filter type="subtree">)"
                                R"(<daemon xmlns="com:zentra:netconf:private:opal:device:ymgrd"/></filter></get>)");
  expect(demo, demo_text(state, {"data", "daemon", "session", "username"}) == "demo", "this session is in it");
}

void lock(demo_t *demo)
{
  const std::string target = "<target><candidate/></target>";
  const std::string change = "<edit-config>" + target +
                             R"(<config><system xmlns="urn:ex-sys"><location>Rack 8</location></system></config>)"
                             "</edit-config>";
  begin_step(demo, "lock: another session takes candidate for itself");
  ymgr_client_ptr other = ymgr_connect(demo->run_dir, nullptr);
  if (other == nullptr || !ymgr_create_session(other.get(), "other").has_value()) {
    expect(demo, false, "a second session opens");
    return;
  }
  expect(demo, is_ok(ask_in(demo, other.get(), "<lock>" + target + "</lock>")), "it gets the lock");
  std::string refused = ask(demo, change);
  expect(demo, demo_text(refused, {"rpc-error", "error-message"}) == "Target datastore has been locked.",
         "this session's edit is refused");

  begin_step(demo, "the other session ends without unlock");
  (void)ask_in(demo, other.get(), "<close-session/>");
  expect(demo, is_ok(ask(demo, "<lock>" + target + "</lock>")), "the lock is free again");
  expect(demo, is_ok(ask(demo, "<unlock>" + target + "</unlock>")), "and given back");
}

void save(demo_t *demo)
{
  begin_step(demo, "edit-config with test-option test-only: checked, not done");
  const demo_keys_t before = read_keys(demo, DEMO_CANDIDATE_DB);
  expect(demo,
         is_ok(ask(demo, "<edit-config><target><candidate/></target><test-option>test-only</test-option><config>"
                         R"(<system xmlns="urn:ex-sys"><port>22</port></system></config></edit-config>)")),
         "the change would be accepted");
  expect(demo, read_keys(demo, DEMO_CANDIDATE_DB) == before, "no key of candidate has changed");

  begin_step(demo, "copy-config of running to startup: what the next start begins with");
  expect(demo, is_ok(ask(demo, "<copy-config><target><startup/></target><source><running/></source></copy-config>")),
         "the copy is made");
  expect(demo, read_keys(demo, DEMO_STARTUP_DB) == read_keys(demo, DEMO_RUNNING_DB),
         "startup and running hold the same keys");
}

void refuse(demo_t *demo, const char *what, const std::string &config, const std::string &tag)
{
  begin_step(demo, what);
  const demo_keys_t running = read_keys(demo, DEMO_RUNNING_DB);
  const demo_keys_t candidate = read_keys(demo, DEMO_CANDIDATE_DB);
  std::string reply = edit_candidate(demo, config);
  expect(demo, demo_texts(reply, {"rpc-error"}).size() == 1, "exactly one rpc-error comes back");
  expect(demo, demo_text(reply, {"rpc-error", "error-tag"}) == tag, "its tag is " + tag);
  expect(demo, !demo_text(reply, {"rpc-error", "error-path"}).empty(), "it says where");
  expect(demo, !demo_text(reply, {"rpc-error", "error-message"}).empty(), "it says why");
  expect(demo, read_keys(demo, DEMO_RUNNING_DB) == running, "no key of running has changed");
  expect(demo, read_keys(demo, DEMO_CANDIDATE_DB) == candidate, "no key of candidate has changed");
}

void discard(demo_t *demo)
{
  begin_step(demo, "edit-config of candidate: a change that is not meant to last");
  expect(
      demo,
      is_ok(edit_candidate(demo, R"(<system xmlns="urn:ex-sys" xmlns:nc="urn:ietf:params:xml:ns:netconf:base:1.0">)"
                                 R"(<hostname>gw-south</hostname><user nc:operation="delete"><name>ben</name></user>)"
                                 "</system>")),
      "the edit is accepted");
  std::string edited = get_config(demo, "candidate");
  expect(demo, demo_text(edited, {"data", "system", "hostname"}) == "gw-south", "candidate has the new name");
  expect(demo, demo_texts(edited, {"data", "system", "user", "name"}) == std::vector<std::string>{"ada"},
         "candidate has lost the user");

  begin_step(demo, "discard-changes: candidate is running again");
  expect(demo, is_ok(ask(demo, "<discard-changes/>")), "the request is accepted");
  std::string restored = get_config(demo, "candidate");
  expect(demo, demo_data_holds(restored, FIRST_EDIT), "candidate holds what was committed");
  expect(demo, read_keys(demo, DEMO_RUNNING_DB) == read_keys(demo, DEMO_CANDIDATE_DB),
         "candidate and running hold the same keys");
}

void close_session(demo_t *demo)
{
  begin_step(demo, "close-session");
  expect(demo, is_ok(ask(demo, "<close-session/>")), "the session ends in order");
}

} // namespace

int main(int argc, char **argv)
{
  if (argc != 5) {
    std::fprintf(stderr, "usage: ymgr-demo RUN_DIR REDIS_SOCKET ROOT LOG\n");
    return 2;
  }
  // A peer that ends shows as a failed write, not as the end of this program.
  std::signal(SIGPIPE, SIG_IGN);
  redis_set_logger([](const char *text) { std::fprintf(stderr, "ymgr-demo: %s\n", text); });

  demo_t demo;
  demo.run_dir = argv[1];
  std::string reason;
  demo.client = ymgr_connect(argv[1], &reason);
  if (demo.client == nullptr) {
    std::fprintf(stderr, "ymgr-demo: %s\n", reason.c_str());
    return 1;
  }
  demo.redis.reset(redis_connect(argv[2]));
  if (demo.redis == nullptr) {
    std::fprintf(stderr, "ymgr-demo: no Redis at %s\n", argv[2]);
    return 1;
  }

  open_session(&demo);
  ask_capabilities(&demo);
  edit(&demo);
  commit(&demo);
  refuse(&demo, "edit-config of candidate: a port that does not exist is refused",
         R"(<system xmlns="urn:ex-sys"><hostname>changed</hostname><port>70000</port></system>)", "invalid-value");
  refuse(&demo, "edit-config of candidate: a reference to nobody is refused",
         R"(<system xmlns="urn:ex-sys"><hostname>changed</hostname><primary-user>nobody</primary-user></system>)",
         "data-missing");
  discard(&demo);
  read_parts(&demo);
  lock(&demo);
  save(&demo);
  demo_plugins(&demo, argv[3]);
  demo_secrets(&demo, argv[4]);
  demo_events(&demo);
  close_session(&demo);

  if (demo.wrong != 0) {
    std::printf("\nSome steps were WRONG.\n");
  }
  return demo.wrong == 0 ? 0 : 1;
}
