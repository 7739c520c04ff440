// The data that is measured with: entries of the module ex-bench.
#pragma once

#include <string>

// <bench> with entries 0 to `entries` - 1, about 230 bytes each.
std::string bench_document(int entries);
// <bench> with the key of one entry only: a filter, or a place.
std::string bench_entry_filter(int entry);
// edit-config of candidate.
std::string bench_edit(const std::string &config);
// edit-config of candidate that gives one leaf of one entry a value.
std::string bench_one_leaf_edit(int entry, unsigned value);
