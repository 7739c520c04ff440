/* A driver that keeps one value in memory; most answers tell what the call was given. */
#include "ymgr/driver.h"

#include <stdlib.h>
#include <string.h>

#pragma GCC diagnostic ignored "-Wunused-parameter"

#define ANSWER(CALL, RESULT)                                                                                           \
  CALL                                                                                                                 \
  {                                                                                                                    \
    return RESULT;                                                                                                     \
  }

static char stored[64];

int db_set_item(int hdb, const char *path, int datatype, const char *data)
{
  strncpy(stored, data, sizeof(stored) - 1);
  return 0;
}
int db_get_items(int hdb, int tflag, const char *path, int depth, char **result)
{
  *result = strdup(stored);
  return 0;
}
int db_list_entries(int hdb, int tflag, const char *path, char **result)
{
  *result = NULL;
  return 0;
}
void db_close(int hdb) {}
void db_trans_discard(int hdb) {}

ANSWER(int db_open(int target), target == YMGR_DB_RUNNING ? 7 : -1)
ANSWER(int db_copy(int target, int source), target * 10 + source)
ANSWER(int db_clean(int target), target)
ANSWER(int db_del_item(int hdb, const char *path), hdb + (path[0] == '/'))
ANSWER(int db_new_item(int hdb, const char *path, const char *coords, int offset, int type, const char *data),
       hdb + offset + type)
ANSWER(int db_move_item(int hdb, const char *path, const char *coords, int offset), hdb + offset)
ANSWER(int db_entry_index(int hdb, int tflag, const char *path), hdb + tflag)
ANSWER(int db_trans_start(int hdb), hdb - 7)
ANSWER(int db_trans_commit(int hdb), hdb - 7)

#ifndef WITHOUT_LOCKS
ANSWER(int db_lock(int hdb, int type, const char *path), hdb + type)
void db_unlock(int hdb, int lock_id) {}
#endif
