#include <memory>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_operations.h"
#include "ctl/ctl_options.h"
#include "ctl/ctl_path.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_reply.h"
#include "ctl/ctl_table.h"
#include "ctl/ctl_xml.h"

namespace {

typedef struct _read_options {
  std::string path;
  std::string source = "running"; // empty: configuration and state
  bool of_candidate = false;
  bool of_startup = false;
  bool value_only = false;
} read_options_t;

int print_values(ctl_device &device, const ctl_tree_ptr &tree, const ctl_path_t &path)
{
  if (path.empty() || (path.back().schema->nodetype & LYD_NODE_TERM) == 0) {
    return ctl_fail(device.output(), CTL_INPUT, "--value needs the path of a leaf");
  }
  std::string text;
  std::vector<lyd_node *> found = ctl_find(tree.get(), path);
  for (const lyd_node *node : found) {
    text += std::string(lyd_get_value(node)) + "\n";
  }
  return found.empty() ? ctl_fail(device.output(), CTL_INPUT, ctl_path_text(path) + " has no value")
                       : ctl_write(device.output(), text);
}

int read_data(ctl_device &device, const read_options_t &options)
{
  ctl_path_t path;
  int result = ctl_parse_path(device, options.path, &path);
  ctl_tree_ptr tree;
  if (result == CTL_OK) {
    const std::string selection = ctl_filter(path);
    result = ctl_read_data(
        device, options.source.empty() ? ctl_get(selection) : ctl_get_config(options.source, selection), &tree);
  }
  if (result != CTL_OK) {
    return result;
  }
  tree = ctl_keep_only(std::move(tree), path);
  return options.value_only ? print_values(device, tree, path) : ctl_print(device.output(), tree.get());
}

void add_options(CLI::App *app, read_options_t *options)
{
  ctl_add_path(app, "what to show, such as /ex-sys:system/user[name='admin']; everything without it", &options->path);
  app->add_flag("--value", options->value_only, "print nothing but the values of that leaf, one a line");
}

// --- modules

std::string joined(const std::vector<std::string> &texts)
{
  std::string text;
  for (const std::string &part : texts) {
    text += (text.empty() ? "" : ",") + part;
  }
  return text;
}

int print_modules_table(const ctl_output_t &output, const std::vector<ctl_module_t> &modules)
{
  std::vector<std::vector<std::string>> rows;
  for (const ctl_module_t &module : modules) {
    rows.push_back({module.name, module.revision, joined(module.features), joined(module.deviations)});
  }
  return ctl_print_table(output, {"MODULE", "REVISION", "FEATURES", "DEVIATIONS"}, rows);
}

std::string xml_elements(const char *name, const std::vector<std::string> &texts)
{
  std::string xml;
  for (const std::string &text : texts) {
    xml += std::string("    <") + name + ">" + ctl_xml_escape(text) + "</" + name + ">\n";
  }
  return xml;
}

std::string modules_xml(const std::vector<ctl_module_t> &modules)
{
  std::string xml = "<modules>\n";
  for (const ctl_module_t &module : modules) {
    xml += "  <module>\n" + xml_elements("name", {module.name}) + xml_elements("revision", {module.revision}) +
           xml_elements("namespace", {module.name_space}) + xml_elements("feature", module.features) +
           xml_elements("deviation", module.deviations) + "  </module>\n";
  }
  return xml + "</modules>\n";
}

std::string json_text(const std::string &text)
{
  std::string json = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      json += '\\';
    }
    json += static_cast<unsigned char>(c) < ' ' ? ' ' : c; // names and namespaces have none
  }
  return json + "\"";
}

std::string json_list(const std::vector<std::string> &texts)
{
  std::string json;
  for (const std::string &text : texts) {
    json += (json.empty() ? "" : ", ") + json_text(text);
  }
  return "[" + json + "]";
}

std::string modules_json(const std::vector<ctl_module_t> &modules)
{
  std::string json;
  for (const ctl_module_t &module : modules) {
    json += (json.empty() ? "" : ",\n") + ("  {\"name\": " + json_text(module.name)) +
            ", \"revision\": " + json_text(module.revision) + ", \"namespace\": " + json_text(module.name_space) +
            ", \"features\": " + json_list(module.features) + ", \"deviations\": " + json_list(module.deviations) + "}";
  }
  return "[\n" + json + "\n]\n";
}

int print_modules(ctl_device &device)
{
  const std::vector<ctl_module_t> &modules = device.modules();
  if (modules.empty()) {
    return device.session_id() == 0 ? CTL_UNREACHABLE : CTL_REFUSED; // told
  }
  if (device.output().format == ctl_format::xml) {
    return ctl_write(device.output(), modules_xml(modules));
  }
  if (device.output().format == ctl_format::json) {
    return ctl_write(device.output(), modules_json(modules));
  }
  return print_modules_table(device.output(), modules);
}

} // namespace

ctl_action ctl_define_get(CLI::App *app)
{
  auto options = std::make_shared<read_options_t>();
  options->source.clear();
  add_options(app, options.get());
  return [options](ctl_device &device) { return read_data(device, *options); };
}

ctl_action ctl_define_get_config(CLI::App *app)
{
  auto options = std::make_shared<read_options_t>();
  add_options(app, options.get());
  ctl_add_datastore(app, "--source", "the datastore", &options->source);
  return [options](ctl_device &device) { return read_data(device, *options); };
}

ctl_action ctl_define_show(CLI::App *app)
{
  auto options = std::make_shared<read_options_t>();
  add_options(app, options.get());
  CLI::Option *candidate = app->add_flag("--candidate", options->of_candidate, "what the next commit would make of it");
  app->add_flag("--startup", options->of_startup, "what the next start begins with")->excludes(candidate);
  return [options](ctl_device &device) {
    read_options_t wanted = *options;
    wanted.source = wanted.of_candidate ? "candidate" : wanted.of_startup ? "startup" : "running";
    return read_data(device, wanted);
  };
}

ctl_action ctl_define_modules(CLI::App *)
{
  return print_modules;
}
