#include "ctl/ctl_path.h"

int ctl_parse_path(ctl_device &, std::string_view, ctl_path_t *)
{
  return CTL_OK;
}

std::string ctl_path_text(const ctl_path_t &)
{
  return {};
}

std::string ctl_filter(const ctl_path_t &)
{
  return {};
}

int ctl_edit(ctl_device &, const ctl_path_t &, std::string_view, const std::string *, std::string *)
{
  return CTL_OK;
}

std::string ctl_xml_escape(std::string_view text)
{
  return std::string(text);
}
