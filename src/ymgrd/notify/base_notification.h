// Base notifications (RFC 6470): what the components report, handed to the sink that start-up registers. Without one
// nothing is sent.
#pragma once

#include <string>
#include <vector>

#include "ymgrd/ymgrd.h"

typedef enum _notification_kind {
  NCNTF_ERROR = -1,
  NCNTF_GENERIC = 0,
  NCNTF_REPLAY_COMPLETE = 1,
  NCNTF_NTF_COMPLETE = 2,
  NCNTF_BASE_CFG_CHANGE = 3,
  NCNTF_BASE_CPBLT_CHANGE = 4,
  NCNTF_BASE_SESSION_START = 5,
  NCNTF_BASE_SESSION_END = 6,
} notification_kind_t;

typedef struct _base_notification_edit {
  std::string target; // data key of the changed node
  int operation = DBDIFF_NONE;
} base_notification_edit_t;

typedef struct _base_notification_info {
  int session_id = 0; // 0: the daemon itself
  std::string username;
  std::vector<base_notification_edit_t> edits; // of a configuration change: the highest changed nodes; empty: unknown
  std::string ipaddr;
  ENUM_DATASTORE datastore = ENUM_DATASTORE_ERROR; // of a configuration change
  int termination_reason = 0;                      // of a session end
  int killed_by = 0;                               // session id; 0 when not killed
  std::vector<std::string> added_capabilities;
  std::vector<std::string> deleted_capabilities;
  std::vector<std::string> modified_capabilities; // other parameters than before; as they are now
} base_notification_info_t;

// Why a session ended.
typedef enum _NC_SESSION_TERM_REASON {
  NC_SESSION_TERM_CLOSED = 0,
  NC_SESSION_TERM_KILLED = 1,
  NC_SESSION_TERM_DROPPED = 2,
  NC_SESSION_TERM_TIMEOUT = 3,
  NC_SESSION_TERM_BADHELLO = 4,
  NC_SESSION_TERM_OTHER = 5, // greater numbers too
} NC_SESSION_TERM_REASON;

typedef int (*base_notification_fn)(notification_kind_t kind, const base_notification_info_t &info);
void base_notification_set_sink(base_notification_fn sink);

// The event is sent at the end of the event loop's pass. 0, also when nobody wants events; -1 (logged) when it cannot
// be sent.
int send_base_notification_event(notification_kind_t kind, const base_notification_info_t &info);
