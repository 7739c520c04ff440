#include "ctl/ctl_reply.h"

std::vector<ctl_reply_error_t> ctl_reply_errors(const std::string &)
{
  return {};
}

std::string ctl_error_line(const ctl_reply_error_t &)
{
  return {};
}

int ctl_reply_data(ctl_device &, const std::string &, ctl_tree_ptr *)
{
  return CTL_OK;
}
