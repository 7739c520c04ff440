#include <memory>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_diff.h"
#include "ctl/ctl_path.h"
#include "ctl/ctl_reply.h"

namespace {

typedef struct _diff_options {
  std::string path;
  std::string from = "running";
  std::string to = "candidate";
  bool tells_by_exit_code = false;
} diff_options_t;

void add_datastore(CLI::App *app, const char *option, const char *description, std::string *datastore)
{
  app->add_option(option, *datastore, description)
      ->type_name("DATASTORE")
      ->check(CLI::IsMember({"running", "candidate", "startup"}))
      ->capture_default_str();
}

// Without what two replies differ in anyway.
std::string_view without_envelope(std::string_view reply)
{
  const size_t begin = reply.find("<data");
  return begin == std::string_view::npos ? reply : reply.substr(begin);
}

int run_diff(ctl_device &device, const diff_options_t &options)
{
  ctl_path_t path;
  int result = options.path.empty() ? CTL_OK : ctl_parse_path(device, options.path, &path);
  const std::string selection = ctl_filter(path);
  const std::string filter = selection.empty() ? "" : "<filter type=\"subtree\">" + selection + "</filter>";
  std::string replies[2];
  const std::string *datastores[] = {&options.from, &options.to};
  for (size_t i = 0; i < 2 && result == CTL_OK; i++) {
    result =
        device.rpc("<get-config><source><" + *datastores[i] + "/></source>" + filter + "</get-config>", &replies[i]);
  }
  // Most who ask have changed nothing, or little.
  if (result != CTL_OK ||
      (device.output().format == ctl_format::tree && without_envelope(replies[0]) == without_envelope(replies[1]))) {
    return result;
  }
  ctl_tree_ptr from;
  ctl_tree_ptr to;
  bool is_different = false;
  result = ctl_reply_data(device, replies[0], &from);
  result = result == CTL_OK ? ctl_reply_data(device, replies[1], &to) : result;
  result = result == CTL_OK ? ctl_print_diff(device, from.get(), to.get(), &is_different) : result;
  return result == CTL_OK && is_different && options.tells_by_exit_code ? CTL_DIFFERENT : result;
}

} // namespace

ctl_action ctl_define_diff(CLI::App *app)
{
  auto options = std::make_shared<diff_options_t>();
  app->add_option("path", options->path, "only this part")->type_name("PATH");
  add_datastore(app, "--from", "the old one", &options->from);
  add_datastore(app, "--to", "the new one", &options->to);
  app->add_flag("--exit-code", options->tells_by_exit_code, "end with 5 when there are differences");
  return [options](ctl_device &device) { return run_diff(device, *options); };
}
