// A sensitive leaf: clear to who may read the configuration, cipher text wherever it is kept.
#pragma once

#include "demo_steps.h"

void demo_secrets(demo_t *demo, const std::string &log_path);
