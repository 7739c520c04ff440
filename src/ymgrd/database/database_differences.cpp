// What is known of the keys in which datastores differ: every write names the keys it touched, and copying one
// datastore onto the other makes them equal.
#include <array>
#include <optional>
#include <utility>

#include "ymgrd/database/database_internal.h"

namespace {

// Beyond this a full copy costs no more.
constexpr size_t MAX_DIFFERENCES = 1000000;
// Running may go unsaved for long, and what is noted of it takes memory all that time.
constexpr size_t MAX_UNSAVED = 100000;

typedef struct _difference {
  int first;
  int second;
  size_t max_keys;
  std::optional<db_key_set> keys; // empty when unknown
  bool concerns(int target) const { return first == target || second == target; }
} difference_t;

std::array<difference_t, 4> g_differences = {{{YMGRM_RUNNING_DB, YMGRM_CANDIDATE_DB, MAX_DIFFERENCES, std::nullopt},
                                              {YMGRM_RUNNING_DB, YMGRM_STATUS_DB, MAX_DIFFERENCES, std::nullopt},
                                              {YMGRM_CANDIDATE_DB, YMGRM_STATUS_DB, MAX_DIFFERENCES, std::nullopt},
                                              {YMGRM_RUNNING_DB, YMGRM_STARTUP_DB, MAX_UNSAVED, std::nullopt}}};

difference_t *find_pair(int target, int source)
{
  for (difference_t &pair : g_differences) {
    if (target != source && pair.concerns(target) && pair.concerns(source)) {
      return &pair;
    }
  }
  return nullptr;
}

} // namespace

const db_key_set *db_differences(int target, int source)
{
  const difference_t *pair = find_pair(target, source);
  return pair != nullptr && pair->keys.has_value() ? &*pair->keys : nullptr;
}

void db_differences_touch(int target, const std::vector<std::string_view> &keys)
{
  for (difference_t &pair : g_differences) {
    if (!pair.concerns(target) || !pair.keys.has_value()) {
      continue;
    }
    pair.keys->reserve(pair.keys->empty() ? keys.size() : 0);
    for (std::string_view key : keys) {
      if (!pair.keys->contains(key)) {
        pair.keys->emplace(key);
      }
    }
    if (pair.keys->size() > pair.max_keys) {
      pair.keys.reset();
    }
  }
}

void db_differences_equal(int target, int source)
{
  difference_t *pair = find_pair(target, source);
  if (pair != nullptr) {
    pair->keys = db_key_set();
  }
}

void db_differences_forget(int target)
{
  for (difference_t &pair : g_differences) {
    if (pair.concerns(target)) {
      pair.keys.reset();
    }
  }
}

void db_differences_forget_all()
{
  for (difference_t &pair : g_differences) {
    pair.keys.reset();
  }
}
