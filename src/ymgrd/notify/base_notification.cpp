#include "ymgrd/notify/base_notification.h"

namespace {
base_notification_fn notification_sink = nullptr;
}

void base_notification_set_sink(base_notification_fn sink)
{
  notification_sink = sink;
}

int send_base_notification_event(notification_kind_t kind, const base_notification_info_t &info)
{
  return notification_sink == nullptr ? 0 : notification_sink(kind, info);
}
