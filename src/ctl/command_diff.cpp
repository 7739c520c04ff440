#include <memory>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_diff.h"
#include "ctl/ctl_operations.h"
#include "ctl/ctl_options.h"
#include "ctl/ctl_path.h"
#include "ctl/ctl_reply.h"

namespace {

typedef struct _diff_options {
  std::string path;
  std::string from = "running";
  std::string to = "candidate";
  bool tells_by_exit_code = false;
} diff_options_t;

int run_diff(ctl_device &device, const diff_options_t &options)
{
  ctl_path_t path;
  int result = options.path.empty() ? CTL_OK : ctl_parse_path(device, options.path, &path);
  const std::string selection = ctl_filter(path);
  std::string replies[2];
  const std::string *datastores[] = {&options.from, &options.to};
  for (size_t i = 0; i < 2 && result == CTL_OK; i++) {
    result = device.rpc(ctl_get_config(*datastores[i], selection), &replies[i]);
  }
  // Most who ask have changed nothing, or little.
  if (result != CTL_OK ||
      (device.output().format == ctl_format::tree && ctl_reply_content(replies[0]) == ctl_reply_content(replies[1]))) {
    return result;
  }
  ctl_tree_ptr from;
  ctl_tree_ptr to;
  bool is_different = false;
  result = ctl_reply_data(device, std::move(replies[0]), &from);
  result = result == CTL_OK ? ctl_reply_data(device, std::move(replies[1]), &to) : result;
  result = result == CTL_OK ? ctl_print_diff(device, from.get(), to.get(), &is_different) : result;
  return result == CTL_OK && is_different && options.tells_by_exit_code ? CTL_DIFFERENT : result;
}

} // namespace

ctl_action ctl_define_diff(CLI::App *app)
{
  auto options = std::make_shared<diff_options_t>();
  ctl_add_path(app, "only this part", &options->path);
  ctl_add_datastore(app, "--from", "the old one", &options->from);
  ctl_add_datastore(app, "--to", "the new one", &options->to);
  app->add_flag("--exit-code", options->tells_by_exit_code, "end with 5 when there are differences");
  return [options](ctl_device &device) { return run_diff(device, *options); };
}
