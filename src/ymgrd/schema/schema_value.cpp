#include "ymgrd/schema/schema_value.h"

#include "ymgrd/schema/schema.h"

const lysc_type *schema_real_type(const lysc_type *type)
{
  while (type->basetype == LY_TYPE_LEAFREF) {
    type = reinterpret_cast<const lysc_type_leafref *>(type)->realtype;
  }
  return type;
}

bool schema_may_be_path(const lysc_type *type)
{
  type = schema_real_type(type);
  if (type->basetype != LY_TYPE_UNION) {
    return type->basetype == LY_TYPE_INST;
  }
  const auto *of_union = reinterpret_cast<const lysc_type_union *>(type);
  for (LY_ARRAY_COUNT_TYPE i = 0; i < LY_ARRAY_COUNT(of_union->types); i++) {
    if (schema_may_be_path(of_union->types[i])) {
      return true;
    }
  }
  return false;
}

bool schema_to_canonical_form(const lysc_node *schema, std::string_view value, wiped_string *ret_canonical,
                              LY_DATA_TYPE *ret_type)
{
  const lysc_type *type = nullptr;
  const char *canonical = nullptr;
  LY_ERR result = lyd_value_validate(nullptr, schema, value.data(), value.size(), nullptr, &type, &canonical);
  if (result != LY_SUCCESS && result != LY_EINCOMPLETE) { // incomplete: whether what it refers to exists
    return false;
  }
  *ret_type = type == nullptr ? LY_TYPE_UNKNOWN : schema_real_type(type)->basetype;
  ret_canonical->assign(canonical == nullptr ? value : std::string_view(canonical));
  lydict_remove(schema_ctx(), canonical);
  return true;
}

bool schema_to_stored_form(const lysc_node *schema, std::string_view value, wiped_string *ret_stored,
                           LY_DATA_TYPE *ret_type)
{
  if (!schema_to_canonical_form(schema, value, ret_stored, ret_type)) {
    return false;
  }
  if (*ret_type == LY_TYPE_INST) {
    ret_stored->assign(schema_qualify_instance_identifier(*ret_stored));
  }
  return true;
}

wiped_string schema_stored_form_of_key(const lysc_node *schema, std::string_view canonical)
{
  bool may_differ =
      canonical.starts_with('/') && schema_may_be_path(reinterpret_cast<const lysc_node_leaf *>(schema)->type);
  wiped_string stored;
  LY_DATA_TYPE type = LY_TYPE_UNKNOWN;
  return may_differ && schema_to_stored_form(schema, canonical, &stored, &type) ? stored : wiped_string(canonical);
}

std::string schema_qualify_instance_identifier(std::string_view canonical)
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
