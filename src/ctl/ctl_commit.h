// The commit, with a word on what becomes of candidate when it is refused.
#pragma once

#include "ctl/ctl_device.h"

// The exit code.
int ctl_commit(ctl_device &device);
