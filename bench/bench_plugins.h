// What plugins cost: each change that they hear of, the restore of one that has just started, state, operations.
#pragma once

#include "bench_device.h"
#include "client/client.h"

constexpr int BENCH_PLUGINS_FEW = 8;
constexpr int BENCH_PLUGINS_MANY = 32;

// One leaf edited and committed.
typedef struct _bench_commit {
  double ms = 0;     // median
  double cpu_ms = 0; // of the daemon, mean: hardly disturbed by what else the machine does
} bench_commit_t;

typedef struct _bench_plugins {
  // While so many plugins are handed the change.
  bench_commit_t none;
  bench_commit_t one;
  bench_commit_t few;
  bench_commit_t many;
  bench_commit_t pulling; // many, and each reads the changed entry

  double come_ms = 0;         // many register 200 subscriptions each and are ready
  double subscribed_ms = 0;   // one leaf edited and committed then; one subscription of each plugin is concerned
  double all_parts_ms = 0;    // the same when all 200 subscriptions of each are concerned
  int descriptors_before = 0; // of the daemon, without a plugin, and after they came, worked and went
  int descriptors_after = 0;
  double resident_before_mb = 0;
  double resident_after_mb = 0;

  double restore_entries_ms = 0;   // a subscription to the list: a message for each entry
  double restore_container_ms = 0; // a subscription to the container: one message
  double pull_ms = 0;              // and the plugin reads it whole
  double pull_mb = 0;

  double state_ms = 0;     // get of state that a plugin supplies, median
  double operation_ms = 0; // an operation that a plugin performs, median

  double message_floor_us = 0; // a change and its answer over the same kind of socket, without a daemon
} bench_plugins_t;

// Running must hold the entries 0 to `entries` - 1 of bench_document. 0 or -1.
int bench_plugins(const bench_device &device, ymgr_client_t *client, int entries, bench_plugins_t *ret_result);
