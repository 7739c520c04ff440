#include "ctl/ctl_complete.h"

#include "ctl/ctl_commands.h"

ctl_action ctl_define_complete(CLI::App *)
{
  return [](ctl_device &device) { return ctl_fail(device.output(), CTL_USAGE, "not there yet"); };
}

std::vector<ctl_candidate_t> ctl_complete(ctl_device &, const std::vector<std::string> &)
{
  return {};
}

std::vector<std::string> ctl_split_line(std::string_view, size_t *)
{
  return {};
}
