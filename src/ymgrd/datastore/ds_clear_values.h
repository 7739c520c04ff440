// Clear values in a data tree, for as long as conditions are evaluated that look at sensitive leaves: a must wants to
// see the value, not its cipher text.
#pragma once

#include <functional>
#include <set>
#include <unordered_map>

#include <libyang/libyang.h>

#include "ymgrd/datastore/constraint_index.h"

class ds_clear_values {
public:
  ds_clear_values() = default;
  ds_clear_values(const ds_clear_values &) = delete;
  ds_clear_values &operator=(const ds_clear_values &) = delete;
  ~ds_clear_values();

  // The instances of the sensitive leaf below `region` (null: in the whole tree) show their clear values until the
  // object ends. Nothing but the values changes. What cannot be decrypted stays.
  void open(lyd_node *data, lyd_node *region, const lysc_node *leaf);
  // All at `top` and below. Without close(): nothing of it may be freed meanwhile.
  void open_tree(lyd_node *top);
  // Those that the condition looks at when it is evaluated on `context`.
  void open_for(const constraint_index &index, const lyxp_expr *condition, lyd_node *data, lyd_node *context);
  // Those that any condition or unique statement looks at.
  void open_all(const constraint_index &index, lyd_node *data);
  // To be called when nodes may have been freed meanwhile, or others made in their memory: `has_stayed` tells which are
  // the same. `data` is the tree as it is now.
  void close(lyd_node *data, const std::function<bool(const lyd_node *)> &has_stayed);

private:
  void open_node(lyd_node *node);

  std::unordered_map<lyd_node *, lyd_value> stored_; // what they had before
  std::set<const lysc_node *> leaves_;               // of which these are instances
};

// The same for the evaluation of a condition on a node of whose tree nothing more is known.
void ds_open_clear_for(const lyxp_expr *condition, lyd_node *context, ds_clear_values *values);
