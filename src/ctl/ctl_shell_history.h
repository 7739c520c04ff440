// The lines that were entered, kept for the next shell: one a line in a file that only its owner can read.
#pragma once

#include <string>
#include <string_view>
#include <vector>

constexpr size_t CTL_MOST_HISTORY = 1000;

// ${XDG_STATE_HOME:-~/.local/state}/ymgrctl/history
std::string ctl_history_path();
// The last CTL_MOST_HISTORY lines, the oldest first; shortens the file when it has grown to twice as many. Its folder
// is made when it is missing. -1 when it cannot be read or made, with the reason in errno.
int ctl_load_history(const std::string &path, std::vector<std::string> *ret_lines);
// Appends at once, so that several shells lose nothing of each other. 0 or -1.
int ctl_append_history(const std::string &path, std::string_view line);

// Whether a step of the path has a name that secrets have ("password", "key", ...). Which leaves are sensitive, only
// the daemon knows.
bool ctl_names_secret(std::string_view path);
// What is kept of a line: nothing when it begins with a blank, no value behind the path of a secret.
std::string ctl_history_line(std::string_view line);
