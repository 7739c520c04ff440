#include "ymgrd/datastore/ds_value.h"

#include <string_view>

#include "ymgrd/core/handles.h"
#include "ymgrd/database/database_path.h"
#include "ymgrd/schema/schema.h"

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

std::string ds_qualify_instance_identifier(std::string_view canonical)
{
  std::string stored;
  std::string_view module;
  const char *begin = canonical.data();
  for (size_t i = 0; i < canonical.size(); i++) {
    char c = canonical[i];
    stored.push_back(c);
    bool starts_name = (c == '/' || c == '[') && i + 1 < canonical.size() && canonical[i + 1] != '.' &&
                       !(canonical[i + 1] >= '0' && canonical[i + 1] <= '9');
    if (c == '\'' || c == '"') { // a quoted value: copied up to its end
      size_t end = canonical.find(c, i + 1);
      end = end == std::string_view::npos ? canonical.size() - 1 : end;
      stored.append(begin + i + 1, end - i);
      i = end;
    } else if (starts_name) {
      size_t end = canonical.find_first_of("/[]=:", i + 1);
      if (end != std::string_view::npos && canonical[end] == ':') {
        module = canonical.substr(i + 1, end - i - 1);
      } else {
        stored.append(module).push_back(':');
      }
    }
  }
  return stored;
}

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
  return ds_is_stored_canonically(node) ? canonical : ds_qualify_instance_identifier(canonical);
}

const lysc_type *ds_real_type(const lysc_type *type)
{
  while (type->basetype == LY_TYPE_LEAFREF) {
    type = reinterpret_cast<const lysc_type_leafref *>(type)->realtype;
  }
  return type;
}

bool ds_to_stored_form(const lysc_node *schema, std::string_view value, wiped_string *ret_stored,
                       LY_DATA_TYPE *ret_type)
{
  const lysc_type *type = nullptr;
  const char *canonical = nullptr;
  LY_ERR result = lyd_value_validate(nullptr, schema, value.data(), value.size(), nullptr, &type, &canonical);
  if (result != LY_SUCCESS && result != LY_EINCOMPLETE) { // incomplete: whether what it refers to exists
    return false;
  }
  *ret_type = type == nullptr ? LY_TYPE_UNKNOWN : ds_real_type(type)->basetype;
  std::string_view text = canonical == nullptr ? value : canonical;
  if (*ret_type == LY_TYPE_INST) {
    ret_stored->assign(ds_qualify_instance_identifier(text));
  } else {
    ret_stored->assign(text);
  }
  lydict_remove(schema_ctx(), canonical);
  return true;
}
