#include "ctl/ctl_tree_writer.h"

#include "ctl/ctl_print.h"

namespace {

constexpr size_t PIECE = 65536; // bytes
constexpr size_t INDENT = 2;    // columns

const char *mark_text(ctl_mark mark)
{
  switch (mark) {
  case ctl_mark::added:
    return "+ ";
  case ctl_mark::removed:
    return "- ";
  case ctl_mark::moved:
    return "~ ";
  case ctl_mark::context:
    return "  ";
  case ctl_mark::none:
    return "";
  }
  return "";
}

ctl_color mark_color(ctl_mark mark)
{
  switch (mark) {
  case ctl_mark::added:
    return ctl_color::added;
  case ctl_mark::removed:
    return ctl_color::removed;
  case ctl_mark::moved:
    return ctl_color::changed;
  default:
    return ctl_color::plain;
  }
}

bool is_state(const lyd_node *node)
{
  return node->schema != nullptr && (node->schema->flags & LYS_CONFIG_R) != 0;
}

const lyd_node_any *as_any(const lyd_node *node)
{
  const bool is_any = node->schema != nullptr && (node->schema->nodetype & LYS_ANYDATA) != 0; // anyxml as well
  return is_any ? reinterpret_cast<const lyd_node_any *>(node) : nullptr;
}

// What stands behind the name, but for keys.
std::string content_text(const lyd_node *node)
{
  if (const lyd_node_any *any = as_any(node)) {
    const bool is_text = any->value_type != LYD_ANYDATA_DATATREE && any->value_type != LYD_ANYDATA_LYB;
    return is_text && any->value.str != nullptr ? ctl_value_text(node) : std::string();
  }
  if (node->schema == nullptr) {
    const char *value = reinterpret_cast<const lyd_node_opaq *>(node)->value;
    return value == nullptr || *value == '\0' || lyd_child(node) != nullptr ? std::string() : ctl_value_text(node);
  }
  const bool has_value = (node->schema->nodetype & LYD_NODE_TERM) != 0 &&
                         reinterpret_cast<const lyd_node_term *>(node)->value.realtype->basetype != LY_TYPE_EMPTY;
  return has_value ? ctl_value_text(node) : std::string();
}

const lyd_node *shown_children(const lyd_node *node)
{
  if (const lyd_node_any *any = as_any(node)) {
    return any->value_type == LYD_ANYDATA_DATATREE ? any->value.tree : nullptr;
  }
  return lyd_child_no_keys(node);
}

} // namespace

bool ctl_is_shown(const lyd_node *node)
{
  return node->schema == nullptr || lyd_node_should_print(node, LYD_PRINT_WD_EXPLICIT) != 0;
}

void ctl_tree_writer::line(const lyd_node *node, int depth, ctl_mark mark, const std::string &name,
                           std::string_view rest)
{
  std::string text = mark_text(mark);
  text.append(static_cast<size_t>(depth) * INDENT, ' ');
  if (mark == ctl_mark::none && !is_state(node)) {
    pending_.append(text).append(ctl_paint(output_, ctl_color::name, name));
    if (!rest.empty()) {
      pending_.append(" ").append(ctl_paint(output_, ctl_color::value, rest));
    }
  } else {
    text.append(name).append(rest.empty() ? "" : " ").append(rest);
    pending_.append(ctl_paint(output_, mark == ctl_mark::none ? ctl_color::faint : mark_color(mark), text));
  }
  raw("\n");
}

void ctl_tree_writer::raw(std::string_view text)
{
  pending_.append(text);
  if (pending_.size() >= PIECE) {
    (void)finish(); // the result is kept
  }
}

int ctl_tree_writer::finish()
{
  if (result_ == CTL_OK && !pending_.empty()) {
    result_ = ctl_write(output_, pending_);
  }
  pending_.clear();
  return result_;
}

void ctl_tree_writer::node(const lyd_node *node, int depth, ctl_mark mark)
{
  line(node, depth, mark, ctl_node_name(node) + ctl_key_text(node), content_text(node));
}

void ctl_tree_writer::remark(const lyd_node *node, int depth, ctl_mark mark, std::string_view text)
{
  line(node, depth, mark, ctl_node_name(node) + ctl_key_text(node), text);
}

void ctl_tree_writer::subtree(const lyd_node *top, int depth, ctl_mark mark)
{
  if (result_ != CTL_OK || !ctl_is_shown(top)) {
    return; // nobody reads on
  }
  node(top, depth, mark);
  for (const lyd_node *child = shown_children(top); child != nullptr; child = child->next) {
    subtree(child, depth + 1, mark);
  }
}
