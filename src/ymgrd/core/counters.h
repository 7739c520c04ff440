// What the daemon has done since its start; each component counts its own.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>

typedef struct _daemon_counters {
  uint64_t sessions = 0;        // opened
  uint64_t requests = 0;        // received
  uint64_t errors = 0;          // replies
  uint64_t commits = 0;         // changes of running that took effect
  uint64_t changes_refused = 0; // changes of running with which a subscriber did not agree
  uint64_t rollbacks = 0;       // those of them that were taken back
  time_t last_change = 0;       // of running; 0 before the first
  uint64_t notifications_sent = 0;
  uint64_t notifications_missed = 0;
  std::map<std::string, uint64_t, std::less<>> operations; // requests of those that somebody performs: "/MODULE:NAME"
} daemon_counters_t;

inline daemon_counters_t g_daemon_counters;
