// Reports to the product's watchdog library (include/ymgr/keepalive.h), named on the command line. Never fails its
// caller.
#pragma once

// (0, 0) is the heartbeat. Before long work: after how many seconds the watchdog may warn and kill; (0, 0) again after
// it.
void ymgrd_send_keepalive_msg(int warn_secs, int kill_secs);
