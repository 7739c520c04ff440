// Rows in columns, for what is no data of a datastore.
#pragma once

#include <string>
#include <vector>

#include "ctl/ctl_output.h"

// Prints the header and the rows, which have as many cells, in columns as wide as they need; cells as ctl_visible() has
// them. The exit code.
int ctl_print_table(const ctl_output_t &output, const std::vector<std::string> &header,
                    std::vector<std::vector<std::string>> rows);
