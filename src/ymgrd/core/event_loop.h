// The event loop: one epoll set, dispatched by tag (ymgrd.h) to the components until the daemon has to end.
#pragma once

// Sets the loop up and runs it to its end.
void ymgrd_run();

int ymgrd_epoll_init();      // 0 or -1
void ymgrd_epoll_dispatch(); // returns when the loop ends
bool ymgrd_epoll_exit();     // true when the loop must end
void ymgrd_epoll_timeout();  // the work of an idle second
