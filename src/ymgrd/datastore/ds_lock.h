// The two kinds of lock that guard the datastores. The NETCONF lock (RFC 6241, section 7.5) gives one session the
// writing of a whole datastore until it unlocks or ends. Data locks are short: taken on database paths for one
// operation, so that readers and writers of the same subtrees exclude each other.
#pragma once

#include <string>
#include <type_traits>
#include <vector>

#include <libyang/libyang.h>

#include "ymgrd/ymgrd.h"

// One for each of running, startup and candidate, kept in the context store.
typedef struct _ds_lock {
  int sid;            // holder; 0 when free
  char locktime[512]; // seconds since the epoch, decimal; "" when free
  int modify;         // 1: changes are pending that were made without the lock; of candidate only
} ds_lock_t;
static_assert(std::is_trivially_copyable_v<ds_lock_t>);

enum { DS_ACCESS_DENIED = -1, DS_ACCESS_FREE = 1, DS_ACCESS_HELD = 2 };

int ds_lock_init(); // 0 or -1
void ds_lock_uninit();

// Holder of the NETCONF lock. 0 or -1 (a datastore without lock).
int ds_get_lock_state(int target, int *ret_sid);
int ds_set_lock_state(int target, int sid);
const char *ds_get_lock_time(int target); // null for a datastore without lock
int ds_set_lock_time(int target, const char *time_str);
int ds_get_modify_status(int target, int *ret_is_modify);
int ds_set_modify_status(int target, int is_modify);

// Whether `sid` may write: DS_ACCESS_HELD (it holds the lock), DS_ACCESS_FREE, or DS_ACCESS_DENIED.
int ds_is_access(int target, int sid);
// -1 when the target is running and a publication is in flight (logged), else 0.
int ds_is_configured(int target);

typedef struct _ds_db_lock {
  int hdb;
  int lock_id;
} ds_db_lock_t;
typedef std::vector<ds_db_lock_t> ds_db_locks_t;

// Each appends to `locks`. On failure (-1, logged) what this call locked is released again.
int ds_lock_data(const lyd_node *top, int hdb, int type, ds_db_locks_t *locks); // each top-level node of the tree
int ds_lock_all_data(int hdb, int type, ds_db_locks_t *locks);                  // all of the database
// Releases all, in the order of the list, which is empty afterwards.
void ds_unlock_data(ds_db_locks_t *locks);
