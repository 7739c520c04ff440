#include "unit/edit/diff_judge.h"

#include <algorithm>
#include <map>
#include <set>
#include <vector>

#include "ymgrd/core/handles.h"
#include "ymgrd/datastore/dbkey.h"

namespace {

using names = std::vector<std::string>;

// A datastore without libyang: values by path, and the entries of each user-ordered list in their order.
struct state_t {
  std::map<std::string, std::string> values;
  std::map<std::string, names> orders;
};

std::string value_of(const lyd_node *node)
{
  if (node->schema->nodetype & LYD_NODE_ANY) {
    char *text = nullptr;
    (void)lyd_any_value_str(node, &text); // leaves it null when it fails: no value is empty
    c_string_ptr owner(text);
    return text == nullptr ? "(none)" : text;
  }
  return node->schema->nodetype == LYS_LEAF ? lyd_get_value(node) : "";
}

void add_to_state(const lyd_node *first, const std::string &parent, state_t *state)
{
  for (const lyd_node *node = first; node != nullptr; node = node->next) {
    if (lysc_is_key(node->schema)) {
      continue;
    }
    std::string path = dbkey_data_key(node);
    state->values[path] = value_of(node);
    if (lysc_is_userordered(node->schema)) {
      state->orders[parent + " " + node->schema->name].push_back(path);
    }
    add_to_state(lyd_child(node), path, state);
  }
}

std::string shown(const char *value)
{
  return value == nullptr ? "" : value;
}

class judge {
public:
  judge(const lyd_node *before, const lyd_node *after)
  {
    add_to_state(before, "", &before_);
    add_to_state(after, "", &after_);
    applied_ = before_.values;
  }

  std::string verdict(const differ_node_t *tree)
  {
    look_at_list(tree, nullptr);
    if (applied_ != after_.values) {
      complain("applying the diff does not give the new state", difference());
    }
    std::set<std::string> lists;
    for (const state_t *state : {&before_, &after_}) {
      for (const auto &order : state->orders) {
        lists.insert(order.first);
      }
    }
    for (const std::string &list : lists) {
      look_at_order(list);
    }
    return complaints_;
  }

private:
  void complain(const std::string &what, const std::string &where) { complaints_ += what + ": " + where + "\n"; }

  void look_at_list(const differ_node_t *first, const differ_node_t *parent)
  {
    for (const differ_node_t *node = first; node != nullptr; node = node->next) {
      look_at(node, parent);
      look_at_list(node->child, node);
    }
  }

  void look_at(const differ_node_t *node, const differ_node_t *parent)
  {
    std::string path = node->data_path;
    int code = node->oper_type & ~DBDIFF_MOVE;
    bool moved = node->oper_type & DBDIFF_MOVE;
    bool was = before_.values.contains(path);
    bool is = after_.values.contains(path);
    if (!codes_.emplace(path, node->oper_type).second) {
      complain("named twice", path);
    }
    if (moved && (!node->is_user_ordered || code == DBDIFF_REM)) {
      complain("cannot have moved", path);
    }
    if (parent != nullptr && !path.starts_with(std::string(parent->data_path) + "/")) {
      complain("named below another node", path);
    }
    bool fits = code == DBDIFF_ADD ? !was && is : code == DBDIFF_REM ? was && !is : was && is;
    fits = fits && (code == DBDIFF_ADD || code == DBDIFF_REM || code == DBDIFF_MOD ||
                    (code == DBDIFF_CHAIN && node->child != nullptr) || (code == 0 && moved && node->child == nullptr));
    std::string old_value = code == DBDIFF_MOD ? shown(node->leaf_value_old) : "";
    std::string value = shown(node->leaf_value_new);
    if (code == DBDIFF_MOD) {
      fits = fits && before_.values[path] == old_value && old_value != value;
    }
    if (node->node_type == CONF_NODE_LEAF) {
      fits = fits && value == (code == DBDIFF_REM ? before_ : after_).values[path];
    }
    if (!fits) {
      complain("does not say what happened", path + " (" + std::to_string(node->oper_type) + ")");
    }
    if (code == DBDIFF_REM) {
      applied_.erase(path);
    } else if (code == DBDIFF_ADD || code == DBDIFF_MOD) {
      applied_[path] = value;
    }
    if (code == DBDIFF_ADD && !moved) {
      appended_.push_back(path);
    }
  }

  std::string difference() const
  {
    std::string text;
    for (const auto &[path, value] : applied_) {
      auto found = after_.values.find(path);
      if (found == after_.values.end() || found->second != value) {
        text += "\n  too much: " + path + " " + value;
      }
    }
    for (const auto &[path, value] : after_.values) {
      if (!applied_.contains(path)) {
        text += "\n  missing: " + path + " " + value;
      }
    }
    return text;
  }

  names entries_with(const names &entries, bool (*wanted)(int code)) const
  {
    names found;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(found), [this, wanted](const std::string &entry) {
      auto code = codes_.find(entry);
      return wanted(code == codes_.end() ? 0 : code->second);
    });
    return found;
  }

  void look_at_order(const std::string &list)
  {
    const names &after = after_.orders[list];
    names expected =
        entries_with(before_.orders[list], [](int code) { return (code & (DBDIFF_REM | DBDIFF_MOVE)) == 0; });
    for (const std::string &entry : appended_) {
      if (std::find(after.begin(), after.end(), entry) != after.end()) {
        expected.push_back(entry);
      }
    }
    if (entries_with(after, [](int code) { return (code & DBDIFF_MOVE) == 0; }) != expected) {
      complain("entries stand elsewhere than the diff says", list);
    }
  }

  state_t before_;
  state_t after_;
  std::map<std::string, std::string> applied_; // the diff on top of `before_`
  std::map<std::string, int> codes_;
  names appended_;
  std::string complaints_;
};

} // namespace

std::string judge_diff(const lyd_node *before, const lyd_node *after, const differ_node_t *tree)
{
  return judge(before, after).verdict(tree);
}

std::string text_of_diff(const differ_node_t *tree)
{
  std::string text;
  for (const differ_node_t *node = tree; node != nullptr; node = node->next) {
    text += std::to_string(node->oper_type) + " " + node->data_path + " " + shown(node->leaf_value_old) + ">" +
            shown(node->leaf_value_new) + "\n" + text_of_diff(node->child);
  }
  return text;
}
