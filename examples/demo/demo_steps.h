// The demo's steps: each asks, prints what came back, and says whether it was right.
#pragma once

#include <string>

#include "client/client.h"
#include "demo_redis.h"

typedef struct _demo {
  std::string run_dir;
  ymgr_client_ptr client;
  redis_connection_ptr redis;
  int step = 0;
  int wrong = 0;
} demo_t;

void begin_step(demo_t *demo, const char *what);
void expect(demo_t *demo, bool right, const std::string &what);
// Sends one operation and prints both sides. The reply, empty when none came.
std::string ask_in(demo_t *demo, ymgr_client_t *client, const std::string &operation);
std::string ask(demo_t *demo, const std::string &operation);
std::string edit_candidate(demo_t *demo, const std::string &config);
std::string get_config(demo_t *demo, const std::string &source);
bool is_ok(const std::string &reply);
