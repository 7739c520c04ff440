// What the daemon has done since its start; each component counts its own.
#pragma once

#include <cstdint>

typedef struct _daemon_counters {
  uint64_t requests = 0; // received
  uint64_t errors = 0;   // replies
  uint64_t commits = 0;  // changes of running that took effect
} daemon_counters_t;

inline daemon_counters_t g_daemon_counters;
