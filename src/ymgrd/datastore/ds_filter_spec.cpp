// From the <filter> of a request to one that can be held against stored data.
#include <algorithm>
#include <new>

#include "libconf/wiped_string.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/datastore/ds_filter.h"
#include "ymgrd/datastore/ds_prefix.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/schema/schema_sensitive.h"
#include "ymgrd/schema/schema_value.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr uint16_t INNER_NODES = LYS_CONTAINER | LYS_LIST;
constexpr uint16_t VALUE_NODES = LYS_LEAF | LYS_LEAFLIST;
constexpr uint16_t DATA_NODES = INNER_NODES | VALUE_NODES | LYD_NODE_ANY;

const lys_module *module_of_ns(const char *ns)
{
  return ly_ctx_get_module_implemented_ns(schema_ctx(), ns);
}

// Without namespace, or in the one that it has from the operation because the client declared none.
bool is_of_any_namespace(const lyxml_elem *elem)
{
  return lyxml_ns(elem).empty() || lyxml_ns(elem) == NETCONF_BASE_NS_1_0;
}

void add_data_node(const lysc_node *node, ds_schema_nodes *nodes)
{
  if (node != nullptr && node->nodetype & DATA_NODES) {
    nodes->push_back(node);
  }
}

// Top nodes of that name in any module.
void add_top_nodes(const char *name, ds_schema_nodes *nodes)
{
  uint32_t index = 0;
  while (const lys_module *module = ly_ctx_get_module_iter(schema_ctx(), &index)) {
    if (module->implemented) {
      add_data_node(lys_find_child(nullptr, module, name, 0, 0, 0), nodes);
    }
  }
}

// Children of that name, which several modules may have added.
void add_children(const lysc_node *parent, std::string_view name, ds_schema_nodes *nodes)
{
  const lysc_node *child = nullptr;
  while ((child = lys_getnext(child, parent, nullptr, 0)) != nullptr) {
    if (name == child->name) {
      add_data_node(child, nodes);
    }
  }
}

void keep_kinds(ds_schema_nodes *nodes, uint16_t kinds)
{
  std::erase_if(*nodes, [kinds](const lysc_node *node) { return (node->nodetype & kinds) == 0; });
}

// --- Values

// The text of a content match node in the form of stored values; what its type refuses matches nothing and stays.
wiped_string normal_value(lyxml_elem *elem, const lysc_node *schema, std::string_view value)
{
  wiped_string stored;
  LY_DATA_TYPE type = LY_TYPE_UNKNOWN;
  bool fits = schema_to_stored_form(schema, ds_without_prefixes(elem, schema, value), &stored, &type);
  return fits ? stored : wiped_string(value);
}

// Requests are kept with cipher text for sensitive values. These are compared in clear.
wiped_string clear_value(const lysc_node *schema, std::string_view value)
{
  wiped_string clear;
  clear.reserve(value.size() + sizeof(clear)); // a short text would not be wiped
  if (!encrypt_is_marked(value) || decrypt_sensitive(value, &clear) != 0) {
    clear.assign(value);
  }
  wiped_string canonical;
  return schema_check_sensitive(schema, clear, &canonical) ? canonical : clear;
}

// --- Elements

int normalize_siblings(const lyxml_elem *parent, const ds_schema_nodes &parents);

int normalize_content(lyxml_elem *elem, std::string_view text, ds_schema_nodes schemas)
{
  keep_kinds(&schemas, VALUE_NODES | LYD_NODE_ANY);
  if (schemas.empty()) {
    return DS_FILTER_UNKNOWN_NODES; // text where only elements can be
  }
  bool is_value = schemas.size() == 1 && schemas.front()->nodetype & VALUE_NODES;
  wiped_string value(text);
  if (is_value) {
    const lysc_node *schema = schemas.front();
    value = schema_is_sensitive(schema) ? clear_value(schema, text) : normal_value(elem, schema, text);
  }
  return lyxml_set_text(elem, value) == 0 ? DS_FILTER_OK : DS_FILTER_FAILED;
}

int normalize(lyxml_elem *elem, const ds_schema_nodes &parents)
{
  ds_schema_nodes schemas = ds_filter_schema(elem, parents);
  if (schemas.empty()) {
    return DS_FILTER_UNKNOWN_NODES;
  }
  if (is_of_any_namespace(elem)) {
    elem->ns = nullptr;
  }
  std::string text = lyxml_text(elem);
  bool is_blank = lyxml_is_blank(text);
  int result = DS_FILTER_OK;
  if (lyxml_first_child(elem) == nullptr) {
    result = is_blank ? DS_FILTER_OK : normalize_content(elem, nc_clrwspace(text), std::move(schemas));
  } else if (!is_blank) {
    result = DS_FILTER_UNKNOWN_NODES; // mixed content
  } else if (std::none_of(schemas.begin(), schemas.end(),
                          [](const lysc_node *schema) { return schema->nodetype & LYD_NODE_ANY; })) {
    result = normalize_siblings(elem, schemas);
  } // what an anyxml node may hold is not known
  memset_s(text.data(), text.size(), 0, text.size());
  return result;
}

int normalize_siblings(const lyxml_elem *parent, const ds_schema_nodes &parents)
{
  for (lyxml_elem *elem = lyxml_first_child(parent); elem != nullptr; elem = lyxml_next(elem)) {
    int result = normalize(elem, parents);
    if (result != DS_FILTER_OK) {
      return result;
    }
  }
  return DS_FILTER_OK;
}

} // namespace

int ds_get_ncfilter(const lyxml_elem *operation, std::unique_ptr<nc_filter_t> *ret_filter)
{
  lyxml_elem *elem = lyxml_find_child(operation, "filter");
  if (elem == nullptr) {
    ret_filter->reset();
    return 0;
  }
  std::unique_ptr<nc_filter_t> filter(new (std::nothrow) nc_filter_t);
  if (filter != nullptr) {
    filter->subtree_filter = lyxml_copy(elem);
  }
  if (filter == nullptr || filter->subtree_filter == nullptr) {
    log_error("get filter malloc fail.");
    return -1;
  }
  std::string type;
  bool is_subtree = !lyxml_get_attr(elem, "type", &type) || type == "subtree";
  filter->type = is_subtree ? NC_FILTER_SUBTREE : NC_FILTER_UNKNOWN;
  *ret_filter = std::move(filter);
  return 0;
}

bool nc_filter_is_empty(const nc_filter_t &filter)
{
  return filter.subtree_filter == nullptr || lyxml_first_child(filter.subtree_filter.get()) == nullptr;
}

ds_schema_nodes ds_filter_schema(const lyxml_elem *elem, const ds_schema_nodes &parents)
{
  ds_schema_nodes nodes;
  const char *name = reinterpret_cast<const char *>(elem->name);
  bool is_top = parents.empty();
  if (is_of_any_namespace(elem)) {
    if (is_top) {
      add_top_nodes(name, &nodes);
    }
    for (const lysc_node *parent : parents) {
      add_children(parent, name, &nodes);
    }
    return nodes;
  }
  const lys_module *module = module_of_ns(lyxml_ns(elem).data());
  if (module == nullptr) {
    return nodes;
  }
  if (is_top) {
    add_data_node(lys_find_child(nullptr, module, name, 0, 0, 0), &nodes);
  }
  for (const lysc_node *parent : parents) {
    add_data_node(lys_find_child(parent, module, name, 0, 0, 0), &nodes);
  }
  return nodes;
}

int ds_filter_spec(nc_filter_t *filter)
{
  int result = nc_filter_is_empty(*filter) ? DS_FILTER_OK : normalize_siblings(filter->subtree_filter.get(), {});
  if (result == DS_FILTER_UNKNOWN_NODES) {
    log_error("something wrong when parse filter-xml data.");
  } else if (result == DS_FILTER_FAILED) {
    log_error("filter spec new lyxml fail.");
  }
  return result;
}

std::vector<std::string> ds_filter_top_paths(const nc_filter_t &filter)
{
  std::vector<std::string> paths;
  for (const lyxml_elem *elem = lyxml_first_child(filter.subtree_filter.get()); elem != nullptr;
       elem = lyxml_next(elem)) {
    for (const lysc_node *schema : ds_filter_schema(elem, {})) {
      std::string path = std::string("/") + schema->module->name + ":" + schema->name;
      if (std::find(paths.begin(), paths.end(), path) == paths.end()) {
        paths.push_back(std::move(path));
      }
    }
  }
  return paths;
}
