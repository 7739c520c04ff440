// State data of plugins: what they push is kept, one tree for each plugin, and written into the status datastore; what
// they answer to a get is written there only.
#include <algorithm>
#include <cstdint>
#include <map>
#include <unordered_set>
#include <utility>

#include "libconf/plugin_message.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt_find.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_error.h"
#include "ymgrd/datastore/ds_plugin_data.h"
#include "ymgrd/datastore/ds_plugin_path.h"
#include "ymgrd/datastore/ds_status.h"
#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/schema/schema.h"

namespace {

// From here on it pays to look for the better way.
constexpr size_t MANY_LINKS = 16;

std::map<int, lyd_tree_ptr> pushed; // by plugin id

int fail(std::string *ret_error, std::string message)
{
  *ret_error = std::move(message);
  return -1;
}

// --- Checking

int check_state(const lyd_node *top, std::string *ret_error)
{
  const lyd_node *node = nullptr;
  LYD_TREE_DFS_BEGIN(top, node)
  {
    const lysc_node *schema = node->schema;
    bool is_config = schema->flags & LYS_CONFIG_W;
    if (is_config && !(schema->nodetype & LYD_NODE_INNER) && !lysc_is_key(schema)) {
      return fail(ret_error, "\"" + dbkey_data_key(node) + "\" is configuration.");
    }
    if (schema->nodetype == LYS_LIST && schema->flags & LYS_KEYLESS) {
      return fail(ret_error, "\"" + dbkey_data_key(node) + "\" is a list without keys, which can not be stored.");
    }
    LYD_TREE_DFS_END(top, node);
  }
  return 0;
}

// That `node`, which stands `depth` steps deep, is on the way to the path's end, at it or below it.
int check_place(const lyd_node *node, const ds_steps_t &steps, size_t depth, std::string *ret_error)
{
  if (depth < steps.size() && !ds_is_entry_of(node, steps[depth])) {
    return fail(ret_error, "\"" + dbkey_data_key(node) + "\" does not lie below the path.");
  }
  if (depth + 1 >= steps.size()) {
    return check_state(node, ret_error);
  }
  for (const lyd_node *child = lyd_child_no_keys(node); child != nullptr; child = child->next) {
    if (check_place(child, steps, depth + 1, ret_error) != 0) {
      return -1;
    }
  }
  return 0;
}

const lysc_node *schema_of(const xmlNode *elem, const lysc_node *parent)
{
  const lys_module *module = ly_ctx_get_module_implemented_ns(schema_ctx(), std::string(lyxml_ns(elem)).c_str());
  return module == nullptr ? nullptr : lys_find_child(parent, module, lyxml_name(elem).data(), 0, 0, 0);
}

// The entry's name and keys as they were written.
std::string written_key(const xmlNode *elem, const lysc_node *list)
{
  std::string key(lyxml_name(elem));
  for (const lysc_node *node = lysc_node_child(list); node != nullptr && lysc_is_key(node); node = node->next) {
    const xmlNode *value = lyxml_find_child(elem, node->name);
    key.append(1, '\0').append(value == nullptr ? "" : lyxml_text(value));
  }
  return key;
}

// libyang takes entries that are named twice, at a cost that grows with the square of their number. What the schema
// does not know is left to it.
int check_repeated(const xmlNode *parent, const lysc_node *schema, std::string *ret_error)
{
  std::unordered_set<std::string> entries;
  for (const xmlNode *elem = lyxml_first_child(parent); elem != nullptr; elem = lyxml_next(elem)) {
    const lysc_node *node = schema_of(elem, schema);
    if (node == nullptr || !(node->nodetype & (LYS_CONTAINER | LYS_LIST))) {
      continue;
    }
    bool is_entry = node->nodetype == LYS_LIST && !(node->flags & LYS_KEYLESS);
    if (is_entry && !entries.insert(written_key(elem, node)).second) {
      return fail(ret_error, "An entry of \"" + std::string(node->name) + "\" stands there twice.");
    }
    if (check_repeated(elem, node, ret_error) != 0) {
      return -1;
    }
  }
  return 0;
}

// Sensitive values are encrypted in a copy: the plugin's message is not ours.
int protect_state(const xmlNode *data, lyxml_ptr *ret_copy, std::string *ret_error)
{
  lyxml_ptr copy = lyxml_copy(const_cast<xmlNode *>(data));
  reply_error_ptr error;
  if (copy == nullptr) {
    return fail(ret_error, "Memory is short.");
  }
  if (security_find_sensitive_in_lyxml(copy.get(), SENSITIVE_ENCRYPT, &error) != 0) {
    bool has_message = error != nullptr && error->message != nullptr && error->path != nullptr;
    return fail(ret_error, has_message ? std::string("\"") + error->path + "\": " + error->message
                                       : "A sensitive value can not be encrypted.");
  }
  *ret_copy = std::move(copy);
  return 0;
}

int parse_state(const xmlNode *data, const ds_steps_t &steps, lyd_tree_ptr *ret_tree, std::string *ret_error)
{
  wiped_string text;
  lyxml_ptr copy;
  if (data != nullptr && encrypt_has_sensitive()) {
    if (protect_state(data, &copy, ret_error) != 0) {
      return -1;
    }
    data = copy.get();
  }
  if (data != nullptr && check_repeated(data, nullptr, ret_error) != 0) {
    return -1;
  }
  if (data != nullptr && plugin_append_markup(data, &text) != 0) {
    return fail(ret_error, "Memory is short.");
  }
  if (text.empty()) {
    ret_tree->reset();
    return 0;
  }
  ds_clear_yang_errors();
  lyd_node *tree = nullptr;
  LY_ERR result = lyd_parse_data_mem(schema_ctx(), text.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_STRICT, 0, &tree);
  lyd_tree_ptr owner(tree);
  if (result != LY_SUCCESS) {
    const char *message = ly_errmsg(schema_ctx());
    return fail(ret_error, message == nullptr ? "The data does not fit the schema." : message);
  }
  for (const lyd_node *top = tree; top != nullptr; top = top->next) {
    if (check_place(top, steps, 0, ret_error) != 0) {
      return -1;
    }
  }
  *ret_tree = std::move(owner);
  return 0;
}

// --- The trees

// The nodes at the path, of which `siblings` stand at the step `depth`.
void find_all(const lyd_node *siblings, const ds_steps_t &steps, size_t depth, std::vector<lyd_node *> *nodes)
{
  const ds_step_t &step = steps[depth];
  bool is_many = step.schema->nodetype & (LYS_LIST | LYS_LEAFLIST) && !step.is_entry();
  lyd_node *node = ds_find_node(siblings, {&step});
  for (; node != nullptr && node->schema == step.schema; node = is_many ? node->next : nullptr) {
    if (depth + 1 == steps.size()) {
      nodes->push_back(node);
    } else {
      find_all(lyd_child(node), steps, depth + 1, nodes);
    }
  }
}

std::vector<lyd_node *> find_all(const lyd_tree_ptr &tree, const ds_steps_t &steps)
{
  std::vector<lyd_node *> nodes;
  if (!steps.empty()) {
    find_all(tree.get(), steps, 0, &nodes);
    return nodes;
  }
  for (lyd_node *top = tree.get(); top != nullptr; top = top->next) {
    nodes.push_back(top);
  }
  return nodes;
}

// What only led to state data goes with it.
bool is_way_to_nothing(const lyd_node *node)
{
  return node != nullptr && lyd_child_no_keys(node) == nullptr &&
         ((node->schema->flags & LYS_CONFIG_W) != 0 || lysc_is_np_cont(node->schema));
}

void free_node(lyd_tree_ptr *tree, lyd_node *node)
{
  lyd_node *parent = lyd_parent(node);
  if (node == tree->get()) {
    (void)tree->release(); // its successor becomes the first node
    tree->reset(node->next);
  }
  lyd_free_tree(node);
  if (is_way_to_nothing(parent)) {
    free_node(tree, parent);
  }
}

// How many subtrees a merge would link into `target`; it stops counting beyond `limit`.
size_t count_unmatched(const lyd_node *source, const lyd_node *target, size_t limit)
{
  size_t count = 0;
  for (const lyd_node *node = source; node != nullptr && count <= limit; node = node->next) {
    lyd_node *match = nullptr;
    bool is_there = target != nullptr && lyd_find_sibling_first(target, node, &match) == LY_SUCCESS;
    count += is_there ? count_unmatched(lyd_child_no_keys(node), lyd_child(match), limit - count) : 1;
  }
  return count;
}

// They have nothing in common but the way to their data. libyang walks the siblings for each node that it links, so the
// one goes into the other where fewer nodes are linked.
int merge(lyd_tree_ptr *tree, lyd_tree_ptr later)
{
  if (*tree == nullptr) {
    std::swap(*tree, later);
  }
  if (later == nullptr) {
    return 0;
  }
  size_t links = count_unmatched(later.get(), tree->get(), SIZE_MAX);
  if (links > MANY_LINKS && count_unmatched(tree->get(), later.get(), links) < links) {
    std::swap(*tree, later);
  }
  lyd_node *target = tree->release();
  LY_ERR result = lyd_merge_siblings(&target, later.release(), LYD_MERGE_DESTRUCT);
  tree->reset(target);
  return result == LY_SUCCESS ? 0 : -1;
}

void write_siblings(ds_status_batch *batch, const lyd_node *first)
{
  for (const lyd_node *top = first; top != nullptr; top = top->next) {
    batch->set_tree(top);
  }
}

// What other plugins have pushed at the path may have gone with what this one takes back.
void write_others(ds_status_batch *batch, int plugin_id, const ds_steps_t &steps)
{
  for (const auto &[other_id, tree] : pushed) {
    if (other_id == plugin_id) {
      continue;
    }
    for (const lyd_node *node : find_all(tree, steps)) {
      batch->set_tree(node);
    }
  }
}

std::string top_path(const lyd_node *top)
{
  return std::string("/") + top->schema->module->name + ":" + LYD_NAME(top);
}

} // namespace

int ds_plugin_push(int plugin_id, std::string_view path, const xmlNode *data, const std::vector<std::string> &published,
                   std::string *ret_error)
{
  ds_steps_t steps;
  lyd_tree_ptr later;
  if (ds_parse_plugin_path(path, &steps, ret_error) != 0) {
    return -1;
  }
  if (!ds_is_below_any(steps, published)) {
    return fail(ret_error, "Path \"" + std::string(path) + "\" lies below none of the plugin's status paths.");
  }
  if (parse_state(data, steps, &later, ret_error) != 0) {
    return -1;
  }
  ds_status_batch batch;
  if (batch.begin("/") != 0) {
    return fail(ret_error, "State data can not be written.");
  }
  lyd_tree_ptr &tree = pushed[plugin_id];
  std::vector<lyd_node *> earlier = find_all(tree, steps);
  for (const lyd_node *node : earlier) {
    batch.remove_state(node);
  }
  if (!earlier.empty()) {
    write_others(&batch, plugin_id, steps);
  }
  write_siblings(&batch, later.get());
  if (batch.commit() != 0) {
    return fail(ret_error, "State data can not be written.");
  }
  for (lyd_node *node : earlier) {
    free_node(&tree, node);
  }
  return merge(&tree, std::move(later)) == 0 ? 0 : fail(ret_error, "Memory is short.");
}

void ds_plugin_forget_pushed(int plugin_id)
{
  auto tree = pushed.find(plugin_id);
  if (tree == pushed.end()) {
    return;
  }
  ds_status_batch batch;
  if (tree->second != nullptr && batch.begin("/") == 0) {
    for (const lyd_node *top = tree->second.get(); top != nullptr; top = top->next) {
      batch.remove_state(top);
    }
    const lysc_node *schema = nullptr;
    for (const lyd_node *top = tree->second.get(); top != nullptr; top = top->next) {
      if (top->schema != schema) { // entries of one list follow each other
        schema = top->schema;
        write_others(&batch, plugin_id, {{schema, {}}});
      }
    }
    (void)batch.commit(); // logged there; the next get takes it away
  }
  pushed.erase(tree);
}

int ds_plugin_set_status(std::string_view path, const xmlNode *data, std::string *ret_error)
{
  ds_steps_t steps;
  lyd_tree_ptr tree;
  if (ds_parse_plugin_path(path, &steps, ret_error) != 0 || parse_state(data, steps, &tree, ret_error) != 0) {
    return -1;
  }
  ds_status_batch batch;
  if (tree == nullptr) {
    return 0;
  }
  bool has_begun = batch.begin("/") == 0;
  if (has_begun) {
    write_siblings(&batch, tree.get());
  }
  return has_begun && batch.commit() == 0 ? 0 : fail(ret_error, "State data can not be written.");
}

int ds_write_pushed(const std::vector<std::string> &paths)
{
  std::vector<const lyd_node *> tops;
  for (const auto &[plugin_id, tree] : pushed) {
    for (const lyd_node *top = tree.get(); top != nullptr; top = top->next) {
      bool is_asked = std::any_of(paths.begin(), paths.end(),
                                  [top](const std::string &path) { return path == "/" || path == top_path(top); });
      if (is_asked) {
        tops.push_back(top);
      }
    }
  }
  ds_status_batch batch;
  if (tops.empty()) {
    return 0;
  }
  if (batch.begin("/") != 0) {
    return -1;
  }
  for (const lyd_node *top : tops) {
    batch.set_tree(top);
  }
  return batch.commit();
}

void ds_forget_pushed()
{
  pushed.clear();
}
