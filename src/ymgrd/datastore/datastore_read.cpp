// get-config (RFC 6241, section 7.1), and what get shares with it.
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_filter_plan.h"
#include "ymgrd/datastore/ds_read.h"
#include "ymgrd/datastore/ds_restore.h"
#include "ymgrd/rpc/rpc_reply.h"

namespace {

int lock_path(ds_session_db *db, const char *path)
{
  int lock_id = database_lock(db->hdb(), DB_LOCK_READ, path);
  if (lock_id <= 0) {
    log_error("Failed to get top datapath(%.512s)", path);
    return -1;
  }
  db->locks()->push_back({db->hdb(), lock_id});
  return 0;
}

int refuse_config_read(int sid, const lyxml_elem *rpc, int kind, const char *message)
{
  log_error("%s", message);
  return ds_refuse(sid, rpc, kind, message);
}

int read_source(int sid, const lyxml_elem *rpc, int source, const nc_filter_t *filter)
{
  ds_session_db db;
  if (ds_glock_transact_start(source, filter, &db) != 0) {
    return refuse_config_read(sid, rpc, REPLY_ERR_OP_FAILED, "Failed to lock for get-config operation.");
  }
  wiped_string text;
  if (ds_get_query_result(db.hdb(), source, filter, &text) != 0) {
    return refuse_config_read(sid, rpc, REPLY_ERR_OP_NOT_SUPPORTED, "Failed to get entire set of data.");
  }
  if (text.empty()) {
    log_debug("Empty data in database(%d).", ds_to_db(source));
  }
  db.end();
  if (ds_get_send_reply(sid, rpc, text) != 0) {
    log_error("Failed to build and send reply to session(%d)", sid);
    return -1;
  }
  return 0;
}

} // namespace

int ds_take_filter(int sid, const lyxml_elem *rpc, const char *oper, std::unique_ptr<nc_filter_t> *ret_filter)
{
  std::unique_ptr<nc_filter_t> filter;
  if (ds_get_ncfilter(lyxml_first_child(rpc), &filter) != 0) {
    std::string message = std::string("Failed to get filter from ") + oper + " operation.";
    return refuse_config_read(sid, rpc, REPLY_ERR_OP_FAILED, message.c_str());
  }
  int result = DS_FILTER_OK;
  if (filter != nullptr) {
    result = filter->type == NC_FILTER_SUBTREE ? ds_filter_spec(filter.get()) : DS_FILTER_UNKNOWN_NODES;
  }
  if (result == DS_FILTER_UNKNOWN_NODES) {
    return refuse_config_read(sid, rpc, REPLY_ERR_OP_NOT_SUPPORTED, "unexpected filter type.");
  }
  if (result != DS_FILTER_OK) {
    return refuse_config_read(sid, rpc, REPLY_ERR_OP_FAILED, "Failed to do filter to be special.");
  }
  *ret_filter = std::move(filter);
  return 0;
}

int ds_glock_transact_start(int ds, const nc_filter_t *filter, ds_session_db *ret_db)
{
  if (ds_to_db(ds) == 0) {
    log_error("glock transact start ds %d is error.", ds);
    return -1;
  }
  if (ret_db->open(ds) != 0) {
    log_error("Failed to open db(id = %d)", ds_to_db(ds));
    return -1;
  }
  if (filter == nullptr) {
    return ds_lock_all_data(ret_db->hdb(), DB_LOCK_READ, ret_db->locks());
  }
  for (const std::string &path : ds_filter_top_paths(*filter)) {
    if (lock_path(ret_db, path.c_str()) != 0) {
      ret_db->end();
      return -1;
    }
  }
  return 0;
}

int ds_get_query_result(int hdb, int ds, const nc_filter_t *filter, wiped_string *ret_text)
{
  encrypt_use all_values; // that are compared with the filter's
  ds_source source(hdb, ds, DB_SECRETS_SEALED);
  if (filter == nullptr) {
    return source.read_text({}, ret_text);
  }
  if (ds_filter_read(source, *filter, ret_text) != 0) {
    return -1;
  }
  if (ret_text->empty()) {
    log_debug("Filter get no data.");
  }
  return 0;
}

int ds_get_send_reply(int sid, const lyxml_elem *rpc, std::string_view text)
{
  lyxml_ptr reply = rpc_build_reply(rpc);
  if (reply == nullptr) {
    log_error("Failed to build rpc reply.");
    return -1;
  }
  if (lyxml_new_elem(reply.get(), "data", nullptr) == nullptr) {
    log_error("Failed to new xmlNode when build rpc-reply.");
    return -1;
  }
  return rpc_send_data_reply(sid, reply.get(), text);
}

int ds_get_config(int sid, const char *, lyxml_elem *rpc)
{
  const lyxml_elem *operation = lyxml_first_child(rpc);
  int source = ENUM_DATASTORE_ERROR;
  if (ds_get_src_and_dst(operation, &source, nullptr) != 0 || source == ENUM_DATASTORE_ERROR) {
    log_error("get source ds failed.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_FAILED, "get source ds failed.");
  }
  if (source == ENUM_DATASTORE_CONFIG || source == ENUM_DATASTORE_URL) {
    log_error("get-config get source failed.");
    return ds_refuse(sid, rpc, REPLY_ERR_INVALID_VALUE, "invalid source or target.");
  }
  ds_end_smooth_start();
  std::unique_ptr<nc_filter_t> filter;
  if (ds_take_filter(sid, rpc, "get-config", &filter) != 0) {
    return -1;
  }
  if (source == ENUM_DATASTORE_CANDIDATE && differ_nodes == nullptr) {
    source = ENUM_DATASTORE_RUNNING;
  }
  if (filter != nullptr && nc_filter_is_empty(*filter)) {
    log_debug("Empty filter to get-config data in database(%d).", ds_to_db(source));
    return ds_get_send_reply(sid, rpc, {});
  }
  return read_source(sid, rpc, source, filter.get());
}
