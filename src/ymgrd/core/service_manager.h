// The service manager that has started the daemon, when one waits for word of its start (sd_notify(3)).
#pragma once

// Whether one does: NOTIFY_SOCKET names its socket. Then it is told of this process, which therefore must not detach.
bool service_manager_waits();
// Tells it, if there is one, that clients are served, and takes NOTIFY_SOCKET out of the environment: it is for nobody
// else. A failure is logged; the service manager then takes the start for a failed one.
void service_manager_tell_ready();
