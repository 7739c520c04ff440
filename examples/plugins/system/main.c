/* The plugin as a process: ymgr-example-system [--root DIR] [--run-dir DIR] */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "system.h"

int main(int argc, char **argv)
{
  /* Takes out our own option; the others are the library's. */
  int kept = 1;
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--root") != 0) {
      argv[kept++] = argv[i];
      continue;
    }
    i++;
    if (i == argc || setenv(SYSTEM_ROOT_VARIABLE, argv[i], 1) != 0) {
      fprintf(stderr, "usage: %s [--root DIR] [--run-dir DIR]\n", argv[0]);
      return 2;
    }
  }
  argv[kept] = NULL;
  return ymgr_plugin_main(kept, argv, "example-system", system_setup);
}
