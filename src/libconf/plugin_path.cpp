#include "libconf/plugin_path.h"

#include <algorithm>

namespace {

// Length of the predicate that starts at `text[0]` == '[', brackets included; nothing when it does not end. Predicates
// may nest. Inside double quotes a backslash takes the special meaning from the next character (the quoting of data
// keys).
std::optional<size_t> predicate_length(std::string_view text)
{
  int depth = 0;
  char quote = '\0';
  for (size_t at = 0; at < text.size(); at++) {
    char c = text[at];
    if (quote != '\0') {
      if (c == '\\' && quote == '"') {
        at++;
      } else if (c == quote) {
        quote = '\0';
      }
    } else if (c == '\'' || c == '"') {
      quote = c;
    } else if (c == '[') {
      depth++;
    } else if (c == ']' && --depth == 0) {
      return at + 1;
    }
  }
  return std::nullopt;
}

// Length of the predicates at the start of `text`; 0 when there are none, nothing when one does not end.
std::optional<size_t> predicates_length(std::string_view text)
{
  size_t length = 0;
  while (length < text.size() && text[length] == '[') {
    std::optional<size_t> one = predicate_length(text.substr(length));
    if (!one) {
      return std::nullopt;
    }
    length += *one;
  }
  return length;
}

// "m:a" in the module `module` becomes "a"; a prefix of another module stays and becomes the new `*module`.
std::string_view without_known_prefix(std::string_view name, std::string_view *module)
{
  size_t colon = name.find(':');
  if (colon == std::string_view::npos) {
    return name;
  }
  if (name.substr(0, colon) == *module) {
    return name.substr(colon + 1);
  }
  *module = name.substr(0, colon);
  return name;
}

// Cuts the first step off `*path`, which is not empty after `skip_slashes`. False when it is no name with predicates.
bool take_step(std::string_view *path, plugin_path_step_t *ret_step)
{
  ret_step->name = path->substr(0, path->find_first_of("/[]'\""));
  path->remove_prefix(ret_step->name.size());
  std::optional<size_t> length = predicates_length(*path);
  if (ret_step->name.empty() || !length) {
    return false;
  }
  ret_step->predicates = path->substr(0, *length);
  path->remove_prefix(*length);
  return path->empty() || path->front() == '/';
}

void skip_slashes(std::string_view *path)
{
  path->remove_prefix(std::min(path->find_first_not_of('/'), path->size()));
}

enum class predicates { dropped, kept };

std::optional<std::string> to_std(std::string_view path, predicates mode)
{
  if (path.empty()) {
    return std::nullopt;
  }
  std::string result;
  result.reserve(path.size() + 1);
  std::string_view module;
  for (skip_slashes(&path); !path.empty(); skip_slashes(&path)) {
    plugin_path_step_t step;
    if (!take_step(&path, &step)) {
      return std::nullopt;
    }
    result.append("/").append(without_known_prefix(step.name, &module));
    // "[]" only marks a list's schema node: it selects nothing.
    if (mode == predicates::kept && step.predicates != "[]") {
      result.append(step.predicates);
    }
  }
  return result.empty() ? "/" : result;
}

} // namespace

std::optional<std::string> plugin_path_schema2std(std::string_view path)
{
  return to_std(path, predicates::dropped);
}

std::optional<std::string> plugin_path_data2std(std::string_view path)
{
  return to_std(path, predicates::kept);
}

std::optional<std::vector<plugin_path_step_t>> plugin_path_steps(std::string_view path)
{
  if (path.empty()) {
    return std::nullopt;
  }
  std::vector<plugin_path_step_t> steps;
  for (skip_slashes(&path); !path.empty(); skip_slashes(&path)) {
    if (!take_step(&path, &steps.emplace_back())) {
      return std::nullopt;
    }
  }
  return steps;
}
