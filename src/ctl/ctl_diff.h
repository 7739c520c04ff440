// The difference of two configurations.
#pragma once

#include <cstddef>

#include "ctl/ctl_device.h"

// Nodes; what comes or goes with its parent is not counted by itself.
typedef struct _ctl_diff_counts {
  size_t added = 0;
  size_t removed = 0;
  size_t changed = 0; // other value, or other place among its siblings
} ctl_diff_counts_t;

// Prints what `to` has and `from` has not ("+"), and the other way round ("-"), as a tree with only the nodes that lead
// there; a changed leaf is a "-" line and a "+" line, a moved entry a "~" line. In XML and JSON: libyang's diff (RFC
// 9144's yang:operation attributes). `*ret_different` tells whether there was any. The exit code.
int ctl_print_diff(ctl_device &device, const lyd_node *from, const lyd_node *to, bool *ret_different);
// How much differs.
ctl_diff_counts_t ctl_count_diff(const lyd_node *from, const lyd_node *to);
