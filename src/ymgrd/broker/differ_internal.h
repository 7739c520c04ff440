// What the merges of diff trees share.
#pragma once

#include "ymgrd/broker/differ_tree.h"

// A root record for the time of a merge. Its node gives the record up again at the end.
class scoped_root {
public:
  explicit scoped_root(differ_node_t *first) : record_{first}
  {
    if (first != nullptr) {
      outer_ = first->doc;
      first->doc = &record_;
    }
  }
  ~scoped_root()
  {
    if (record_.root != nullptr) {
      record_.root->doc = outer_;
    }
    if (outer_ != nullptr) {
      outer_->root = record_.root;
    }
  }
  scoped_root(const scoped_root &) = delete;
  scoped_root &operator=(const scoped_root &) = delete;

  differ_root_t *get() { return &record_; }

private:
  differ_root_t record_;
  differ_root_t *outer_ = nullptr; // the tree may have a record of its own
};
