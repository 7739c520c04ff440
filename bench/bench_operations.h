// What the operations beside editing take on a loaded datastore.
#pragma once

#include "bench_device.h"
#include "client/client.h"

typedef struct _bench_operations {
  double entry_ms = 0;            // get-config of one entry by its key, from the kept configuration
  double entry_redis_ms = 0;      // the same when Redis has to be read
  double state_ms = 0;            // get of the daemon's own state
  double get_ms = 0;              // get of everything: configuration and state
  double copy_first_ms = 0;       // copy-config of running to an empty startup
  double copy_ms = 0;             // and again, one leaf later
  double locks_per_s = 0;         // pairs of lock and unlock
  double readers_per_s = 0;       // 16 sessions at once: get-config by key
  double readers_mb_per_s = 0;    // 16 sessions at once: whole get-config
  double readers_resident_mb = 0; // and what the daemon holds while it answers them
} bench_operations_t;

// Running must hold the entries 0 to `entries` - 1 of bench_document. 0 or -1.
int bench_operations(const bench_device &device, ymgr_client_t *client, int entries, bench_operations_t *ret_result);
