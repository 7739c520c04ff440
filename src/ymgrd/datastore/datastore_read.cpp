// get-config (RFC 6241, section 7.1).
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/datastore/ds_print.h"
#include "ymgrd/rpc/rpc_reply.h"

namespace {

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

// Text of the kept tree, when that holds the source. False when it does not.
bool print_kept(int source, wiped_string *text)
{
  bool may_hold_source =
      source == ENUM_DATASTORE_CANDIDATE || (source == ENUM_DATASTORE_RUNNING && differ_nodes == nullptr);
  lyd_tree_ptr data;
  if (!may_hold_source || !ds_kept_take(&data)) {
    return false;
  }
  bool printed = ds_print_xml(data.get(), text) == 0;
  ds_kept_store(std::move(data));
  if (!printed) {
    text->clear(); // logged there; the database is read instead
  }
  return printed;
}

int send_source(int sid, const lyxml_elem *rpc, ds_session_db *db, int source)
{
  wiped_string kept;
  c_string_ptr stored;
  std::string_view text;
  if (print_kept(source, &kept)) {
    text = kept;
  } else if (ds_get_xmltext(db->hdb(), 0, "/", &stored) == 0) {
    text = stored == nullptr ? std::string_view() : stored.get();
  } else {
    log_error("Failed to get entire set of data.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_NOT_SUPPORTED, "Failed to get entire set of data.");
  }
  db->end();
  if (ds_get_send_reply(sid, rpc, text) != 0) {
    log_error("Failed to build and send reply to session(%d)", sid);
    return -1;
  }
  return 0;
}

} // namespace

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
  if (lyxml_find_child(operation, "filter") != nullptr) {
    log_error("unexpected filter type.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_NOT_SUPPORTED, "unexpected filter type.");
  }
  if (source == ENUM_DATASTORE_CANDIDATE && differ_nodes == nullptr) {
    source = ENUM_DATASTORE_RUNNING;
  }
  ds_session_db db;
  if (db.open(source) != 0 || ds_lock_all_data(db.hdb(), DB_LOCK_READ, db.locks()) != 0) {
    log_error("Failed to lock for get-config operation.");
    return ds_refuse(sid, rpc, REPLY_ERR_OP_FAILED, "Failed to lock for get-config operation.");
  }
  return send_source(sid, rpc, &db, source);
}
