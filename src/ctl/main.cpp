#include <cstdio>
#include <exception>

#include "ctl/ctl_command.h"

int main(int argc, char **argv)
{
  try {
    return ctl_main(argc, argv);
  } catch (const std::exception &error) { // no memory, for a reply that is too large
    (void)fprintf(stderr, "ymgrctl: %s\n", error.what());
    return CTL_INPUT;
  }
}
