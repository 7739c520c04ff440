/*
 * External database driver: a shared object that keeps ymgrd's datastores in place of the built-in Redis driver. The
 * profile names it ("database": {"type": "external", "driver": {"path": "/path/driver.so", "api-version": "1.0"}}); it
 * exports the sixteen functions below under exactly these names. A library that lacks one of them is refused at start.
 * Usable from C and C++.
 *
 * All calls come from the daemon's only thread; none may block for long or end the process. The library stays loaded
 * until the daemon ends. At start db_open(YMGR_DB_RUNNING) is tried once a second, up to 30 times, until it succeeds.
 *
 * Paths are absolute data keys: "/MODULE:TOP/child", a list entry as "/MODULE:TOP/list[k1="v1",k2="v2"]" with the keys
 * in the model's order, a leaf-list entry as "/MODULE:TOP/leaf-list[.="v"]". Values stand in double quotes; a double
 * quote or backslash inside is preceded by a backslash. A node of another module than its parent carries its module's
 * name:
 * "/MODULE:TOP/OTHER:child".
 *
 * Results are 0 for success and -1 for failure unless said otherwise. Strings passed in are valid during the call only;
 * a result text is allocated with malloc and freed by the daemon.
 */
#ifndef YMGR_DRIVER_H
#define YMGR_DRIVER_H

#define YMGR_DRIVER_API_VERSION "1.0"

#ifdef __cplusplus
extern "C" {
#endif

/* Datastores: the arguments `target` and `source`. */
enum { YMGR_DB_STARTUP = 1, YMGR_DB_RUNNING = 2, YMGR_DB_CANDIDATE = 3, YMGR_DB_STATUS = 4 };

/* How `data` is given: as one XML element without children, or as the leaf's text. */
enum { YMGR_DATA_NODE = 2, YMGR_DATA_CONTENT = 3 };

/* What a read looks at; a bit set. */
enum {
  YMGR_READ_TRANSACTION = 1,    /* the running transaction's new data; an error when the handle has none */
  YMGR_READ_NO_TRANSACTION = 2, /* needs no transaction, even with the bit above */
  YMGR_READ_DECRYPT = 4,        /* sensitive values (stored with the marker "#%") in clear, when the driver can */
  YMGR_READ_BACKUP = 8          /* the data as it was before the transaction */
};

/* Lock types. */
enum { YMGR_LOCK_READ = 1, YMGR_LOCK_WRITE = 2 };

/* Opens a datastore. A handle greater than 0, to be given to db_close; -1 on failure. */
int db_open(int target);
/* Closes the handle; a transaction that still runs is discarded. An unknown handle is ignored. */
void db_close(int hdb);

/* Makes `target` equal to `source`. A copy onto startup must survive a power loss when it returns. */
int db_copy(int target, int source);
/* Empties the datastore. */
int db_clean(int target);

/*
 * Sets a leaf to `data`, or creates a container or empty leaf (null or ""). Parents exist, or are created by calls that
 * came before. An entry's path adds the entry at the end of its list, unless it is there.
 */
int db_set_item(int hdb, const char *path, int datatype, const char *data);
/* Deletes the node with all below it. On the status datastore it need not be there. */
int db_del_item(int hdb, const char *path);
/*
 * Adds a list or leaf-list entry (`data` null or ""): `offset` places behind the entry `coords`, before it when
 * negative (1: directly behind, -1: directly before). Without `coords` (null): at the head when `offset` is negative,
 * else at the end.
 */
int db_new_item(int hdb, const char *path, const char *coords, int offset, int datatype, const char *data);
/* Moves an entry so that it stands `offset` (not 0) places behind the entry `coords`; without `coords` as above. */
int db_move_item(int hdb, const char *path, const char *coords, int offset);

/*
 * The subtree at `path` ("/": everything, "/MODULE": one module) as XML text, `depth` levels deep (-1: all, 0:
 * nothing). Top elements, and nodes of another module than their parent, declare their namespace. A position, counted
 * from 0, may stand for a list entry's keys ("/m:top/list[2]"). A missing node is no failure: 0 and a null result.
 */
int db_get_items(int hdb, int tflag, const char *path, int depth, char **result);
/* The entries of a list or leaf-list with their keys only, in order. */
int db_list_entries(int hdb, int tflag, const char *path, char **result);
/* Position of a list or leaf-list entry, counted from 0; -1 when it is not there. */
int db_entry_index(int hdb, int tflag, const char *path);

/* A transaction of one handle: what is written after its start takes effect with the commit or is undone by the
 * discard. */
int db_trans_start(int hdb);
int db_trans_commit(int hdb);
void db_trans_discard(int hdb);

/*
 * Locks the module of `path`, or the whole datastore ("/"), without ever waiting. Several handles may hold the same
 * read lock; a handle that asks again for what it holds gets the same lock, to be unlocked as often. A lock id greater
 * than 0, or -1 when another handle holds a conflicting lock.
 */
int db_lock(int hdb, int type, const char *path);
void db_unlock(int hdb, int lock_id);

#ifdef __cplusplus
}
#endif

#endif
