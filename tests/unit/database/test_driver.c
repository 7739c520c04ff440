/* A driver that keeps one value in memory. */
#include "ymgr/driver.h"

#include <stdlib.h>
#include <string.h>

static char stored[64];

int db_open(int target)
{
  return target == YMGR_DB_RUNNING ? 7 : -1;
}
void db_close(int hdb)
{
  (void)hdb;
}
int db_copy(int target, int source)
{
  return target * 10 + source;
}
int db_clean(int target)
{
  return target;
}

int db_set_item(int hdb, const char *path, int datatype, const char *data)
{
  (void)hdb;
  (void)path;
  (void)datatype;
  strncpy(stored, data, sizeof(stored) - 1);
  return 0;
}

int db_del_item(int hdb, const char *path)
{
  return hdb + (path[0] == '/');
}

int db_new_item(int hdb, const char *path, const char *coords, int offset, int datatype, const char *data)
{
  (void)path;
  (void)coords;
  (void)data;
  return hdb + offset + datatype;
}

int db_move_item(int hdb, const char *path, const char *coords, int offset)
{
  (void)path;
  (void)coords;
  return hdb + offset;
}

int db_get_items(int hdb, int tflag, const char *path, int depth, char **result)
{
  (void)hdb;
  (void)tflag;
  (void)path;
  (void)depth;
  *result = strdup(stored);
  return 0;
}

int db_list_entries(int hdb, int tflag, const char *path, char **result)
{
  (void)hdb;
  (void)tflag;
  (void)path;
  *result = NULL;
  return 0;
}

int db_entry_index(int hdb, int tflag, const char *path)
{
  (void)path;
  return hdb + tflag;
}

int db_trans_start(int hdb)
{
  return hdb - 7;
}
int db_trans_commit(int hdb)
{
  return hdb - 7;
}
void db_trans_discard(int hdb)
{
  (void)hdb;
}

#ifndef WITHOUT_LOCKS
int db_lock(int hdb, int type, const char *path)
{
  (void)path;
  return hdb + type;
}

void db_unlock(int hdb, int lock_id)
{
  (void)hdb;
  (void)lock_id;
}
#endif
