#include <climits>
#include <map>
#include <memory>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_reply.h"
#include "ctl/ctl_table.h"

namespace {

constexpr char SESSIONS[] =
    "<get><filter type=\"subtree\"><daemon xmlns=\"com:zentra:netconf:private:opal:device:ymgrd\">"
    "<session/><datastore><name/><lock-holder/></datastore></daemon></filter></get>";

std::string child_value(const lyd_node *node, const char *name)
{
  lyd_node *child = nullptr;
  return lyd_find_path(node, name, 0, &child) == LY_SUCCESS ? lyd_get_value(child) : "";
}

bool is_named(const lyd_node *node, std::string_view name)
{
  return node->schema != nullptr && name == node->schema->name;
}

// The names of the datastores that each session has locked.
std::map<std::string, std::string> read_locks(const lyd_node *daemon)
{
  std::map<std::string, std::string> locks;
  for (const lyd_node *node = lyd_child(daemon); node != nullptr; node = node->next) {
    if (is_named(node, "datastore")) {
      std::string &names = locks[child_value(node, "lock-holder")];
      names += (names.empty() ? "" : ",") + child_value(node, "name");
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
    if (is_named(node, "session")) {
      const std::string id = child_value(node, "id");
      rows.push_back({id + (id == own ? "*" : ""), child_value(node, "username"), child_value(node, "address"),
                      child_value(node, "login"), locks[id]});
    }
  }
  return ctl_print_table(device.output(), {"ID", "USER", "ADDRESS", "LOGIN", "LOCKS"}, rows);
}

int list_sessions(ctl_device &device)
{
  std::string reply;
  ctl_tree_ptr tree;
  int result = device.rpc(SESSIONS, &reply);
  if (result == CTL_OK) {
    result = ctl_reply_data(device, reply, &tree);
  }
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
      ->check(CLI::Range(1U, UINT_MAX));
  return [id](ctl_device &device) {
    return device.rpc("<kill-session><session-id>" + std::to_string(*id) + "</session-id></kill-session>", nullptr);
  };
}

ctl_action ctl_define_sessions(CLI::App *)
{
  return list_sessions;
}
