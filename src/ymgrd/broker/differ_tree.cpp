#include "ymgrd/broker/differ_tree.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "libconf/wiped_string.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/schema/schema_sensitive.h"

namespace {

const ly_ctx *differ_ctx = nullptr;

const char *intern(const char *text)
{
  const char *interned = nullptr;
  return lydict_insert(differ_ctx, text, 0, &interned) == LY_SUCCESS ? interned : nullptr;
}

void release(const char *interned)
{
  if (interned != nullptr) {
    lydict_remove(differ_ctx, interned);
  }
}

bool begins_with(const char *text, const char *start)
{
  return std::strncmp(text, start, std::strlen(start)) == 0;
}

// Interns the value of a leaf or anyxml node, if it has one. 0 or -1.
int intern_value(const lyd_node *data, const char **ret_value)
{
  c_string_ptr printed;
  const char *value = lyd_get_value(data);
  if ((data->schema->nodetype & LYD_NODE_ANY) != 0) {
    char *text = nullptr;
    if (lyd_any_value_str(data, &text) != LY_SUCCESS) {
      return -1;
    }
    printed.reset(text);
    value = text;
  }
  if (value == nullptr) {
    return 0;
  }
  const char *interned = intern(value);
  if (interned == nullptr) {
    return -1;
  }
  *ret_value = interned;
  return 0;
}

int take_values(differ_node_t *node, const lyd_node *config, const lyd_node *db_node)
{
  if (config->schema->nodetype == LYS_LEAFLIST) {
    node->node_type = CONF_NODE_LEAFLIST;
    return 0;
  }
  if ((config->schema->nodetype & (LYS_LEAF | LYD_NODE_ANY)) == 0) {
    return 0;
  }
  node->node_type = CONF_NODE_LEAF;
  if (intern_value(config, &node->leaf_value_new) != 0) {
    log_error("dict insert new value failed.");
    return -1;
  }
  if (db_node != nullptr && intern_value(db_node, &node->leaf_value_old) != 0) {
    log_error("dict insert old value failed.");
    return -1;
  }
  return 0;
}

int intern_path(const char *path, const char **ret_path)
{
  const char *interned = intern(path);
  if (interned == nullptr) {
    log_error("dict insert %.512s failed.", path);
    return -1;
  }
  *ret_path = interned;
  return 0;
}

// Frees a node that is linked nowhere and has no children.
void release_node(differ_node_t *node)
{
  release(node->data_path);
  release(node->schema_path);
  release(node->leaf_value_old);
  release(node->leaf_value_new);
  delete node;
}

wiped_string plain_text(const char *stored)
{
  wiped_string plain;
  plain.reserve(64); // off the stack, where it would stay
  plain.assign(stored);
  if (begins_with(stored, CIPHER_TEXT_MARKER) && decrypt_sensitive(stored, &plain) != 0) {
    plain.assign(stored);
  }
  return plain;
}

} // namespace

void differ_tree_set_ctx(const ly_ctx *ctx)
{
  differ_ctx = ctx;
}

differ_node_t *new_differ_node(const char *data_path, const char *schema_path, ENUM_ACTION action,
                               const lyd_node *config, const lyd_node *db_node)
{
  if (data_path == nullptr || *data_path == '\0' || schema_path == nullptr || *schema_path == '\0') {
    log_error("data key is NULL when create differ node");
    return nullptr;
  }
  auto *node = new (std::nothrow) differ_node_t{};
  if (node == nullptr) {
    log_error("differ tree malloc error(%s).", std::strerror(errno));
    return nullptr;
  }
  if (config == nullptr || config->schema == nullptr) {
    config = db_node;
    db_node = nullptr;
  }
  bool has_schema = config != nullptr && config->schema != nullptr;
  if (intern_path(data_path, &node->data_path) != 0 || intern_path(schema_path, &node->schema_path) != 0 ||
      (has_schema && take_values(node, config, db_node) != 0)) {
    release_node(node);
    return nullptr;
  }
  node->is_user_ordered = has_schema && lysc_is_userordered(config->schema);
  node->is_sensitive = has_schema && schema_is_sensitive(config->schema);
  node->oper_type |= action;
  return node;
}

differ_root_t *new_differ_root(differ_node_t *root)
{
  if (root == nullptr) {
    log_error("error input");
    return nullptr;
  }
  auto *record = new (std::nothrow) differ_root_t{root};
  if (record == nullptr) {
    log_error("fail to allocate memory.");
    return nullptr;
  }
  root->doc = record;
  return record;
}

differ_node_t *free_differ_root(differ_root_t *root)
{
  if (root == nullptr) {
    return nullptr;
  }
  differ_node_t *first = root->root;
  if (first != nullptr) {
    first->doc = nullptr;
  }
  delete root;
  return first;
}

differ_node_t *differ_node_last(differ_node_t *node)
{
  while (node != nullptr && node->next != nullptr) {
    node = node->next;
  }
  return node;
}

differ_node_t *differ_node_add_child(differ_node_t *parent, differ_node_t *prev, differ_node_t *child)
{
  if (parent == nullptr) {
    return child;
  }
  if (child == nullptr) {
    return parent;
  }
  for (differ_node_t *node = child; node != nullptr; node = node->next) {
    node->parent = parent;
  }
  differ_node_t *last = differ_node_last(prev != nullptr ? prev : parent->child);
  if (last == nullptr) {
    parent->child = child;
  } else {
    last->next = child;
    child->prev = last;
  }
  return parent;
}

differ_node_t *differ_node_add_sibling(differ_node_t *node, differ_node_t *prev, differ_node_t *sibling)
{
  if (node == nullptr) {
    return sibling;
  }
  if (sibling == nullptr) {
    return node;
  }
  differ_node_t *before = prev != nullptr ? prev : differ_node_last(node);
  sibling->parent = before->parent;
  sibling->prev = before;
  sibling->next = before->next;
  if (before->next != nullptr) {
    before->next->prev = sibling;
  }
  before->next = sibling;
  return node;
}

void unlink_differ_node(differ_node_t *node)
{
  if (node == nullptr) {
    return;
  }
  if (node->parent != nullptr && node->parent->child == node) {
    node->parent->child = node->next;
  }
  if (node->doc != nullptr) {
    node->doc->root = node->next;
    if (node->next != nullptr) {
      node->next->doc = node->doc;
    }
  }
  if (node->prev != nullptr) {
    node->prev->next = node->next;
  }
  if (node->next != nullptr) {
    node->next->prev = node->prev;
  }
  node->parent = node->prev = node->next = nullptr;
  node->doc = nullptr;
}

void free_differ_node(differ_node_t *node)
{
  if (node == nullptr) {
    return;
  }
  unlink_differ_node(node);
  free_differ_tree(node->child);
  release_node(node);
}

void free_differ_tree(differ_node_t *tree)
{
  while (tree != nullptr) {
    differ_node_t *next = tree->next;
    free_differ_node(tree);
    tree = next;
  }
}

differ_node_t *find_node_in_differ_tree(differ_node_t *tree, const differ_node_t *node, differ_node_t **node_sibling)
{
  if (tree == nullptr || node == nullptr || node_sibling == nullptr) {
    return nullptr;
  }
  for (differ_node_t *other = tree; other != nullptr; other = other->next) {
    if (other->data_path == node->data_path) {
      return other;
    }
    if (*node_sibling == nullptr && other->schema_path == node->schema_path &&
        (other->parent == nullptr || begins_with(node->data_path, other->parent->data_path))) {
      *node_sibling = other;
    } else if (begins_with(node->data_path, other->data_path)) {
      differ_node_t *found = find_node_in_differ_tree(other->child, node, node_sibling);
      if (found != nullptr) {
        return found;
      }
    }
  }
  return nullptr;
}

int change_oper_recursive(differ_node_t *node, ENUM_ACTION action)
{
  if (node == nullptr) {
    return -1;
  }
  node->oper_type = action;
  if (node->child != nullptr) {
    return change_list_oper_recursive(node->child, action);
  }
  return 0;
}

int change_list_oper_recursive(differ_node_t *node, ENUM_ACTION action)
{
  if (node == nullptr) {
    return -1;
  }
  for (; node != nullptr; node = node->next) {
    (void)change_oper_recursive(node, action); // fails for null only
  }
  return 0;
}

int compare_encrypt(const char *str1, const char *str2)
{
  if (str1 == nullptr || str2 == nullptr) {
    return -1;
  }
  if (std::strcmp(str1, str2) == 0) {
    return 0;
  }
  return std::strcmp(plain_text(str1).c_str(), plain_text(str2).c_str());
}
