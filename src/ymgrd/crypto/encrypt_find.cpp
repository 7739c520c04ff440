#include "ymgrd/crypto/encrypt_find.h"

#include <vector>

#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr const char MASK[] = "***";
constexpr size_t OUTSIDE_OBJECT = 32; // a wiped_string of this capacity does not lie in the object itself
constexpr int MOST_STEPS = 5;

encrypt_schema_t schema = {};

enum data_kind_t {
  KIND_INPUT,
  KIND_CONFIG, // its elements may say that they are to go
  KIND_FILTER,
};

// Where an operation has its data: the elements from the root on, up to a null.
typedef struct _operation_data {
  std::string_view oper;
  const char *path[MOST_STEPS];
  data_kind_t kind;
} operation_data_t;

const operation_data_t operations[] = {
    {"ietf-netconf:edit-config", {"rpc", "edit-config", "config"}, KIND_CONFIG},
    {"ietf-netconf:get-config", {"rpc", "get-config", "filter"}, KIND_FILTER},
    {"ietf-netconf:get", {"rpc", "get", "filter"}, KIND_FILTER},
    {"ietf-netconf:copy-config", {"rpc", "copy-config", "source", "config"}, KIND_CONFIG},
    {"notifications:create-subscription", {"rpc", "create-subscription", "filter"}, KIND_FILTER},
};
const operation_data_t other_operation = {"", {"rpc"}, KIND_INPUT};

typedef struct _find_work {
  int flag;
  data_kind_t kind;
  bool changed = false;
  reply_error_ptr error;
} find_work_t;

wiped_string text_of(const lyxml_elem *elem)
{
  wiped_string text;
  text.reserve(OUTSIDE_OBJECT);
  for (const xmlNode *node = elem->children; node != nullptr; node = node->next) {
    if (node->type == XML_TEXT_NODE && node->content != nullptr) {
      text.append(reinterpret_cast<const char *>(node->content));
    }
  }
  return text;
}

std::string_view trimmed(std::string_view text)
{
  constexpr const char *blanks = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  return first == std::string_view::npos ? std::string_view()
                                         : text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

int refuse(find_work_t *work, const sensitive_config_t &leaf, const lyxml_elem *elem, int kind, const char *message)
{
  work->error = rpc_make_error(kind, message);
  std::string path = schema.path_of == nullptr ? leaf.path : schema.path_of(leaf, elem);
  if (work->error != nullptr) {
    (void)rpc_set_error_field(work->error.get(), REPLY_ERR_FIELD_PATH, path.c_str());
  }
  log_info("A value of the sensitive leaf %.512s is refused: %s", path.c_str(), message);
  return -1;
}

// A value that the type takes, as it prints it. 0, or -1 with the error.
int check_type(const sensitive_config_t &leaf, const lyxml_elem *elem, wiped_string *value, find_work_t *work)
{
  if (schema.check == nullptr) {
    return 0;
  }
  wiped_string canonical;
  canonical.reserve(OUTSIDE_OBJECT);
  if (schema.check(leaf, *value, &canonical)) {
    *value = std::move(canonical);
    return 0;
  }
  // What a filter compares with need not be a value of the type: then it selects nothing.
  return work->kind == KIND_FILTER
             ? 0
             : refuse(work, leaf, elem, REPLY_ERR_INVALID_VALUE, "Invalid value of sensitive leaf.");
}

int replace_text(lyxml_elem *elem, std::string_view text, find_work_t *work)
{
  if (lyxml_set_text(elem, text) != 0) {
    log_error("Memory is short.");
    work->error = rpc_make_error(REPLY_ERR_OP_FAILED, "Memory is short.");
    return -1;
  }
  work->changed = true;
  return 0;
}

int encrypt_one(const sensitive_config_t &leaf, lyxml_elem *elem, bool is_removed, find_work_t *work)
{
  wiped_string text = text_of(elem);
  // RFC 6241, section 6.2.5: blanks around what a filter compares with do not count.
  std::string_view given = work->kind == KIND_FILTER || is_removed ? trimmed(text) : std::string_view(text);
  if (given.empty() && (work->kind == KIND_FILTER || is_removed)) {
    return 0; // selects, or names what is to go
  }
  wiped_string value;
  value.reserve(OUTSIDE_OBJECT);
  value.assign(given);
  bool is_cipher = is_cipher_text(given);
  if (is_cipher && decrypt_sensitive(given, &value) != 0) {
    return refuse(work, leaf, elem, REPLY_ERR_OP_FAILED, "Sensitive value cannot be decrypted.");
  }
  wiped_string canonical;
  canonical.reserve(OUTSIDE_OBJECT);
  canonical.assign(value);
  if (check_type(leaf, elem, &canonical, work) != 0) {
    return -1;
  }
  if (canonical.empty() || (is_cipher && canonical == value)) {
    return 0;
  }
  if (!encrypt_is_printable(canonical)) {
    return work->kind == KIND_FILTER ? 0 // no leaf has such a value
                                     : refuse(work, leaf, elem, REPLY_ERR_INVALID_VALUE,
                                              "Sensitive values hold the characters 0x21 to 0x7E.");
  }
  std::string cipher_text;
  if (encrypt_sensitive(canonical, &cipher_text) != 0) {
    return refuse(work, leaf, elem, REPLY_ERR_OP_FAILED, "Sensitive value cannot be encrypted.");
  }
  return replace_text(elem, cipher_text, work);
}

int decrypt_one(const sensitive_config_t &leaf, lyxml_elem *elem, find_work_t *work)
{
  wiped_string text = text_of(elem);
  if (!encrypt_is_marked(text)) {
    return 0;
  }
  wiped_string value;
  if (decrypt_sensitive(text, &value) != 0) {
    log_error("decrypt node value failed.");
    return refuse(work, leaf, elem, REPLY_ERR_OP_FAILED, "Sensitive value cannot be decrypted.");
  }
  return replace_text(elem, value, work);
}

int encrypt_find_one_in_lyxml(const sensitive_config_t &leaf, lyxml_elem *elem, bool is_removed, find_work_t *work)
{
  if (lyxml_first_child(elem) != nullptr) { // in a filter it selects nothing, else it is wrong and not to be logged
    return work->kind == KIND_FILTER
               ? 0
               : refuse(work, leaf, elem, REPLY_ERR_INVALID_VALUE, "Invalid value of sensitive leaf.");
  }
  return work->flag == SENSITIVE_DECRYPT ? decrypt_one(leaf, elem, work) : encrypt_one(leaf, elem, is_removed, work);
}

// Those of the steps that the element stands for. In a filter an element matches any namespace when it has none, or
// only that of the operation around it: then they may be several.
std::vector<const sensitive_node_t *> encrypt_find_snode(const sensitive_node_t &parent, const lyxml_elem *elem,
                                                         data_kind_t kind)
{
  std::vector<const sensitive_node_t *> found;
  std::string_view ns = lyxml_ns(elem);
  bool is_any = kind == KIND_FILTER && (ns.empty() || ns == NETCONF_BASE_NS_1_0);
  auto [first, end] = parent.children.equal_range(lyxml_name(elem));
  for (auto child = first; child != end; ++child) {
    if (is_any || (!ns.empty() && ns == encrypt_module_ns(child->second.module))) {
      found.push_back(&child->second);
    }
  }
  return found;
}

bool is_removed_by(const lyxml_elem *elem, bool is_parent_removed)
{
  std::string operation;
  if (!lyxml_get_attr(elem, "operation", &operation)) {
    return is_parent_removed;
  }
  return operation == "delete" || operation == "remove";
}

// Walks the data beside the tree of sensitive leaves: only elements on the way to one are entered.
int encrypt_find_node_recusive(lyxml_elem *parent, const sensitive_node_t &steps, bool is_removed, find_work_t *work)
{
  for (lyxml_elem *elem = lyxml_first_child(parent); elem != nullptr; elem = lyxml_next(elem)) {
    for (const sensitive_node_t *step : encrypt_find_snode(steps, elem, work->kind)) {
      bool is_elem_removed = work->kind == KIND_CONFIG && is_removed_by(elem, is_removed);
      if (step->leaf != nullptr && encrypt_find_one_in_lyxml(*step->leaf, elem, is_elem_removed, work) != 0) {
        return -1;
      }
      if (encrypt_find_node_recusive(elem, *step, is_elem_removed, work) != 0) {
        return -1;
      }
    }
  }
  return 0;
}

// `data` may be null: an operation without data.
int encrypt_find_node_in_lyxml(lyxml_elem *data, int flag, data_kind_t kind, reply_error_ptr *ret_error,
                               bool *ret_changed)
{
  encrypt_use all_values;
  find_work_t work = {flag, kind, false, nullptr};
  bool has_any = data != nullptr && encrypt_has_sensitive();
  int result = has_any ? encrypt_find_node_recusive(data, encrypt_sensitive_tree(), false, &work) : 0;
  if (ret_changed != nullptr) {
    *ret_changed = work.changed;
  }
  if (result != 0 && ret_error != nullptr) {
    *ret_error = std::move(work.error);
  }
  return result;
}

const operation_data_t &find_operation(std::string_view oper)
{
  oper.remove_prefix(oper.starts_with('/') ? 1 : 0);
  for (const operation_data_t &row : operations) {
    if (row.oper == oper) {
      return row;
    }
  }
  return other_operation;
}

// The element that holds the operation's data; null when it has none.
lyxml_elem *encrypt_find_lyxml(lyxml_elem *rpc, const operation_data_t &operation)
{
  return lyxml_rpc_get_elem(rpc, operation.path);
}

// --- For the log.

// Says whether there is anything to mask.
bool mask_text(lyxml_elem *elem, bool is_applied)
{
  wiped_string text = text_of(elem);
  if (lyxml_is_blank(text) || encrypt_has_form(text)) {
    return false;
  }
  for (xmlNode *node = is_applied ? elem->children : nullptr; node != nullptr; node = node->next) {
    if (node->type == XML_TEXT_NODE) {
      xmlNodeSetContent(node, reinterpret_cast<const xmlChar *>(MASK));
    }
  }
  return true;
}

// Of an element with such a name all texts below: nobody knows which one is the secret.
bool mask_below(lyxml_elem *elem, bool is_applied, bool is_inside)
{
  is_inside = is_inside || encrypt_is_sensitive_name(lyxml_name(elem));
  bool is_found = is_inside && mask_text(elem, is_applied);
  for (lyxml_elem *child = lyxml_first_child(elem); child != nullptr; child = lyxml_next(child)) {
    is_found = mask_below(child, is_applied, is_inside) || is_found;
  }
  return is_found;
}

} // namespace

void encrypt_set_schema(const encrypt_schema_t &functions)
{
  schema = functions;
}

int security_find_sensitive_in_lyxml(lyxml_elem *data, int flag, reply_error_ptr *ret_error, bool *ret_changed)
{
  return encrypt_find_node_in_lyxml(data, flag, KIND_INPUT, ret_error, ret_changed);
}

int security_find_sensitive_in_rpc(const char *oper, lyxml_elem *rpc, int flag, reply_error_ptr *ret_error,
                                   bool *ret_changed)
{
  const operation_data_t &operation = find_operation(oper);
  return encrypt_find_node_in_lyxml(encrypt_find_lyxml(rpc, operation), flag, operation.kind, ret_error, ret_changed);
}

std::string encrypt_print_masked(const lyxml_elem *rpc)
{
  enum { LOOK_ONLY = false, APPLY = true };
  constexpr bool OUTSIDE = false;
  lyxml_elem *elem = const_cast<lyxml_elem *>(rpc); // only read: what is masked is a copy
  if (!encrypt_has_sensitive() || !mask_below(elem, LOOK_ONLY, OUTSIDE)) {
    return lyxml_print_mem(rpc);
  }
  lyxml_ptr copy = lyxml_copy(elem);
  if (copy == nullptr) {
    log_error("Memory is short.");
    return {};
  }
  mask_below(copy.get(), APPLY, OUTSIDE);
  return lyxml_print_mem(copy.get());
}
