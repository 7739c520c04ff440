#include "ctl/ctl_print.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "client/client.h"
#include "ctl/ctl_tree.h"
#include "ctl/ctl_tree_writer.h"
#include "ctl/ctl_xml.h"

namespace {

// Some other module has a top node of that name.
bool is_ambiguous(const lysc_node *top)
{
  const ly_ctx *context = top->module->ctx;
  uint32_t index = ly_ctx_internal_modules_count(context);
  while (const lys_module *module = ly_ctx_get_module_iter(context, &index)) {
    if (module != top->module && module->implemented != 0 &&
        lys_find_child(nullptr, module, top->name, 0, 0, 0) != nullptr) {
      return true;
    }
  }
  return false;
}

bool needs_prefix(const lyd_node *node)
{
  const lyd_node *parent = lyd_parent(node);
  if (parent == nullptr) {
    return is_ambiguous(node->schema);
  }
  return parent->schema == nullptr || parent->schema->module != node->schema->module;
}

std::string opaque_name(const lyd_node *node)
{
  const ly_opaq_name &name = reinterpret_cast<const lyd_node_opaq *>(node)->name;
  return name.prefix == nullptr || *name.prefix == '\0' ? name.name : std::string(name.prefix) + ":" + name.name;
}

std::string quoted(std::string_view value)
{
  std::string text;
  for (char c : value) {
    text.append(c == '"' || c == '\\' ? "\\" : "").push_back(c);
  }
  return "\"" + ctl_visible(text) + "\"";
}

const char *value_of(const lyd_node *node)
{
  if (node->schema != nullptr && (node->schema->nodetype & LYS_ANYDATA) != 0) {
    return reinterpret_cast<const lyd_node_any *>(node)->value.str;
  }
  const char *value =
      node->schema == nullptr ? reinterpret_cast<const lyd_node_opaq *>(node)->value : lyd_get_value(node);
  return value == nullptr ? "" : value;
}

ssize_t collect(void *writer, const void *bytes, size_t size) noexcept
{
  // JSON has them as escapes.
  static_cast<ctl_tree_writer *>(writer)->raw(ctl_xml_keep_returns({static_cast<const char *>(bytes), size}));
  return static_cast<ssize_t>(size);
}

struct text_delete_t {
  void operator()(char *text) const { free(text); }
};

bool is_document(const lyd_node *node)
{
  if (node->schema == nullptr || (node->schema->nodetype & LYS_ANYDATA) == 0) { // anyxml included
    return false;
  }
  const auto *any = reinterpret_cast<const lyd_node_any *>(node);
  const lyd_node *top = any->value_type == LYD_ANYDATA_DATATREE ? any->value.tree : nullptr;
  for (; top != nullptr; top = top->next) {
    const lyd_node *inner = nullptr;
    LYD_TREE_DFS_BEGIN(top, inner)
    {
      if (inner->schema == nullptr) {
        return true;
      }
      LYD_TREE_DFS_END(top, inner);
    }
  }
  return false;
}

// A copy in which the elements of each anyxml are a text.
ctl_tree_ptr with_documents_as_text(const lyd_node *tree)
{
  lyd_node *copied = nullptr;
  const uint32_t options = LYD_DUP_RECURSIVE | LYD_DUP_WITH_FLAGS;
  ctl_tree_ptr copy(lyd_dup_siblings(tree, nullptr, options, &copied) == LY_SUCCESS ? copied : nullptr);
  for (const lyd_node *node = ctl_find_document(copied); node != nullptr; node = ctl_find_document(copied)) {
    auto *any = reinterpret_cast<lyd_node_any *>(const_cast<lyd_node *>(node));
    char *printed = nullptr;
    if (lyd_print_mem(&printed, any->value.tree, LYD_XML, LYD_PRINT_SHRINK | LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS) {
      return nullptr;
    }
    const std::unique_ptr<char, text_delete_t> text(printed);
    lyd_any_value value = {};
    value.str = text.get();
    if (lyd_any_copy_value(&any->node, &value, LYD_ANYDATA_STRING) != LY_SUCCESS) {
      return nullptr;
    }
  }
  return copy;
}

// The printers of libyang.
int print_encoded(const ctl_output_t &output, const lyd_node *tree)
{
  const bool is_xml = output.format == ctl_format::xml;
  if (tree == nullptr) {
    return is_xml ? CTL_OK : ctl_write(output, "{}\n");
  }
  ctl_tree_ptr copy;
  if (!is_xml && ctl_find_document(tree) != nullptr) {
    copy = with_documents_as_text(tree);
    tree = copy.get();
    if (tree == nullptr) {
      return ctl_fail(output, CTL_INPUT, "the data cannot be put into JSON");
    }
  }
  ctl_tree_writer writer(output);
  const bool needs_root = is_xml && tree->next != nullptr;
  writer.raw(needs_root ? std::string("<data xmlns=\"") + YMGR_BASE_NAMESPACE + "\">\n" : "");
  if (lyd_print_clb(collect, &writer, tree, is_xml ? LYD_XML : LYD_JSON, LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS) {
    return ctl_fail(output, CTL_INPUT, "the data cannot be printed");
  }
  writer.raw(needs_root ? "</data>\n" : "");
  return writer.finish();
}

} // namespace

int ctl_print(const ctl_output_t &output, const lyd_node *tree)
{
  if (output.format != ctl_format::tree) {
    return print_encoded(output, tree);
  }
  ctl_tree_writer writer(output);
  for (; tree != nullptr; tree = tree->next) {
    writer.subtree(tree, 0, ctl_mark::none);
  }
  return writer.finish();
}

const lyd_node *ctl_find_document(const lyd_node *tree)
{
  for (; tree != nullptr; tree = tree->next) {
    const lyd_node *node = nullptr;
    LYD_TREE_DFS_BEGIN(tree, node)
    {
      if (is_document(node)) {
        return node;
      }
      LYD_TREE_DFS_END(tree, node);
    }
  }
  return nullptr;
}

std::string ctl_node_name(const lyd_node *node)
{
  if (node->schema == nullptr) {
    return opaque_name(node);
  }
  return needs_prefix(node) ? std::string(node->schema->module->name) + ":" + node->schema->name : node->schema->name;
}

std::string ctl_key_text(const lyd_node *entry)
{
  std::string text;
  if (entry->schema == nullptr || entry->schema->nodetype != LYS_LIST) {
    return text;
  }
  for (const lyd_node *key = lyd_child(entry); key != nullptr && lysc_is_key(key->schema); key = key->next) {
    const char *value = lyd_get_value(key);
    const char quote = strchr(value, '\'') == nullptr || strchr(value, '"') != nullptr ? '\'' : '"';
    std::string typed;
    for (; *value != '\0'; value++) {
      typed.append(*value == quote ? 2 : 1, *value); // a quote in quotes is doubled, as a path is typed
    }
    text.append("[").append(key->schema->name).append("=").append(1, quote);
    text.append(ctl_visible(typed)).append(1, quote).append("]");
  }
  return text;
}

std::string ctl_value_text(const lyd_node *term)
{
  const std::string value = value_of(term);
  const bool is_plain =
      !value.empty() && value.find_first_of(" \"'\\") == std::string::npos && ctl_visible(value) == value;
  return is_plain ? value : quoted(value);
}
