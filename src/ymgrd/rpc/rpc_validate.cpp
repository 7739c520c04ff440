// The check of the NETCONF rpc layer: what libyang knows of the protocol's own operations is checked here, what lies
// below an anyxml node (configurations, filters) is the handlers' to check.
#include <cstring>
#include <string>
#include <vector>

#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/datastore/ds_error.h"
#include "ymgrd/rpc/rpc.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/ymgrd.h"

namespace {

// A parsed operation: the node that validation starts from, and its tree.
typedef struct _layer_operation {
  lyd_tree_ptr tree;
  lyd_node *op = nullptr;
} layer_operation_t;

bool is_protocol_ns(const xmlNs *ns)
{
  const char *href = ns->href == nullptr ? "" : reinterpret_cast<const char *>(ns->href);
  return std::strcmp(href, NETCONF_BASE_NS_1_0) == 0 || std::strcmp(href, NETCONF_BASE_NS_1_1) == 0;
}

const lysc_node *find_schema(const lysc_node *parent, const lyxml_elem *elem)
{
  if (elem->ns == nullptr || elem->ns->href == nullptr) {
    return nullptr;
  }
  const lys_module *module =
      ly_ctx_get_module_implemented_ns(schema_ctx(), reinterpret_cast<const char *>(elem->ns->href));
  if (module == nullptr) {
    return nullptr;
  }
  return lys_find_child(parent, module, reinterpret_cast<const char *>(elem->name), 0, 0, 0);
}

// Copies what libyang is to see of the element to the end of `parent`. Content of anyxml nodes is left out, with the
// attributes that the filter has; so is what lies below an unknown element, where libyang stops anyway.
int copy_layer(lyxml_elem *parent, lyxml_elem *elem, const lysc_node *schema_parent)
{
  enum { COPY_DEEP = 1, COPY_WITHOUT_CHILDREN = 2 };
  const lysc_node *schema = find_schema(schema_parent, elem);
  bool is_inner = schema != nullptr && (schema->nodetype & (LYS_CONTAINER | LYS_LIST | LYS_RPC | LYS_ACTION)) != 0;
  bool is_value = schema != nullptr && (schema->nodetype & (LYS_LEAF | LYS_LEAFLIST)) != 0;

  xmlNode *copy = xmlDocCopyNode(elem, parent->doc, is_value ? COPY_DEEP : COPY_WITHOUT_CHILDREN);
  if (copy == nullptr) {
    return -1;
  }
  xmlAddChild(parent, copy);
  if (schema != nullptr && (schema->nodetype & LYD_NODE_ANY) != 0) {
    xmlFreePropList(copy->properties);
    copy->properties = nullptr;
  }
  std::string text = is_inner ? lyxml_text(elem) : "";
  if (!lyxml_is_blank(text)) { // for libyang to refuse
    xmlNodeAddContent(copy, reinterpret_cast<const xmlChar *>(text.c_str()));
  }
  for (lyxml_elem *child = is_inner ? lyxml_first_child(elem) : nullptr; child != nullptr; child = lyxml_next(child)) {
    if (copy_layer(copy, child, schema) != 0) {
      return -1;
    }
  }
  return 0;
}

// The operation as text for libyang; empty when memory is short.
std::string print_layer(const lyxml_elem *root, lyxml_elem *operation)
{
  lyxml_ptr layer = lyxml_new_root("rpc");
  if (layer == nullptr) {
    return {};
  }
  for (const xmlNs *ns = root->nsDef; ns != nullptr; ns = ns->next) {
    (void)xmlNewNs(layer.get(), ns->href, ns->prefix); // null only for a prefix declared before
  }
  if (copy_layer(layer.get(), operation, nullptr) != 0) {
    return {};
  }
  return lyxml_print_self_contained(lyxml_first_child(layer.get()));
}

// 0, or -1 with libyang's error kept for the reply.
int parse_operation(const std::string &text, layer_operation_t *ret_operation)
{
  ly_in *input = nullptr;
  if (ly_in_new_memory(text.c_str(), &input) != LY_SUCCESS) {
    return -1;
  }
  lyd_node *tree = nullptr;
  lyd_node *op = nullptr;
  LY_ERR result = lyd_parse_op(schema_ctx(), nullptr, input, LYD_XML, LYD_TYPE_RPC_YANG, &tree, &op);
  ly_in_free(input, 0);
  ret_operation->tree.reset(tree);
  ret_operation->op = op;
  return result == LY_SUCCESS ? 0 : -1;
}

int parse_layer(const lyxml_elem *root, std::vector<layer_operation_t> *ret_operations)
{
  for (lyxml_elem *child = lyxml_first_child(root); child != nullptr; child = lyxml_next(child)) {
    layer_operation_t operation;
    std::string text = print_layer(root, child);
    if (text.empty() || parse_operation(text, &operation) != 0) {
      return -1;
    }
    if (operation.op != nullptr) {
      ret_operations->push_back(std::move(operation));
    }
  }
  return 0;
}

} // namespace

int rpc_is_not_standard_rpc(const lyxml_elem *root)
{
  const lyxml_elem *operation = lyxml_first_child(root);
  for (const lyxml_elem *elem : {root, operation}) {
    for (const xmlNs *ns = elem == nullptr ? nullptr : elem->nsDef; ns != nullptr; ns = ns->next) {
      if (!is_protocol_ns(ns)) {
        log_debug("just validate standard rpc layer.");
        return 0;
      }
    }
  }
  return -1;
}

int rpc_validate_standard_rpc(lyxml_elem *root)
{
  ds_clear_yang_errors(); // a failure found without libyang must not report an earlier one of libyang's
  const lyxml_elem *operation = root == nullptr ? nullptr : lyxml_first_child(root);
  if (operation == nullptr || lyxml_ns(root).empty() || lyxml_ns(operation).empty()) {
    log_error("Invalid parameter.");
    return -1;
  }
  if (rpc_is_not_standard_rpc(root) == 0) {
    return 0;
  }
  std::vector<layer_operation_t> operations;
  if (parse_layer(root, &operations) != 0) {
    return -1;
  }
  if (operations.empty()) {
    log_error("NETCONF rpc layer is error.");
    return -1;
  }
  for (const layer_operation_t &parsed : operations) {
    if (lyd_validate_op(parsed.op, nullptr, LYD_TYPE_RPC_YANG, nullptr) != LY_SUCCESS) {
      return -1;
    }
  }
  return 0;
}
