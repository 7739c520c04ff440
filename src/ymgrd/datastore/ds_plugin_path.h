// The data paths of plugins, in any form: resolved to schema nodes and keys.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ymgrd/datastore/ds_read.h"

typedef std::vector<ds_step_t> ds_steps_t;

// Cuts the path into its nodes; none for "/". Choices and cases may be named. Values come in the form in which they are
// stored. 0, or -1 with what is wrong in `*ret_error`.
int ds_parse_plugin_path(std::string_view path, ds_steps_t *ret_steps, std::string *ret_error);
// Borrows the steps.
ds_path_t ds_path_of(const ds_steps_t &steps);
// Whether the path lies at or below one of the schema paths, given in any form.
bool ds_is_below_any(const ds_steps_t &steps, const std::vector<std::string> &schema_paths);
