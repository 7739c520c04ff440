// NETCONF error records (RFC 6241, appendix A): made by kind from a fixed table, chained, turned into <rpc-error>.
#pragma once

#include <memory>
#include <string>

enum {
  REPLY_ERR_NULL = 0,
  REPLY_ERR_IN_USE = 1,
  REPLY_ERR_INVALID_VALUE = 2,
  REPLY_ERR_TOO_BIG = 3,
  REPLY_ERR_MISSING_ATTR = 4,
  REPLY_ERR_BAD_ATTR = 5,
  REPLY_ERR_UNKNOWN_ATTR = 6,
  REPLY_ERR_MISSING_ELEM = 7,
  REPLY_ERR_BAD_ELEM = 8,
  REPLY_ERR_UNKNOWN_ELEM = 9,
  REPLY_ERR_UNKNOWN_NS = 10,
  REPLY_ERR_ACCESS_DENIED = 11,
  REPLY_ERR_LOCK_DENIED = 12,
  REPLY_ERR_RES_DENIED = 13,
  REPLY_ERR_ROLLBACK_FAILED = 14,
  REPLY_ERR_DATA_EXISTS = 15,
  REPLY_ERR_DATA_MISSING = 16,
  REPLY_ERR_OP_NOT_SUPPORTED = 17,
  REPLY_ERR_OP_FAILED = 18,
  REPLY_ERR_MALFORMED_MSG = 19,
};

enum {
  REPLY_ERR_FIELD_TYPE = 0,
  REPLY_ERR_FIELD_TAG = 1,
  REPLY_ERR_FIELD_SEVERITY = 2,
  REPLY_ERR_FIELD_APPTAG = 3,
  REPLY_ERR_FIELD_PATH = 4,
  REPLY_ERR_FIELD_MSG = 5,
  REPLY_ERR_FIELD_INFO = 6,
  REPLY_ERR_FIELD_COUNT = 7,
};

// Each string may be null: the element is then left out of the reply.
typedef struct _reply_error {
  struct _reply_error *next;
  char *type;
  char *tag;
  char *severity;
  char *app_tag;
  char *path;
  char *message;
  char *info;
} reply_error_t;

// A record filled from the table's first row of `err_type`; empty when the table has none; null when memory is short.
reply_error_t *rpc_create_error(int err_type);
// A new record in front of the chain `error` (may be null); the new head, which owns the chain. On failure the old
// head.
reply_error_t *rpc_append_error(reply_error_t *error, int err_type);
// Replaces one field by a copy of `value`. 0 or -1.
int rpc_set_error_field(reply_error_t *error, int field, const char *value);
void rpc_free_error(reply_error_t *error); // the whole chain; null is fine

struct reply_error_delete_t {
  void operator()(reply_error_t *error) const { rpc_free_error(error); }
};
using reply_error_ptr = std::unique_ptr<reply_error_t, reply_error_delete_t>;

// A record of that kind with its message replaced.
reply_error_ptr rpc_make_error(int err_type, const std::string &message);
