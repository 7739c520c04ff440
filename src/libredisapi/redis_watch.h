// Notices writes that other processes make, so that what was read need not be read again (Redis client-side caching in
// broadcasting mode, with invalidation messages on a connection of their own).
#pragma once

#include <memory>

#include "libredisapi/redisapi.h"

typedef struct _redis_watch redis_watch_t;

// Watches all keys that begin with `prefix`, in every database of the server at `address`. Connects at first use.
redis_watch_t *redis_watch_create(const char *address, const char *prefix);
void redis_watch_destroy(redis_watch_t *watch);
struct redis_watch_delete_t {
  void operator()(redis_watch_t *watch) const { redis_watch_destroy(watch); }
};
using redis_watch_ptr = std::unique_ptr<redis_watch_t, redis_watch_delete_t>;

// The connection for the watcher's own writes: they are not noticed, those of all other connections are. `db` is
// selected. Borrowed; null when the server is not there.
rContext *redis_watch_writer(redis_watch_t *watch, int db);

typedef enum _redis_seen {
  REDIS_SEEN_NOTHING = 0, // nobody else wrote since the last call
  REDIS_SEEN_WRITES = 1,  // somebody did, or may have: the watch has just begun, or had lost its connection
} redis_seen_t;
// Every write that the server answered before this call is seen by it. One round trip.
redis_seen_t redis_watch_poll(redis_watch_t *watch);
