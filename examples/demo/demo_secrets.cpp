#include "demo_secrets.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "demo_xml.h"

namespace {

constexpr const char SECRET[] = "k3y-0f-the-clock";
constexpr const char SERVER_KEY[] = R"(/ex-sys/system/ex-ext:ntp/server[address="192.0.2.123"])";

std::string server(const std::string &content)
{
  return R"(<system xmlns="urn:ex-sys"><ntp xmlns="urn:ex-ext"><server>)" + content + "</server></ntp></system>";
}

// All that Redis keeps of the datastores.
std::string stored_text(demo_t *demo)
{
  std::string text;
  for (int db : {DEMO_STARTUP_DB, DEMO_RUNNING_DB, DEMO_CANDIDATE_DB}) {
    demo_keys_t keys;
    expect(demo, demo_read_keys(demo->redis.get(), db, &keys) == 0, "Redis answers");
    for (const auto &[key, content] : keys) {
      text.append(key).append(content);
    }
  }
  return text;
}

void set(demo_t *demo)
{
  begin_step(demo, "commit: a leaf that the profile names as sensitive");
  (void)edit_candidate(demo, server(std::string("<address>192.0.2.123</address><key>") + SECRET + "</key>"));
  expect(demo, is_ok(ask(demo, "<commit/>")), "it is accepted");
  demo_keys_t running;
  (void)demo_read_keys(demo->redis.get(), DEMO_RUNNING_DB, &running);
  std::printf("   %s\n      %s\n", SERVER_KEY, running[SERVER_KEY].c_str());
  expect(demo, running[SERVER_KEY].find("#%") != std::string::npos, "Redis holds cipher text");
  expect(demo, stored_text(demo).find(SECRET) == std::string::npos, "and the clear value nowhere");

  begin_step(demo, "edit-config: too short for its type");
  std::string refused = edit_candidate(demo, server("<address>192.0.2.123</address><key>short</key>"));
  expect(demo, demo_text(refused, {"rpc-error", "error-tag"}) == "invalid-value", "it is refused");
}

void read(demo_t *demo, const std::string &log_path)
{
  begin_step(demo, "get-config: who has this key?");
  std::string found = ask(demo, "<get-config><source><running/></source><filter type=\"subtree\">" +
                                    server(std::string("<key>") + SECRET + "</key>") + "</filter></get-config>");
  expect(demo, demo_text(found, {"data", "system", "ntp", "server", "address"}) == "192.0.2.123",
         "a filter with the clear value finds the server");
  expect(demo, demo_text(found, {"data", "system", "ntp", "server", "key"}) == SECRET,
         "and the value is told in clear");
  std::ifstream log(log_path);
  std::ostringstream text;
  text << log.rdbuf();
  expect(demo, text.str().find("get-config") != std::string::npos, "the daemon's log has the request");
  expect(demo, text.str().find(SECRET) == std::string::npos, "but the value nowhere");
}

} // namespace

void demo_secrets(demo_t *demo, const std::string &log_path)
{
  set(demo);
  read(demo, log_path);
}
