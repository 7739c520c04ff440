// Where lower components learn which functions of higher ones they call, and the libraries where their messages go.
#include <cstdlib>

#include <libyang/libyang.h>

#include "libconf/conf_misc.h"
#include "libredisapi/redisapi.h"
#include "ymgrd/broker/broker.h"
#include "ymgrd/broker/plugin.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/startup.h"
#include "ymgrd/crypto/encrypt_find.h"
#include "ymgrd/datastore/datastore.h"
#include "ymgrd/datastore/ds_error.h"
#include "ymgrd/datastore/ds_restore.h"
#include "ymgrd/notify/base_event.h"
#include "ymgrd/notify/notifier.h"
#include "ymgrd/rpc/rpc.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/rpc/session.h"
#include "ymgrd/schema/schema_sensitive_xml.h"

namespace {

void log_redis(const char *text)
{
  log_error("%.512s", text);
}

void log_support_library(int level, const char *text)
{
  if (level <= DBG_ERROR) {
    log_error("%.512s", text);
  } else if (level == DBG_WARN) {
    log_warn("%.512s", text);
  } else if (level == DBG_INFO) {
    log_info("%.512s", text);
  } else {
    log_debug("%.512s", text);
  }
}

bool operation_must_wait(const char *oper)
{
  return broker_check_busy(oper) == 1;
}

void end_of_session(int session_id)
{
  ds_session_closed(session_id);
  plugin_session_closed(session_id);
  notifier_del_client(session_id);
}

// After a shutdown request. Exit status 1 tells the daemon's supervisor that the end was asked for and is no crash.
[[noreturn]] void end_after_shutdown()
{
  notifier_flush(); // the ends of the last sessions
  ymgrd_exit();
  std::exit(EXIT_FAILURE);
}

void wire_libraries()
{
  conf_dbg_set_output(log_support_library);
  redis_set_logger(log_redis);
  // libyang keeps its errors for the component that called it, which reports them.
  ly_log_options(LY_LOSTORE);
  ly_log_level(LY_LLERR);
}

} // namespace

void ymgrd_wire_components()
{
  wire_libraries();

  session_hooks_t session_hooks = {};
  session_hooks.receive = rpc_recv_proc;
  session_hooks.is_busy = operation_must_wait;
  session_hooks.publish = rpc_publish_request;
  session_hooks.closing = end_of_session;
  session_hooks.shut_down = end_after_shutdown;
  session_set_hooks(session_hooks);

  rpc_set_next_subscriber_hook(broker_publish_operation_next);
  base_notification_set_sink(base_event_emit);

  encrypt_schema_t schema = {};
  schema.check = schema_check_sensitive_value;
  schema.path_of = schema_sensitive_instance;
  encrypt_set_schema(schema);

  broker_hooks_t broker_hooks = {};
  broker_hooks.publish_config = plugin_publish_config;
  broker_hooks.publish_operate = plugin_publish_operate;
  broker_hooks.subscribe_status = plugin_subscribe_status;
  broker_hooks.publish_ended = datastore_publish_callback;
  broker_hooks.status_ended = ds_get_callback;
  broker_hooks.parse_rpc = datastore_parse_rpc;
  broker_hooks.error_kind = ds_error_kind;
  broker_hooks.add_path_and_msg = ds_add_path_and_msg;
  broker_hooks.plugin_id = plugin_get_id;
  broker_hooks.plugin_name = plugin_get_name;
  broker_hooks.given_up = plugin_given_up;
  broker_hooks.kickoff = plugin_kickoff;
  broker_hooks.get_cfgr_differ = ds_get_cfgr_differ;
  broker_hooks.free_cfgr_differ = ds_free_cfgr_differ;
  broker_hooks.smooth_differ = ds_smooth_differ;
  broker_hooks.end_smooth_start = ds_end_smooth_start;
  broker_set_hooks(broker_hooks);
}
