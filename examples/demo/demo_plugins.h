// The demo's steps with plugins: what a commit does to the device.
#pragma once

#include "demo_steps.h"

// The example plugins "system" and "firewall" keep their files below `root`.
void demo_plugins(demo_t *demo, const std::string &root);
