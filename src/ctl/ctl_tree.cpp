#include "ctl/ctl_tree.h"

#include <cstdlib>

ctl_input_ptr ctl_open_text(const std::string &text)
{
  ly_in *input = nullptr;
  return ctl_input_ptr(ly_in_new_memory(text.c_str(), &input) == LY_SUCCESS ? input : nullptr);
}

bool ctl_encode(const lyd_node *tree, LYD_FORMAT format, uint32_t options, std::string *ret_text)
{
  struct text_delete_t {
    void operator()(char *text) const { free(text); }
  };
  char *printed = nullptr;
  if (lyd_print_mem(&printed, tree, format, LYD_PRINT_WITHSIBLINGS | options) != LY_SUCCESS) {
    return false;
  }
  const std::unique_ptr<char, text_delete_t> owner(printed);
  *ret_text = printed == nullptr ? "" : printed;
  return true;
}

lyd_node *ctl_top(lyd_node *node)
{
  while (lyd_parent(node) != nullptr) {
    node = lyd_parent(node);
  }
  return node;
}

bool ctl_is_named(const lyd_node *node, std::string_view name)
{
  return node->schema != nullptr && name == node->schema->name;
}

const lyd_node *ctl_child(const lyd_node *parent, std::string_view name)
{
  const lyd_node *child = parent == nullptr ? nullptr : lyd_child(parent);
  while (child != nullptr && !ctl_is_named(child, name)) {
    child = child->next;
  }
  return child;
}

std::string ctl_child_value(const lyd_node *parent, std::string_view name)
{
  const lyd_node *child = ctl_child(parent, name);
  return child == nullptr ? "" : lyd_get_value(child);
}
