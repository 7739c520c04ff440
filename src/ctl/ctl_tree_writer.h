// Data nodes as lines of text. Written in large pieces: trees may have a hundred thousand entries.
#pragma once

#include <string>
#include <string_view>

#include <libyang/libyang.h>

#include "ctl/ctl_output.h"

// What stands before a line of a difference; nothing in a plain tree.
enum class ctl_mark { none, context, added, removed, moved };

class ctl_tree_writer {
public:
  explicit ctl_tree_writer(const ctl_output_t &output) : output_(output) {}

  void node(const lyd_node *node, int depth, ctl_mark mark); // its own line
  void subtree(const lyd_node *node, int depth, ctl_mark mark);
  // A line for `node` that says something else behind its name and keys.
  void remark(const lyd_node *node, int depth, ctl_mark mark, std::string_view text);
  void raw(std::string_view text);
  // Writes out what is left. CTL_OK, or the code of the first fault (told).
  int finish();

private:
  void line(const lyd_node *node, int depth, ctl_mark mark, const std::string &name, std::string_view rest);

  const ctl_output_t &output_;
  std::string pending_;
  int result_ = CTL_OK;
};

// Whether the node is there for whoever looks at the data: neither a default nor an empty container without presence.
bool ctl_is_shown(const lyd_node *node);
