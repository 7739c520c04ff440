// Data trees of libyang: their owners, and what reading and writing them has in common.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <libyang/libyang.h>

struct ctl_tree_delete_t {
  void operator()(lyd_node *tree) const { lyd_free_all(tree); }
};
using ctl_tree_ptr = std::unique_ptr<lyd_node, ctl_tree_delete_t>;

struct ctl_input_delete_t {
  void operator()(ly_in *input) const { ly_in_free(input, 0); }
};
using ctl_input_ptr = std::unique_ptr<ly_in, ctl_input_delete_t>;

// Reads from `text`, which must live as long; null without memory.
ctl_input_ptr ctl_open_text(const std::string &text);
// All siblings as text. False without memory; an empty tree is an empty text.
bool ctl_encode(const lyd_node *tree, LYD_FORMAT format, uint32_t options, std::string *ret_text);
// The top of the tree that holds the node.
lyd_node *ctl_top(lyd_node *node);

bool ctl_is_named(const lyd_node *node, std::string_view name); // never a node that the schema does not know
// The first child of that name; null when there is none, or no parent.
const lyd_node *ctl_child(const lyd_node *parent, std::string_view name);
std::string ctl_child_value(const lyd_node *parent, std::string_view name); // empty when there is none
