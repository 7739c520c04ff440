#include "ctl/ctl_path.h"

#include <algorithm>

#include "ctl/ctl_schema.h"

namespace {

// In quotes that the value allows.
std::string quoted(const std::string &value)
{
  const char quote = value.find('\'') == std::string::npos || value.find('"') != std::string::npos ? '\'' : '"';
  std::string text(1, quote);
  for (char c : value) {
    text.append(c == quote ? 2 : 1, c);
  }
  return text + quote;
}

bool fits(const lyd_node *node, const ctl_step_t &step)
{
  return node->schema == step.schema &&
         std::all_of(step.keys.begin(), step.keys.end(), [&](const std::pair<std::string, std::string> &key) {
           if (key.first == ".") {
             return key.second == lyd_get_value(node);
           }
           for (const lyd_node *child = lyd_child(node); child != nullptr && lysc_is_key(child->schema);
                child = child->next) {
             if (key.first == child->schema->name) {
               return key.second == lyd_get_value(child);
             }
           }
           return false;
         });
}

void find_below(lyd_node *siblings, const ctl_path_t &path, size_t index, std::vector<lyd_node *> *found)
{
  for (lyd_node *node = siblings; node != nullptr; node = node->next) {
    if (!fits(node, path[index])) {
      continue;
    }
    if (index + 1 == path.size()) {
      found->push_back(node);
    } else {
      find_below(lyd_child(node), path, index + 1, found);
    }
  }
}

// Whether anything of the path is left among the siblings.
bool keep_below(lyd_node *siblings, const ctl_path_t &path, size_t index, lyd_node **ret_first)
{
  bool has_any = false;
  lyd_node *first = siblings;
  for (lyd_node *node = siblings, *next = nullptr; node != nullptr; node = next) {
    next = node->next;
    const bool is_key = index > 0 && node->schema != nullptr && lysc_is_key(node->schema);
    const bool is_wanted =
        fits(node, path[index]) && (index + 1 == path.size() || keep_below(lyd_child(node), path, index + 1, nullptr));
    has_any = has_any || is_wanted;
    if (!is_wanted && !is_key) {
      first = node == first ? next : first;
      lyd_free_tree(node);
    }
  }
  if (ret_first != nullptr) {
    *ret_first = first;
  }
  return has_any;
}

} // namespace

bool ctl_has_all_keys(const ctl_step_t &step)
{
  const size_t count = step.schema->nodetype == LYS_LEAFLIST ? 1 : ctl_schema_keys(step.schema).size();
  // A list without keys, which only state has, cannot be told apart at all.
  return step.keys.size() == count && (count > 0 || step.schema->nodetype != LYS_LIST);
}

bool ctl_changes_module(const ctl_path_t &path, size_t index)
{
  return index == 0 || path[index].schema->module != path[index - 1].schema->module;
}

std::string ctl_path_text(const ctl_path_t &path)
{
  std::string text;
  for (size_t i = 0; i < path.size(); i++) {
    const lysc_node *node = path[i].schema;
    text += "/";
    text += ctl_changes_module(path, i) ? std::string(node->module->name) + ":" + node->name : node->name;
    for (const auto &[name, value] : path[i].keys) {
      text += "[" + name + "=" + quoted(value) + "]";
    }
  }
  return text.empty() ? "/" : text;
}

bool ctl_is_instance(const ctl_path_t &path)
{
  return std::all_of(path.begin(), path.end(), [](const ctl_step_t &step) {
    return (step.schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) == 0 || ctl_has_all_keys(step);
  });
}

std::vector<lyd_node *> ctl_find(lyd_node *tree, const ctl_path_t &path)
{
  std::vector<lyd_node *> found;
  if (!path.empty()) {
    find_below(tree, path, 0, &found);
  }
  return found;
}

ctl_tree_ptr ctl_keep_only(ctl_tree_ptr tree, const ctl_path_t &path)
{
  if (path.empty()) {
    return tree;
  }
  lyd_node *first = tree.release();         // its first node may be one that goes
  (void)keep_below(first, path, 0, &first); // nothing left: null
  return ctl_tree_ptr(first);
}
