#include <cctype>
#include <cerrno>
#include <cstring>

#include "libconf/plugin_path.h"
#include "ymgrd/broker/broker_internal.h"
#include "ymgrd/core/log.h"

namespace {

typedef enum _path_relation {
  PATH_APART,
  PATH_MATCHES,       // the node lies at the subscriber's path
  PATH_MATCHES_BELOW, // the node lies below the subscriber's path
  PATH_LEADS,         // the subscriber's path may lie below the node
} path_relation_t;

path_relation_t relate(const std::string &path, const std::string &node_path)
{
  if (node_path == path) {
    return PATH_MATCHES;
  }
  if (node_path.starts_with(path) && (path == "/" || node_path[path.size()] == '/')) {
    return PATH_MATCHES_BELOW;
  }
  return path.starts_with(node_path) ? PATH_LEADS : PATH_APART;
}

path_relation_t relate(broker_schema_paths *paths, const std::string &path, const differ_node_t *node)
{
  const std::string *node_path = paths->of(node);
  return node_path == nullptr ? PATH_APART : relate(path, *node_path);
}

bool is_list_entry(const char *schema_path)
{
  size_t length = std::strlen(schema_path);
  while (length > 0 && std::isspace(static_cast<unsigned char>(schema_path[length - 1])) != 0) {
    length--;
  }
  return length > 0 && schema_path[length - 1] == ']';
}

// Whether siblings of the node may match the path too: further entries of its list, or, when the path names what holds
// it (the top, a choice, a case), its neighbours.
bool may_have_matching_siblings(broker_schema_paths *paths, const std::string &path, const differ_node_t *node)
{
  return is_list_entry(node->schema_path) || relate(paths, path, node) == PATH_MATCHES_BELOW;
}

} // namespace

const std::string *broker_schema_paths::of(const differ_node_t *node)
{
  auto [known, is_new] = std_paths_.try_emplace(node->schema_path);
  if (is_new && node->schema_path != nullptr) {
    known->second = plugin_path_schema2std(node->schema_path);
    if (!known->second) {
      log_warn("Duplicate string <%.512s> failed(%s).", node->schema_path, std::strerror(EINVAL));
    }
  }
  return known->second ? &*known->second : nullptr;
}

differ_interest_t broker_interest_of(int plugin_id, const char *schema_path)
{
  std::optional<std::string> node_path = plugin_path_schema2std(schema_path);
  differ_interest_t interest = DIFFER_APART;
  for (const subscriber_t &subscriber : broker_registry().config_subs) {
    if (!node_path || subscriber.plugin_id != plugin_id) {
      continue;
    }
    path_relation_t relation = relate(subscriber.path, *node_path);
    if (relation == PATH_LEADS) {
      return DIFFER_BELOW;
    }
    interest = relation == PATH_APART ? interest : DIFFER_NODE;
  }
  return interest;
}

differ_node_t *broker_first_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *node)
{
  for (; node != nullptr; node = node->next) {
    path_relation_t relation = relate(paths, path, node);
    if (relation == PATH_MATCHES || relation == PATH_MATCHES_BELOW) {
      return node;
    }
    differ_node_t *found = relation == PATH_LEADS ? broker_first_diffnode(paths, path, node->child) : nullptr;
    if (found != nullptr) {
      return found;
    }
  }
  return nullptr;
}

differ_node_t *broker_last_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *node)
{
  for (; node != nullptr; node = node->prev) {
    path_relation_t relation = relate(paths, path, node);
    if (relation == PATH_MATCHES || relation == PATH_MATCHES_BELOW) {
      return node;
    }
    if (relation != PATH_LEADS) {
      continue;
    }
    differ_node_t *found = broker_last_diffnode(paths, path, differ_node_last(node->child));
    if (found != nullptr) {
      return found;
    }
  }
  return nullptr;
}

differ_node_t *broker_next_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *cur)
{
  for (; cur != nullptr; cur = cur->parent) {
    if (cur->schema_path == nullptr) {
      log_error("schema path is NULL. data path:%.512s.", cur->data_path == nullptr ? "" : cur->data_path);
      return nullptr;
    }
    // All siblings behind are searched at once: when they hold no match, only what lies further up is left.
    bool is_searched = may_have_matching_siblings(paths, path, cur);
    differ_node_t *found = is_searched ? broker_first_diffnode(paths, path, cur->next) : nullptr;
    if (found != nullptr) {
      return found;
    }
  }
  return nullptr;
}

differ_node_t *broker_prev_diffnode(broker_schema_paths *paths, const std::string &path, differ_node_t *cur)
{
  for (; cur != nullptr; cur = cur->parent) {
    if (cur->schema_path == nullptr) {
      log_error("schema path not exist. path:%.512s.", path.c_str());
      return nullptr;
    }
    bool is_searched = may_have_matching_siblings(paths, path, cur);
    differ_node_t *found = is_searched ? broker_last_diffnode(paths, path, cur->prev) : nullptr;
    if (found != nullptr) {
      return found;
    }
  }
  return nullptr;
}
