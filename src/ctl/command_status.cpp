#include "ctl/ctl_commands.h"

ctl_action ctl_define_status(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}
