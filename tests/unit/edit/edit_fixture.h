// The edit engine inside the test program, with a Redis server of its own and one sample module: lists in lists,
// user-ordered lists and leaf-lists at every level, choices in choices, defaults, presence containers, conditions.
#pragma once

#include <map>
#include <string>

#include <gtest/gtest.h>

#include "support/redis_server.h"
#include "unit/edit/random_edit.h"
#include "ymgrd/datastore/datastore_internal.h"

// What an edit made of a datastore.
struct edit_outcome_t {
  bool is_accepted = false;
  lyd_tree_ptr data;
  differ_node_t *tree = nullptr; // the test's to free or to merge
  edit_changes changes;
};

enum class edit_end { committed, discarded };

class edit_fixture : public testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  static edit_outcome_t apply(int datastore, const random_edit_t &edit, edit_end end = edit_end::committed);
  static lyd_tree_ptr stored(int datastore); // as it stands in Redis
  static std::string text_of(const lyd_tree_ptr &data);

  support::temp_dir dir;
  // To be loaded by SetUp: by name the text, which is empty when the source tree has the module.
  std::map<std::string, std::string> more_modules;
  support::redis_server redis{dir.path()};
};
