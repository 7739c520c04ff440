#include "ctl/ctl_commands.h"

ctl_action ctl_define_get(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

ctl_action ctl_define_get_config(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

ctl_action ctl_define_show(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

ctl_action ctl_define_modules(CLI::App *)
{
  return [](ctl_device &device) { return device.schema() ? 0 : 1; };
}
