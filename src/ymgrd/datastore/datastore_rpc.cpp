// Operations that modules define: their input, which clients send, and their output, which plugins give. Notifications.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "libconf/plugin_message.h"
#include "libconf/safe_string.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/crypto/sealed_text.h"
#include "ymgrd/datastore/datastore.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_clear_values.h"
#include "ymgrd/datastore/ds_error.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/datastore/ds_operation.h"
#include "ymgrd/datastore/ds_plugin_data.h"
#include "ymgrd/datastore/xpath_scan.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/schema/schema_sensitive.h"

namespace {

// Whether validating the operation can look at the configuration: it has a must, a when or a reference.
bool refers_to_config(const lysc_node *operation)
{
  const lysc_node *node = nullptr;
  LYSC_TREE_DFS_BEGIN(operation, node)
  {
    if (lysc_node_musts(node) != nullptr || lysc_node_when(node) != nullptr) {
      return true;
    }
    if (node->nodetype & (LYS_LEAF | LYS_LEAFLIST)) {
      LY_DATA_TYPE type = reinterpret_cast<const lysc_node_leaf *>(node)->type->basetype;
      if (type == LY_TYPE_LEAFREF || type == LY_TYPE_INST || type == LY_TYPE_UNION) {
        return true;
      }
    }
    LYSC_TREE_DFS_END(operation, node);
  }
  return false;
}

bool names_leaf(const lyxp_expr *condition, const lysc_node *leaf)
{
  xpath_scan_t scan = xpath_scan(lyxp_get_expr(condition));
  return !scan.understood || std::any_of(scan.paths.begin(), scan.paths.end(), [leaf](const xpath_path_t &path) {
    return path.any_step || std::find(path.names.begin(), path.names.end(), leaf->name) != path.names.end();
  });
}

// Whether a condition of the operation may look at the leaf.
bool may_look_at(const lysc_node *operation, const lysc_node *leaf)
{
  const lysc_node *node = nullptr;
  LYSC_TREE_DFS_BEGIN(operation, node)
  {
    const lysc_must *musts = lysc_node_musts(node);
    lysc_when **whens = lysc_node_when(node);
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(musts, i)
    {
      if (names_leaf(musts[i].cond, leaf)) {
        return true;
      }
    }
    LY_ARRAY_FOR(whens, i)
    {
      if (names_leaf(whens[i]->cond, leaf)) {
        return true;
      }
    }
    LYSC_TREE_DFS_END(operation, node);
  }
  return false;
}

// Running as data to refer to. The kept tree is lent where it is what running holds, so that an operation costs no
// reading of it.
class running_data {
public:
  running_data() = default;
  running_data(const running_data &) = delete;
  running_data &operator=(const running_data &) = delete;
  ~running_data()
  {
    if (is_kept_) {
      ds_kept_store(std::move(tree_));
    }
  }

  // libyang puts the operation into the tree while it is validated. Below a container that would leave the container
  // marked as implicit, if it holds nothing else: such a tree cannot be kept.
  int read(const lyd_node *operation)
  {
    ds_publication_t publication;
    ds_session_db db;
    bool is_lent = lyd_parent(operation) == nullptr && differ_nodes == nullptr && !ds_get_publication(&publication);
    if (db.open(ENUM_DATASTORE_RUNNING) != 0 ||
        (is_lent ? ds_take_data(db.hdb(), 0, "/", &tree_) : ds_db_get_data_from_top(db.hdb(), 0, "/", &tree_)) != 0) {
      log_error("get running config error when parse rpc.");
      return -1;
    }
    is_kept_ = is_lent;
    return 0;
  }
  lyd_node *tree() { return tree_.get(); }

private:
  lyd_tree_ptr tree_;
  bool is_kept_ = false;
};

struct ly_in_delete_t {
  void operator()(ly_in *in) const { ly_in_free(in, 0); }
};

int validate_with(lyd_node *operation, lyd_node *running, lyd_type type)
{
  ds_clear_values clear;
  for (const lysc_node *leaf : schema_sensitive_leaves()) {
    if (running != nullptr && may_look_at(operation->schema, leaf)) {
      clear.open(running, nullptr, leaf);
    }
  }
  if (type == LYD_TYPE_NOTIF_YANG) { // encrypted already
    clear.open_tree(operation);
  }
  return lyd_validate_op(operation, running, type, nullptr) == LY_SUCCESS ? 0 : -1;
}

int validate_input(lyxml_elem *operation)
{
  std::string text = lyxml_print_self_contained(operation);
  lyd_tree_ptr tree;
  lyd_node *parsed = nullptr;
  int result = ds_parse_operation(text.c_str(), LYD_TYPE_RPC_YANG, &tree, &parsed);
  memset_s(text.data(), text.size(), 0, text.size());
  return result;
}

// Each element declares what it needs.
int print_children(const lyd_node *operation, wiped_string *text)
{
  const lyd_node *first = lyd_child(operation);
  char *printed = nullptr;
  if (first != nullptr &&
      lyd_print_mem(&printed, first, LYD_XML, LYD_PRINT_WITHSIBLINGS | LYD_PRINT_SHRINK) != LY_SUCCESS) {
    return -1;
  }
  c_string_ptr owner(printed);
  text->assign(printed == nullptr ? "" : printed);
  if (printed != nullptr) {
    size_t length = strlen(printed);
    memset_s(printed, length, 0, length);
  }
  return 0;
}

// Of a leaf: 0 with the cipher text that it has now, or -1.
int encrypt_leaf(lyd_node *leaf, std::string *ret_cipher_text, std::string *ret_error)
{
  wiped_string canonical;
  const char *value = lyd_get_value(leaf);
  if (!schema_check_sensitive(leaf->schema, value, &canonical) || !encrypt_is_printable(canonical)) {
    *ret_error = std::string("Invalid value of sensitive leaf ") + leaf->schema->name + ".";
    return -1;
  }
  if (encrypt_sensitive(canonical, ret_cipher_text) != 0 ||
      lyd_change_term(leaf, ret_cipher_text->c_str()) != LY_SUCCESS) {
    *ret_error = std::string("Sensitive value of ") + leaf->schema->name + " can not be encrypted.";
    return -1;
  }
  return 0;
}

// Encrypts the sensitive values of an output; their cipher texts in the order of the document. 0 or -1.
int encrypt_output(lyd_node *operation, std::vector<std::string> *ret_cipher_texts, std::string *ret_error)
{
  lyd_node *node = nullptr;
  LYD_TREE_DFS_BEGIN(operation, node)
  {
    bool is_given = !(node->flags & LYD_DEFAULT) && schema_is_sensitive(node->schema);
    if (is_given && *lyd_get_value(node) != '\0') {
      std::string cipher_text;
      if (encrypt_leaf(node, &cipher_text, ret_error) != 0) {
        return -1;
      }
      ret_cipher_texts->push_back(std::move(cipher_text));
    }
    LYD_TREE_DFS_END(operation, node);
  }
  return 0;
}

// Seals the cipher texts, none like another, that stand in this order in the printed output.
wiped_string seal_output(std::string_view printed, const std::vector<std::string> &cipher_texts)
{
  wiped_string sealed;
  for (const std::string &cipher_text : cipher_texts) {
    wiped_string written;
    for (char c : cipher_text) { // as libyang prints text
      written.append(c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string_view(&c, 1));
    }
    size_t at = printed.find(written);
    if (at != std::string_view::npos) {
      sealed.append(printed.substr(0, at));
      sealed_text_append(cipher_text, &sealed);
      printed.remove_prefix(at + written.size());
    }
  }
  sealed.append(printed);
  return sealed;
}

} // namespace

int ds_parse_operation(const char *text, lyd_type type, lyd_tree_ptr *ret_tree, lyd_node **ret_operation)
{
  ly_in *made = nullptr;
  if (ly_in_new_memory(text, &made) != LY_SUCCESS) {
    return -1;
  }
  std::unique_ptr<ly_in, ly_in_delete_t> in(made);
  ds_clear_yang_errors();
  lyd_node *tree = nullptr;
  lyd_node *operation = nullptr;
  LY_ERR result = lyd_parse_op(schema_ctx(), nullptr, made, LYD_XML, type, &tree, &operation);
  lyd_tree_ptr owner(tree);
  running_data running;
  if (result != LY_SUCCESS || (refers_to_config(operation->schema) && running.read(operation) != 0) ||
      validate_with(operation, running.tree(), type) != 0) {
    return -1;
  }
  *ret_tree = std::move(owner);
  *ret_operation = operation;
  return 0;
}

int datastore_parse_rpc(const char *, lyxml_elem *rpc)
{
  for (lyxml_elem *operation = lyxml_first_child(rpc); operation != nullptr; operation = lyxml_next(operation)) {
    if (validate_input(operation) != 0) {
      return -1;
    }
  }
  return 0;
}

int ds_plugin_check_output(const std::string &oper, const xmlNode *result, wiped_string *ret_text,
                           std::string *ret_error)
{
  size_t colon = oper.find(':');
  std::string module(oper, 0, colon == std::string::npos ? 0 : colon);
  module.erase(0, module.starts_with('/') ? 1 : 0);
  std::string name(oper, colon == std::string::npos ? 0 : colon + 1);
  const lys_module *known = ly_ctx_get_module_implemented(schema_ctx(), module.c_str());
  if (known == nullptr || name.empty()) {
    *ret_error = "There is no operation \"" + oper + "\".";
    return -1;
  }
  wiped_string document = wiped_string("<") + name.c_str() + " xmlns=\"" + known->ns + "\">";
  lyd_tree_ptr tree;
  lyd_node *operation = nullptr;
  bool is_complete = result == nullptr || plugin_append_markup(result, &document) == 0;
  document.append("</").append(name).append(">");
  if (!is_complete || ds_parse_operation(document.c_str(), LYD_TYPE_REPLY_YANG, &tree, &operation) != 0) {
    const char *message = ly_errmsg(schema_ctx());
    *ret_error = message == nullptr ? "The output does not fit the schema." : message;
    return -1;
  }
  wiped_string text;
  std::vector<std::string> cipher_texts;
  if (encrypt_has_sensitive() && encrypt_output(operation, &cipher_texts, ret_error) != 0) {
    return -1;
  }
  if (print_children(operation, &text) != 0) {
    *ret_error = "Memory is short.";
    return -1;
  }
  *ret_text = cipher_texts.empty() ? std::move(text) : seal_output(text, cipher_texts);
  return 0;
}
