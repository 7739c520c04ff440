#include "ymgrd/datastore/ds_value.h"

#include "ymgrd/core/handles.h"
#include "ymgrd/database/database_path.h"
#include "ymgrd/schema/schema_value.h"

namespace {

const lyd_value *real_value(const lyd_node *node)
{
  const lyd_value *value = &reinterpret_cast<const lyd_node_term *>(node)->value;
  while (value->realtype->basetype == LY_TYPE_UNION) {
    value = &value->subvalue->value;
  }
  return value;
}

std::string any_text(const lyd_node *node)
{
  const auto *any = reinterpret_cast<const lyd_node_any *>(node);
  char *printed = nullptr;
  // Elements are printed as they were sent: indentation would become part of mixed content.
  LY_ERR result = any->value_type == LYD_ANYDATA_DATATREE
                      ? lyd_print_mem(&printed, any->value.tree, LYD_XML, LYD_PRINT_SHRINK | LYD_PRINT_WITHSIBLINGS)
                      : lyd_any_value_str(node, &printed);
  c_string_ptr text(printed);
  if (result != LY_SUCCESS || text == nullptr) {
    return {};
  }
  if (any->value_type != LYD_ANYDATA_STRING) {
    return text.get(); // markup already
  }
  wiped_string markup;
  handle_special_key(&markup, text.get(), DB_XML_ESCAPE);
  return std::string(markup);
}

bool is_any(const lyd_node *node)
{
  return node->schema->nodetype & LYD_NODE_ANY;
}

} // namespace

bool ds_is_stored_canonically(const lyd_node *node)
{
  return !is_any(node) && real_value(node)->realtype->basetype != LY_TYPE_INST;
}

std::string ds_stored_value(const lyd_node *node)
{
  if (is_any(node)) {
    return any_text(node);
  }
  const char *canonical = lyd_get_value(node);
  return ds_is_stored_canonically(node) ? canonical : schema_qualify_instance_identifier(canonical);
}
