#include "ymgrd/datastore/ds_error.h"

#include <string_view>

#include <libyang/libyang.h>

#include "ymgrd/schema/schema.h"

namespace {

// The cause: libyang keeps every message of a call, warnings included, oldest first.
const ly_err_item *first_error()
{
  const ly_ctx *ctx = schema_ctx();
  if (ctx == nullptr) {
    return nullptr;
  }
  for (const ly_err_item *item = ly_err_first(ctx); item != nullptr; item = item->next) {
    if (item->level == LY_LLERR) {
      return item;
    }
  }
  return nullptr;
}

// libyang decorates: Data location "PATH", line number 1. What stands between the outer double quotes is the path.
std::string_view bare_path(std::string_view location)
{
  size_t first = location.find('"');
  size_t last = location.rfind('"');
  if (first == std::string_view::npos || last <= first) {
    return {};
  }
  return location.substr(first + 1, last - first - 1);
}

struct app_tag_kind_t {
  std::string_view app_tag;
  int kind;
};

// RFC 7950, section 15: the tags that go with the app-tags of violated constraints.
const app_tag_kind_t app_tag_kinds[] = {
    {"instance-required", REPLY_ERR_DATA_MISSING}, {"missing-choice", REPLY_ERR_DATA_MISSING},
    {"data-not-unique", REPLY_ERR_OP_FAILED},      {"too-many-elements", REPLY_ERR_OP_FAILED},
    {"too-few-elements", REPLY_ERR_OP_FAILED},
};

struct message_kind_t {
  std::string_view part;
  int kind;
};

// libyang tells these apart by their text alone. The first that occurs in the message decides.
const message_kind_t message_kinds[] = {
    {"o module with namespace", REPLY_ERR_UNKNOWN_NS},
    {"No (implemented) module with namespace", REPLY_ERR_UNKNOWN_NS},
    {"not found as a child", REPLY_ERR_UNKNOWN_ELEM},
    {"not found in the", REPLY_ERR_UNKNOWN_ELEM},
    {"List instance is missing its key", REPLY_ERR_MISSING_ELEM},
    {"Annotation definition for attribute", REPLY_ERR_UNKNOWN_ATTR},
    {"YANG module with namespace", REPLY_ERR_UNKNOWN_ATTR},
    {"Missing mandatory prefix for XML metadata", REPLY_ERR_UNKNOWN_ATTR},
    {"metadata", REPLY_ERR_BAD_ATTR},
    {"Mandatory node", REPLY_ERR_DATA_MISSING},
    {"Mandatory choice", REPLY_ERR_DATA_MISSING},
    {"When condition", REPLY_ERR_UNKNOWN_ELEM},
    {"Data for both cases", REPLY_ERR_BAD_ELEM},
    {"state data node", REPLY_ERR_UNKNOWN_ELEM},
    {"data state node", REPLY_ERR_UNKNOWN_ELEM},
};

} // namespace

void ds_clear_yang_errors()
{
  if (schema_ctx() != nullptr) {
    ly_err_clean(schema_ctx(), nullptr);
  }
}

void ds_add_path_and_msg(reply_error_t *error)
{
  const ly_err_item *item = first_error();
  if (error == nullptr || item == nullptr) {
    return;
  }
  if (item->msg != nullptr) {
    rpc_set_error_field(error, REPLY_ERR_FIELD_MSG, item->msg);
  }
  if (item->apptag != nullptr) {
    rpc_set_error_field(error, REPLY_ERR_FIELD_APPTAG, item->apptag);
  }
  std::string path(bare_path(item->path == nullptr ? "" : item->path));
  if (!path.empty()) {
    rpc_set_error_field(error, REPLY_ERR_FIELD_PATH, path.c_str());
  }
}

int ds_error_kind(int data_kind, int other_kind)
{
  const ly_err_item *item = first_error();
  if (item == nullptr) {
    return other_kind;
  }
  std::string_view app_tag = item->apptag == nullptr ? "" : item->apptag;
  for (const app_tag_kind_t &row : app_tag_kinds) {
    if (app_tag == row.app_tag) {
      return row.kind;
    }
  }
  std::string_view message = item->msg == nullptr ? "" : item->msg;
  for (const message_kind_t &row : message_kinds) {
    if (message.find(row.part) != std::string_view::npos) {
      return row.kind;
    }
  }
  return item->vecode == LYVE_DATA ? data_kind : other_kind;
}
