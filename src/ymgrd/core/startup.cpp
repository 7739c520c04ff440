#include "ymgrd/core/startup.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "libconf/conf_misc.h"
#include "libconf/conf_service.h"
#include "ymgrd/broker/broker.h"
#include "ymgrd/broker/plugin.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/daemon_state.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/paths.h"
#include "ymgrd/core/profile.h"
#include "ymgrd/core/service_manager.h"
#include "ymgrd/core/stop_signal.h"
#include "ymgrd/core/wiping_heap.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore.h"
#include "ymgrd/notify/notifier.h"
#include "ymgrd/rpc/session_operations.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/ymgrd.h"

namespace {

typedef struct _component {
  const char *name;
  int (*init)(int stage);
} component_t;

const component_t components[] = {
    {"context", context_init},     {"broker", broker_init},   {"database", database_init}, {"schema", schema_init},
    {"datastore", datastore_init}, {"session", session_init}, {"plugin", plugin_init},     {"notifier", notifier_init},
};

// Not the reverse of the start order: what is published or asked for ends before what it works on.
void (*const component_exits[])() = {
    broker_exit, session_exit, plugin_exit, schema_exit, datastore_exit, database_exit, notifier_exit, context_exit,
};

// The open and locked instance file (a descriptor, for all its name).
unique_fd g_ymgrd_pid;

// The fatal-signal handler may come in the middle of a tear-down.
volatile std::sig_atomic_t tear_down_started = 0;

int save_keepalive_path(const std::string &keepalive_so)
{
  c_string_ptr path(realpath(keepalive_so.c_str(), nullptr));
  if (path == nullptr) {
    log_error("Failed to get real path for path, errcode:%s.", strerror(errno));
    return -1;
  }
  return context_save_option("OPT-keepalive-sopath", path.get(), static_cast<int>(strlen(path.get()) + 1));
}

int init_resources(const std::string &keepalive_so)
{
  for (const component_t &component : components) {
    if (component.init(STAGE_RESOURCE) != 0) {
      log_error("Component <%s> init resource failed.", component.name);
      return -1;
    }
    // As early as there is a store to keep it in: the stages that follow may take long.
    if (component.init == context_init && !keepalive_so.empty() && save_keepalive_path(keepalive_so) != 0) {
      return -1;
    }
  }
  return 0;
}

void daemonize_unless_refused()
{
  constexpr int KEEP_WORKING_DIR = 1;
  constexpr int KEEP_DESCRIPTORS = 1;
  if (service_manager_waits()) {
    return;
  }
  if (context_get_int("OPT-daemonize", 1) == 1 && daemon(KEEP_WORKING_DIR, KEEP_DESCRIPTORS) != 0) {
    log_error("create process fail.");
  }
}

// Before the first secret is read. Without secrets it would only cost time.
void protect_secrets()
{
  if (!encrypt_has_sensitive()) {
    return;
  }
  wiping_heap_enable();
  if (!wiping_heap_is_enabled()) {
    log_warn("Sensitive leaves are configured, but this build does not clear the memory that they leave.");
  }
}

// Each stage is over in every component before the next one begins.
int init_services()
{
  for (int stage : {STAGE_CONFIG, STAGE_RESTORE, STAGE_KICKOFF}) {
    for (const component_t &component : components) {
      if (ymgrd_stop_signal() != 0) {
        return -1;
      }
      if (component.init(stage) != 0) {
        log_error("Component <%s> init service failed.", component.name);
        return -1;
      }
    }
  }
  return 0;
}

// The working directory of the support library, when it has one, also takes the instance file.
int choose_instance_path(std::string *ret_path)
{
  char *configured = nullptr;
  if (conf_load_config(&configured) != 0) {
    log_error("Get working dir error.");
    return -1;
  }
  c_string_ptr dir(configured);
  if (dir == nullptr) {
    *ret_path = DEFAULT_INSTANCE_PATH;
    return 0;
  }
  if (chdir(dir.get()) != 0) {
    log_error("Change working dir error.");
    return -1;
  }
  *ret_path = std::string(dir.get()) + "/ymgrd.pid";
  return 0;
}

} // namespace

int ymgrd_use_run_dir(const std::string &run_dir, std::string *ret_error)
{
  if (mkdir(run_dir.c_str(), 0750) != 0 && errno != EEXIST) {
    *ret_error = "cannot make the run directory " + run_dir + ": " + strerror(errno);
    return -1;
  }
  conf_set_working_dir(run_dir.c_str());
  conf_set_run_dir(run_dir.c_str());
  return 0;
}

int ymgrd_run_once(std::string *ret_error)
{
  std::string path;
  if (choose_instance_path(&path) != 0) {
    *ret_error = "cannot change to the run directory";
    return -1;
  }
  unique_fd file(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0700));
  if (file.get() < 0) {
    *ret_error = "cannot open " + path + ": " + strerror(errno);
    log_debug("open or create pid path failed(%s).", strerror(errno));
    return -1;
  }
  if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    *ret_error = "another instance is running (it holds " + path + ")";
    log_debug("There is another instance in running.");
    return -1;
  }
  g_ymgrd_pid = std::move(file);
  return 0;
}

int ymgrd_init(const std::string &keepalive_so, bool smooth)
{
  if (init_resources(keepalive_so) != 0 || context_save_int("OPT-smooth-start", smooth ? 1 : 0) != 0) {
    return -1;
  }
  if (ymgrd_load_config(ymgrd_profile_path().c_str()) != 0) {
    log_error("Load ymgrd's configuration profile failed.");
    return -1;
  }
  protect_secrets();
  daemonize_unless_refused();
  if (init_services() != 0 || daemon_state_init() != 0) {
    return -1;
  }
  log_info("Ymgrd initialized successfully.");
  service_manager_tell_ready();
  return 0;
}

void ymgrd_exit()
{
  if (tear_down_started != 0) {
    return;
  }
  tear_down_started = 1;
  unique_fd epfd(context_get_int("OPT-ymgrd-epfd", -1));
  context_remove_option("OPT-ymgrd-epfd");
  epfd.reset();
  for (auto exit_component : component_exits) {
    exit_component();
  }
  // Last: the next instance must not open its sockets while this one still removes its own.
  g_ymgrd_pid.reset();
}
