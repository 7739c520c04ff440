#include "ymgrd/datastore/ds_announce.h"

#include <algorithm>

#include "ymgrd/core/log.h"
#include "ymgrd/rpc/session.h"

namespace {

constexpr size_t MOST_EDITS = 100; // of one event

typedef std::vector<base_notification_edit_t> edits_t;

// The highest nodes of the list, and of what is below it, that changed themselves. False when they are too many.
bool add_changed(const differ_node_t *node, edits_t *edits)
{
  for (; node != nullptr; node = node->next) {
    if ((node->oper_type & ~DBDIFF_CHAIN) != DBDIFF_NONE) {
      if (edits->size() == MOST_EDITS) {
        return false;
      }
      edits->push_back({node->data_path, node->oper_type});
    }
    // What is below a new node or a removed one came or went with it.
    bool is_whole = (node->oper_type & (DBDIFF_ADD | DBDIFF_REM)) != 0;
    if (!is_whole && !add_changed(node->child, edits)) {
      return false;
    }
  }
  return true;
}

// Too many for one event: the top nodes in which they are; if even these are too many, nothing, which says that
// anything may have changed.
edits_t changed_nodes(const differ_node_t *dtree)
{
  edits_t edits;
  if (add_changed(dtree, &edits)) {
    return edits;
  }
  edits.clear();
  for (const differ_node_t *node = dtree; node != nullptr; node = node->next) {
    if (edits.size() == MOST_EDITS) {
      return {};
    }
    edits.push_back({node->data_path, node->oper_type});
  }
  return edits;
}

base_notification_info_t describe_author(int sid)
{
  const session_t *session = session_find(sid);
  base_notification_info_t info;
  if (session != nullptr) {
    info = session_describe(*session);
  }
  return info;
}

int announce(const base_notification_info_t &info)
{
  if (send_base_notification_event(NCNTF_BASE_CFG_CHANGE, info) != 0) {
    log_error("send base notif event failed(NCNTF_BASE_CFG_CHANGE).");
    return -1;
  }
  return 0;
}

} // namespace

int ds_announce_change(int sid, const differ_node_t *dtree, base_notification_info_t *ret_announced)
{
  base_notification_info_t info = describe_author(sid);
  info.datastore = ENUM_DATASTORE_RUNNING; // of a commit, too
  info.edits = changed_nodes(dtree);
  if (announce(info) != 0) {
    return -1;
  }
  *ret_announced = std::move(info);
  return 0;
}

void ds_announce_undone(base_notification_info_t announced)
{
  std::reverse(announced.edits.begin(), announced.edits.end());
  for (base_notification_edit_t &edit : announced.edits) {
    int end = edit.operation & (DBDIFF_ADD | DBDIFF_REM);
    if (end != 0) {
      edit.operation = end == DBDIFF_ADD ? DBDIFF_REM : DBDIFF_ADD;
    }
  }
  (void)announce(announced); // logged there; there is nobody to tell
}

void ds_announce_startup(int sid)
{
  base_notification_info_t info = describe_author(sid);
  info.datastore = ENUM_DATASTORE_STARTUP;
  (void)announce(info); // logged there; startup is written
}
