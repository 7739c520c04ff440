#include <memory>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_diff.h"
#include "ctl/ctl_file.h"
#include "ctl/ctl_load.h"
#include "ctl/ctl_operations.h"
#include "ctl/ctl_options.h"
#include "ctl/ctl_reply.h"

namespace {

typedef struct _file_options {
  std::string path;
  std::string format = "auto";
  std::string datastore; // that is read or written
  bool replaces = false;
  bool merges = false;
  bool is_test = false;
  bool commits = false;
} file_options_t;

void add_file(CLI::App *app, const char *description, file_options_t *options)
{
  ctl_add_file(app, description, &options->path);
  app->add_option("--format", options->format, "xml, json, or auto: by the name's ending, or what the file begins with")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"xml", "json", "auto"}))
      ->capture_default_str();
}

int load_file(ctl_device &device, const file_options_t &options, ctl_load_t load)
{
  load.name = options.path;
  const int result = ctl_read_config(device, options.path, options.format, &load.config);
  return result == CTL_OK ? ctl_load(device, load) : result;
}

int run_load(ctl_device &device, const file_options_t &options)
{
  ctl_load_t load;
  load.target = options.datastore;
  load.is_replacement = options.replaces;
  load.is_test = options.is_test;
  return load_file(device, options, std::move(load));
}

int run_backup(ctl_device &device, const file_options_t &options)
{
  std::string reply;
  int result = device.rpc(ctl_get_config(options.datastore), &reply);
  if (result != CTL_OK) {
    return result;
  }
  std::string text;
  if (ctl_file_format(options.format, options.path, "") == ctl_format::json) {
    ctl_tree_ptr tree;
    result = ctl_reply_data(device, std::move(reply), &tree);
    result = result == CTL_OK ? ctl_encode_json(device.output(), tree.get(), &text) : result;
  } else {
    result = ctl_layout_config(device, reply, &text);
  }
  if (result != CTL_OK) {
    return result;
  }
  return options.path == "-" ? ctl_write(device.output(), text) : ctl_replace_file(device.output(), options.path, text);
}

// What committing would change.
int report_restored(ctl_device &device, const std::string &path)
{
  ctl_tree_ptr from;
  ctl_tree_ptr to;
  int result = ctl_read_data(device, ctl_get_config("running"), &from);
  result = result == CTL_OK ? ctl_read_data(device, ctl_get_config("candidate"), &to) : result;
  if (result != CTL_OK) {
    return result;
  }
  const ctl_diff_counts_t counts = ctl_count_diff(from.get(), to.get());
  return ctl_write(device.output(), path + ": " + std::to_string(counts.added) + " added, " +
                                        std::to_string(counts.removed) + " removed, " + std::to_string(counts.changed) +
                                        " changed\n");
}

int run_restore(ctl_device &device, const file_options_t &options)
{
  ctl_load_t load;
  load.is_replacement = true;
  load.is_committed = options.commits;
  load.report = [&] { return report_restored(device, options.path); };
  return load_file(device, options, std::move(load));
}

} // namespace

ctl_action ctl_define_load(CLI::App *app)
{
  auto options = std::make_shared<file_options_t>();
  add_file(app, "XML or JSON; \"-\" is standard input", options.get());
  CLI::Option *merge = app->add_flag("--merge", options->merges, "the file adds to what is there (the default)");
  app->add_flag("--replace", options->replaces, "nothing else is there afterwards")->excludes(merge);
  app->add_flag("--dry-run", options->is_test, "only ask the daemon whether it would do it");
  options->datastore = "candidate";
  ctl_add_datastore(app, "--target", "what is changed", &options->datastore, {"candidate", "running"});
  return [options](ctl_device &device) { return run_load(device, *options); };
}

ctl_action ctl_define_backup(CLI::App *app)
{
  auto options = std::make_shared<file_options_t>();
  add_file(app, "is replaced once all is written; \"-\" is standard output", options.get());
  options->datastore = "running";
  ctl_add_datastore(app, "--source", "what is written", &options->datastore);
  return [options](ctl_device &device) { return run_backup(device, *options); };
}

ctl_action ctl_define_restore(CLI::App *app)
{
  auto options = std::make_shared<file_options_t>();
  add_file(app, "what backup has written; \"-\" is standard input", options.get());
  app->add_flag("--commit", options->commits, "make it the running configuration");
  return [options](ctl_device &device) { return run_restore(device, *options); };
}
