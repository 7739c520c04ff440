#include <climits>
#include <map>
#include <memory>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_operations.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_reply.h"
#include "ctl/ctl_table.h"

namespace {

// The names of the datastores that each session has locked.
std::map<std::string, std::string> read_locks(const lyd_node *daemon)
{
  std::map<std::string, std::string> locks;
  for (const lyd_node *node = lyd_child(daemon); node != nullptr; node = node->next) {
    if (ctl_is_named(node, "datastore")) {
      std::string &names = locks[ctl_child_value(node, "lock-holder")];
      names += (names.empty() ? "" : ",") + ctl_child_value(node, "name");
    }
  }
  return locks;
}

int print_sessions_table(ctl_device &device, const lyd_node *daemon)
{
  std::map<std::string, std::string> locks = read_locks(daemon);
  const std::string own = std::to_string(device.session_id());
  std::vector<std::vector<std::string>> rows;
  for (const lyd_node *node = lyd_child(daemon); node != nullptr; node = node->next) {
    if (ctl_is_named(node, "session")) {
      const std::string id = ctl_child_value(node, "id");
      rows.push_back({id + (id == own ? "*" : ""), ctl_child_value(node, "username"), ctl_child_value(node, "address"),
                      ctl_child_value(node, "login"), locks[id]});
    }
  }
  return ctl_print_table(device.output(), {"ID", "USER", "ADDRESS", "LOGIN", "LOCKS"}, rows);
}

int list_sessions(ctl_device &device)
{
  ctl_tree_ptr tree;
  const int result =
      ctl_read_data(device, ctl_get_daemon("<session/><datastore><name/><lock-holder/></datastore>"), &tree);
  if (result != CTL_OK) {
    return result;
  }
  return device.output().format == ctl_format::tree && tree != nullptr ? print_sessions_table(device, tree.get())
                                                                       : ctl_print(device.output(), tree.get());
}

} // namespace

ctl_action ctl_define_kill_session(CLI::App *app)
{
  auto id = std::make_shared<unsigned>(0);
  app->add_option("session", *id, "its number, from \"sessions\"")
      ->type_name("ID")
      ->required()
      ->check(CLI::Range(1U, UINT_MAX).description(""));
  return [id](ctl_device &device) { return device.rpc(ctl_kill_session(*id)); };
}

ctl_action ctl_define_sessions(CLI::App *)
{
  return list_sessions;
}
