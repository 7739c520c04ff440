#include "ymgrd/datastore/ds_clear_values.h"

#include <utility>

#include <libyang/plugins_types.h>

#include "libconf/wiped_string.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/datastore/constraint_run.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/schema/schema_sensitive.h"

namespace {

lyd_value *value_of(lyd_node *node)
{
  return &reinterpret_cast<lyd_node_term *>(node)->value;
}

void free_value(lyd_value *value)
{
  value->realtype->plugin->free(schema_ctx(), value);
}

bool is_below(const lysc_node *schema, const lysc_node *above)
{
  while (schema != nullptr && schema != above) {
    schema = lysc_data_parent(schema);
  }
  return schema != nullptr;
}

} // namespace

ds_clear_values::~ds_clear_values()
{
  for (auto &[node, stored] : stored_) {
    std::swap(*value_of(node), stored);
    free_value(&stored);
  }
}

void ds_clear_values::open_node(lyd_node *node)
{
  wiped_string clear;
  const char *text = lyd_get_value(node);
  if (!encrypt_is_marked(text) || decrypt_sensitive(text, &clear) != 0) {
    return; // a schema default, open already, or damaged
  }
  const lysc_type *type = reinterpret_cast<const lysc_node_leaf *>(node->schema)->type; // string
  lyd_value value = {};
  ly_err_item *error = nullptr;
  LY_ERR result = type->plugin->store(schema_ctx(), type, clear.data(), clear.size(), 0, LY_VALUE_JSON, nullptr,
                                      LYD_HINT_DATA, node->schema, &value, nullptr, &error);
  ly_err_free(error);
  if (result == LY_SUCCESS) {
    stored_.emplace(node, std::exchange(*value_of(node), value));
    leaves_.insert(node->schema);
  }
}

void ds_clear_values::open(lyd_node *data, lyd_node *region, const lysc_node *leaf)
{
  if (region != nullptr && !is_below(leaf, region->schema)) {
    region = nullptr;
  }
  (void)constraint_visit(data, region, leaf, [this](lyd_node *node) {
    open_node(node);
    return true;
  });
}

void ds_clear_values::open_tree(lyd_node *top)
{
  lyd_node *node = nullptr;
  LYD_TREE_DFS_BEGIN(top, node)
  {
    if (schema_is_sensitive(node->schema)) {
      open_node(node);
    }
    LYD_TREE_DFS_END(top, node);
  }
}

void ds_clear_values::open_for(const constraint_index &index, const lyxp_expr *condition, lyd_node *data,
                               lyd_node *context)
{
  for (const secret_look_t &look : index.secrets(condition)) {
    open(data, look.region == nullptr ? nullptr : constraint_ancestor(context, look.region), look.leaf);
  }
}

void ds_clear_values::open_all(const constraint_index &index, lyd_node *data)
{
  for (const lysc_node *leaf : index.secrets()) {
    open(data, nullptr, leaf);
  }
}

void ds_clear_values::close(lyd_node *data, const std::function<bool(const lyd_node *)> &has_stayed)
{
  if (stored_.empty()) {
    return;
  }
  std::unordered_map<lyd_node *, lyd_value> stored = std::move(stored_);
  stored_.clear();
  for (const lysc_node *leaf : leaves_) {
    (void)constraint_visit(data, nullptr, leaf, [&](lyd_node *node) {
      auto found = stored.find(node);
      if (found != stored.end() && has_stayed(node)) {
        std::swap(*value_of(node), found->second);
      }
      return true;
    });
  }
  for (auto &[node, value] : stored) {
    free_value(&value);
  }
}

void ds_open_clear_for(const lyxp_expr *condition, lyd_node *context, ds_clear_values *values)
{
  if (schema_sensitive_leaves().empty()) {
    return;
  }
  lyd_node *top = context;
  while (lyd_parent(top) != nullptr) {
    top = lyd_parent(top);
  }
  values->open_for(ds_constraints(), condition, lyd_first_sibling(top), context);
}
