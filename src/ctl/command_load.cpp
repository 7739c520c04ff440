#include "ctl/ctl_commands.h"

ctl_action ctl_define_load(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

ctl_action ctl_define_backup(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

ctl_action ctl_define_restore(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}
