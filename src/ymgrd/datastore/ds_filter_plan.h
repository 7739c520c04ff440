// Reading what a subtree filter selects: list entries that the filter names by all their keys, at any depth, and else
// the smallest subtrees that are sure to hold it, which are then cut down.
#pragma once

#include "libconf/wiped_string.h"
#include "ymgrd/datastore/ds_filter.h"
#include "ymgrd/datastore/ds_read.h"

// Appends what the filter, which has been through ds_filter_spec, selects. 0 or -1.
int ds_filter_read(const ds_source &source, const nc_filter_t &filter, wiped_string *text);
