#include <memory>

#include "ctl/ctl_commands.h"

namespace {

std::string element(const char *name, const std::string &datastore)
{
  return std::string("<") + name + "><" + datastore + "/></" + name + ">";
}

CLI::Option *add_datastore(CLI::App *app, const char *name, std::string *datastore, const char *help)
{
  return app->add_option(name, *datastore, help)
      ->type_name("DATASTORE")
      ->check(CLI::IsMember({"running", "candidate", "startup"}));
}

ctl_action operation(const std::string &text)
{
  return [text](ctl_device &device) { return device.rpc(text, nullptr); };
}

int copy(ctl_device &device, const std::string &source, const std::string &target)
{
  return device.rpc("<copy-config>" + element("target", target) + element("source", source) + "</copy-config>",
                    nullptr);
}

// An empty edit changes nothing, but candidate is checked as a commit would check it.
int validate(ctl_device &device)
{
  int result = device.rpc("<edit-config><target><candidate/></target><test-option>test-only</test-option><config/>"
                          "</edit-config>",
                          nullptr);
  return result != CTL_OK ? result
                          : ctl_write(device.output(), "candidate is valid; plugins are asked by the commit only\n");
}

bool has_pending_changes(ctl_device &device)
{
  std::string reply;
  return device.try_rpc("<get><filter type=\"subtree\"><daemon "
                        "xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"><datastore><name>candidate</name>"
                        "<pending-changes/></datastore></daemon></filter></get>",
                        &reply) == CTL_OK &&
         reply.find("<pending-changes>true<") != std::string::npos;
}

// A candidate that is invalid stays to be mended; one that a plugin has refused becomes running again. Who goes on as
// after the first would commit nothing.
int commit(ctl_device &device)
{
  const bool had_changes = has_pending_changes(device);
  int result = device.rpc("<commit/>", nullptr);
  if (result == CTL_REFUSED && had_changes && !has_pending_changes(device)) {
    return ctl_fail(device.output(), result, "the changes in candidate are gone: it is equal to running again");
  }
  return result;
}

ctl_action define_lock(CLI::App *app, const char *name, const char *help)
{
  auto datastore = std::make_shared<std::string>("candidate");
  add_datastore(app, "datastore", datastore.get(), help);
  return [datastore, name](ctl_device &device) {
    if (!device.goes_on()) {
      return ctl_fail(device.output(), CTL_USAGE,
                      "a lock ends with its session, which is over with this command: lock and unlock in \"ymgrctl "
                      "shell\"");
    }
    return device.rpc(std::string("<") + name + ">" + element("target", *datastore) + "</" + name + ">", nullptr);
  };
}

} // namespace

ctl_action ctl_define_validate(CLI::App *)
{
  return validate;
}

ctl_action ctl_define_commit(CLI::App *)
{
  return commit;
}

ctl_action ctl_define_discard(CLI::App *)
{
  return operation("<discard-changes/>");
}

ctl_action ctl_define_lock(CLI::App *app)
{
  return define_lock(app, "lock", "what others may not change; candidate without it");
}

ctl_action ctl_define_unlock(CLI::App *app)
{
  return define_lock(app, "unlock", "what was locked; candidate without it");
}

ctl_action ctl_define_save(CLI::App *)
{
  return [](ctl_device &device) { return copy(device, "running", "startup"); };
}

ctl_action ctl_define_copy(CLI::App *app)
{
  auto source = std::make_shared<std::string>();
  auto target = std::make_shared<std::string>();
  add_datastore(app, "source", source.get(), "what is copied")->required();
  add_datastore(app, "target", target.get(), "what is overwritten")->required();
  return [source, target](ctl_device &device) { return copy(device, *source, *target); };
}
