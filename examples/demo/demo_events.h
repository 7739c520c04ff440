// Event notifications: live, of the daemon and of a plugin, and replayed.
#pragma once

#include "demo_steps.h"

void demo_events(demo_t *demo);
