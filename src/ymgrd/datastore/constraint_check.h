// The check of an edit by what it touched: for a tree that was valid before, only those constraints are evaluated that
// look at what changed. It says "valid" or "undecided", never "invalid": the full validation decides the rest, and
// words the errors.
#pragma once

#include <unordered_set>

#include <libyang/libyang.h>

#include "ymgrd/datastore/constraint_index.h"
#include "ymgrd/datastore/edit_changes.h"

// Schema nodes of which libyang implies an instance somewhere in the data: a default or an empty container that is not
// stored. May name too many, never too few. Whoever validates the whole tree learns them.
using implied_nodes_t = std::unordered_set<const lysc_node *>;

// Whether `data` (first top node, null for an empty tree; it was valid before `changes`, and `implied` described it)
// is surely valid. When it is, `implied` describes it as it is now. What `implied` held stays in it, so that it goes on
// describing the tree before the changes. `data` is left as it was.
bool constraint_check(const constraint_index &index, lyd_node *data, const edit_changes &changes,
                      implied_nodes_t *implied);
