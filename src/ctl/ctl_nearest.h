// What somebody who mistyped a name may have meant.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// The names that are like `word`, the likeliest first, three at most; none when none is like it.
std::vector<std::string> ctl_nearest(std::string_view word, const std::vector<std::string> &names);
// "; did you mean a, b or c?", or nothing.
std::string ctl_did_you_mean(std::string_view word, const std::vector<std::string> &names);
