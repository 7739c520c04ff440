// A plugin as the broker sees it, and what it does for plugins beside the deliveries of broker.h: restore and smooth
// start. Instances are made and freed by the plugin component.
#pragma once

#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "libconf/conf_buffer.h"
#include "libconf/plugin_message.h"
#include "ymgr/plugin.h"
#include "ymgrd/broker/broker.h"
#include "ymgrd/core/handles.h"

typedef enum _plugin_registration_kind {
  PLUGIN_REG_CONFIG,
  PLUGIN_REG_STATUS,
  PLUGIN_REG_OPERATE,
} plugin_registration_kind_t;

// A subscription or publication as the plugin names it.
typedef struct _plugin_registration {
  plugin_registration_kind_t kind = PLUGIN_REG_CONFIG;
  std::string path;
  int priority = 0; // configuration only
  econf_subpub_cb_t callback = {};
} plugin_registration_t;

typedef struct _plugin_local {
  int version = 0;
  int stage = 0; // of the daemon's start at which `install` is called
  bool is_installed = false;
  shared_object_ptr so_handle;
  ymgr_local_callback_fn callback = nullptr;
  ymgr_local_install_fn install = nullptr;
  ymgr_local_uninstall_fn uninstall = nullptr;
  std::vector<plugin_registration_t> registrations; // of its profile
} plugin_local_t;

typedef enum _plugin_request_kind {
  PLUGIN_NO_REQUEST,
  PLUGIN_KICKOFF,
  PLUGIN_PUB_CONFIG,
  PLUGIN_PUB_OPER,
  PLUGIN_SUB_STATUS,
} plugin_request_kind_t;

// A request that waits for its turn.
typedef struct _plugin_request {
  plugin_request_kind_t kind = PLUGIN_NO_REQUEST;
  plugin_doc_ptr params;
} plugin_request_t;

typedef struct _plugin_remote {
  int sock = -1;
  long peer_pid = 0;
  uint16_t rpc_id = 1;                               // of the next request; never 0
  uint16_t reply_id = 0;                             // of the request that awaits its reply
  int64_t tm_rpc = 0;                                // its deadline in monotonic seconds; 0 while none is awaited
  plugin_request_kind_t awaited = PLUGIN_NO_REQUEST; // what that request is
  std::deque<plugin_request_t> waiting;              // to be sent, one by one, after it
  bool is_write_awaited = false;                     // the event loop tells when the socket takes more
  bool is_cut = false;                               // shut down by the daemon; its end is still to be read
  uint32_t send_pos = 0;                             // bytes of `send_buf` already written
  conf_buffer_ptr recv_buf;
  conf_buffer_ptr send_buf;
} plugin_remote_t;

// What stays of a plugin when its connection ends, for the next one of its name.
typedef struct _plugin_history {
  time_t registered = 0;      // last
  uint64_t registrations = 0; // since the daemon's start
  uint64_t offered = 0;       // changed nodes
  uint64_t refused = 0;       // those of them that it did not take
  std::string last_error;     // characters that XML can carry
  time_t last_error_time = 0; // 0: there was none
} plugin_history_t;

// At most one request is outstanding per plugin (remote.reply_id); the bits kickoff, pub_config, pub_oper and
// sub_status also stand for those that wait for their turn.
typedef struct _plugin_inst {
  int plugin_id = 0; // index in "LIST-plugin" plus one
  std::string name;  // empty until a remote plugin registers
  bool local_flag = false;
  plugin_local_t local;
  plugin_remote_t remote;
  bool bit_activate = false;             // has sent "activate"
  bool bit_smooth = false;               // in smooth start
  bool bit_cfgr = false;                 // in configuration restore
  bool bit_ready = false;                // kickoff answered
  bool bit_kickoff = false;              // a "kickoff" awaits its reply
  bool bit_pub_config = false;           // a configuration "publish" awaits its reply
  bool bit_pub_oper = false;             // an operation "publish" awaits its reply
  bool bit_sub_status = false;           // a "subscribe" awaits its reply
  bool bit_overdue = false;              // did not answer in time, and has sent nothing since
  bool missed_config = false;            // a change was not told, or not answered: what it knows may be wrong
  bool wants_cfgr = false;               // activated "with-cfgr" or "with-smooth": may be restored again
  int session_id = 0;                    // of the operation in flight; 0 when the session has ended meanwhile
  std::string oper;                      // the operation in flight: "/MODULE:NAME"
  std::string pub_path;                  // data path of the change in flight
  int pub_oper_type = 0;                 // its CONFIG_OP_... bits
  std::string sub_path;                  // path of the state data asked for
  std::vector<std::string> status_paths; // below which it may push state data
  plugin_history_t history;
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
