// The one interface to configuration data: sixteen operations, served by the built-in Redis driver or by an external
// one (include/ymgr/driver.h). Paths are data keys (datastore/dbkey.h); `target` is a logical database (YMGRM_*_DB).
//
// Writes of the built-in driver are collected in the handle and reach Redis together, in one MULTI/EXEC, when the
// handle is read through, flushed or committed. It also knows which keys of candidate and running differ, so that
// copying one onto the other moves only those.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "ymgrd/ymgrd.h"

// How `data` is given.
typedef enum _db_data_type { DB_DATA_NULL = 0, DB_DATA_TREE = 1, DB_DATA_NODE = 2, DB_DATA_CONTENT = 3 } db_data_type_t;

// What a read looks at; a bit set.
enum {
  DB_TFLAG_TRANS = 1,      // the transaction's new data; an error when the handle has no transaction running
  DB_TFLAG_NOTRANS = 2,    // no transaction is needed, even with the bit above
  DB_TFLAG_DECRYPT = 4,    // sensitive values in clear
  DB_TFLAG_BACKUP = 8,     // the data as it was before the transaction
  DB_TFLAG_ABSENT_OK = 16, // the caller asks whether there is something: nothing is logged when there is not
  DB_TFLAG_SEAL = 32,      // sensitive values sealed (crypto/sealed_text.h); of the built-in driver only
};

constexpr int DB_DEPTH_ALL = -1;

int database_init(int stage);
void database_exit();

// Keeps the profile's database section (database_config.h, "OPT-database"). Copies everything; logs and keeps nothing
// when a text is missing.
void database_save_conf(const char *type, int level, const unsigned char *keys, int len, const char *path,
                        const char *version);

// A handle greater than 0, to be closed by the caller; else -1.
int database_open(int target);
void database_close(int hdb);
// Whether the built-in driver serves. An external one does not know which leaves are sensitive: their values are to be
// read as they are stored.
bool database_is_builtin();

// `target` then equals `source`. While a handle has a transaction running on the target, copy and clean become part of
// that transaction: they take effect with its flush or commit, and its discard undoes them.
int database_copy(int target, int source);
int database_clean(int target);

// Sets a leaf (DB_DATA_CONTENT with its text; null or "" for a container or an empty leaf), or adds a list or leaf-list
// entry at the tail unless it is there. In a running transaction only, except on the status database, where writes
// outside a transaction are stored one by one.
int database_set(int hdb, const char *path, int datatype, const char *data);
// Deletes the node with all below it. It must be there, except on the status database, which loses its state data
// whenever running is copied onto it.
int database_delete(int hdb, const char *path);
// Adds a list or leaf-list entry: next to the entry `coords` at a signed distance, or without `coords` at the head
// (`offset` < 0) or the tail.
int database_new(int hdb, const char *path, const char *coords, int offset, int datatype, const char *data);
// Moves an entry so that it stands `offset` places (not 0) behind the entry `coords`, or before it when negative;
// without `coords` to the head (`offset` < 0) or the tail.
int database_move(int hdb, const char *path, const char *coords, int offset);

// The subtree at `path` ("/" for all) as XML text, down to `deepth` levels. On 0 `*result` is malloc'ed, or null when
// there is nothing at the path.
int database_get(int hdb, int tflag, const char *path, int deepth, char **result);
int database_list(int hdb, int tflag, const char *path, char **result); // entries of a list with their keys only
int database_index(int hdb, int tflag, const char *path);               // 0-based position of an entry, or -1

// Grows whenever another process may have written to a datastore: what was read at an earlier count is void then. One
// small round trip.
uint64_t database_foreign_writes();

// The modules in which two datastores (logical numbers) may differ. False when that is not known.
bool database_differing_modules(int target, int source, std::set<std::string, std::less<>> *ret_modules);

// Transactions: what is written after the start is undone by discard. 0 or failure. A commit that fails leaves the
// transaction open, to be discarded; closing the handle discards it too. A transaction during which the server was
// restarted can only be discarded.
int database_trans_start(int hdb);
int database_trans_commit(int hdb);
int database_trans_discard(int hdb);
// Sends the writes collected so far to the database (other processes see them; discard still undoes them). 0 or -1.
int database_flush(int hdb);

// Undoes what an earlier life of the daemon left unfinished in any datastore. Before anything is read. 0 or -1.
int database_recover();
// Encrypts stored values of leaves that have become sensitive since the last start, and decrypts those of leaves that
// are so no longer. Behind database_recover, before anything is read. 0, also when single values could not be converted
// (logged, and tried again at the next start), or -1.
int database_protect_stored();
// Sets aside what is stored and the schema does not know: nodes of modules that are not loaded, nodes that are no
// configuration of their module any more, values that their types refuse. It goes from running; startup keeps it until
// it is written or emptied, and reads leave it out. Logged once for each module. Of the built-in driver only. When
// running has its content for this start, and before anything is read. 0 or -1.
int database_set_aside_misfits();

// Locks `path`'s module ("/": all modules) for the handle; never waits. The lock's id, greater than 0, or -1.
int database_lock(int hdb, int type, const char *path);
void database_unlock(int hdb, int lock_id);

// The persisted transaction state of a datastore (ENUM_DATASTORE_*), in the hash "ymgrd-info". 0 or -1.
int database_set_transaction_state(int target, transact_state_e state);
transact_state_e database_get_transaction_state(int target); // E_TRANS_INVALID when there is none

typedef struct _database_figures {
  transact_state_e state = E_TRANS_INVALID;
  uint64_t records = 0; // containers, lists and list entries, and a few of the daemon's own
} database_figures_t;
// Of each of the datastores (ENUM_DATASTORE_*), in one round trip for all. 0 or -1.
int database_get_figures(const std::vector<int> &targets, std::vector<database_figures_t> *ret_figures);

// The change that is handed out to plugins, in a form of the caller's: kept in Redis until it has been, so that a
// daemon that starts after a kill learns what they may know. Set and removed with a transaction state, in one round
// trip. 0 or -1.
int database_begin_publication(int target, const std::string &journal); // E_TRANS_PUB
int database_get_publication(std::string *ret_journal);                 // empty when there is none
// The end leaves behind which plugins know what runs. Others may have missed it: the journal does not tell them of it.
int database_end_publication(int target, const std::vector<std::string> &plugins); // E_TRANS_COMMIT_END
int database_drop_publication(const std::vector<std::string> &plugins);
int database_save_plugins(const std::vector<std::string> &plugins);
int database_get_plugins(std::vector<std::string> *ret_plugins);

// What an interrupted transaction of running or candidate comes to at a start that leaves running as it is. One that
// was cut off before its commit has its old content in the backup database.
int database_is_cut_off(int ds_target, bool *ret_is); // 0 or -1
// Forgets the backup: what the datastore holds is final. Other datastores need nothing. 0 or -1.
int database_smooth_commit_transaction(int ds_target);
int database_smooth_cancel_transaction(int ds_target); // gives the datastore its old content back. 0 or -1
