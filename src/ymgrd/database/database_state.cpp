// The persisted transaction state of each datastore, from which a restarted daemon learns what was cut off.
#include <cstring>

#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/database/database_internal.h"

namespace {

constexpr const char INFO_KEY[] = "ymgrd-info";
constexpr const char STATE_FIELD[] = "transact-state";
constexpr int NO_DATABASE = -1;

int master_of(int target)
{
  switch (target) {
  case ENUM_DATASTORE_RUNNING:
    return REDIS_RUNNING_DB_MASTER;
  case ENUM_DATASTORE_STARTUP:
    return REDIS_STARTUP_DB_MASTER;
  case ENUM_DATASTORE_CANDIDATE:
    return REDIS_CANDIDATE_DB_MASTER;
  case ENUM_DATASTORE_STATUS:
    return REDIS_STATUS_DB_MASTER;
  default:
    return NO_DATABASE;
  }
}

} // namespace

int database_set_transaction_state(int target, transact_state_e state)
{
  int rdb = master_of(target);
  if (rdb == NO_DATABASE) {
    log_warn("Datastore %d can not be accessed.", target);
    return -1;
  }
  db_connection connection = db_connect(rdb);
  if (!connection) {
    log_error("Redis connect error");
    return -1;
  }
  int32_t number = state;
  std::string_view value(reinterpret_cast<const char *>(&number), sizeof(number)); // in native byte order
  if (redis_hash_set_bin_safe(connection.get(), INFO_KEY, STATE_FIELD, value) != 0) {
    log_error("Update datbase(%d) broker state(%d) failed.", target, state);
    return -1;
  }
  return 0;
}

transact_state_e database_get_transaction_state(int target)
{
  int rdb = master_of(target);
  if (rdb == NO_DATABASE) {
    log_error("Database %d can not be accessed.", target);
    return E_TRANS_INVALID;
  }
  db_connection connection = db_connect(rdb);
  if (!connection) {
    log_error("Redis connect error");
    return E_TRANS_INVALID;
  }
  redis_reply_ptr reply = redis_hash_get_bin_safe(connection.get(), INFO_KEY, STATE_FIELD);
  int32_t number = 0;
  if (reply == nullptr || reply->type != REDIS_REPLY_STRING || reply->len != sizeof(number)) {
    log_warn("Datbase(%d) has no transaction state flag.", target);
    return E_TRANS_INVALID;
  }
  memcpy(&number, reply->str, sizeof(number));
  bool is_state = number >= E_TRANS_INVALID && number <= E_TRANS_COMMIT_END;
  return is_state ? static_cast<transact_state_e>(number) : E_TRANS_INVALID;
}
