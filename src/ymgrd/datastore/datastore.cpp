#include "ymgrd/datastore/datastore.h"

#include <iterator>
#include <string>

#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/datastore/ds_restore.h"
#include "ymgrd/schema/schema.h"

namespace {

const oper_registration_t operations[] = {
    {"ietf-netconf:edit-config", ds_edit_config},
    {"ietf-netconf:get", ds_get},
    {"ietf-netconf:get-config", ds_get_config},
    {"ietf-netconf:delete-config", ds_delete_config},
    {"ietf-netconf:copy-config", ds_copy_config},
    {"ietf-netconf:commit", ds_commit},
    {"ietf-netconf:discard-changes", ds_discarde_changes},
    {"ietf-netconf:lock", ds_lock},
    {"ietf-netconf:unlock", ds_unlock},
};

int ds_startup_db_cfgr()
{
  if (database_copy(YMGRM_RUNNING_DB, YMGRM_STARTUP_DB) != 0) {
    log_error("Copy startup db data to running error.");
    return -1;
  }
  return 0;
}

int datastore_init_default()
{
  if (context_get_option("OPT-smooth-start") == nullptr) {
    log_error("Get smooth state failed on initialization.");
    return -1;
  }
  if (context_get_int("OPT-smooth-start", 0) == 1) {
    return ds_begin_smooth_start() != 0 ? -1 : ds_lock_init(); // what runs stays as it is
  }
  // Plugins are to be restored: what they were told before does not matter.
  if (database_recover() != 0 || database_protect_stored() != 0 || database_drop_publication({}) != 0 ||
      ds_startup_db_cfgr() != 0 || database_set_aside_misfits() != 0) {
    return -1;
  }
  if (database_set_transaction_state(ENUM_DATASTORE_STARTUP, E_TRANS_INIT) != 0 ||
      database_set_transaction_state(ENUM_DATASTORE_RUNNING, E_TRANS_INIT) != 0 ||
      database_set_transaction_state(ENUM_DATASTORE_CANDIDATE, E_TRANS_INIT) != 0) {
    log_error("Initialize all database transaction state failed.");
    return -1;
  }
  return ds_lock_init();
}

// Diff trees and keys hold strings of the schema's dictionary: they go before it does.
int use_schema()
{
  if (dbkey_prepare(schema_ctx()) != 0) {
    return -1;
  }
  differ_tree_set_ctx(schema_ctx());
  schema_on_exit(dbkey_release);
  schema_on_exit(ds_drop_differ_nodes);
  schema_on_exit(ds_kept_drop);
  schema_on_exit(ds_forget_pushed);
  schema_on_exit(ds_restore_forget);
  schema_on_exit(ds_forget_validated);
  return 0;
}

} // namespace

int datastore_reg_operation()
{
  const char *failed = nullptr;
  if (broker_reg_inside_operations(operations, static_cast<int>(std::size(operations)), &failed) != 0) {
    log_error("Datastore register operation %s callback failed.", failed);
    return -1;
  }
  return 0;
}

int datastore_init(int stage)
{
  if (stage != STAGE_CONFIG) {
    return 0;
  }
  return use_schema() != 0 || datastore_init_default() != 0 || datastore_reg_operation() != 0 ? -1 : 0;
}

void datastore_exit()
{
  ds_drop_differ_nodes();
  ds_lock_uninit();
  ds_get_forget();
}

bool ds_has_pending_changes()
{
  return differ_nodes != nullptr;
}
