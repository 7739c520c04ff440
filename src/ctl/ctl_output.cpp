#include "ctl/ctl_output.h"

std::string ctl_paint(const ctl_output_t &, ctl_color, std::string_view text)
{
  return std::string(text);
}

bool ctl_wants_color(std::string_view, FILE *)
{
  return false;
}

int ctl_fail(const ctl_output_t &output, int exit_code, std::string_view message)
{
  (void)fprintf(output.err, "ymgrctl: %.*s\n", static_cast<int>(message.size()), message.data());
  return exit_code;
}

int ctl_write(const ctl_output_t &output, std::string_view text)
{
  return fwrite(text.data(), 1, text.size(), output.out) == text.size() ? CTL_OK : CTL_INPUT;
}
