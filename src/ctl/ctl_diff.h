// The difference of two configurations.
#pragma once

#include "ctl/ctl_device.h"

// Prints what `to` has and `from` has not ("+"), and the other way round ("-"), as a tree with only the nodes that lead
// there; a changed leaf is a "-" line and a "+" line, a moved entry a "~" line. In XML and JSON: libyang's diff (RFC
// 9144's yang:operation attributes). `*ret_different` tells whether there was any. The exit code.
int ctl_print_diff(ctl_device &device, const lyd_node *from, const lyd_node *to, bool *ret_different);
