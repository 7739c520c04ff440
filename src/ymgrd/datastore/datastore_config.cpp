// From the XML of <config> to a data tree whose nodes know their operation and their place in the document.
#include <utility>
#include <vector>

#include "ymgrd/core/log.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_error.h"
#include "ymgrd/schema/schema.h"

namespace {

NC_EDIT_OP_TYPE own_operation(const lyxml_elem *elem)
{
  for (const xmlAttr *attr = elem->properties; attr != nullptr; attr = attr->next) {
    if (std::string_view(reinterpret_cast<const char *>(attr->name)) == "operation") {
      return ds_operation_of(attr);
    }
  }
  return NC_EDIT_OP_NONE;
}

// --- Records. libyang sorts siblings into schema order, so XML elements and data nodes are walked in step, with one
// cursor for each kind of node below a parent.

struct sibling_cursor_t {
  std::string_view name;
  std::string_view ns;
  lyd_node *next;       // where to look for the next node of that kind without record
  lyd_node *next_empty; // the same of opaque nodes without value
};

std::string_view node_ns(const lyd_node *node)
{
  if (node->schema != nullptr) {
    return node->schema->module->ns;
  }
  const auto *opaque = reinterpret_cast<const lyd_node_opaq *>(node);
  return opaque->name.module_ns == nullptr ? std::string_view() : opaque->name.module_ns;
}

std::string_view node_name(const lyd_node *node)
{
  return LYD_NAME(node);
}

bool has_text(const lyd_node_opaq *opaque)
{
  return opaque->value != nullptr && !lyxml_is_blank(opaque->value);
}

bool is_empty_opaque(const lyd_node *node)
{
  const auto *opaque = reinterpret_cast<const lyd_node_opaq *>(node);
  return node->schema == nullptr && opaque->child == nullptr && !has_text(opaque);
}

bool is_empty(const lyxml_elem *elem)
{
  return lyxml_first_child(elem) == nullptr && lyxml_is_blank(lyxml_text(elem));
}

class record_writer {
public:
  explicit record_writer(ds_config_t *config) : config_(config) {}

  void write(const lyxml_elem *first_elem, lyd_node *first_node)
  {
    std::vector<sibling_cursor_t> cursors;
    size_t last = 0;
    for (const lyxml_elem *elem = first_elem; elem != nullptr; elem = lyxml_next(elem)) {
      lyd_node *node = take_next(first_node, &cursors, &last, elem);
      if (node == nullptr) {
        continue;
      }
      ds_node_record_t *record = config_->arena.record_of(node);
      record->node_op = own_operation(elem);
      record->order = next_order_++;
      lyd_node *child = node->schema == nullptr ? nullptr : lyd_child(node);
      if (child != nullptr) {
        write(lyxml_first_child(elem), child);
      }
    }
  }

private:
  // The first node that `elem` can stand for and that was not taken before.
  lyd_node *take_next(lyd_node *first_node, std::vector<sibling_cursor_t> *cursors, size_t *last,
                      const lyxml_elem *elem)
  {
    std::string_view name = lyxml_name(elem);
    std::string_view ns = lyxml_ns(elem);
    // Elements of one kind mostly follow each other: the cursor used last is tried first.
    if (*last >= cursors->size() || (*cursors)[*last].name != name || (*cursors)[*last].ns != ns) {
      *last = find_cursor(first_node, cursors, name, ns);
    }
    sibling_cursor_t &cursor = (*cursors)[*last];
    // An empty element that its type refuses has become an opaque node, which may stand anywhere among its namesakes.
    if (is_empty(elem)) {
      lyd_node *empty = find_from(cursor.next_empty, name, ns, OPAQUE_WITHOUT_VALUE);
      cursor.next_empty = empty == nullptr ? nullptr : empty->next;
      if (empty != nullptr) {
        return empty;
      }
    }
    lyd_node *taken = find_from(cursor.next, name, ns, ALL_OTHERS);
    cursor.next = taken == nullptr ? nullptr : taken->next;
    return taken;
  }

  static size_t find_cursor(lyd_node *first_node, std::vector<sibling_cursor_t> *cursors, std::string_view name,
                            std::string_view ns)
  {
    for (size_t i = 0; i < cursors->size(); i++) {
      if ((*cursors)[i].name == name && (*cursors)[i].ns == ns) {
        return i;
      }
    }
    cursors->push_back({name, ns, first_node, first_node});
    return cursors->size() - 1;
  }

  enum which_t { OPAQUE_WITHOUT_VALUE, ALL_OTHERS };

  static lyd_node *find_from(lyd_node *from, std::string_view name, std::string_view ns, which_t wanted)
  {
    for (lyd_node *node = from; node != nullptr; node = node->next) {
      if (node_name(node) == name && node_ns(node) == ns && is_empty_opaque(node) == (wanted == OPAQUE_WITHOUT_VALUE)) {
        return node;
      }
    }
    return nullptr;
  }

  ds_config_t *config_;
  uint32_t next_order_ = 1;
};

// --- Opaque nodes: what libyang could not parse as data.

bool is_marked_as_gone(const lyd_node *node)
{
  const lyd_attr *attr = reinterpret_cast<const lyd_node_opaq *>(node)->attr;
  while (attr != nullptr && std::string_view(attr->name.name) != "operation") {
    attr = attr->next;
  }
  return attr != nullptr && (std::string_view(attr->value) == "delete" || std::string_view(attr->value) == "remove");
}

// Clients delete a leaf by an element without value, which most types refuse.
bool is_deletion_of_leaf(const lyd_node *node)
{
  if (!is_empty_opaque(node) || !is_marked_as_gone(node)) {
    return false;
  }
  const lysc_node *schema = dbkey_schema_of(node);
  return schema != nullptr && schema->nodetype == LYS_LEAF && (schema->flags & LYS_CONFIG_W);
}

std::string path_of(const lyd_node *node)
{
  char *path = lyd_path(node, LYD_PATH_STD, nullptr, 0);
  c_string_ptr owner(path);
  return path == nullptr ? std::string() : path;
}

const char *missing_key(const lysc_node *list, const lyd_node_opaq *entry)
{
  for (const lysc_node *key = lysc_node_child(list); key != nullptr && lysc_is_key(key); key = key->next) {
    bool given = false;
    for (const lyd_node *child = entry->child; child != nullptr && !given; child = child->next) {
      given = std::string_view(LYD_NAME(child)) == key->name;
    }
    if (!given) {
      return key->name;
    }
  }
  return nullptr;
}

// Not by lyd_parse_opaq_error, which has no context for the members of a union.
bool is_valid_value(const lysc_node *schema, const lyd_node_opaq *opaque)
{
  return lyd_value_validate(schema_ctx(), schema, opaque->value, std::char_traits<char>::length(opaque->value), nullptr,
                            nullptr, nullptr) == LY_SUCCESS;
}

// The key that kept the entry from becoming one; null when there is none.
const lyd_node *invalid_key(const lyd_node_opaq *entry)
{
  for (const lyd_node *child = entry->child; child != nullptr; child = child->next) {
    const lysc_node *schema = dbkey_schema_of(child);
    const auto *opaque = reinterpret_cast<const lyd_node_opaq *>(child);
    if (child->schema == nullptr && schema != nullptr && lysc_is_key(schema) && !is_valid_value(schema, opaque)) {
      return child;
    }
  }
  return nullptr;
}

// libyang is asked to parse the node once more: it fails on purpose and leaves the reason behind.
reply_error_ptr opaque_error(const lyd_node *node)
{
  const lysc_node *schema = dbkey_schema_of(node);
  const auto *opaque = reinterpret_cast<const lyd_node_opaq *>(node);
  bool is_list = schema != nullptr && schema->nodetype == LYS_LIST;
  const char *key = is_list ? missing_key(schema, opaque) : nullptr;
  if (const lyd_node *invalid = is_list && key == nullptr ? invalid_key(opaque) : nullptr; invalid != nullptr) {
    return opaque_error(invalid);
  }
  std::string path = path_of(node);
  reply_error_ptr error;
  if (key != nullptr) {
    error = rpc_make_error(REPLY_ERR_MISSING_ELEM, "List instance is missing its key \"" + std::string(key) + "\".");
    rpc_set_error_field(error.get(), REPLY_ERR_FIELD_INFO,
                        ("<bad-element>" + std::string(key) + "</bad-element>").c_str());
  } else {
    ds_clear_yang_errors();
    if (schema != nullptr && (schema->nodetype & (LYS_LEAF | LYS_LEAFLIST))) {
      (void)is_valid_value(schema, opaque);
    } else {
      (void)lyd_parse_opaq_error(node);
    }
    bool has_value = schema != nullptr && (schema->nodetype & (LYS_LEAF | LYS_LEAFLIST));
    int other_kind = has_value ? REPLY_ERR_INVALID_VALUE : REPLY_ERR_OP_FAILED;
    error.reset(rpc_create_error(ds_error_kind(REPLY_ERR_INVALID_VALUE, other_kind)));
    ds_add_path_and_msg(error.get());
  }
  if (error != nullptr && !path.empty()) {
    rpc_set_error_field(error.get(), REPLY_ERR_FIELD_PATH, path.c_str());
  }
  return error;
}

// All that are left are deletions of leafs.
int check_opaque_nodes(const ds_config_t *config, reply_error_ptr *ret_error)
{
  lyd_node *top = nullptr;
  LY_LIST_FOR(config->tree.get(), top)
  {
    lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(top, node)
    {
      if (node->schema == nullptr) {
        if (!is_deletion_of_leaf(node)) {
          *ret_error = opaque_error(node);
          return -1;
        }
        LYD_TREE_DFS_continue = 1;
      }
      LYD_TREE_DFS_END(top, node);
    }
  }
  return 0;
}

// A copied configuration is content: what is marked as gone has no place in it.
int check_copied_nodes(ds_config_t *config, reply_error_ptr *ret_error)
{
  lyd_node *top = nullptr;
  LY_LIST_FOR(config->tree.get(), top)
  {
    lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(top, node)
    {
      NC_EDIT_OP_TYPE op = config->arena.record_of(node)->node_op;
      if (op == NC_EDIT_OP_DELETE || op == NC_EDIT_OP_REMOVE) {
        ret_error->reset(rpc_create_error(REPLY_ERR_BAD_ATTR));
        rpc_set_error_field(ret_error->get(), REPLY_ERR_FIELD_INFO, "<bad-attribute>operation</bad-attribute>");
        rpc_set_error_field(ret_error->get(), REPLY_ERR_FIELD_PATH, path_of(node).c_str());
        return -1;
      }
      LYD_TREE_DFS_END(top, node);
    }
  }
  return 0;
}

// --- Text for libyang.

// 0, or -1 when memory was too short for a part: the rest alone would be another edit.
int content_text(const lyxml_elem *config, wiped_string *text)
{
  for (lyxml_elem *child = lyxml_first_child(config); child != nullptr; child = lyxml_next(child)) {
    std::string markup = lyxml_print_self_contained(child);
    if (markup.empty()) {
      return -1;
    }
    text->append(markup);
    memset_s(markup.data(), markup.size(), 0, markup.size());
  }
  return 0;
}

int config_failure(reply_error_ptr *ret_error, int kind, const char *message)
{
  log_error("%s", message);
  *ret_error = rpc_make_error(kind, message);
  return -1;
}

// The <config> element of the operation; null, with the error, when there is none.
lyxml_elem *find_config(lyxml_elem *rpc, NC_OP nc_op, reply_error_ptr *ret_error)
{
  if (lyxml_name(rpc) != "rpc" || lyxml_ns(rpc) != NETCONF_BASE_NS_1_0) {
    log_error("XML data parser expect <rpc> root in \"%s\" namespace.", NETCONF_BASE_NS_1_0);
    *ret_error = rpc_make_error(REPLY_ERR_OP_FAILED, "rpc namespace error.");
    return nullptr;
  }
  lyxml_elem *operation = lyxml_first_child(rpc);
  lyxml_elem *holder =
      operation == nullptr || nc_op == NC_OP_EDITCONFIG ? operation : lyxml_find_child(operation, "source");
  lyxml_elem *config = holder == nullptr ? nullptr : lyxml_find_child(holder, "config");
  if (config == nullptr) {
    (void)config_failure(ret_error, REPLY_ERR_OP_FAILED,
                         nc_op == NC_OP_EDITCONFIG ? "edit-config operation does not have 'config' node."
                                                   : "XML data parser expect <config> node.");
  }
  return config;
}

// The content of <config> as a data tree without records. The text is gone when it returns: it is as large as the
// request.
int parse_content(const lyxml_elem *elem, ds_config_t *config, reply_error_ptr *ret_error)
{
  wiped_string text;
  if (content_text(elem, &text) != 0) {
    return config_failure(ret_error, REPLY_ERR_OP_FAILED, "Memory is too short for the configuration.");
  }
  if (text.empty()) {
    return 0;
  }
  ds_clear_yang_errors();
  lyd_node *tree = nullptr;
  LY_ERR result = lyd_parse_data_mem(schema_ctx(), text.c_str(), LYD_XML,
                                     LYD_PARSE_ONLY | LYD_PARSE_OPAQ | LYD_PARSE_NO_STATE, 0, &tree);
  config->tree.reset(tree);
  if (result != LY_SUCCESS) {
    log_error("something wrong when parse xml data(rpc config)");
    *ret_error = rpc_make_error(ds_error_kind(REPLY_ERR_INVALID_VALUE, REPLY_ERR_OP_FAILED), "parse rpc config error.");
    ds_add_path_and_msg(ret_error->get());
    return -1;
  }
  return 0;
}

} // namespace

int ds_parse_rpc_config(lyxml_elem *rpc, NC_OP nc_op, ds_config_t *config, reply_error_ptr *ret_error)
{
  lyxml_elem *elem = find_config(rpc, nc_op, ret_error);
  if (elem == nullptr || ds_check_config(elem, ret_error) != 0 || parse_content(elem, config, ret_error) != 0) {
    return -1;
  }
  if (config->tree == nullptr) {
    return 0;
  }
  if (check_opaque_nodes(config, ret_error) != 0) {
    return -1;
  }
  record_writer(config).write(lyxml_first_child(elem), config->tree.get());
  return nc_op == NC_OP_COPYCONFIG ? check_copied_nodes(config, ret_error) : 0;
}

void ds_set_nodelist_op(lyd_node *first, NC_EDIT_OP_TYPE op, ds_node_arena *arena)
{
  lyd_node *top = nullptr;
  LY_LIST_FOR(first, top)
  {
    lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(top, node)
    {
      arena->record_of(node)->node_op = op;
      LYD_TREE_DFS_END(top, node);
    }
  }
}
