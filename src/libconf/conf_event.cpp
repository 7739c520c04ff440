#include "libconf/conf_event.h"

#include <sys/epoll.h>

namespace {

int control(int epfd, int operation, int fd, uint32_t events, uint32_t tag)
{
  epoll_event event = {};
  event.events = events;
  event.data.u64 = tag;
  return epoll_ctl(epfd, operation, fd, &event);
}

} // namespace

int conf_event_add(int epfd, int fd, uint32_t events, uint32_t tag)
{
  return control(epfd, EPOLL_CTL_ADD, fd, events, tag);
}

int conf_event_reset(int epfd, int fd, uint32_t events, uint32_t tag)
{
  return control(epfd, EPOLL_CTL_MOD, fd, events, tag);
}

int conf_event_remove(int epfd, int fd)
{
  return control(epfd, EPOLL_CTL_DEL, fd, 0, 0);
}
