// Random edits of a small tree of modules that are rich in constraints, each judged twice: by its changes, and by
// libyang's validation of the whole tree.
#pragma once

#include <random>
#include <string>
#include <vector>

#include "ymgrd/datastore/constraint_check.h"

typedef struct _fuzz_counts {
  int valid = 0;     // edits that libyang accepts
  int refused = 0;   // and those that it refuses
  int undecided = 0; // of the accepted ones, those that their changes did not decide
  std::string fault; // an edit that was taken for valid, and what libyang says of it; empty when there was none
} fuzz_counts_t;

class constraint_fuzz {
public:
  constraint_fuzz(const ly_ctx *ctx, uint32_t seed, bool stores_defaults);
  // Up to `rounds` edits; ends with the first fault.
  fuzz_counts_t run(int rounds);

private:
  uint32_t below(uint32_t limit) { return std::uniform_int_distribution<uint32_t>(0, limit - 1)(random_); }
  bool one_in(uint32_t number) { return below(number) == 0; }

  void plant();
  void step(edit_changes *changes);
  void create(edit_changes *changes, lyd_node *parent, const lysc_node *schema, int depth);
  void fill(edit_changes *changes, lyd_node *parent, int depth);
  void remove(edit_changes *changes, lyd_node *node);
  void clear_other_cases(edit_changes *changes, lyd_node *parent, const lysc_node *schema);
  void move(edit_changes *changes, lyd_node *entry);
  void store_defaults(edit_changes *changes);
  std::string value_for(const lysc_node *schema);
  std::string list_keys(const lysc_node *list);
  lyd_node *link(lyd_node *parent, lyd_node *node);
  lyd_node *pick();
  std::vector<const lysc_node *> children(const lysc_node *parent) const;
  std::string validate_all(implied_nodes_t *implied);

  const ly_ctx *ctx_;
  constraint_index index_;
  std::mt19937 random_;
  bool stores_defaults_;
  lyd_tree_ptr tree_;
  implied_nodes_t implied_;
  std::string story_; // of the edit in progress
};
