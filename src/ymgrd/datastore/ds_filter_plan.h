// What is read of a datastore to answer a subtree filter: list entries that the filter names by all their keys, at any
// depth, and else the smallest subtrees that are sure to hold what it selects.
#pragma once

#include "libconf/wiped_string.h"
#include "ymgrd/datastore/ds_filter.h"
#include "ymgrd/datastore/ds_read.h"

// Appends these subtrees, inside their ancestors, which bring their keys. `filter` has been through ds_filter_spec.
// `*ret_is_answer` tells whether the text is what the filter selects; if not, it may hold more. 0 or -1.
int ds_filter_read(const ds_source &source, const nc_filter_t &filter, wiped_string *text, bool *ret_is_answer);
