// Completion of paths and values. Of completion only (ctl_complete.h).
#pragma once

#include "ctl/ctl_complete.h"
#include "ctl/ctl_path.h"

// What a command does with its path.
typedef struct _ctl_path_use {
  bool with_state = false; // nodes that are no configuration
  bool edits = false;      // keys cannot be the target, and an entry that is not there yet may be named
  bool deletes = false;    // entries of leaf-lists are named
} ctl_path_use_t;

std::vector<ctl_candidate_t> ctl_complete_path(ctl_device &device, std::string_view word, const ctl_path_use_t &use,
                                               ctl_key_style style);
// Values for the leaf at `path`: what its type enumerates, what a leafref may refer to, what it is now.
std::vector<ctl_candidate_t> ctl_complete_value(ctl_device &device, const std::string &path, std::string_view word);

// ctl_complete_data.cpp: the values of the leaf or leaf-list at `path` that begin with `prefix`, in all entries that
// fit: as they are in running and candidate, state as it is now. Each once; the first thousand.
std::vector<std::string> ctl_find_values(ctl_device &device, const ctl_path_t &path, std::string_view prefix);
// In candidate.
std::vector<std::string> ctl_find_candidate_values(ctl_device &device, const ctl_path_t &path);
// ctl_complete_value.cpp: what the type enumerates, or the data that it refers to.
std::vector<std::string> ctl_find_type_values(ctl_device &device, const lysc_node *leaf, std::string_view prefix);
