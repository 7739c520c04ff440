#include "ctl/ctl_schema.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <utility>

#include "ctl/ctl_xml.h"

namespace {

std::vector<std::string> split(std::string_view text, char separator)
{
  std::vector<std::string> parts;
  while (!text.empty()) {
    size_t end = std::min(text.find(separator), text.size());
    parts.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

// "NAMESPACE?revision=...&module=...&features=a,b&deviations=c". A capability that is no module has no such name.
ctl_module_t read_capability(const std::string &capability)
{
  ctl_module_t module;
  size_t query = capability.find('?');
  if (query == std::string::npos) {
    return module;
  }
  module.name_space = capability.substr(0, query);
  for (const std::string &field : split(std::string_view(capability).substr(query + 1), '&')) {
    size_t equal = std::min(field.find('='), field.size());
    std::string name = field.substr(0, equal);
    std::string value = equal < field.size() ? field.substr(equal + 1) : "";
    if (name == "module") {
      module.name = value;
    } else if (name == "revision") {
      module.revision = value;
    } else if (name == "features" || name == "feature") {
      module.features = split(value, ',');
    } else if (name == "deviations") {
      module.deviations = split(value, ',');
    }
  }
  return module;
}

std::string first_error(const ly_ctx *context)
{
  for (const ly_err_item *item = ly_err_first(context); item != nullptr; item = item->next) {
    if (item->level == LY_LLERR) {
      return item->msg;
    }
  }
  return "libyang does not say why";
}

// The file that the daemon takes for a module, whatever revision it announces: a profile may name another than the
// file has, and a deviation's newer one is announced in place of the module's own.
LY_ERR read_module_file(const char *name, const char *, const char *submodule, const char *, void *directory,
                        LYS_INFORMAT *ret_format, const char **ret_text, ly_module_imp_data_free_clb *ret_free)
{
  const std::string stem =
      *static_cast<const std::string *>(directory) + "/" + (submodule == nullptr ? name : submodule);
  for (const auto &[ending, format] : {std::pair(".yin", LYS_IN_YIN), std::pair(".yang", LYS_IN_YANG)}) {
    std::ifstream file(stem + ending);
    if (file) {
      std::ostringstream text;
      text << file.rdbuf();
      *ret_format = format;
      *ret_text = strdup(text.str().c_str()); // libyang gives it back to the function below
      *ret_free = [](void *given, void *) { free(given); };
      return *ret_text == nullptr ? LY_EMEM : LY_SUCCESS;
    }
  }
  return LY_ENOT; // libyang looks for files with a revision in their names
}

bool load_module(ly_ctx *context, const ctl_module_t &module)
{
  std::vector<const char *> features;
  for (const std::string &feature : module.features) {
    features.push_back(feature.c_str());
  }
  features.push_back(nullptr);
  return ly_ctx_load_module(context, module.name.c_str(), nullptr, features.data()) != nullptr;
}

} // namespace

std::vector<ctl_module_t> ctl_read_modules(const std::string &reply)
{
  std::vector<ctl_module_t> modules;
  ctl_xml_ptr doc = ctl_parse_xml(reply);
  const xmlNode *root = doc == nullptr ? nullptr : xmlDocGetRootElement(doc.get());
  const xmlNode *capabilities = ctl_xml_child(root, "capabilities");
  for (const xmlNode *node = ctl_xml_child(capabilities, "capability"); node != nullptr; node = node->next) {
    ctl_module_t module = ctl_xml_is(node, "capability") ? read_capability(ctl_xml_text(node)) : ctl_module_t();
    if (!module.name.empty()) {
      modules.push_back(std::move(module));
    }
  }
  return modules;
}

ctl_context_ptr ctl_load_modules(const std::vector<ctl_module_t> &modules, const std::string &directory,
                                 std::string *ret_fault)
{
  (void)ly_log_options(LY_LOSTORE); // what is wrong is told by those who asked, in their words
  ly_ctx *created = nullptr;
  // Compiled once, when all are there: each new module would compile the others anew.
  const uint16_t options = LY_CTX_NO_YANGLIBRARY | LY_CTX_DISABLE_SEARCHDIR_CWD | LY_CTX_EXPLICIT_COMPILE;
  LY_ERR result = ly_ctx_new(directory.c_str(), options, &created);
  ctl_context_ptr context(result == LY_SUCCESS ? created : nullptr);
  if (context == nullptr) {
    *ret_fault = "the modules directory " + directory + " cannot be used";
    return nullptr;
  }
  std::string folder = directory;
  ly_ctx_set_module_imp_clb(context.get(), read_module_file, &folder);
  for (const ctl_module_t &module : modules) {
    if (!load_module(context.get(), module)) {
      *ret_fault = "module " + module.name + " of the daemon cannot be loaded from " + directory + ": " +
                   first_error(context.get());
      return nullptr;
    }
  }
  if (ly_ctx_compile(context.get()) != LY_SUCCESS) {
    *ret_fault = "the modules in " + directory + " do not fit together: " + first_error(context.get());
    return nullptr;
  }
  ly_ctx_set_module_imp_clb(context.get(), nullptr, nullptr); // the folder's name ends here
  return context;
}

std::vector<const lysc_node *> ctl_schema_children(const ly_ctx *schema, const lysc_node *parent)
{
  constexpr uint16_t DATA = LYS_CONTAINER | LYS_LEAF | LYS_LEAFLIST | LYS_LIST | LYS_ANYDATA; // anyxml included
  std::vector<const lysc_node *> children;
  auto collect = [&](const lysc_module *module) {
    const lysc_node *child = nullptr;
    while ((child = lys_getnext(child, parent, module, 0)) != nullptr) {
      if ((child->nodetype & DATA) != 0) {
        children.push_back(child);
      }
    }
  };
  if (parent != nullptr) {
    collect(nullptr);
    return children;
  }
  uint32_t index = ly_ctx_internal_modules_count(schema); // data of libyang's own modules is nobody's here
  while (const lys_module *module = ly_ctx_get_module_iter(schema, &index)) {
    if (module->implemented != 0 && module->compiled != nullptr) {
      collect(module->compiled);
    }
  }
  return children;
}

std::string ctl_schema_path(const lysc_node *node)
{
  char room[4096];
  const char *path = node == nullptr ? "/" : lysc_path(node, LYSC_PATH_DATA, room, sizeof(room));
  return path == nullptr ? node->name : path; // null: longer than the room
}

std::vector<const lysc_node_leaf *> ctl_schema_keys(const lysc_node *node)
{
  std::vector<const lysc_node_leaf *> keys;
  const lysc_node *child = node != nullptr && node->nodetype == LYS_LIST ? lysc_node_child(node) : nullptr;
  for (; child != nullptr && lysc_is_key(child); child = child->next) {
    keys.push_back(reinterpret_cast<const lysc_node_leaf *>(child));
  }
  return keys;
}
