// Writing into the status datastore: all that one batch holds arrives at once, or nothing. Paths are data keys.
#pragma once

#include <string>

#include "ymgrd/core/handles.h"

class ds_status_batch {
public:
  ds_status_batch() = default;
  ds_status_batch(const ds_status_batch &) = delete;
  ds_status_batch &operator=(const ds_status_batch &) = delete;
  ~ds_status_batch(); // drops what was not committed

  // Locks the module of `path` ("/": all). 0 or -1.
  int begin(const char *path);
  // A leaf, a container, or an entry at the end of its list unless it is there.
  void set(const std::string &path, const std::string &text = "");
  void set_tree(const lyd_node *node); // with all above and below
  void remove(const std::string &path);
  // The state data at and below the node; configuration stays.
  void remove_state(const lyd_node *node);
  // 0, or -1 when this or an earlier call failed (logged).
  int commit();

private:
  void set_node(const lyd_node *node, std::string *key);
  void remove_state(const lyd_node *node, std::string *key);

  int hdb_ = 0;
  int lock_id_ = 0;
  bool failed_ = false;
};
