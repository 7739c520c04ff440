#include <charconv>
#include <cinttypes>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_operations.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_reply.h"
#include "ctl/ctl_table.h"

namespace {

using row_list = std::vector<std::vector<std::string>>;

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
    if (ctl_is_named(node, "session") && ctl_child_value(node, "id") == id) {
      return ctl_child_value(node, "username");
    }
  }
  return "";
}

std::string lock_text(const lyd_node *daemon, const lyd_node *datastore)
{
  const std::string holder = ctl_child_value(datastore, "lock-holder");
  if (holder.empty()) {
    return "";
  }
  const std::string user = user_of_session(daemon, holder);
  return "session " + holder + (user.empty() ? "" : " (" + user + ")") + " since " +
         ctl_child_value(datastore, "locked-since");
}

std::string datastore_state(const lyd_node *datastore)
{
  const std::string changed = ctl_child_value(datastore, "last-change");
  const std::string state = ctl_child_value(datastore, "pending-changes") == "true" ? "holds uncommitted changes" : "";
  return changed.empty() ? state : "changed " + changed;
}

row_list datastore_rows(const lyd_node *daemon)
{
  row_list rows;
  for (const lyd_node *node = lyd_child(daemon); node != nullptr; node = node->next) {
    if (ctl_is_named(node, "datastore")) {
      rows.push_back({ctl_child_value(node, "name"), ctl_child_value(node, "entries"), lock_text(daemon, node),
                      datastore_state(node)});
    }
  }
  return rows;
}

std::string plugin_error(const lyd_node *plugin)
{
  const lyd_node *error = ctl_child(plugin, "last-error");
  return error == nullptr ? "" : ctl_child_value(plugin, "last-error-time") + " " + ctl_value_text(error);
}

row_list plugin_rows(const lyd_node *daemon)
{
  row_list rows;
  for (const lyd_node *node = lyd_child(daemon); node != nullptr; node = node->next) {
    if (ctl_is_named(node, "plugin")) {
      rows.push_back({ctl_child_value(node, "name"), ctl_child_value(node, "kind"), ctl_child_value(node, "status"),
                      ctl_child_value(node, "process-id"), ctl_child_value(node, "changes-offered"),
                      ctl_child_value(node, "changes-refused"), plugin_error(node)});
    }
  }
  return rows;
}

size_t count_of(const lyd_node *daemon, const char *name)
{
  size_t count = 0;
  for (const lyd_node *node = lyd_child(daemon); node != nullptr; node = node->next) {
    count += ctl_is_named(node, name) ? 1 : 0;
  }
  return count;
}

std::string head_text(const lyd_node *daemon)
{
  std::string text = "ymgrd " + ctl_child_value(daemon, "version") + ", process " +
                     ctl_child_value(daemon, "process-id") + ", up " + duration(ctl_child_value(daemon, "uptime")) +
                     " since " + ctl_child_value(daemon, "started") + "\n";
  const std::string profile = ctl_child_value(daemon, "profile");
  text += profile.empty() ? "" : "profile " + profile + "\n";
  const std::string limit = ctl_child_value(daemon, "session-limit");
  text += std::to_string(count_of(daemon, "session")) + (limit.empty() ? "" : " of " + limit) + " sessions\n";
  const std::string events = ctl_child_value(ctl_child(daemon, "event-log"), "stored-events");
  text += events.empty() ? "" : events + " stored events\n";
  return text;
}

// Whatever is counted, without the details.
std::string counters_text(const lyd_node *daemon)
{
  std::string text;
  const lyd_node *counters = ctl_child(daemon, "counters");
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
  ctl_tree_ptr tree;
  const int result = ctl_read_data(device, ctl_get_daemon(""), &tree);
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
