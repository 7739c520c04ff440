// What can stand at the cursor: commands, options, paths from the schema, keys of list entries from the data.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ctl/ctl_device.h"

typedef struct _ctl_candidate {
  std::string text;    // replaces the word, from its beginning
  std::string display; // what a list of candidates shows: the last step, not the whole path
  bool is_final;       // a blank may follow; false when the word goes on ("/ex-sys:system/")
} ctl_candidate_t;

// `words`: those before the cursor, the last one (maybe empty) being completed. Tells no faults: nothing is found then.
std::vector<ctl_candidate_t> ctl_complete(ctl_device &device, const std::vector<std::string> &words);
// The words of a line, with quotes and backslashes taken off as a POSIX shell does; a word in brackets keeps its quotes
// and blanks ("route[dest='a b']"). `*ret_last_begin` (may be null): where the last word begins in `line`.
std::vector<std::string> ctl_split_line(std::string_view line, size_t *ret_last_begin);
