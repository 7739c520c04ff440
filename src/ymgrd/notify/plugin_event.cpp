#include "ymgrd/notify/plugin_event.h"
int plugin_event_check(std::string_view datagram, std::string *ret)
{
  ret->assign(datagram);
  return 0;
}
