#include "ymgrd/datastore/ds_kept.h"

#include <cstdint>
#include <utility>

#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"

namespace {

struct {
  bool is_kept = false;
  lyd_tree_ptr tree;
  uint64_t foreign_writes = 0; // the count before the tree was read
} kept;

} // namespace

bool ds_kept_take(lyd_tree_ptr *ret_tree)
{
  uint64_t foreign_writes = database_foreign_writes();
  bool is_valid = kept.is_kept && kept.foreign_writes == foreign_writes;
  if (kept.is_kept && !is_valid) {
    log_debug("The kept configuration is dropped: another process may have written to the database.");
  }
  // Whoever reads now, and stores later, has read at this count.
  kept.foreign_writes = foreign_writes;
  kept.is_kept = false;
  lyd_tree_ptr tree = std::move(kept.tree);
  if (is_valid) {
    *ret_tree = std::move(tree);
  }
  return is_valid;
}

void ds_kept_store(lyd_tree_ptr tree)
{
  kept.tree = std::move(tree);
  kept.is_kept = true;
}

void ds_kept_drop()
{
  kept.is_kept = false;
  kept.tree.reset();
}
