#include <charconv>
#include <cinttypes>
#include <cstring>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_reply.h"
#include "ctl/ctl_table.h"

namespace {

constexpr char STATUS[] = "<get><filter type=\"subtree\">"
                          "<daemon xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\"/></filter></get>";

using row_list = std::vector<std::vector<std::string>>;

bool is_named(const lyd_node *node, const char *name)
{
  return node->schema != nullptr && strcmp(node->schema->name, name) == 0;
}

const lyd_node *child(const lyd_node *parent, const char *name)
{
  const lyd_node *node = parent == nullptr ? nullptr : lyd_child(parent);
  while (node != nullptr && !is_named(node, name)) {
    node = node->next;
  }
  return node;
}

std::string value(const lyd_node *parent, const char *name)
{
  const lyd_node *node = child(parent, name);
  return node == nullptr ? "" : lyd_get_value(node);
}

// "3 days 02:11:09"
std::string duration(const std::string &seconds)
{
  uint64_t count = 0; // stays so when there is no number
  (void)std::from_chars(seconds.data(), seconds.data() + seconds.size(), count);
  const uint64_t days = count / 86400;
  char text[64];
  (void)snprintf(text, sizeof(text), "%02" PRIu64 ":%02" PRIu64 ":%02" PRIu64, count / 3600 % 24, count / 60 % 60,
                 count % 60);
  return (days == 0 ? "" : std::to_string(days) + (days == 1 ? " day " : " days ")) + text;
}

std::string user_of_session(const lyd_node *daemon, const std::string &id)
{
  for (const lyd_node *node = lyd_child(daemon); node != nullptr; node = node->next) {
    if (is_named(node, "session") && value(node, "id") == id) {
      return value(node, "username");
    }
  }
  return "";
}

std::string lock_text(const lyd_node *daemon, const lyd_node *datastore)
{
  const std::string holder = value(datastore, "lock-holder");
  if (holder.empty()) {
    return "";
  }
  const std::string user = user_of_session(daemon, holder);
  return "session " + holder + (user.empty() ? "" : " (" + user + ")") + " since " + value(datastore, "locked-since");
}

std::string datastore_state(const lyd_node *datastore)
{
  const std::string changed = value(datastore, "last-change");
  const std::string state = value(datastore, "pending-changes") == "true" ? "holds uncommitted changes" : "";
  return changed.empty() ? state : "changed " + changed;
}

row_list datastore_rows(const lyd_node *daemon)
{
  row_list rows;
  for (const lyd_node *node = lyd_child(daemon); node != nullptr; node = node->next) {
    if (is_named(node, "datastore")) {
      rows.push_back({value(node, "name"), value(node, "entries"), lock_text(daemon, node), datastore_state(node)});
    }
  }
  return rows;
}

std::string plugin_error(const lyd_node *plugin)
{
  const lyd_node *error = child(plugin, "last-error");
  return error == nullptr ? "" : value(plugin, "last-error-time") + " " + ctl_value_text(error);
}

row_list plugin_rows(const lyd_node *daemon)
{
  row_list rows;
  for (const lyd_node *node = lyd_child(daemon); node != nullptr; node = node->next) {
    if (is_named(node, "plugin")) {
      rows.push_back({value(node, "name"), value(node, "kind"), value(node, "status"), value(node, "process-id"),
                      value(node, "changes-offered"), value(node, "changes-refused"), plugin_error(node)});
    }
  }
  return rows;
}

size_t count_of(const lyd_node *daemon, const char *name)
{
  size_t count = 0;
  for (const lyd_node *node = lyd_child(daemon); node != nullptr; node = node->next) {
    count += is_named(node, name) ? 1 : 0;
  }
  return count;
}

std::string head_text(const lyd_node *daemon)
{
  std::string text = "ymgrd " + value(daemon, "version") + ", process " + value(daemon, "process-id") + ", up " +
                     duration(value(daemon, "uptime")) + " since " + value(daemon, "started") + "\n";
  const std::string profile = value(daemon, "profile");
  text += profile.empty() ? "" : "profile " + profile + "\n";
  const std::string limit = value(daemon, "session-limit");
  text += std::to_string(count_of(daemon, "session")) + (limit.empty() ? "" : " of " + limit) + " sessions\n";
  const std::string events = value(child(daemon, "event-log"), "stored-events");
  text += events.empty() ? "" : events + " stored events\n";
  return text;
}

// Whatever is counted, without the details.
std::string counters_text(const lyd_node *daemon)
{
  std::string text;
  const lyd_node *counters = child(daemon, "counters");
  for (const lyd_node *node = counters == nullptr ? nullptr : lyd_child(counters); node != nullptr; node = node->next) {
    if (node->schema != nullptr && node->schema->nodetype == LYS_LEAF) {
      text += std::string("  ") + node->schema->name + " " + lyd_get_value(node) + "\n";
    }
  }
  return text.empty() ? "" : "\nsince the start\n" + text;
}

int print_summary(const ctl_output_t &output, const lyd_node *daemon)
{
  int result = ctl_write(output, head_text(daemon) + "\n");
  result = result != CTL_OK
               ? result
               : ctl_print_table(output, {"DATASTORE", "ENTRIES", "LOCKED BY", "STATE"}, datastore_rows(daemon));
  const row_list plugins = plugin_rows(daemon);
  if (result == CTL_OK && !plugins.empty()) {
    result = ctl_write(output, "\n");
    result = result != CTL_OK
                 ? result
                 : ctl_print_table(output, {"PLUGIN", "KIND", "STATUS", "PROCESS", "OFFERED", "REFUSED", "LAST ERROR"},
                                   plugins);
  }
  return result == CTL_OK ? ctl_write(output, counters_text(daemon)) : result;
}

int run_status(ctl_device &device)
{
  std::string reply;
  ctl_tree_ptr tree;
  int result = device.rpc(STATUS, &reply);
  result = result == CTL_OK ? ctl_reply_data(device, reply, &tree) : result;
  if (result != CTL_OK) {
    return result;
  }
  if (device.output().format != ctl_format::tree) {
    return ctl_print(device.output(), tree.get());
  }
  return tree == nullptr ? ctl_fail(device.output(), CTL_INPUT, "the daemon tells nothing about itself")
                         : print_summary(device.output(), tree.get());
}

} // namespace

ctl_action ctl_define_status(CLI::App *)
{
  return run_status;
}
