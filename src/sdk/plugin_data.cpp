// Reading the configuration and telling state: the same over the socket and inside the daemon.
#include <algorithm>
#include <cstddef>
#include <map>
#include <new>
#include <utility>

#include "libconf/plugin_path.h"
#include "sdk/plugin_internal.h"

namespace {

struct xml_text_delete_t {
  void operator()(xmlChar *text) const
  {
    size_t length = static_cast<size_t>(xmlStrlen(text));
    memset_s(text, length, 0, length);
    xmlFree(text);
  }
};
using xml_text_ptr = std::unique_ptr<xmlChar, xml_text_delete_t>;

const char *text_of(const xmlChar *text)
{
  return reinterpret_cast<const char *>(text);
}

int check_path(ymgr_plugin_t *plugin, const char *path)
{
  if (path == nullptr || !plugin_path_data2std(path)) {
    return sdk_fail(plugin, "%.512s is no path.", path == nullptr ? "(null)" : path);
  }
  return 0;
}

// --- Finding nodes in pulled data. It holds what the path names, its ancestors and their keys.

const xmlChar *namespace_of(const xmlNode *node)
{
  return node->ns == nullptr ? nullptr : node->ns->href;
}

// Namespaces stand in the data and modules in the path. They change together, which tells a key from the node of the
// same name that another module added.
bool is_named_by(const xmlNode *element, const xmlNode *parent, const sdk_path_step_t &step, bool is_top)
{
  if (step.name != text_of(element->name)) {
    return false;
  }
  bool stays_in_module = step.text == step.name;
  return is_top || stays_in_module == (xmlStrEqual(namespace_of(element), namespace_of(parent)) != 0);
}

// --- The walk over leafs.

class value_walk {
public:
  value_walk(ymgr_value_fn fn, void *user) : fn_(fn), user_(user) {}

  // The elements below `parent` that the steps from `depth` on lead to, and all below these. `path` names `parent`.
  int descend(const xmlNode *parent, const std::vector<sdk_path_step_t> &steps, size_t depth, const std::string &path)
  {
    if (depth == steps.size()) {
      return walk_children(parent, path);
    }
    const sdk_path_step_t &step = steps[depth];
    int count = 0;
    for (const xmlNode *node = plugin_first_element(parent); node != nullptr; node = plugin_next_element(node)) {
      count += is_named_by(node, parent, step, depth == 0) ? 1 : 0;
    }
    int position = 0;
    for (const xmlNode *node = plugin_first_element(parent); node != nullptr; node = plugin_next_element(node)) {
      if (!is_named_by(node, parent, step, depth == 0)) {
        continue;
      }
      std::string node_path = path_of(path, step.text, ++position, count);
      int result = depth + 1 == steps.size() ? walk(node, node_path) : descend(node, steps, depth + 1, node_path);
      if (result != 0) {
        return result;
      }
    }
    return 0;
  }

private:
  // An element is known by its name and its namespace.
  using element_name = std::pair<std::string_view, std::string_view>;
  typedef struct _siblings {
    int count = 0;
    int seen = 0;
  } siblings_t;

  static element_name name_of(const xmlNode *node)
  {
    const xmlChar *name_space = namespace_of(node);
    return {text_of(node->name), name_space == nullptr ? "" : text_of(name_space)};
  }

  static std::string path_of(const std::string &parent, std::string_view name, int position, int count)
  {
    std::string path = parent;
    path.append("/").append(name);
    return count == 1 ? path : path.append("[").append(std::to_string(position)).append("]");
  }

  int walk(const xmlNode *node, const std::string &path)
  {
    if (plugin_first_element(node) != nullptr) {
      return walk_children(node, path);
    }
    xml_text_ptr value(xmlNodeGetContent(node));
    if (value == nullptr) {
      throw std::bad_alloc();
    }
    return fn_(path.c_str(), text_of(node->name), text_of(value.get()), user_);
  }

  int walk_children(const xmlNode *parent, const std::string &path)
  {
    std::map<element_name, siblings_t> siblings;
    for (const xmlNode *node = plugin_first_element(parent); node != nullptr; node = plugin_next_element(node)) {
      siblings[name_of(node)].count++;
    }
    for (const xmlNode *node = plugin_first_element(parent); node != nullptr; node = plugin_next_element(node)) {
      siblings_t &same = siblings[name_of(node)];
      same.seen++;
      int result = walk(node, path_of(path, text_of(node->name), same.seen, same.count));
      if (result != 0) {
        return result;
      }
    }
    return 0;
  }

  ymgr_value_fn fn_;
  void *user_;
};

// --- The value of one leaf.

typedef struct _single_value {
  std::ptrdiff_t depth = 0; // of the node that was asked for
  int count = 0;
  bool is_below = false; // a value was found, but further down
  sdk_text_ptr text;
} single_value_t;

// Names and positions hold no slashes.
std::ptrdiff_t depth_of(std::string_view path)
{
  return std::count(path.begin(), path.end(), '/');
}

int take_value(const char *path, const char *, const char *value, void *user)
{
  auto *single = static_cast<single_value_t *>(user);
  single->count++;
  single->is_below = depth_of(path) > single->depth;
  if (single->count > 1 || single->is_below) {
    return -1;
  }
  single->text.reset(sdk_copy_text(value));
  return single->text == nullptr ? throw std::bad_alloc() : 0;
}

int pull_values(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, ymgr_value_fn fn, void *user)
{
  if (check_path(plugin, path) != 0) {
    return -1;
  }
  plugin_doc_ptr message;
  xmlNode *parent = nullptr;
  if (sdk_pull_tree(plugin, path, moment, &message, &parent) != 0) {
    return -1;
  }
  std::optional<std::string> std_path = plugin_path_schema2std(path);
  return value_walk(fn, user).descend(parent, sdk_path_steps(*std_path), 0, "");
}

} // namespace

std::vector<sdk_path_step_t> sdk_path_steps(std::string_view path)
{
  std::vector<sdk_path_step_t> steps;
  std::string_view module;
  while (path.size() > 1) {
    path.remove_prefix(1);
    std::string_view text = path.substr(0, path.find('/'));
    path.remove_prefix(text.size());
    std::string_view name = text;
    size_t colon = text.find(':');
    if (colon != std::string_view::npos) {
      module = text.substr(0, colon);
      name = text.substr(colon + 1);
    }
    steps.push_back({text, module, name});
  }
  return steps;
}

int ymgr_plugin_pull(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, char **ret_xml)
{
  return sdk_guard(plugin,
                   [&] { return check_path(plugin, path) == 0 ? sdk_pull_text(plugin, path, moment, ret_xml) : -1; });
}

int ymgr_plugin_pull_value(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, char **ret_value)
{
  return sdk_guard(plugin, [&] {
    if (check_path(plugin, path) != 0) {
      return -1;
    }
    single_value_t single;
    single.depth = depth_of(*plugin_path_schema2std(path));
    int result = pull_values(plugin, path, moment, take_value, &single);
    if (single.is_below || single.count > 1) {
      return sdk_fail(plugin, "%.512s is %s.", path, single.is_below ? "no leaf" : "more than one value");
    }
    if (result != 0) {
      return -1;
    }
    *ret_value = single.text.release(); // the caller's
    return 0;
  });
}

int ymgr_plugin_pull_values(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, ymgr_value_fn fn, void *user)
{
  return sdk_guard(plugin, [&] { return pull_values(plugin, path, moment, fn, user); });
}

int ymgr_plugin_locate(ymgr_plugin_t *plugin, const char *path, ymgr_moment_t moment, char **ret_prev, char **ret_next)
{
  return sdk_guard(plugin, [&] {
    sdk_text_ptr prev;
    sdk_text_ptr next;
    if (check_path(plugin, path) != 0 || sdk_locate(plugin, path, moment, &prev, &next) != 0) {
      return -1;
    }
    *ret_prev = prev.release(); // the caller's
    *ret_next = next.release();
    return 0;
  });
}

int ymgr_plugin_push(ymgr_plugin_t *plugin, const char *path, const char *xml)
{
  return sdk_guard(
      plugin, [&] { return check_path(plugin, path) == 0 ? sdk_push(plugin, path, xml == nullptr ? "" : xml) : -1; });
}
