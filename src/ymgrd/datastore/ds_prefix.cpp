#include "ymgrd/datastore/ds_prefix.h"

#include <string>

#include "ymgrd/schema/schema.h"
#include "ymgrd/schema/schema_value.h"

namespace {

const lys_module *module_of_prefix(lyxml_elem *elem, std::string_view prefix)
{
  const std::string text(prefix);
  const xmlNs *ns = xmlSearchNs(elem->doc, elem, reinterpret_cast<const xmlChar *>(text.c_str()));
  return ns == nullptr ? nullptr
                       : ly_ctx_get_module_implemented_ns(schema_ctx(), reinterpret_cast<const char *>(ns->href));
}

// The value with modules' names in place of the prefixes that are declared where the element stands: in a path only
// where the module changes, as libyang wants it.
wiped_string with_module_names(lyxml_elem *elem, std::string_view value)
{
  constexpr std::string_view name_end = "/[]=:'\" ";
  bool is_path = value.starts_with('/');
  const lys_module *last = nullptr;
  wiped_string result;
  result.reserve(value.size() + 1);
  char quote = '\0';
  size_t name = 0; // where in `result` the name at hand starts
  for (char c : value) {
    bool ends_name = quote == '\0' && name_end.find(c) != std::string_view::npos;
    const lys_module *module = ends_name && c == ':' ? module_of_prefix(elem, result.substr(name)) : nullptr;
    if (module != nullptr) {
      result.resize(name);
    }
    if (module == nullptr || !is_path || module != last) {
      result.append(module == nullptr ? "" : module->name).push_back(c);
    }
    last = module == nullptr ? last : module;
    if (c == quote) {
      quote = '\0';
    } else if (quote == '\0' && (c == '\'' || c == '"')) {
      quote = c;
    }
    name = ends_name ? result.size() : name;
  }
  return result;
}

} // namespace

bool ds_names_modules(const lysc_type *type)
{
  type = schema_real_type(type);
  if (type->basetype != LY_TYPE_UNION) {
    return type->basetype == LY_TYPE_IDENT || type->basetype == LY_TYPE_INST;
  }
  const auto *of_union = reinterpret_cast<const lysc_type_union *>(type);
  for (LY_ARRAY_COUNT_TYPE i = 0; i < LY_ARRAY_COUNT(of_union->types); i++) {
    if (ds_names_modules(of_union->types[i])) {
      return true;
    }
  }
  return false;
}

wiped_string ds_without_prefixes(lyxml_elem *elem, const lysc_node *schema, std::string_view value)
{
  if (!ds_names_modules(reinterpret_cast<const lysc_node_leaf *>(schema)->type)) {
    return wiped_string(value);
  }
  wiped_string named = with_module_names(elem, value);
  wiped_string canonical;
  LY_DATA_TYPE type = LY_TYPE_UNKNOWN;
  bool fits = schema_to_canonical_form(schema, named, &canonical, &type);
  return fits && (type == LY_TYPE_IDENT || type == LY_TYPE_INST) ? named : wiped_string(value);
}
