#include "ctl/ctl_print.h"

#include <cstring>

#include "client/client.h"
#include "ctl/ctl_tree_writer.h"

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
  static_cast<ctl_tree_writer *>(writer)->raw({static_cast<const char *>(bytes), size});
  return static_cast<ssize_t>(size);
}

// The printers of libyang.
int print_encoded(const ctl_output_t &output, const lyd_node *tree)
{
  const bool is_xml = output.format == ctl_format::xml;
  if (tree == nullptr) {
    return is_xml ? CTL_OK : ctl_write(output, "{}\n");
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
    const char quote = strchr(value, '\'') == nullptr ? '\'' : '"';
    text.append("[").append(key->schema->name).append("=").append(1, quote);
    text.append(ctl_visible(value)).append(1, quote).append("]");
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
