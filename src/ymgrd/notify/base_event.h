// The content of base notifications (RFC 6470, module ietf-netconf-notifications).
#pragma once

#include <string>

#include "ymgrd/notify/base_notification.h"

// The event's element, valid for its YANG notification. 0, or -1 (logged).
int base_event_build(notification_kind_t kind, const base_notification_info_t &info, std::string *ret_content);
// Builds the event and hands it to the notifier: the sink of base notifications. 0, also without notification
// configuration; -1 (logged).
int base_event_emit(notification_kind_t kind, const base_notification_info_t &info);
// Compares what the daemon can do with what it could at its last start (kept in the notification database), and emits
// netconf-capability-change when that differs. 0, also without notification configuration; -1 (logged).
int base_event_compare_capabilities();
