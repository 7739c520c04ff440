#include <memory>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_commit.h"
#include "ctl/ctl_operations.h"
#include "ctl/ctl_options.h"

namespace {

// An empty edit changes nothing, but candidate is checked as a commit would check it.
int validate(ctl_device &device)
{
  int result = device.rpc(ctl_edit_config("candidate", "", {.test = "test-only"}));
  return result != CTL_OK ? result
                          : ctl_write(device.output(), "candidate is valid; plugins are asked by the commit only\n");
}

ctl_action define_lock(CLI::App *app, std::string (*operation)(std::string_view datastore), const char *help)
{
  auto datastore = std::make_shared<std::string>("candidate");
  ctl_add_datastore(app, "datastore", help, datastore.get());
  app->footer("A lock ends with its session: lock and unlock in \"ymgrctl shell\".");
  return [datastore, operation](ctl_device &device) {
    if (!device.goes_on()) {
      return ctl_fail(device.output(), CTL_USAGE,
                      "a lock ends with its session, which is over with this command: lock and unlock in \"ymgrctl "
                      "shell\"");
    }
    return device.rpc(operation(*datastore));
  };
}

} // namespace

ctl_action ctl_define_validate(CLI::App *)
{
  return validate;
}

ctl_action ctl_define_commit(CLI::App *)
{
  return ctl_commit;
}

ctl_action ctl_define_discard(CLI::App *)
{
  return [](ctl_device &device) { return device.rpc(CTL_DISCARD); };
}

ctl_action ctl_define_lock(CLI::App *app)
{
  return define_lock(app, ctl_lock, "what others may not change");
}

ctl_action ctl_define_unlock(CLI::App *app)
{
  return define_lock(app, ctl_unlock, "what was locked");
}

ctl_action ctl_define_save(CLI::App *)
{
  return [](ctl_device &device) { return device.rpc(ctl_copy_config("running", "startup")); };
}

ctl_action ctl_define_copy(CLI::App *app)
{
  auto source = std::make_shared<std::string>();
  auto target = std::make_shared<std::string>();
  ctl_add_datastore(app, "source", "what is copied", source.get())->required();
  ctl_add_datastore(app, "target", "what is overwritten", target.get())->required();
  return [source, target](ctl_device &device) { return device.rpc(ctl_copy_config(*source, *target)); };
}
