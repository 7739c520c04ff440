#include "ymgrd/datastore/datastore.h"

#include <iterator>
#include <string>

#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_error.h"
#include "ymgrd/datastore/ds_kept.h"
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
    return ds_lock_init(); // what runs stays as it is
  }
  if (ds_startup_db_cfgr() != 0) {
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
  schema_on_exit(ds_forget_validated);
  return 0;
}

// Whether validating the operation's input can look at the configuration: it has a must, a when or a reference.
bool refers_to_config(const lysc_node *operation)
{
  const lysc_node *node = nullptr;
  LYSC_TREE_DFS_BEGIN(operation, node)
  {
    if (lysc_node_musts(node) != nullptr || lysc_node_when(node) != nullptr) {
      return true;
    }
    if (node->nodetype & (LYS_LEAF | LYS_LEAFLIST)) {
      LY_DATA_TYPE type = reinterpret_cast<const lysc_node_leaf *>(node)->type->basetype;
      if (type == LY_TYPE_LEAFREF || type == LY_TYPE_INST || type == LY_TYPE_UNION) {
        return true;
      }
    }
    LYSC_TREE_DFS_END(operation, node);
  }
  return false;
}

int read_running(lyd_tree_ptr *ret_running)
{
  ds_session_db db;
  if (db.open(ENUM_DATASTORE_RUNNING) != 0 || ds_db_get_data_from_top(db.hdb(), 0, "/", ret_running) != 0) {
    log_error("get running config error when parse rpc.");
    return -1;
  }
  return 0;
}

int validate_operation(lyxml_elem *operation)
{
  std::string text = lyxml_print_self_contained(operation);
  ly_in *in = nullptr;
  if (ly_in_new_memory(text.c_str(), &in) != LY_SUCCESS) {
    return -1;
  }
  ds_clear_yang_errors();
  lyd_node *tree = nullptr;
  lyd_node *parsed = nullptr;
  LY_ERR result = lyd_parse_op(schema_ctx(), nullptr, in, LYD_XML, LYD_TYPE_RPC_YANG, &tree, &parsed);
  ly_in_free(in, 0);
  lyd_tree_ptr owner(tree);
  lyd_tree_ptr running;
  if (result == LY_SUCCESS && refers_to_config(parsed->schema) && read_running(&running) != 0) {
    result = LY_EOTHER;
  }
  if (result == LY_SUCCESS) {
    result = lyd_validate_op(parsed, running.get(), LYD_TYPE_RPC_YANG, nullptr);
  }
  memset_s(text.data(), text.size(), 0, text.size());
  return result == LY_SUCCESS ? 0 : -1;
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

int datastore_parse_rpc(const char *, lyxml_elem *rpc)
{
  for (lyxml_elem *operation = lyxml_first_child(rpc); operation != nullptr; operation = lyxml_next(operation)) {
    if (validate_operation(operation) != 0) {
      return -1;
    }
  }
  return 0;
}
