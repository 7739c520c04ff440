// What may stand in <config>: known elements in known places, with the attributes that belong there. Checked on the XML
// before libyang sees it: attributes that libyang does not know it drops without a word, and an element that no module
// knows is beyond what its parser can take in every combination.
#include <map>
#include <string>

#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_prefix.h"
#include "ymgrd/schema/schema.h"

namespace {

constexpr std::string_view YANG_NS = "urn:ietf:params:xml:ns:yang:1"; // RFC 7950, section 5.3.1

struct operation_name_t {
  std::string_view text;
  NC_EDIT_OP_TYPE op;
};

const operation_name_t operation_names[] = {
    {"merge", NC_EDIT_OP_MERGE},   {"replace", NC_EDIT_OP_REPLACE}, {"create", NC_EDIT_OP_CREATE},
    {"delete", NC_EDIT_OP_DELETE}, {"remove", NC_EDIT_OP_REMOVE},
};

// Ends before the first element of a module that is not known.
std::string element_path(const lyxml_elem *elem, const lyxml_elem *config)
{
  std::string path;
  for (const lyxml_elem *up = elem; up != nullptr && up != config; up = up->parent) {
    std::string module = schema_get_module_name(std::string(lyxml_ns(up)));
    path = module.empty() ? "" : "/" + module + ":" + std::string(lyxml_name(up)) + path;
  }
  return path;
}

std::string_view attribute_name(const xmlAttr *attr)
{
  return reinterpret_cast<const char *>(attr->name);
}

std::string_view attribute_value(const xmlAttr *attr)
{
  const xmlNode *text = attr->children;
  return text == nullptr || text->content == nullptr ? "" : reinterpret_cast<const char *>(text->content);
}

bool is_place(std::string_view insert)
{
  return insert == "first" || insert == "last" || insert == "before" || insert == "after";
}

bool is_taken_away(const lyxml_elem *elem)
{
  for (const xmlAttr *attr = elem->properties; attr != nullptr; attr = attr->next) {
    if (attribute_name(attr) == "operation") {
      NC_EDIT_OP_TYPE op = ds_operation_of(attr);
      return op == NC_EDIT_OP_DELETE || op == NC_EDIT_OP_REMOVE;
    }
  }
  return false;
}

// REPLY_ERR_NULL when the attribute may stand on a node of that schema with its value.
int attribute_fault(const xmlAttr *attr, const lysc_node *schema)
{
  std::string_view name = attribute_name(attr);
  std::string_view ns = attr->ns == nullptr ? "" : reinterpret_cast<const char *>(attr->ns->href);
  if (ns == NETCONF_BASE_NS_1_0 && name == "operation") {
    return ds_operation_of(attr) == NC_EDIT_OP_ERROR ? REPLY_ERR_BAD_ATTR : REPLY_ERR_NULL;
  }
  bool positions = ns == YANG_NS && (name == "insert" || name == "key" || name == "value");
  if (!positions || !lysc_is_userordered(schema)) {
    return REPLY_ERR_UNKNOWN_ATTR;
  }
  return name != "insert" || is_place(attribute_value(attr)) ? REPLY_ERR_NULL : REPLY_ERR_BAD_ATTR;
}

bool is_integer(const lysc_node *schema)
{
  if (!(schema->nodetype & (LYS_LEAF | LYS_LEAFLIST))) {
    return false;
  }
  const lysc_type *type = reinterpret_cast<const lysc_node_leaf *>(schema)->type; // of a leaf-list at the same place
  if (type->basetype == LY_TYPE_LEAFREF) {
    type = reinterpret_cast<const lysc_type_leafref *>(type)->realtype;
  }
  return type->basetype >= LY_TYPE_INT8 || (type->basetype >= LY_TYPE_UINT8 && type->basetype <= LY_TYPE_UINT64);
}

// Integers are decimal, whatever zeros lead (RFC 7950, section 9.2.1); libyang looks for an octal number and refuses
// 08.
void drop_leading_zeros(lyxml_elem *elem)
{
  std::string text = lyxml_text(elem);
  size_t first = text.find_first_not_of(" \t\n\r+-");
  size_t digit = first == std::string::npos ? first : text.find_first_not_of('0', first);
  if (first == digit) {
    return;
  }
  bool is_zero = digit == std::string::npos || lyxml_is_blank(std::string_view(text).substr(digit));
  size_t end = is_zero ? text.find_last_of('0') : digit;
  if (end > first && elem->children->next == nullptr) {
    text.erase(first, end - first);
    xmlNodeSetContent(elem->children, reinterpret_cast<const xmlChar *>(text.c_str())); // of a text node: as it stands
  }
}

// The key leaf that "[prefix:name=" at the end of `text` names; null when there is none.
const lysc_node *find_key(const lysc_node *list, std::string_view text)
{
  constexpr std::string_view not_of_name = " \t\r\n=[:";
  size_t end = text.find_last_not_of(not_of_name);
  size_t before = text.find_last_of(not_of_name, end);
  if (end == std::string_view::npos || before == std::string_view::npos) {
    return nullptr;
  }
  const lysc_node *node = lys_find_child(list, list->module, text.data() + before + 1, end - before, LYS_LEAF, 0);
  return node != nullptr && lysc_is_key(node) ? node : nullptr;
}

// The predicates of a "key" attribute: libyang knows the prefixes of their names, not those in their values.
wiped_string keys_without_prefixes(lyxml_elem *elem, const lysc_node *list, std::string_view predicates)
{
  constexpr std::string_view quotes = "'\"";
  wiped_string result;
  size_t taken = 0;
  size_t open = predicates.find_first_of(quotes);
  while (open != std::string_view::npos) {
    size_t close = predicates.find(predicates[open], open + 1);
    const lysc_node *key = find_key(list, predicates.substr(0, open));
    if (key != nullptr && close != std::string_view::npos) {
      result.append(predicates.substr(taken, open + 1 - taken));
      result.append(ds_without_prefixes(elem, key, predicates.substr(open + 1, close - open - 1)));
      taken = close;
    }
    open = close == std::string_view::npos ? close : predicates.find_first_of(quotes, close + 1);
  }
  return result.append(predicates.substr(taken));
}

// The entry beside which another is put is named in an attribute, which for libyang is a text of no type.
void take_prefixes_out(lyxml_elem *elem, const xmlAttr *attr, const lysc_node *schema)
{
  std::string_view name = attribute_name(attr);
  std::string_view value = attribute_value(attr);
  bool is_neighbour = name == (schema->nodetype == LYS_LIST ? "key" : "value");
  if (!is_neighbour || value.find(':') == std::string_view::npos || attr->children->next != nullptr) {
    return;
  }
  wiped_string plain = schema->nodetype == LYS_LIST ? keys_without_prefixes(elem, schema, value)
                                                    : ds_without_prefixes(elem, schema, value);
  if (plain != value) {
    xmlNodeSetContent(attr->children, reinterpret_cast<const xmlChar *>(plain.c_str())); // of a text node: as it stands
  }
}

class config_checker {
public:
  config_checker(const lyxml_elem *config, reply_error_ptr *ret_error) : config_(config), ret_error_(ret_error) {}

  // The children of `parent`, whose schema node is `schema` (null: <config> itself), and all below. 0, or -1 with the
  // error.
  int check_children(const lyxml_elem *parent, const lysc_node *schema)
  {
    chosen_cases_t chosen;
    for (lyxml_elem *elem = lyxml_first_child(parent); elem != nullptr; elem = lyxml_next(elem)) {
      const lysc_node *node = find_schema(elem, schema);
      if (node == nullptr || check_attributes(elem, node) != 0 || check_cases(elem, node, &chosen) != 0) {
        return -1;
      }
      if ((node->nodetype & (LYS_CONTAINER | LYS_LIST)) && check_children(elem, node) != 0) {
        return -1;
      }
      if ((node->nodetype & (LYS_LEAF | LYS_LEAFLIST)) && check_value(elem, node) != 0) {
        return -1;
      }
    }
    return 0;
  }

private:
  typedef std::map<const lysc_node *, const lysc_node *> chosen_cases_t; // choice to case, among siblings

  // Nodes of two cases in one config: which of them is wanted, nobody can tell (RFC 7950, section 8.3.1).
  int check_cases(const lyxml_elem *elem, const lysc_node *schema, chosen_cases_t *chosen)
  {
    const lysc_node *node = schema->parent;
    if (node == nullptr || node->nodetype != LYS_CASE || is_taken_away(elem)) {
      return 0;
    }
    for (; node != nullptr && node->nodetype == LYS_CASE; node = node->parent->parent) {
      if (chosen->try_emplace(node->parent, node).first->second != node) {
        (void)refuse(elem, REPLY_ERR_BAD_ELEM,
                     "Nodes of two cases of the choice \"" + std::string(node->parent->name) +
                         "\" exclude each other.");
        return -1;
      }
    }
    return 0;
  }

  int check_value(lyxml_elem *elem, const lysc_node *schema)
  {
    if (const lyxml_elem *child = lyxml_first_child(elem); child != nullptr) {
      (void)refuse_unknown(child, schema, find_module(child));
      return -1;
    }
    if (is_integer(schema)) {
      drop_leading_zeros(elem);
    }
    return 0;
  }

  const lysc_node *find_schema(const lyxml_elem *elem, const lysc_node *parent)
  {
    const lys_module *module = find_module(elem);
    if (module == nullptr) {
      std::string ns(lyxml_ns(elem));
      return refuse(elem, REPLY_ERR_UNKNOWN_NS, "No module with namespace \"" + ns + "\" in the context.");
    }
    const char *name = reinterpret_cast<const char *>(elem->name);
    const lysc_node *node = lys_find_child(parent, module, name, 0, 0, 0);
    if (node != nullptr && !(node->nodetype & (LYS_RPC | LYS_NOTIF | LYS_ACTION))) {
      return node;
    }
    return refuse_unknown(elem, parent, module);
  }

  std::nullptr_t refuse_unknown(const lyxml_elem *elem, const lysc_node *parent, const lys_module *module)
  {
    std::string where = parent != nullptr   ? std::string("as a child of \"") + parent->name + "\" node."
                        : module != nullptr ? std::string("in the \"") + module->name + "\" module."
                                            : "in any module.";
    return refuse(elem, REPLY_ERR_UNKNOWN_ELEM,
                  std::string("Node \"") + std::string(lyxml_name(elem)) + "\" not found " + where);
  }

  // Elements of one namespace mostly follow each other.
  const lys_module *find_module(const lyxml_elem *elem)
  {
    if (elem->ns != last_ns_) {
      last_ns_ = elem->ns;
      last_module_ =
          elem->ns == nullptr || elem->ns->href == nullptr
              ? nullptr
              : ly_ctx_get_module_implemented_ns(schema_ctx(), reinterpret_cast<const char *>(elem->ns->href));
    }
    return last_module_;
  }

  int check_attributes(lyxml_elem *elem, const lysc_node *schema)
  {
    for (const xmlAttr *attr = elem->properties; attr != nullptr; attr = attr->next) {
      int kind = attribute_fault(attr, schema);
      if (kind != REPLY_ERR_NULL) {
        (void)refuse(elem, kind, {});
        std::string info = "<bad-attribute>" + std::string(attribute_name(attr)) + "</bad-attribute>";
        rpc_set_error_field(ret_error_->get(), REPLY_ERR_FIELD_INFO, info.c_str());
        return -1;
      }
      take_prefixes_out(elem, attr, schema);
    }
    return 0;
  }

  // An empty message leaves the kind's own. Always null.
  std::nullptr_t refuse(const lyxml_elem *elem, int kind, const std::string &message)
  {
    ret_error_->reset(rpc_create_error(kind));
    if (!message.empty()) {
      rpc_set_error_field(ret_error_->get(), REPLY_ERR_FIELD_MSG, message.c_str());
    }
    rpc_set_error_field(ret_error_->get(), REPLY_ERR_FIELD_PATH, element_path(elem, config_).c_str());
    return nullptr;
  }

  const lyxml_elem *config_;
  reply_error_ptr *ret_error_;
  const xmlNs *last_ns_ = nullptr;
  const lys_module *last_module_ = nullptr;
};

} // namespace

NC_EDIT_OP_TYPE ds_operation_of(const xmlAttr *attr)
{
  std::string_view value = attribute_value(attr);
  for (const operation_name_t &row : operation_names) {
    if (value == row.text) {
      return row.op;
    }
  }
  return NC_EDIT_OP_ERROR;
}

int ds_check_config(lyxml_elem *config, reply_error_ptr *ret_error)
{
  return config_checker(config, ret_error).check_children(config, nullptr);
}
