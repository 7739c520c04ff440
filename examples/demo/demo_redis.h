// Looking at the datastores in Redis, the way any other process of the device may: with plain commands.
#pragma once

#include <map>
#include <string>

#include "libredisapi/redisapi.h"

enum { DEMO_STARTUP_DB = 2, DEMO_RUNNING_DB = 4, DEMO_CANDIDATE_DB = 6 }; // Redis database numbers

// Key of each stored record, with its content as text: fields of hashes sorted by name, lists in their order. The
// daemon's own notes ("ymgrd-...") are left out.
typedef std::map<std::string, std::string> demo_keys_t;

// 0, or -1 when Redis does not answer.
int demo_read_keys(rContext *redis, int db, demo_keys_t *ret_keys);
