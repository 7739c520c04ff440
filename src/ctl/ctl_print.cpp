#include "ctl/ctl_print.h"

int ctl_print(const ctl_output_t &, const lyd_node *)
{
  return CTL_OK;
}

std::string ctl_node_name(const lyd_node *)
{
  return {};
}

std::string ctl_key_text(const lyd_node *)
{
  return {};
}

std::string ctl_value_text(const lyd_node *)
{
  return {};
}
