// The configuration as a parsed tree, kept between edits: an edit starts from it instead of reading and parsing the
// database. It is what candidate holds; while candidate equals running, it is what running holds. Dropped as soon as
// another process may have written to a datastore.
#pragma once

#include "ymgrd/core/handles.h"

// Takes the tree out of store. False when none is kept (an empty datastore is a kept null).
bool ds_kept_take(lyd_tree_ptr *ret_tree);
// Keeps the tree: it must hold exactly what the database holds, without implicit nodes.
void ds_kept_store(lyd_tree_ptr tree);
void ds_kept_drop();
