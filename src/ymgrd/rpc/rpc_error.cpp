#include "ymgrd/rpc/rpc_error.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "ymgrd/core/log.h"

namespace {

typedef struct _error_info {
  int err_type;
  const char *type;
  const char *tag;
  const char *severity;
  const char *msg;
  const char *path;
} error_info_t;

// Agents know these rows by heart, oddities included: the second row of kind 15 is never reached.
const error_info_t g_tbl_err_info[] = {
    {REPLY_ERR_IN_USE, "application", "in-use", "error", "The request requires a resource that is already in use.", ""},
    {REPLY_ERR_INVALID_VALUE, "application", "invalid-value", "error",
     "The request specifies an unacceptable value for one or more parameters.", ""},
    {REPLY_ERR_TOO_BIG, "application", "too-big", "error",
     "The request or response is too large for the implementation to handle.", ""},
    {REPLY_ERR_MISSING_ATTR, "application", "missing-attribute", "error", "An expected attribute is missing.", ""},
    {REPLY_ERR_BAD_ATTR, "application", "bad-attribute", "error", "An attribute value is not correct.", ""},
    {REPLY_ERR_UNKNOWN_ATTR, "application", "unknown-attribute", "error", "An unexpected attribute is present.", ""},
    {REPLY_ERR_MISSING_ELEM, "application", "missing-element", "error", "An expected element is missing.", ""},
    {REPLY_ERR_BAD_ELEM, "application", "bad-element", "error", "An element value is not correct.", ""},
    {REPLY_ERR_UNKNOWN_ELEM, "application", "unknown-element", "error", "An unexpected element is present.", ""},
    {REPLY_ERR_UNKNOWN_NS, "application", "unknown-namespace", "error", "An unexpected namespace is present.", ""},
    {REPLY_ERR_ACCESS_DENIED, "application", "access-denied", "error",
     "Access to the requested protocol operation or data model is denied because the authorization failed.", ""},
    {REPLY_ERR_ROLLBACK_FAILED, "application", "rollback-failed", "error",
     "Request to roll back some configuration change was not completed for some reason.", ""},
    {REPLY_ERR_DATA_EXISTS, "application", "data-exists", "error",
     "Request could not be completed because the relevant data model content already exists.", ""},
    {REPLY_ERR_DATA_MISSING, "application", "data-missing", "error",
     "Request could not be completed because the relevant data model content does not exist.", ""},
    {REPLY_ERR_OP_NOT_SUPPORTED, "application", "operation-not-supported", "error",
     "Request could not be completed because the requested operation is not supported by this implementation.", ""},
    {REPLY_ERR_DATA_EXISTS, "application", "data-exists", "error",
     "Request could not be completed because the requested operation is not supported by this implementation.", ""},
    {REPLY_ERR_LOCK_DENIED, "protocol", "lock-denied", "error",
     "Access to the requested lock is denied because the lock is currently held by another entity.", ""},
    {REPLY_ERR_RES_DENIED, "protocol", "resource-denied", "error",
     "Request could not be completed because of insufficient resources.", ""},
    {REPLY_ERR_OP_FAILED, "application", "operation-failed", "error", "Some unspecified error occurred.", ""},
    {REPLY_ERR_MALFORMED_MSG, "rpc", "malformed-message", "error",
     "A message could not be handled because it failed to be parsed correctly.", ""},
};

// By field number.
char *reply_error_t::*const error_fields[] = {
    &reply_error_t::type, &reply_error_t::tag,     &reply_error_t::severity, &reply_error_t::app_tag,
    &reply_error_t::path, &reply_error_t::message, &reply_error_t::info,
};
static_assert(std::size(error_fields) == REPLY_ERR_FIELD_COUNT);

// 0, or -1 with the cause logged.
int fill_from_table(reply_error_t *error, const error_info_t &row)
{
  const struct {
    int field;
    const char *value;
  } values[] = {
      {REPLY_ERR_FIELD_TYPE, row.type}, {REPLY_ERR_FIELD_TAG, row.tag},   {REPLY_ERR_FIELD_SEVERITY, row.severity},
      {REPLY_ERR_FIELD_MSG, row.msg},   {REPLY_ERR_FIELD_PATH, row.path},
  };
  for (const auto &entry : values) {
    if (rpc_set_error_field(error, entry.field, entry.value) != 0) {
      return -1;
    }
  }
  return 0;
}

} // namespace

reply_error_t *rpc_create_error(int err_type)
{
  reply_error_ptr error(static_cast<reply_error_t *>(std::calloc(1, sizeof(reply_error_t))));
  if (error == nullptr) {
    log_error("Allocate memory for reply error failed(%s).", std::strerror(errno));
    return nullptr;
  }
  const auto *row = std::find_if(std::begin(g_tbl_err_info), std::end(g_tbl_err_info),
                                 [err_type](const error_info_t &candidate) { return candidate.err_type == err_type; });
  if (row != std::end(g_tbl_err_info) && fill_from_table(error.get(), *row) != 0) {
    return nullptr;
  }
  return error.release(); // the caller's
}

reply_error_t *rpc_append_error(reply_error_t *error, int err_type)
{
  reply_error_t *head = rpc_create_error(err_type);
  if (head == nullptr) {
    return error;
  }
  head->next = error;
  return head;
}

int rpc_set_error_field(reply_error_t *error, int field, const char *value)
{
  if (error == nullptr) {
    log_error("Error input parameter(error=null).");
    return -1;
  }
  if (value == nullptr) {
    log_error("Error input parameter(value=null).");
    return -1;
  }
  if (field < 0 || field >= REPLY_ERR_FIELD_COUNT) {
    log_error("Unknown error field(%d).", field);
    return -1;
  }
  char *copy = strdup(value); // before the old text goes: `value` may be that text
  if (copy == nullptr) {
    log_error("Allocate memory for reply error failed(%s).", std::strerror(errno));
    return -1;
  }
  std::free(error->*error_fields[field]);
  error->*error_fields[field] = copy;
  return 0;
}

void rpc_free_error(reply_error_t *error)
{
  while (error != nullptr) {
    reply_error_t *next = error->next;
    for (char *reply_error_t::*field : error_fields) {
      std::free(error->*field);
      error->*field = nullptr;
    }
    std::free(error);
    error = next;
  }
}

reply_error_ptr rpc_make_error(int err_type, const std::string &message)
{
  reply_error_ptr error(rpc_create_error(err_type));
  if (error != nullptr) {
    (void)rpc_set_error_field(error.get(), REPLY_ERR_FIELD_MSG, message.c_str()); // on failure the table's text stays
  }
  return error;
}
