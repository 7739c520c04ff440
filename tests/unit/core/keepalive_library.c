/* A product's keep-alive library: adds each call to the file named in KEEPALIVE_RECORD. */
#include <stdio.h>
#include <stdlib.h>

#include "ymgr/keepalive.h"

#ifndef KEEPALIVE_RESULT
#define KEEPALIVE_RESULT 0
#endif

#ifndef KEEPALIVE_NO_SYMBOL
int pdt_keep_alive(int warn_secs, int kill_secs)
{
  FILE *record = fopen(getenv("KEEPALIVE_RECORD"), "a");
  if (record == NULL) {
    return -1;
  }
  fprintf(record, "%d %d\n", warn_secs, kill_secs);
  fclose(record);
  return KEEPALIVE_RESULT;
}
#endif
