// The built-in driver's inner parts, shared by the sources of this component only.
//
// How a datastore is kept: a tree of Redis keys in its master database. "/" is a hash with a field for each module,
// "/MODULE" a hash with a field for each top node, a container's or list entry's data key a hash with a field for each
// child, a list's data key a Redis list of its entries' predicates. Field values are database_value.h's.
//
// How a transaction works: writes are collected in the handle (database_overlay.h). A flush before the commit first
// saves the old content of the keys it touches to the backup database and names them in the hash "ymgrd-journal" there,
// in the same MULTI; so a journal that is found later always belongs to a transaction that was not committed.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "libredisapi/redisapi.h"
#include "ymgrd/database/database_overlay.h"
#include "ymgrd/database/database_path.h"
#include "ymgrd/ymgrd.h"

// --- The datastores' databases.

typedef struct _ndb {
  int ndb_idx; // logical number, 1 to 4
  int rdb;
  int backup_rdb; // rdb + 1
  const char *lock_list;
} ndb_t;

const ndb_t *ndb_find(int target); // null for other numbers
const char *get_lock_list(int target);

// --- Connections (database_pool.cpp). Kept open between uses; one that was lost is replaced.

// A connection taken from the pool, with its database selected; given back when it goes out of scope.
class db_connection {
public:
  db_connection() = default;
  db_connection(redis_connection_ptr connection, int rdb) : connection_(std::move(connection)), rdb_(rdb) {}
  db_connection(db_connection &&other) noexcept = default;
  db_connection &operator=(db_connection &&other) noexcept;
  ~db_connection();
  rContext *get() const { return connection_.get(); }
  explicit operator bool() const { return connection_ != nullptr; }

private:
  redis_connection_ptr connection_;
  int rdb_ = 0;
};

int db_set_address(const std::string &driver_path); // of the profile; empty: the default socket. 0 or -1
db_connection db_connect(int rdb);                  // empty when the server is not there or not ready
// Grows each time the connected server turns out to be another, or a restarted one: what was known of its data is void
// then.
uint64_t db_server_generation();
// The one connection through which trees are written, with the database selected: what comes through any other is a
// write of another process. Borrowed; null when the server is not there.
rContext *db_writer(int rdb);
// Grows when another process may have written to a tree; what was known of differences is void then.
uint64_t db_foreign_writes();
void db_pool_close();

// --- Handles (database_handle.cpp).

enum { TRANS_STATE_INIT = 0, TRANS_STATE_WORKING = 1, TRANS_STATE_BUTT = 2 };

// What the flushes of a transaction have saved to the backup database.
typedef struct _db_saved {
  db_key_set keys;                     // all but "/", whose fields are kept one by one:
  std::map<std::string, bool> modules; // module name -> was registered in "/" at the start
  bool empty() const { return keys.empty() && modules.empty(); }
} db_saved_t;

typedef struct _hdb {
  int hdb_id = 0;
  int target_db = 0;
  const ndb_t *ndb = nullptr;
  int trans_state = TRANS_STATE_INIT;
  db_connection ctxt; // master database
  db_overlay pending;
  db_saved_t saved;
  uint64_t generation = 0; // the server's, when the transaction started
  bool uncertain = false;  // a flush failed: only the backup database knows whether it took effect
} hdb_t;

hdb_t *hdb_find(int hdb); // null, with a log line, when there is none
// Calls `visit` for each open handle of the datastore until it returns true; that handle, or null.
hdb_t *hdb_find_if(int target, const std::function<bool(hdb_t *)> &visit);
// The handle whose transaction a clean or copy of the whole datastore belongs to; null when there is none.
hdb_t *hdb_find_working(int target);

// The data that a read sees.
typedef enum _db_data_age { DB_DATA_CURRENT, DB_DATA_BEFORE_TRANSACTION } db_data_age_t;

// Chooses by `tflag` what a read of `path` sees, and sends pending writes first when it must see them. 0 or -1.
int get_trans_db(int hdb, int tflag, std::string_view path, hdb_t **ret_handle, db_data_age_t *ret_age);

// --- Writing (database_flush.cpp).

// Pending writes become part of the transaction (DB_FLUSH_UNDOABLE), or final together with all that was flushed
// before.
typedef enum _db_flush { DB_FLUSH_UNDOABLE, DB_FLUSH_FINAL } db_flush_t;
int db_flush_pending(hdb_t *handle, db_flush_t kind);
// Fills the order of a pending list from the database. 0 or -1.
int db_load_order(hdb_t *handle, const std::string &list_key, pending_list_t *list);

void db_add_chunked(redis_batch_t *batch, const std::vector<std::string_view> &command,
                    const std::vector<std::string_view> &words, size_t chunk = 512);

// --- Backup databases (database_transaction.cpp).

constexpr const char DB_JOURNAL_KEY[] = "ymgrd-journal"; // hash in a backup database: key -> handle

// Adds the commands that forget what the handle saved. Runs in a batch on the master's connection.
void db_add_drop_saved(redis_batch_t *batch, const hdb_t *handle);
// Makes sure that the backup database holds nothing but what open transactions saved: undoes a transaction that an
// earlier life of the daemon, or a lost connection, left behind. 0 or -1.
int db_recover(const ndb_t *ndb);
int db_recover_all();                  // every datastore
int db_clean_backup(const ndb_t *ndb); // empties it instead: for a datastore that is overwritten as a whole
bool db_has_unfinished_discard(const ndb_t *ndb);
void db_backups_forget();

// Brings stored values in line with which leaves are sensitive now (database_protect.cpp). 0 or -1.
int db_protect_stored();

// --- What the schema does not know (database_set_aside.cpp).

// Finds it in startup and running, and removes it from running. 0 or -1.
int db_set_aside_misfits();
// The data keys in the datastore that reads leave out, with all below them; "/MODULE" for a module. Null: none.
const db_key_set *db_set_aside(int target);
void db_forget_set_aside();
bool db_is_in_schema(std::string_view data_path); // without keys

// --- Differences between datastores (database_differences.cpp).

// The keys in which two datastores differ, when that is known; else null.
const db_key_set *db_differences(int target, int source);
void db_differences_touch(int target, const std::vector<std::string_view> &keys);
void db_differences_equal(int target, int source);
void db_differences_forget(int target);
void db_differences_forget_all();

// --- The driver's slots; contracts in database.h.

int db_open(int target);
void db_close(int hdb);
int db_copy(int target, int source);
int db_clean(int target);
int db_set_item(int hdb, const char *path, int datatype, const char *data);
int db_del_item(int hdb, const char *path);
int db_new_item(int hdb, const char *path, const char *coords, int offset, int datatype, const char *data);
int db_move_item(int hdb, const char *path, const char *coords, int offset);
int db_get_items(int hdb, int tflag, const char *path, int depth, char **result);
int db_list_entries(int hdb, int tflag, const char *path, char **result);
int db_entry_index(int hdb, int tflag, const char *path);
int db_trans_start(int hdb);
int db_trans_commit(int hdb);
void db_trans_discard(int hdb);
int db_lock(int hdb, int type, const char *path);
void db_unlock(int hdb, int lock_id);

int db_flush(int hdb);
int save_startup();
bool hdb_holds_global_wlock(const hdb_t *handle);
void db_free_lock(void *entry); // of a lock list

// --- The driver record (database_driver.cpp).

typedef struct _db_drv {
  int (*open)(int target);
  void (*close)(int hdb);
  int (*copy)(int target, int source);
  int (*clean)(int target);
  int (*set)(int hdb, const char *path, int datatype, const char *data);
  int (*del)(int hdb, const char *path);
  int (*create)(int hdb, const char *path, const char *coords, int offset, int datatype, const char *data);
  int (*move)(int hdb, const char *path, const char *coords, int offset);
  int (*get)(int hdb, int tflag, const char *path, int depth, char **result);
  int (*list)(int hdb, int tflag, const char *path, char **result);
  int (*index)(int hdb, int tflag, const char *path);
  int (*trans_start)(int hdb);
  int (*trans_commit)(int hdb);
  void (*trans_discard)(int hdb);
  int (*lock)(int hdb, int type, const char *path);
  void (*unlock)(int hdb, int lock_id);
} db_drv_t;

int db_drv_api_init(db_drv_t *driver);
bool db_drv_is_builtin(const db_drv_t *driver);
void db_drv_api_exit();
