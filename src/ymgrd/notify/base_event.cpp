#include "ymgrd/notify/base_event.h"
int base_event_build(notification_kind_t, const base_notification_info_t &, std::string *)
{
  return -1;
}
int base_event_compare_capabilities()
{
  return 0;
}
