#include "ymgrd/datastore/absent_node.h"

#include <utility>
#include <vector>

#include "ymgrd/datastore/ds_clear_values.h"

namespace {

// A node without schema to hang a condition on, as libyang has it for absent nodes; gone with the object.
class stand_in {
public:
  stand_in(lyd_node *parent, const lysc_node *schema)
  {
    for (lyd_node *up = parent; up != nullptr; up = lyd_parent(up)) {
      flags_.emplace_back(up, up->flags); // a child makes a default container one that is no default
    }
    if (lyd_new_opaq(parent, nullptr, schema->name, nullptr, nullptr, schema->module->name, &node_) != LY_SUCCESS) {
      node_ = nullptr;
    }
  }
  stand_in(const stand_in &) = delete;
  stand_in &operator=(const stand_in &) = delete;
  ~stand_in()
  {
    lyd_free_tree(node_);
    for (const auto &[node, flags] : flags_) {
      node->flags = flags;
    }
  }
  const lyd_node *node() const { return node_; }

private:
  lyd_node *node_ = nullptr;
  std::vector<std::pair<lyd_node *, uint32_t>> flags_;
};

std::optional<bool> evaluate(const lyd_node *context, const lysc_node *schema, const lyxp_expr *condition,
                             const lysc_prefix *prefixes)
{
  ly_bool result = 0;
  if (context == nullptr ||
      lyd_eval_xpath3(context, schema->module, lyxp_get_expr(condition), LY_VALUE_SCHEMA_RESOLVED,
                      const_cast<lysc_prefix *>(prefixes), nullptr, &result) != LY_SUCCESS) { // prefixes are only read
    return std::nullopt;
  }
  return result != 0;
}

} // namespace

std::optional<bool> absent_node_condition(lyd_node *parent, const lysc_node *schema, const lyxp_expr *condition,
                                          const lysc_prefix *prefixes, bool is_on_parent)
{
  ds_clear_values clear;
  if (parent != nullptr) {
    ds_open_clear_for(condition, parent, &clear);
  }
  if (parent == nullptr || is_on_parent) {
    return evaluate(parent, schema, condition, prefixes);
  }
  stand_in absent(parent, schema);
  return evaluate(absent.node(), schema, condition, prefixes);
}

bool absent_node_is_ruled_out(lyd_node *parent, const lysc_node *schema)
{
  lysc_when **whens = lysc_node_when(schema);
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(whens, i)
  {
    bool is_on_parent = whens[i]->context != schema;
    if (absent_node_condition(parent, schema, whens[i]->cond, whens[i]->prefixes, is_on_parent) ==
        std::optional<bool>(false)) {
      return true;
    }
  }
  return false;
}
