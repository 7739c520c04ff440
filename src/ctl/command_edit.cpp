#include <cstring>
#include <memory>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_operations.h"
#include "ctl/ctl_options.h"
#include "ctl/ctl_path.h"
#include "ctl/ctl_reply.h"
#include "ctl/ctl_xml.h"

namespace {

// Values may be passwords.
struct edit_options_t {
  edit_options_t() = default;
  edit_options_t(const edit_options_t &) = delete;
  edit_options_t &operator=(const edit_options_t &) = delete;
  ~edit_options_t() { explicit_bzero(value.data(), value.size()); }

  std::string path;
  std::string value;
  bool of_running = false;
  const char *target() const { return of_running ? "running" : "candidate"; }
};

void add_options(CLI::App *app, edit_options_t *options)
{
  ctl_add_path(app, "the node, such as /ex-sys:system/hostname", &options->path)->required();
  app->add_flag("--running", options->of_running, "change the running configuration at once, instead of candidate");
}

// Candidate takes the edit as it is: what is not complete after one edit may be so after the next, and the commit
// checks it all. Running would never be without the check.
int send_edit(ctl_device &device, const edit_options_t &options, std::string *config)
{
  int result = device.rpc(ctl_edit_config(options.target(), *config, {.test = options.of_running ? "" : "set"}));
  explicit_bzero(config->data(), config->size());
  return result;
}

int set_node(ctl_device &device, const edit_options_t &options, bool has_value)
{
  ctl_path_t path;
  std::string config;
  int result = ctl_parse_path(device, options.path, &path);
  if (result == CTL_OK) {
    result = ctl_edit(device, path, "merge", has_value ? &options.value : nullptr, &config);
  }
  return result == CTL_OK ? send_edit(device, options, &config) : result;
}

// --- Deletion of all entries that a path without keys names. NETCONF deletes entries one by one.

// One of the nodes, with what leads there, marked to be deleted.
ctl_tree_ptr marked_copy(const lyd_node *node)
{
  lyd_node *copy = nullptr;
  if (lyd_dup_single(node, nullptr, LYD_DUP_WITH_PARENTS | LYD_DUP_NO_META, &copy) != LY_SUCCESS) {
    return nullptr;
  }
  ctl_tree_ptr owner(ctl_top(copy));
  return lyd_new_meta(nullptr, copy, nullptr, "ietf-netconf:operation", "delete", 0, nullptr) == LY_SUCCESS
             ? std::move(owner)
             : nullptr;
}

bool merge_into(ctl_tree_ptr *tree, ctl_tree_ptr addition)
{
  lyd_node *merged = tree->release();
  LY_ERR result = lyd_merge_siblings(&merged, addition.get(), 0);
  tree->reset(merged);
  return result == LY_SUCCESS;
}

int delete_entries(ctl_device &device, const edit_options_t &options, const ctl_path_t &path)
{
  ctl_tree_ptr data;
  int result = ctl_read_data(device, ctl_get_config(options.target(), ctl_filter(path)), &data);
  if (result != CTL_OK) {
    return result;
  }
  const std::vector<lyd_node *> found = ctl_find(data.get(), path);
  if (found.empty()) {
    return ctl_fail(device.output(), CTL_REFUSED, "there is nothing to delete at " + ctl_path_text(path));
  }
  ctl_tree_ptr edits;
  for (const lyd_node *node : found) {
    ctl_tree_ptr copy = marked_copy(node);
    if (copy == nullptr || !merge_into(&edits, std::move(copy))) {
      return ctl_fail(device.output(), CTL_INPUT, "the edit cannot be built: not enough memory");
    }
  }
  std::string config;
  if (!ctl_encode(edits.get(), LYD_XML, LYD_PRINT_SHRINK, &config)) {
    return ctl_fail(device.output(), CTL_INPUT, "the edit cannot be built: not enough memory");
  }
  config = ctl_xml_keep_returns(config);
  result = send_edit(device, options, &config);
  if (result != CTL_OK) {
    return result;
  }
  const bool is_entries = (path.back().schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) != 0;
  const std::string one = is_entries ? "entry" : "node";
  const std::string many = is_entries ? "entries" : "nodes";
  return ctl_write(device.output(), std::to_string(found.size()) + " " + (found.size() == 1 ? one : many) +
                                        " deleted from " + options.target() + "\n");
}

int delete_node(ctl_device &device, const edit_options_t &options)
{
  ctl_path_t path;
  int result = ctl_parse_path(device, options.path, &path);
  if (result != CTL_OK) {
    return result;
  }
  if (!ctl_is_instance(path)) {
    return delete_entries(device, options, path);
  }
  std::string config;
  result = ctl_edit(device, path, "delete", nullptr, &config);
  return result == CTL_OK ? send_edit(device, options, &config) : result;
}

} // namespace

ctl_action ctl_define_set(CLI::App *app)
{
  auto options = std::make_shared<edit_options_t>();
  add_options(app, options.get());
  CLI::Option *value = app->add_option("value", options->value,
                                       "its value, behind \"--\" when it begins with \"-\"; none for what has no value")
                           ->type_name("VALUE");
  return [options, value](ctl_device &device) { return set_node(device, *options, value->count() > 0); };
}

ctl_action ctl_define_delete(CLI::App *app)
{
  auto options = std::make_shared<edit_options_t>();
  add_options(app, options.get());
  return [options](ctl_device &device) { return delete_node(device, *options); };
}
