// What the datastores report of their changes (RFC 6470, netconf-config-change).
#pragma once

#include "ymgrd/broker/differ_tree.h"
#include "ymgrd/notify/base_notification.h"

// Announces that the session changes running, before the change is published. 0 with what was said, or -1 (logged): the
// change must not be published then.
int ds_announce_change(int sid, const differ_node_t *dtree, base_notification_info_t *ret_announced);
// The announced change did not come to stand: announces that it was taken back, so that who listens ends with the
// truth.
void ds_announce_undone(base_notification_info_t announced);
// Reports that the session has written startup.
void ds_announce_startup(int sid);
