#include "ctl/ctl_command.h"

std::span<const ctl_command_t> ctl_commands()
{
  return {};
}

const ctl_command_t *ctl_find_command(std::string_view)
{
  return nullptr;
}

int ctl_run(ctl_device &, const std::vector<std::string> &)
{
  return CTL_USAGE;
}

int ctl_main(int, char **)
{
  return CTL_USAGE;
}
