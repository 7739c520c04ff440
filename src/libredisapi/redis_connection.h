// What the sources of this library share: the connection's state and how a loss is handled. Not for users of the
// library.
#pragma once

#include <memory>
#include <string>

#include "libredisapi/redis_reply_arena.h"
#include "libredisapi/redisapi.h"

struct redis_link_delete_t {
  void operator()(redisContext *link) const { redisFree(link); }
};

struct _rContext {
  std::string address;
  redis_reply_arena replies;                               // of the batch that runs
  std::unique_ptr<redisContext, redis_link_delete_t> link; // null after a loss
  int db = 0;
  uint64_t serial = 0; // grows with each link
};

void redis_log(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Reports why the link failed and drops it: what is queued on it cannot be told from what the server has done.
void redis_drop_link(rContext *connection, const char *during);
