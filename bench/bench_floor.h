// What cannot be beaten by whoever uses these libraries: the same document through libyang alone, the same hashes
// through Redis alone, and messages between two threads that do nothing with them.
#pragma once

#include <string>

typedef struct _bench_yang_floor {
  double parse_ms = 0;
  double validate_ms = 0;
  double print_ms = 0;
} bench_yang_floor_t;

// Parses, validates and prints the document in this process. 0 or -1.
int bench_yang_floor(const std::string &document, bench_yang_floor_t *ret_floor);

typedef struct _bench_redis_floor {
  size_t hashes = 0;
  double read_ms = 0;
} bench_redis_floor_t;

// Reads all hashes of the Redis database `db` with pipelined HGETALL. 0 or -1.
int bench_redis_floor(const std::string &socket, int db, bench_redis_floor_t *ret_floor);

// Sends a change to the same peers as the daemon does, over `socks` connections in turn, and awaits each answer.
// Microseconds of one to and fro; -1 on failure.
double bench_message_floor(int socks);
