// What plugins are told beside the changes of an edit: the whole configuration (restore), and what an interrupted
// publication may have left half-done in them (smooth start).
#pragma once

#include "ymgrd/broker/differ_tree.h"

// Running as a diff tree of new nodes, as far as `interest` asks for them; null when there are none. Borrowed until
// ds_free_cfgr_differ. 0 or -1.
int ds_get_cfgr_differ(const differ_interest_fn &interest, differ_node_t **ret_tree);
void ds_free_cfgr_differ();

// The changes that a publication was handing out when the daemon was killed, said so that a plugin comes to what
// running holds now: a node that stands is ADD, MOD or MOVE, one that does not REM. Null when there are none.
differ_node_t *ds_smooth_differ();
// Undoes what was cut off in the databases, and reads what was being handed out then. 0 or -1.
int ds_begin_smooth_start();
// Ends the smooth start, if one is on: plugins that come now are restored. Every operation of a client ends it.
void ds_end_smooth_start();
void ds_restore_forget(); // frees both trees
