// The data that is measured with: entries of the module ex-bench.
#pragma once

#include <string>

// <bench> with entries 0 to `entries` - 1, about 230 bytes each.
std::string bench_document(int entries);
// <bench> that gives one leaf of one entry a value.
std::string bench_one_leaf(int entry, unsigned value);
