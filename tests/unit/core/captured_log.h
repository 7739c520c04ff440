// What a piece of code logs.
#pragma once

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "ymgrd/core/log.h"

inline std::string logged_by(const std::function<void()> &code)
{
  log_open(LOG_TO_STDERR, LOG_LEVEL_DEBUG);
  testing::internal::CaptureStderr();
  code();
  return testing::internal::GetCapturedStderr();
}
