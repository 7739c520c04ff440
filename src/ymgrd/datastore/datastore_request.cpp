// Reading the parameters of the datastore operations from their <rpc>.
#include <array>
#include <charconv>
#include <memory>

#include "ymgrd/core/keepalive.h"
#include "ymgrd/core/log.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/rpc/rpc_reply.h"

const char *const error_option[] = {"rpc", "edit-config", "error-option", nullptr};
const char *const error_option_copy[] = {"rpc", "copy-config", "error-option", nullptr};

namespace {

const char *const default_operation[] = {"rpc", "edit-config", "default-operation", nullptr};
const char *const test_option[] = {"rpc", "edit-config", "test-option", nullptr};

// Bytes of request text that are parsed within one unit of the watchdog's patience.
constexpr size_t BYTES_PER_KEEPALIVE_UNIT = 660000;
constexpr int WARN_SECONDS_PER_UNIT = 30;
constexpr int KILL_SECONDS_PER_UNIT = 60;

struct datastore_name_t {
  std::string_view name;
  ENUM_DATASTORE datastore;
};

const datastore_name_t datastore_names[] = {
    {"candidate", ENUM_DATASTORE_CANDIDATE}, {"running", ENUM_DATASTORE_RUNNING},
    {"startup", ENUM_DATASTORE_STARTUP},     {"url", ENUM_DATASTORE_URL},
    {"config", ENUM_DATASTORE_CONFIG},
};

template <class T>
struct named_value_t {
  std::string_view text;
  T value;
};

const named_value_t<int> error_options[] = {
    {"stop-on-error", ERROR_OPTION_STOP},
    {"continue-on-error", ERROR_OPTION_CONTINUE},
    {"rollback-on-error", ERROR_OPTION_ROLLBACK},
};

const named_value_t<NC_EDIT_OP_TYPE> default_operations[] = {
    {"merge", NC_EDIT_OP_MERGE},
    {"replace", NC_EDIT_OP_REPLACE},
    {"none", NC_EDIT_OP_NONE},
};

const named_value_t<NC_TEST_OPTION> test_options[] = {
    {"test-then-set", NC_TEST_THEN_SET},
    {"set", NC_SET},
    {"test-only", NC_TEST_ONLY},
};

std::string trimmed_text(const lyxml_elem *elem)
{
  constexpr const char *blanks = " \t\r\n";
  std::string text = lyxml_text(elem);
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string text_of(lyxml_elem *rpc, const char *const *path)
{
  const lyxml_elem *elem = lyxml_rpc_get_elem(rpc, path);
  return elem == nullptr ? std::string() : trimmed_text(elem);
}

template <class T, size_t N>
T value_of(const named_value_t<T> (&rows)[N], std::string_view text, T unknown)
{
  for (const auto &row : rows) {
    if (text == row.text) {
      return row.value;
    }
  }
  return unknown;
}

// Takes the datastore of a <source> or <target> element into `*datastore`. 0, or -1 when there was one before or it is
// none.
int take_datastore(const lyxml_elem *param, int *datastore, bool *seen)
{
  if (*seen) {
    return -1;
  }
  *seen = true;
  int named = nc_rpc_get_ds(lyxml_first_child(param), lyxml_name(param).data());
  if (named == ENUM_DATASTORE_ERROR) {
    return -1;
  }
  *datastore = named;
  return 0;
}

} // namespace

ENUM_DATASTORE nc_rpc_get_ds(const lyxml_elem *node, const char *ds_type)
{
  if (node == nullptr || lyxml_name(node).empty()) {
    log_debug("<%s> names no datastore.", ds_type);
    return ENUM_DATASTORE_ERROR;
  }
  if (lyxml_next(node) != nullptr) {
    log_debug("<%s> names more than one datastore.", ds_type);
    return ENUM_DATASTORE_ERROR;
  }
  for (const datastore_name_t &row : datastore_names) {
    if (lyxml_name(node) == row.name) {
      return row.datastore;
    }
  }
  return ENUM_DATASTORE_ERROR;
}

int ds_get_src_and_dst(const lyxml_elem *node, int *src, int *target)
{
  bool have_source = false;
  bool have_target = false;
  for (const lyxml_elem *param = lyxml_first_child(node); param != nullptr; param = lyxml_next(param)) {
    if (lyxml_name(param).empty()) {
      return -1;
    }
    if (src != nullptr && lyxml_name(param) == "source" && take_datastore(param, src, &have_source) != 0) {
      return -1;
    }
    if (target != nullptr && lyxml_name(param) == "target" && take_datastore(param, target, &have_target) != 0) {
      return -1;
    }
  }
  return 0;
}

int datastore_get_erropt(lyxml_elem *rpc, const char *const *tree)
{
  std::string text = text_of(rpc, tree);
  if (text.empty()) {
    log_debug("use default error option");
    return ERROR_OPTION_ROLLBACK;
  }
  int option = value_of(error_options, text, -1);
  if (option == -1) {
    log_error("error option %.512s not support, use default error option", text.c_str());
  }
  return option;
}

NC_EDIT_OP_TYPE datastore_get_default_operation(lyxml_elem *rpc)
{
  std::string text = text_of(rpc, default_operation);
  NC_EDIT_OP_TYPE operation = text.empty() ? NC_EDIT_OP_MERGE : value_of(default_operations, text, NC_EDIT_OP_ERROR);
  if (operation == NC_EDIT_OP_ERROR) {
    log_error("default operation %.512s not support", text.c_str());
  }
  return operation;
}

NC_TEST_OPTION datastore_get_test_option(lyxml_elem *rpc)
{
  std::string text = text_of(rpc, test_option);
  NC_TEST_OPTION option = text.empty() ? NC_TEST_THEN_SET : value_of(test_options, text, NC_TEST_OPTION_ERROR);
  if (option == NC_TEST_OPTION_ERROR) {
    log_error("test option %.512s not support", text.c_str());
  }
  return option;
}

ds_long_parse::ds_long_parse(size_t request_bytes)
{
  int units = static_cast<int>(request_bytes / BYTES_PER_KEEPALIVE_UNIT) + 1;
  ymgrd_send_keepalive_msg(WARN_SECONDS_PER_UNIT * units, KILL_SECONDS_PER_UNIT * units);
}

ds_long_parse::~ds_long_parse()
{
  ymgrd_send_keepalive_msg(0, 0);
}

int ds_fail(reply_error_ptr *ret_error, int kind, const std::string &message)
{
  if (ret_error != nullptr) {
    *ret_error = rpc_make_error(kind, message);
  }
  return -1;
}

int ds_refuse(int sid, const lyxml_elem *rpc, int kind, const std::string &message)
{
  return rpc_answer_error(sid, rpc, rpc_make_error(kind, message));
}
