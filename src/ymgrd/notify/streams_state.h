// The state of the event streams (module nc-notifications).
#pragma once

constexpr const char STREAMS_STATE_PATH[] = "/nc-notifications:netconf";

// Writes it into the status database. Needs the notification configuration. 0 or -1.
int nc_notifications_status(int session_id, const char *path);
