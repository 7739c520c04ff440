#include "demo_steps.h"

#include <cstdio>

#include "demo_xml.h"

void begin_step(demo_t *demo, const char *what)
{
  std::printf("\n== %d. %s\n", ++demo->step, what);
}

void expect(demo_t *demo, bool right, const std::string &what)
{
  std::printf("   [%s] %s\n", right ? "right" : "WRONG", what.c_str());
  demo->wrong += right ? 0 : 1;
}

std::string ask_in(demo_t *demo, ymgr_client_t *client, const std::string &operation)
{
  std::printf("   asked:\n%s", demo_pretty(operation, "      ").c_str());
  std::optional<std::string> reply = ymgr_rpc(client, operation);
  if (!reply.has_value()) {
    expect(demo, false, "a reply comes: " + ymgr_last_error(client));
    return {};
  }
  std::printf("   came back:\n%s", demo_pretty(*reply, "      ").c_str());
  return *reply;
}

std::string ask(demo_t *demo, const std::string &operation)
{
  return ask_in(demo, demo->client.get(), operation);
}

std::string edit_candidate(demo_t *demo, const std::string &config)
{
  return ask(demo, "<edit-config><target><candidate/></target><config>" + config + "</config></edit-config>");
}

std::string get_config(demo_t *demo, const std::string &source)
{
  return ask(demo, "<get-config><source><" + source + "/></source></get-config>");
}

bool is_ok(const std::string &reply)
{
  return demo_texts(reply, {"ok"}).size() == 1;
}
