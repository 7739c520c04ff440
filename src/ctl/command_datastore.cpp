#include "ctl/ctl_commands.h"

ctl_action ctl_define_validate(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

ctl_action ctl_define_commit(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

ctl_action ctl_define_discard(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

ctl_action ctl_define_lock(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

ctl_action ctl_define_unlock(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

ctl_action ctl_define_save(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

ctl_action ctl_define_copy(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}
