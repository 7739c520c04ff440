// Validation of what an edit made: by its changes where that suffices, else of the whole tree.
#include "ymgrd/core/keepalive.h"
#include "ymgrd/datastore/constraint_check.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/schema/schema.h"

namespace {

struct {
  std::unique_ptr<constraint_index> index; // made for the first edit
  uint64_t stamp = 0;                      // of the tree that was validated last, described by `implied`
  implied_nodes_t implied;
} validated;

bool is_valid_by_changes(lyd_node *data, const edit_changes &changes)
{
  if (changes.was_empty()) {
    validated.implied.clear(); // nothing is valid, and implies nothing
  } else if (changes.stamp() == 0 || changes.stamp() != validated.stamp) {
    return false;
  }
  if (validated.index == nullptr) {
    validated.index = std::make_unique<constraint_index>(schema_ctx());
  }
  ymgrd_send_keepalive_msg(VALIDATION_WARN_SECONDS, VALIDATION_KILL_SECONDS);
  bool is_valid = constraint_check(*validated.index, data, changes, &validated.implied);
  ymgrd_send_keepalive_msg(0, 0);
  return is_valid;
}

} // namespace

int ds_validate_edit(lyd_tree_ptr *data, const edit_changes &changes, int invalid_kind, reply_error_ptr *ret_error)
{
  if (!is_valid_by_changes(data->get(), changes)) {
    validated.stamp = 0;
    validated.implied.clear();
    if (datastore_validate(data, invalid_kind, ret_error, &validated.implied) != 0) {
      return -1;
    }
  }
  validated.stamp = edit_stamp_tree(data->get());
  return 0;
}

void ds_forget_validated()
{
  validated.index.reset();
  validated.stamp = 0;
  validated.implied.clear();
}
