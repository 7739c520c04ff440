// Base notifications (RFC 6470): what the components report, handed to the notifier that registered itself. With no
// notifier nothing is sent.
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
  std::vector<base_notification_edit_t> edits; // of a configuration change: the highest changed nodes
  std::string ipaddr;
  ENUM_DATASTORE datastore = ENUM_DATASTORE_ERROR; // of a configuration change
  int termination_reason = 0;                      // of a session end
  int killed_by = 0;                               // session id; 0 when not killed
} base_notification_info_t;

typedef int (*base_notification_fn)(notification_kind_t kind, const base_notification_info_t &info);
void base_notification_set_sink(base_notification_fn sink);

int send_base_notification_event(notification_kind_t kind, const base_notification_info_t &info); // 0 or -1
