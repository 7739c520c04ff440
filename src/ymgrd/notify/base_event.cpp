#include "ymgrd/notify/base_event.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <map>
#include <vector>

#include "ymgrd/core/log.h"
#include "ymgrd/datastore/dbkey.h"
#include "ymgrd/notify/notifier.h"
#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/rpc/rpc_reply_path.h"
#include "ymgrd/schema/schema.h"

namespace {

constexpr const char EVENT_NS[] = "urn:ietf:params:xml:ns:yang:ietf-netconf-notifications";

// Adds elements until one fails; afterwards nothing is added any more.
class event_builder {
public:
  explicit event_builder(const char *name) : event_(lyxml_new_root(name))
  {
    if (event_ != nullptr && lyxml_set_elem_ns(event_.get(), EVENT_NS, nullptr) != 0) {
      event_.reset();
    }
  }

  lyxml_elem *top() const { return event_.get(); }
  // Below the element, which may be what an earlier add() came to. `text` may be null.
  lyxml_elem *add(lyxml_elem *parent, const char *name, const char *text)
  {
    lyxml_elem *elem = event_ == nullptr ? nullptr : lyxml_new_elem(parent, name, text);
    if (elem == nullptr) {
      event_.reset();
    }
    return elem;
  }
  // The element names the paths' modules by these prefixes.
  void declare(const std::map<std::string, std::string> &namespaces)
  {
    if (event_ != nullptr && rpc_declare_prefixes(event_.get(), namespaces) != 0) {
      event_.reset();
    }
  }

private:
  lyxml_ptr event_;
};

void add_session(event_builder *event, lyxml_elem *parent, const base_notification_info_t &info)
{
  event->add(parent, "username", info.username.empty() ? nullptr : info.username.c_str());
  event->add(parent, "session-id", std::to_string(info.session_id).c_str());
  if (!info.ipaddr.empty()) {
    event->add(parent, "source-host", info.ipaddr.c_str());
  }
}

void add_changed_by(event_builder *event, const base_notification_info_t &info)
{
  lyxml_elem *changed_by = event->add(event->top(), "changed-by", nullptr);
  if (info.session_id <= 0) {
    event->add(changed_by, "server", nullptr);
  } else {
    add_session(event, changed_by, info);
  }
}

// --- Changes of configurations.

// An instance-identifier has no way to write a value with both kinds of quotes: the part above such an entry, which may
// be nothing.
std::string without_unnameable_entries(const std::string &data_key)
{
  size_t begin = 0;
  while (begin < data_key.size()) {
    const char *next = datastore_find_next_key_char(data_key.c_str(), data_key.c_str() + begin + 1, '/');
    size_t end = next == nullptr ? data_key.size() : static_cast<size_t>(next - data_key.c_str());
    std::string_view step = std::string_view(data_key).substr(begin, end - begin);
    if (step.find("\\\"") != std::string_view::npos && step.find('\'') != std::string_view::npos) {
      return data_key.substr(0, begin);
    }
    begin = end;
  }
  return data_key;
}

// Values of keys may name identities, by modules that the steps need not name.
void add_namespaces_of_values(std::string_view path, std::map<std::string, std::string> *namespaces)
{
  size_t begin = 0;
  while ((begin = path.find_first_of("'\"", begin)) != std::string_view::npos) {
    size_t end = path.find(path[begin], begin + 1);
    if (end == std::string_view::npos) {
      return;
    }
    std::string_view value = path.substr(begin + 1, end - begin - 1);
    size_t colon = value.find(':');
    std::string module(value.substr(0, colon == std::string_view::npos ? 0 : colon));
    std::string ns = module.empty() ? "" : schema_get_module_ns(module);
    if (!ns.empty()) {
      namespaces->emplace(module, ns);
    }
    begin = end + 1;
  }
}

const char *operation_of(int action)
{
  static constexpr struct {
    int flag;
    const char *name;
  } operations[] = {{DBDIFF_ADD, "create"}, {DBDIFF_REM, "delete"}, {DBDIFF_MOD, "replace"}};
  const auto *found = std::find_if(std::begin(operations), std::end(operations),
                                   [action](const auto &row) { return (action & row.flag) != 0; });
  return found == std::end(operations) ? "merge" : found->name;
}

void add_edit(event_builder *event, const base_notification_edit_t &edit,
              std::map<std::string, std::string> *namespaces)
{
  std::string named = without_unnameable_entries(edit.target);
  qualified_path_t target;
  bool is_known = !named.empty() && rpc_qualify_path(dbkey_to_xpath(named), &target);
  lyxml_elem *elem = event->add(event->top(), "edit", nullptr);
  if (is_known) {
    add_namespaces_of_values(target.text, &target.namespaces);
    namespaces->merge(target.namespaces);
    event->add(elem, "target", target.text.c_str());
  }
  event->add(elem, "operation", named == edit.target ? operation_of(edit.operation) : "merge");
}

void fill_config_change(event_builder *event, const base_notification_info_t &info)
{
  add_changed_by(event, info);
  event->add(event->top(), "datastore", info.datastore == ENUM_DATASTORE_STARTUP ? "startup" : "running");
  std::map<std::string, std::string> namespaces;
  for (const base_notification_edit_t &edit : info.edits) {
    add_edit(event, edit, &namespaces);
  }
  event->declare(namespaces);
}

// --- The others.

void fill_capability_change(event_builder *event, const base_notification_info_t &info)
{
  const struct {
    const char *name;
    const std::vector<std::string> *capabilities;
  } lists[] = {{"added-capability", &info.added_capabilities},
               {"deleted-capability", &info.deleted_capabilities},
               {"modified-capability", &info.modified_capabilities}};
  add_changed_by(event, info);
  for (const auto &list : lists) {
    for (const std::string &capability : *list.capabilities) {
      event->add(event->top(), list.name, capability.c_str());
    }
  }
}

void fill_session_start(event_builder *event, const base_notification_info_t &info)
{
  add_session(event, event->top(), info);
}

void fill_session_end(event_builder *event, const base_notification_info_t &info)
{
  static constexpr const char *reasons[] = {"closed", "killed", "dropped", "timeout", "bad-hello", "other"};
  int reason = std::clamp<int>(info.termination_reason, NC_SESSION_TERM_CLOSED, NC_SESSION_TERM_OTHER);
  add_session(event, event->top(), info);
  if (reason == NC_SESSION_TERM_KILLED && info.killed_by > 0) {
    event->add(event->top(), "killed-by", std::to_string(info.killed_by).c_str());
  }
  event->add(event->top(), "termination-reason", reasons[reason]);
}

const struct {
  notification_kind_t kind;
  const char *name;
  void (*fill)(event_builder *event, const base_notification_info_t &info);
} event_kinds[] = {
    {NCNTF_BASE_CFG_CHANGE, "netconf-config-change", fill_config_change},
    {NCNTF_BASE_CPBLT_CHANGE, "netconf-capability-change", fill_capability_change},
    {NCNTF_BASE_SESSION_START, "netconf-session-start", fill_session_start},
    {NCNTF_BASE_SESSION_END, "netconf-session-end", fill_session_end},
};

} // namespace

int base_event_build(notification_kind_t kind, const base_notification_info_t &info, std::string *ret_content)
{
  const auto *found = std::find_if(std::begin(event_kinds), std::end(event_kinds),
                                   [kind](const auto &row) { return row.kind == kind; });
  if (found == std::end(event_kinds)) {
    log_error("There is no base notification of kind %d.", kind);
    return -1;
  }
  event_builder event(found->name);
  found->fill(&event, info);
  std::string content = event.top() == nullptr ? "" : lyxml_print_mem(event.top());
  if (content.empty()) {
    log_error("Build event <%s> failed.", found->name);
    return -1;
  }
  *ret_content = std::move(content);
  return 0;
}

int base_event_emit(notification_kind_t kind, const base_notification_info_t &info)
{
  if (notification_get_config() == nullptr) {
    return 0; // nobody can have subscribed, and nothing is stored
  }
  std::string content;
  return base_event_build(kind, info, &content) != 0 ? -1 : notifier_emit(time(nullptr), std::move(content));
}
