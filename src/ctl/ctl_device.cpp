#include "ctl/ctl_device.h"

#include <cerrno>
#include <cstdlib>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ctl/ctl_operations.h"
#include "ctl/ctl_reply.h"
#include "ctl/ctl_schema.h"
#include "libconf/default_paths.h"

namespace {

constexpr ymgr_duration CLOSING{500};
constexpr char MODULES_VARIABLE[] = "YMGR_MODULES_DIR";
constexpr char MODULES_HINT[] = " (the environment variable YMGR_MODULES_DIR names another directory)";

constexpr char INTERRUPTED[] = "interrupted"; // the client's error when its progress hook ended the wait

std::string login_name()
{
  const std::string name = ymgr_login_name();
  return name.empty() ? "uid-" + std::to_string(getuid()) : name;
}

// Why a daemon that may well be there cannot be reached, and what to do about it; empty when that is not the reason.
std::string permission_hint(const std::string &run_dir)
{
  if (access((run_dir + "/agent.sock").c_str(), R_OK | W_OK) == 0 || errno != EACCES) {
    return "";
  }
  struct stat state = {};
  const group *owner = stat(run_dir.c_str(), &state) == 0 ? getgrgid(state.st_gid) : nullptr;
  const std::string name = owner == nullptr ? "the daemon's group" : std::string("the group ") + owner->gr_name;
  return "; only members of " + name + " may connect: add " + login_name() + " to it, and log in anew";
}

} // namespace

ctl_device::ctl_device(std::string run_dir, ctl_output_t output) : run_dir_(std::move(run_dir)), output_(output) {}

// Closed rather than dropped, so that events of lost sessions tell of those only. A daemon that is at something else is
// not waited for.
ctl_device::~ctl_device()
{
  if (client_ != nullptr) {
    (void)ymgr_rpc(client_.get(), "<close-session/>", CLOSING);
  }
}

int ctl_device::rpc(std::string_view operation, std::string *ret_reply)
{
  std::string reply;
  int result = exchange(operation, &reply);
  result = result == CTL_OK ? ctl_tell_errors(output_, reply) : result;
  if (result == CTL_OK && ret_reply != nullptr) {
    *ret_reply = std::move(reply);
  }
  return result;
}

int ctl_device::try_rpc(std::string_view operation, std::string *ret_reply)
{
  std::string reply;
  const int result = exchange(operation, &reply);
  if (result != CTL_OK || ctl_is_refused(reply)) {
    return result == CTL_OK ? CTL_REFUSED : result;
  }
  if (ret_reply != nullptr) {
    *ret_reply = std::move(reply);
  }
  return CTL_OK;
}

int ctl_device::exchange(std::string_view operation, std::string *ret_reply)
{
  ymgr_client_t *connection = client();
  if (connection == nullptr) {
    return CTL_UNREACHABLE;
  }
  while (ymgr_receive(connection, ymgr_duration(0))) {
    // A late reply to what was given up, by a prompt or a completion. Notifications come on sessions of their own.
  }
  std::optional<std::string> reply = ymgr_rpc(connection, operation, CTL_LONG_WORK);
  if (!reply) {
    const std::string cause = ymgr_last_error(connection);
    disconnect(); // whether it was carried out is unknown: nothing more is to be built on this session
    return cause == INTERRUPTED ? ctl_fail(output_, CTL_INTERRUPTED, cause)
                                : ctl_fail(output_, CTL_UNREACHABLE, "the connection to the daemon is lost: " + cause);
  }
  *ret_reply = std::move(*reply);
  return CTL_OK;
}

ymgr_client_t *ctl_device::client()
{
  return connect() == CTL_OK ? client_.get() : nullptr;
}

void ctl_device::disconnect()
{
  client_.reset();
  session_id_ = 0;
}

const ly_ctx *ctl_device::schema()
{
  if (schema_ != nullptr || modules().empty()) {
    return schema_.get();
  }
  std::string directory;
  if (find_modules_directory(&directory) != CTL_OK) {
    return nullptr;
  }
  std::string fault;
  schema_.reset(ctl_load_modules(modules_, directory, &fault).release()); // the owner's type is the header's
  if (schema_ == nullptr) {
    (void)ctl_fail(output_, CTL_INPUT, fault + MODULES_HINT);
  }
  return schema_.get();
}

const std::vector<ctl_module_t> &ctl_device::modules()
{
  std::string reply;
  if (modules_.empty() && rpc(ctl_get_capability(), &reply) == CTL_OK) {
    modules_ = ctl_read_modules(reply);
    if (modules_.empty()) {
      (void)ctl_fail(output_, CTL_INPUT, "the daemon names no modules");
    }
  }
  return modules_;
}

int ctl_device::find_modules_directory(std::string *ret_directory)
{
  const char *wanted = getenv(MODULES_VARIABLE);
  if (wanted != nullptr && *wanted != '\0') {
    *ret_directory = wanted;
    return CTL_OK;
  }
  std::string reply;
  const int result = try_rpc(ctl_get_daemon("<modules-directory/>"), &reply);
  if (result != CTL_OK && result != CTL_REFUSED) {
    return result;
  }
  if (result == CTL_REFUSED && access(DEFAULT_MODULES_DIR, R_OK) != 0) { // as when its database is away
    return ctl_tell_errors(output_, reply);
  }
  *ret_directory = ctl_daemon_text(reply, {"modules-directory"}).value_or(DEFAULT_MODULES_DIR);
  return CTL_OK;
}

int ctl_device::connect()
{
  if (client_ != nullptr) {
    return CTL_OK;
  }
  std::string cause;
  ymgr_client_ptr connection = ymgr_connect(run_dir_, &cause);
  if (connection == nullptr) {
    return ctl_fail(output_, CTL_UNREACHABLE,
                    "no daemon answers in " + run_dir_ + " (" + cause + ")" + permission_hint(run_dir_));
  }
  std::optional<int> id = ymgr_create_session(connection.get(), login_name());
  if (!id) {
    return ctl_fail(output_, CTL_UNREACHABLE,
                    "no session could be opened: " + ymgr_last_error(connection.get()) +
                        "; all that the daemon's profile allows (session-spec) may be open");
  }
  client_ = std::move(connection);
  session_id_ = *id;
  return CTL_OK;
}
