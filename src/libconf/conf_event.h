// Registration of descriptors with an epoll set. Level-triggered: an event is reported until its cause is gone, so a
// component that cannot take input for a while resets the descriptor without EPOLLIN.
#pragma once

#include <cstdint>

// 0, or -1 with errno. `tag` comes back in the low 32 bits of the event's data word.
int conf_event_add(int epfd, int fd, uint32_t events, uint32_t tag);
int conf_event_reset(int epfd, int fd, uint32_t events, uint32_t tag);
int conf_event_remove(int epfd, int fd);
