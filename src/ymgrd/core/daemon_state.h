// The daemon's own state data, the container "daemon" of the module zentra-ymgrd: gathered anew for each request.
#pragma once

// Registers the publisher of the state data, unless the schema has no place for it. The time since the start counts
// from here. 0 or -1.
int daemon_state_init();
