// Validation of what an edit made: by its changes where that suffices, else of the whole tree.
#include <optional>
#include <utility>

#include "ymgrd/core/keepalive.h"
#include "ymgrd/core/log.h"
#include "ymgrd/datastore/constraint_check.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/schema/schema.h"

namespace {

struct {
  std::unique_ptr<constraint_index> index; // made for the first edit
  uint64_t stamp = 0;                      // of the tree that was validated last, described by `implied`
  implied_nodes_t implied;
} validated;

// The same of the valid tree from which the edit that was validated last started.
struct {
  uint64_t stamp = 0;                     // 0: there was none
  std::optional<implied_nodes_t> implied; // none: the later one describes it too
} before_edit;

bool was_valid(const edit_changes &changes)
{
  return changes.stamp() != 0 && changes.stamp() == validated.stamp;
}

bool is_valid_by_changes(lyd_node *data, const edit_changes &changes)
{
  if (changes.was_empty()) {
    validated.stamp = 0;
    validated.implied.clear(); // nothing is valid, and implies nothing
  } else if (!was_valid(changes)) {
    return false;
  }
  ymgrd_send_keepalive_msg(VALIDATION_WARN_SECONDS, VALIDATION_KILL_SECONDS);
  bool is_valid = constraint_check(ds_constraints(), data, changes, &validated.implied);
  ymgrd_send_keepalive_msg(0, 0);
  return is_valid;
}

} // namespace

const constraint_index &ds_constraints()
{
  if (validated.index == nullptr) {
    validated.index = std::make_unique<constraint_index>(schema_ctx());
  }
  return *validated.index;
}

int ds_validate_edit(lyd_tree_ptr *data, edit_changes *changes, int invalid_kind, reply_error_ptr *ret_error)
{
  before_edit.stamp = was_valid(*changes) ? changes->stamp() : 0;
  before_edit.implied.reset();
  if (!is_valid_by_changes(data->get(), *changes)) {
    implied_nodes_t implied;
    if (datastore_validate(data, invalid_kind, ret_error, &implied) != 0) {
      if (*data != nullptr) {
        ds_undo_edit(data, changes);
      }
      return -1;
    }
    before_edit.implied = std::exchange(validated.implied, std::move(implied));
  }
  validated.stamp = edit_stamp_tree(data->get());
  return 0;
}

void ds_undo_edit(lyd_tree_ptr *data, edit_changes *changes)
{
  lyd_tree_ptr tree = std::move(*data);
  if (!changes->undo(&tree)) {
    log_debug("The edit can not be undone, the configuration is read anew.");
    return;
  }
  if (before_edit.stamp != 0 && before_edit.stamp == changes->stamp()) {
    validated.stamp = before_edit.stamp;
    if (before_edit.implied.has_value()) {
      validated.implied = std::move(*before_edit.implied);
    }
  }
  before_edit.stamp = 0;
  ds_kept_store(std::move(tree));
}

void ds_forget_validated()
{
  validated.index.reset();
  validated.stamp = 0;
  validated.implied.clear();
  before_edit.stamp = 0;
  before_edit.implied.reset();
}
