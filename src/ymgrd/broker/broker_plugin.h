// A plugin as the broker sees it, and what it does for plugins beside the deliveries of broker.h: restore and smooth
// start. Instances are made and freed by the plugin component.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "libconf/conf_buffer.h"
#include "libconf/plugin_message.h"
#include "ymgrd/broker/broker.h"

typedef struct _plugin_local {
  int version = 0;
  int stage = 0; // of the daemon's start at which `install` is called
  void *so_handle = nullptr;
  int (*install)() = nullptr;
  void (*uninstall)() = nullptr;
} plugin_local_t;

typedef struct _plugin_remote {
  int sock = -1;
  long peer_pid = 0;
  uint16_t rpc_id = 1;   // of the next request; never 0
  uint16_t reply_id = 0; // of the request that awaits its reply
  int64_t tm_rpc = 0;    // its deadline in monotonic seconds; 0 while none is awaited
  uint32_t send_pos = 0; // bytes of `send_buf` already written
  conf_buffer_ptr recv_buf;
  conf_buffer_ptr send_buf;
} plugin_remote_t;

// At most one request is outstanding per plugin: one of the bits kickoff, pub_config, pub_oper, sub_status.
typedef struct _plugin_inst {
  int plugin_id = 0; // index in "LIST-plugin" plus one
  std::string name;  // empty until a remote plugin registers
  bool local_flag = false;
  plugin_local_t local;
  plugin_remote_t remote;
  bool bit_activate = false;   // has sent "activate"
  bool bit_smooth = false;     // in smooth start
  bool bit_cfgr = false;       // in configuration restore
  bool bit_ready = false;      // kickoff answered
  bool bit_kickoff = false;    // a "kickoff" awaits its reply
  bool bit_pub_config = false; // a configuration "publish" awaits its reply
  bool bit_pub_oper = false;   // an operation "publish" awaits its reply
  bool bit_sub_status = false; // a "subscribe" awaits its reply
  bool bit_overdue = false;    // did not answer in time, and has sent nothing since
  bool wants_cfgr = false;     // activated "with-cfgr" or "with-smooth": may be restored again
  int session_id = 0;          // of the operation in flight; 0 when the session has ended meanwhile
  std::string pub_path;        // data path of the change in flight, for messages
} plugin_inst_t;

// Requests configuration restore (smooth start) for a plugin whose bit_cfgr (bit_smooth) is set, or resumes it when its
// reply has come or is overdue. One without configuration subscribers is kicked off at once. The work starts at the
// next schedule. 0, or -1 (logged).
int broker_plugin_cfgr(plugin_inst_t *plugin);
int broker_plugin_smooth_start(plugin_inst_t *plugin);
// Starts the pending work unless a publication runs: at the daemon's start, when a publication has ended, when a plugin
// asked for it, and on idle seconds.
void broker_cfgr_schedule();
void broker_smooth_schedule();
