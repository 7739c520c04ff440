// The canonical ("std") form of paths, in which registrations and matches are compared.
// Std schema path: leading "/", the module prefix on the first node and wherever the module changes, no predicates and
// no "[]", one slash between names, no trailing slash (but "/" itself). Std data path: the same with its predicates
// kept. Slashes and brackets inside quoted values are not separators.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Nothing when the path is empty, its quotes or brackets are unbalanced, or a step is not a name with predicates.
std::optional<std::string> plugin_path_schema2std(std::string_view path);
std::optional<std::string> plugin_path_data2std(std::string_view path);

// The steps of a path as they are written; the texts lie in `path`. Nothing for what has no std form.
typedef struct _plugin_path_step {
  std::string_view name;       // with its prefix
  std::string_view predicates; // with their brackets; empty when there are none
} plugin_path_step_t;
std::optional<std::vector<plugin_path_step_t>> plugin_path_steps(std::string_view path);
