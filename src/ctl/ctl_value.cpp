#include "ctl/ctl_value.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <set>

#include "ctl/ctl_xml.h"

namespace {

constexpr size_t MOST_NAMED = 12; // more would bury the fault

struct dictionary_delete_t {
  const ly_ctx *context;
  void operator()(const char *text) const { lydict_remove(context, text); }
};
using dictionary_text_ptr = std::unique_ptr<const char, dictionary_delete_t>;

const struct {
  LY_DATA_TYPE type;
  const char *bounds;
} integer_bounds[] = {
    {LY_TYPE_UINT8, "0..255"},
    {LY_TYPE_UINT16, "0..65535"},
    {LY_TYPE_UINT32, "0..4294967295"},
    {LY_TYPE_UINT64, "0..18446744073709551615"},
    {LY_TYPE_INT8, "-128..127"},
    {LY_TYPE_INT16, "-32768..32767"},
    {LY_TYPE_INT32, "-2147483648..2147483647"},
    {LY_TYPE_INT64, "-9223372036854775808..9223372036854775807"},
};

// The types that a value may have: of a union its members', of a leafref its target's.
void collect_types(const lysc_type *type, std::vector<const lysc_type *> *types)
{
  if (type->basetype == LY_TYPE_LEAFREF) {
    collect_types(reinterpret_cast<const lysc_type_leafref *>(type)->realtype, types);
    return;
  }
  if (type->basetype != LY_TYPE_UNION) {
    types->push_back(type);
    return;
  }
  lysc_type *const *members = reinterpret_cast<const lysc_type_union *>(type)->types;
  for (LY_ARRAY_COUNT_TYPE i = 0; i < LY_ARRAY_COUNT(members); i++) {
    collect_types(members[i], types);
  }
}

std::vector<const lysc_type *> types_of(const lysc_node *node)
{
  std::vector<const lysc_type *> types;
  collect_types(node->nodetype == LYS_LEAFLIST ? reinterpret_cast<const lysc_node_leaflist *>(node)->type
                                               : reinterpret_cast<const lysc_node_leaf *>(node)->type,
                &types);
  return types;
}

void collect_derived(lysc_ident *const *derived, std::vector<const lysc_ident *> *identities)
{
  for (LY_ARRAY_COUNT_TYPE i = 0; i < LY_ARRAY_COUNT(derived); i++) {
    // One that is derived from several others is met several times.
    if (std::find(identities->begin(), identities->end(), derived[i]) == identities->end()) {
      identities->push_back(derived[i]);
      collect_derived(derived[i]->derived, identities);
    }
  }
}

// Those derived from all bases of the type.
std::vector<const lysc_ident *> identities_of(const lysc_type *type)
{
  lysc_ident *const *bases = reinterpret_cast<const lysc_type_identityref *>(type)->bases;
  std::vector<const lysc_ident *> identities;
  for (LY_ARRAY_COUNT_TYPE i = 0; i < LY_ARRAY_COUNT(bases); i++) {
    std::vector<const lysc_ident *> derived;
    collect_derived(bases[i]->derived, &derived);
    if (i == 0) {
      identities = derived;
    }
    std::erase_if(identities, [&](const lysc_ident *identity) {
      return std::find(derived.begin(), derived.end(), identity) == derived.end();
    });
  }
  return identities;
}

std::string identity_name(const lysc_ident *identity)
{
  return std::string(identity->module->name) + ":" + identity->name;
}

void append_items(const lysc_type_bitenum_item *items, std::vector<std::string> *names)
{
  for (LY_ARRAY_COUNT_TYPE i = 0; i < LY_ARRAY_COUNT(items); i++) {
    names->emplace_back(items[i].name);
  }
}

void append_names(const lysc_type *type, std::vector<std::string> *names)
{
  if (type->basetype == LY_TYPE_BOOL) {
    names->insert(names->end(), {"true", "false"});
  } else if (type->basetype == LY_TYPE_ENUM) {
    append_items(reinterpret_cast<const lysc_type_enum *>(type)->enums, names);
  } else if (type->basetype == LY_TYPE_BITS) {
    append_items(reinterpret_cast<const lysc_type_bits *>(type)->bits, names);
  } else if (type->basetype == LY_TYPE_IDENT) {
    for (const lysc_ident *identity : identities_of(type)) {
      names->push_back(identity_name(identity));
    }
  }
}

// `number` is a decimal64's times ten to the power of `digits`.
std::string decimal_text(int64_t number, size_t digits)
{
  std::string text = std::to_string(number < 0 ? 0 - static_cast<uint64_t>(number) : static_cast<uint64_t>(number));
  if (text.size() <= digits) {
    text.insert(0, digits + 1 - text.size(), '0');
  }
  text.insert(text.size() - digits, ".");
  while (text.ends_with('0')) {
    text.pop_back();
  }
  if (text.ends_with('.')) {
    text.pop_back();
  }
  return (number < 0 ? "-" : "") + text;
}

std::string range_text(const lysc_type *type, const lysc_range *range)
{
  const bool is_decimal = type->basetype == LY_TYPE_DEC64;
  const size_t digits = is_decimal ? reinterpret_cast<const lysc_type_dec *>(type)->fraction_digits : 0;
  auto bound = [&](int64_t as_signed, uint64_t as_unsigned) -> std::string {
    if (type->basetype < LY_TYPE_DEC64) { // libyang keeps those unsigned
      return as_unsigned == UINT64_MAX ? "max" : std::to_string(as_unsigned);
    }
    return is_decimal ? decimal_text(as_signed, digits) : std::to_string(as_signed);
  };
  std::string text;
  for (LY_ARRAY_COUNT_TYPE i = 0; i < LY_ARRAY_COUNT(range->parts); i++) {
    const auto &part = range->parts[i];
    const std::string low = bound(part.min_64, part.min_u64);
    const std::string high = bound(part.max_64, part.max_u64);
    text += (i == 0 ? "" : " or ") + low + (low == high ? "" : ".." + high);
  }
  return text;
}

// What a type without names allows; empty when that cannot be said in a few words.
std::string bounds_text(const lysc_type *type)
{
  if (type->basetype == LY_TYPE_STRING) {
    const lysc_range *length = reinterpret_cast<const lysc_type_str *>(type)->length;
    return length == nullptr ? "" : "a text of " + range_text(type, length) + " characters";
  }
  if (type->basetype == LY_TYPE_DEC64) {
    const lysc_range *range = reinterpret_cast<const lysc_type_dec *>(type)->range;
    return range == nullptr ? "a decimal number" : range_text(type, range);
  }
  for (const auto &row : integer_bounds) {
    if (row.type == type->basetype) {
      const lysc_range *range = reinterpret_cast<const lysc_type_num *>(type)->range;
      return range == nullptr ? row.bounds : range_text(type, range);
    }
  }
  return "";
}

// What a value may be, for one that may not be: the names, and the bounds that the fault is about.
std::string allowed_text(const lysc_node *node, const std::string &fault)
{
  std::vector<std::string> parts = ctl_value_names(node);
  if (parts.size() > MOST_NAMED) {
    parts.resize(MOST_NAMED);
    parts.emplace_back("...");
  }
  for (const lysc_type *type : types_of(node)) {
    std::vector<std::string> names;
    append_names(type, &names);
    const bool is_other = type->basetype == LY_TYPE_STRING && fault.find("length") == std::string::npos;
    const std::string bounds = is_other ? "" : bounds_text(type);
    if (names.empty() && bounds.empty()) {
      return ""; // half of what a union allows would mislead
    }
    if (!bounds.empty() && std::find(parts.begin(), parts.end(), bounds) == parts.end()) {
      parts.push_back(bounds);
    }
  }
  std::string text;
  for (const std::string &part : parts) {
    text += (text.empty() ? "" : ", ") + part;
  }
  return text;
}

// The identities that `text` may mean when it has no module's name.
std::vector<std::string> identities_named(const lysc_node *node, std::string_view text)
{
  std::vector<std::string> names;
  for (const lysc_type *type : types_of(node)) {
    std::vector<const lysc_ident *> identities;
    if (type->basetype == LY_TYPE_IDENT) {
      identities = identities_of(type);
    }
    for (const lysc_ident *identity : identities) {
      if (identity->name == text) {
        names.push_back(identity_name(identity));
      }
    }
  }
  return names;
}

bool validate(const lysc_node *node, std::string_view text, std::string *ret_canonical)
{
  const ly_ctx *context = node->module->ctx;
  ly_err_clean(const_cast<ly_ctx *>(context), nullptr);
  const char *canonical = nullptr;
  LY_ERR result = lyd_value_validate(context, node, text.data(), text.size(), nullptr, nullptr, &canonical);
  dictionary_text_ptr owner(canonical, {context});
  // Incomplete: a reference, whose target only the daemon can look for.
  if (result != LY_SUCCESS && result != LY_EINCOMPLETE) {
    return false;
  }
  *ret_canonical = canonical == nullptr ? std::string(text) : canonical;
  return true;
}

bool is_name_char(char c)
{
  return isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' || c == '.';
}

// An instance-identifier with a prefix at every name, as XML wants it: the canonical form has it only where the module
// changes.
std::string prefix_all(const std::string &canonical)
{
  std::string text;
  std::string module;
  char quote = '\0';
  for (size_t i = 0; i < canonical.size(); i++) {
    const char c = canonical[i];
    text += c;
    if (quote != '\0' || c == '\'' || c == '"') {
      quote = quote == '\0' ? c : c == quote ? '\0' : quote;
      continue;
    }
    const char next = i + 1 < canonical.size() ? canonical[i + 1] : '\0';
    if ((c != '/' && c != '[') || !is_name_char(next) || next == '.' ||
        isdigit(static_cast<unsigned char>(next)) != 0) {
      continue;
    }
    size_t end = i + 1;
    while (end < canonical.size() && is_name_char(canonical[end])) {
      end++;
    }
    if (end < canonical.size() && canonical[end] == ':') {
      module = canonical.substr(i + 1, end - i - 1);
    } else {
      text += module + ":";
    }
  }
  return text;
}

} // namespace

std::vector<std::string> ctl_value_names(const lysc_node *node)
{
  std::vector<std::string> names;
  for (const lysc_type *type : types_of(node)) {
    append_names(type, &names);
  }
  return names;
}

bool ctl_check_value(const lysc_node *node, std::string_view text, std::string *ret_canonical, std::string *ret_fault)
{
  std::vector<std::string> identities = identities_named(node, text);
  if (identities.size() > 1) {
    *ret_fault = "\"" + std::string(text) + "\" may be " + identities[0] + " or " + identities[1];
    return false;
  }
  if (validate(node, identities.empty() ? text : identities[0], ret_canonical)) {
    return true;
  }
  const ly_err_item *cause = ly_err_last(node->module->ctx);
  std::string fault = cause == nullptr || cause->msg == nullptr ? "not a value of this type" : cause->msg;
  while (fault.ends_with('.')) {
    fault.pop_back();
  }
  const std::string allowed = allowed_text(node, fault);
  *ret_fault = allowed.empty() ? fault : fault + "; allowed: " + allowed;
  return false;
}

std::string ctl_value_xml(const lysc_node *node, const std::string &canonical, std::string *namespaces)
{
  bool has_prefixes = false;
  bool is_path = false;
  for (const lysc_type *type : types_of(node)) {
    has_prefixes = has_prefixes || type->basetype == LY_TYPE_IDENT || type->basetype == LY_TYPE_INST;
    is_path = is_path || (type->basetype == LY_TYPE_INST && canonical.starts_with('/'));
  }
  std::set<std::string> declared;
  for (size_t i = 0; has_prefixes && i < canonical.size(); i++) {
    size_t begin = i;
    while (i < canonical.size() && is_name_char(canonical[i])) {
      i++;
    }
    const std::string name = canonical.substr(begin, i - begin);
    const lys_module *module = name.empty() || i >= canonical.size() || canonical[i] != ':'
                                   ? nullptr
                                   : ly_ctx_get_module_implemented(node->module->ctx, name.c_str());
    if (module != nullptr && declared.insert(name).second) {
      *namespaces += " xmlns:" + name + "=\"" + ctl_xml_escape(module->ns) + "\"";
    }
  }
  return is_path ? prefix_all(canonical) : canonical;
}
