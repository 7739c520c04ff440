// What the sources of the plugin component share.
//
// An instance is only destroyed from the event loop, when its own socket reports the end: whoever has one on the stack
// may call the broker and keep it. The daemon cuts a plugin off by shutting its socket down.
#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "libconf/plugin_message.h"
#include "libconf/wiped_string.h"
#include "ymgrd/broker/broker_plugin.h"
#include "ymgrd/broker/plugin.h"

// --- plugin.cpp: the instances.
plugin_inst_t *plugin_find(int plugin_id); // null when there is none
plugin_inst_t *plugin_find_by_name(const std::string &name);
std::vector<int> plugin_ids();
// Its name, or, before it has one, its process.
std::string plugin_label(const plugin_inst_t &plugin);
// Gives the instance its id and owns it. 0, or -1 (logged) with the instance freed.
int plugin_add_inst(std::unique_ptr<plugin_inst_t> plugin);
// Ends its registrations and the state data that it pushed, and frees it.
void plugin_destroy_inst(plugin_inst_t *plugin);

// --- plugin_wire.cpp: frames.
typedef enum _plugin_recv {
  PLUGIN_RECV_MORE,    // nothing whole yet
  PLUGIN_RECV_MESSAGE, // one message was taken
  PLUGIN_RECV_LOST,    // no more messages will come (logged)
} plugin_recv_t;
// `*ret_message` is null when the text is no XML.
plugin_recv_t plugin_core_recv(plugin_inst_t *plugin, uint16_t *ret_msg_id, plugin_doc_ptr *ret_message);
// Queues a frame and writes what the socket takes. 0, or -1 (logged) with nothing queued.
int plugin_cache_send(plugin_inst_t *plugin, uint16_t msg_id, const plugin_doc_ptr &message);
int plugin_cache_send(plugin_inst_t *plugin, uint16_t msg_id, std::initializer_list<std::string_view> pieces);
// Writes what the socket takes. A plugin whose socket has failed is cut off.
void plugin_core_send(plugin_inst_t *plugin);
void plugin_cut_off(plugin_inst_t *plugin);

// --- plugin_request.cpp: what plugins ask for. Answers exactly once.
void plugin_rpc_dispatch(plugin_inst_t *plugin, const xmlNode *rpc, uint16_t msg_id);
void plugin_reply_error(plugin_inst_t *plugin, uint16_t msg_id, int code, const std::string &message);

// --- plugin_register.cpp
// Checks all, then registers all, with the broker. 0, or -1 (logged) with nothing registered and `*ret_error` saying
// what is wrong.
int plugin_register(plugin_inst_t *plugin, const std::vector<plugin_registration_t> &registrations,
                    std::string *ret_error);
// Brings an activated plugin up to date: smooth start, restore, or kickoff at once.
void plugin_bring_up(plugin_inst_t *plugin, bool with_cfgr, bool with_smooth);

// --- plugin_publish.cpp: requests to plugins.
bool plugin_is_busy(const plugin_inst_t &plugin);
// The awaited reply is there: sends the request that waits next.
void plugin_end_request(plugin_inst_t *plugin);
// Nothing is awaited any more, and nothing waits for its turn.
void plugin_drop_requests(plugin_inst_t *plugin);

// --- plugin_reply.cpp: what becomes of requests.
void plugin_reply_dispatch(plugin_inst_t *plugin, const xmlNode *reply, uint16_t msg_id);
void plugin_resume_publication(plugin_inst_t *plugin);
// The change that is waited for was not taken.
void plugin_change_failed(plugin_inst_t *plugin, int code, const std::string &text);
// What a session's operation came to.
typedef struct _plugin_operation {
  int session_id;
  std::string oper;
  std::string plugin_name;
} plugin_operation_t;
void plugin_nbi_reply(const plugin_operation_t &operation, const xmlNode *result);
void plugin_nbi_error(const plugin_operation_t &operation, int code, const std::string &message);
plugin_operation_t plugin_take_operation(plugin_inst_t *plugin);
void plugin_status_reply(const std::string &name, const std::string &path, const xmlNode *data);

// --- plugin_timeout.cpp
int64_t plugin_clock(); // monotonic seconds
// Something has come from an overdue plugin: it is brought up to date.
void plugin_wake(plugin_inst_t *plugin);

// --- plugin_state.cpp: what is told of plugins.
void plugin_note_registered(plugin_inst_t *plugin); // takes over what was known of an earlier one of its name
void plugin_note_error(plugin_inst_t *plugin, const std::string &text);
void plugin_note_gone(const plugin_inst_t &plugin); // before it is freed; one that never registered is forgotten
void plugin_forget_gone();

// --- plugin_local.cpp, plugin_local_call.cpp
void plugin_start_local(int stage);              // starts those of that stage
int plugin_local_install(plugin_inst_t *plugin); // 0 or -1
void plugin_local_uninstall(plugin_inst_t *plugin);
void plugin_local_config(plugin_inst_t *plugin, const plugin_publish_info_t &info, int *status);
void plugin_local_operate(plugin_inst_t *plugin, const plugin_publish_info_t &info, const std::string &oper);
void plugin_local_status(plugin_inst_t *plugin, const plugin_subscibe_info_t &info);
