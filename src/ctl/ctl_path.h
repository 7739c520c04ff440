// Paths as an operator types them: "/ex-sys:system/hostname", "system/hostname" (the module where it is plain which),
// "/ex-sys:routes/route[dest='10.0.0.0'][mask='8']", "route[10.0.0.0][8]" (keys in the order of the schema),
// "/ex-sys:system/dns[.='192.0.2.53']". What they become on the wire.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ctl/ctl_device.h"
#include "ctl/ctl_tree.h"

typedef struct _ctl_step {
  const lysc_node *schema = nullptr;
  // Key and value (canonical), in the order of the schema; the name of a leaf-list's is ".". Fewer than the list has
  // keys: all entries that fit.
  std::vector<std::pair<std::string, std::string>> keys;
} ctl_step_t;
typedef std::vector<ctl_step_t> ctl_path_t; // from the top; empty: everything

// ctl_path_reader.cpp
// The exit code; CTL_INPUT names the step that is wrong, and what was possible there.
int ctl_parse_path(ctl_device &device, std::string_view text, ctl_path_t *ret_path);
// The same for whoever has a schema and tells faults otherwise, or not at all: false, and the fault.
bool ctl_read_path(const ly_ctx *schema, std::string_view text, ctl_path_t *ret_path, std::string *ret_fault);
// ctl_path.cpp
// In one form: prefixes where the module changes, keys in quotes that their values allow. A quote is doubled in a value
// that has both kinds.
std::string ctl_path_text(const ctl_path_t &path);
// Whether the step before is of another module, whose name or namespace is not that of this one.
bool ctl_changes_module(const ctl_path_t &path, size_t index);
bool ctl_has_all_keys(const ctl_step_t &step); // of a list or leaf-list
// Whether each list and leaf-list that the path passes or ends in is given by all its keys: one node at most.
bool ctl_is_instance(const ctl_path_t &path);

// The nodes of a tree that the path names, in their order.
std::vector<lyd_node *> ctl_find(lyd_node *tree, const ctl_path_t &path);
// The tree without what the path does not name, but for the nodes above and their keys: a filter cannot be that exact.
// Null when nothing is left.
ctl_tree_ptr ctl_keep_only(ctl_tree_ptr tree, const ctl_path_t &path);

// ctl_path_wire.cpp
// The subtree filter that selects the path (RFC 6241, section 6); empty for everything. Entries
// that hold nothing of it, and all entries of a leaf-list, are selected, too: ctl_keep_only() tells them apart.
std::string ctl_filter(const ctl_path_t &path);
// <config>'s content for one edit at the path: `operation` is RFC 6241's ("merge", "replace", "delete", ...) at the
// last node; `value` (may be null) its text. Keys that are missing, and values that the type does not allow, are
// CTL_INPUT (told).
int ctl_edit(ctl_device &device, const ctl_path_t &path, std::string_view operation, const std::string *value,
             std::string *ret_config);
