// Which driver serves the interface: the built-in one, or a shared object named in the profile.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <poll.h>

#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/core/stop_signal.h"
#include "ymgrd/database/database_config.h"
#include "ymgrd/database/database_internal.h"

namespace {

constexpr const char DRIVER_API_VERSION[] = "1.0";
constexpr const char LIBRARY_OPTION[] = "OPT-database-drv-so";
constexpr int READY_ATTEMPTS = 30;
constexpr int ATTEMPTS_PER_WARNING = 10;
constexpr int READY_INTERVAL_MS = 1000;

const db_drv_t builtin_driver = {db_open,         db_close,         db_copy,        db_clean,
                                 db_set_item,     db_del_item,      db_new_item,    db_move_item,
                                 db_get_items,    db_list_entries,  db_entry_index, db_trans_start,
                                 db_trans_commit, db_trans_discard, db_lock,        db_unlock};

// Looks `symbol` up in the library; `label` names it in the log. 0 or -1.
template <class slot_t>
int database_load_drv_api(void *library, const char *symbol, const char *label, slot_t *ret_slot)
{
  void *address = dlsym(library, symbol);
  if (address == nullptr) {
    const char *cause = dlerror();
    if (cause != nullptr) {
      log_error("Load symbol(%s) from database drviver library failed(%.512s).", label, cause);
    } else {
      log_error("Find symbol(%s) in database drviver library failed.", label);
    }
    return -1;
  }
  *ret_slot = reinterpret_cast<slot_t>(address);
  return 0;
}

// Every missing symbol is reported, not only the first. The number of missing ones, negative.
int load_slots(void *library, db_drv_t *ret_driver)
{
  db_drv_t driver = {};
  int missing = 0;
  missing += database_load_drv_api(library, "db_open", "open", &driver.open);
  missing += database_load_drv_api(library, "db_close", "close", &driver.close);
  missing += database_load_drv_api(library, "db_copy", "copy", &driver.copy);
  missing += database_load_drv_api(library, "db_clean", "clean", &driver.clean);
  missing += database_load_drv_api(library, "db_set_item", "set", &driver.set);
  missing += database_load_drv_api(library, "db_del_item", "delete", &driver.del);
  missing += database_load_drv_api(library, "db_new_item", "new", &driver.create);
  missing += database_load_drv_api(library, "db_move_item", "move", &driver.move);
  missing += database_load_drv_api(library, "db_get_items", "get", &driver.get);
  missing += database_load_drv_api(library, "db_list_entries", "list entries", &driver.list);
  missing += database_load_drv_api(library, "db_entry_index", "entry index", &driver.index);
  missing += database_load_drv_api(library, "db_trans_start", "transact start", &driver.trans_start);
  missing += database_load_drv_api(library, "db_trans_commit", "transact commit", &driver.trans_commit);
  missing += database_load_drv_api(library, "db_trans_discard", "transact discard", &driver.trans_discard);
  missing += database_load_drv_api(library, "db_lock", "lock", &driver.lock);
  missing += database_load_drv_api(library, "db_unlock", "unlock", &driver.unlock);
  if (missing == 0) {
    *ret_driver = driver;
  }
  return missing;
}

struct library_close_t {
  void operator()(void *library) const { dlclose(library); }
};

int database_drv_external_init(const std::string &drv_path, db_drv_t *ret_driver)
{
  c_string_ptr resolved(realpath(drv_path.c_str(), nullptr));
  if (resolved == nullptr) {
    log_error("Failed to get the driver path, errcode:%s.", strerror(errno));
    return -1;
  }
  std::unique_ptr<void, library_close_t> library(dlopen(resolved.get(), RTLD_NOW));
  if (library == nullptr) {
    const char *cause = dlerror();
    log_error("Load dynamic library failed(%.512s).", cause != nullptr ? cause : "");
    return -1;
  }
  (void)dlerror(); // clears an older text
  db_drv_t driver = {};
  if (load_slots(library.get(), &driver) != 0) {
    return -1;
  }
  int saved = context_save_record(LIBRARY_OPTION, library.get());
  if (saved != 0) {
    log_error("Failed to save %s option.", LIBRARY_OPTION);
    return saved;
  }
  (void)library.release(); // the option holds it until db_drv_api_exit
  *ret_driver = driver;
  return 0;
}

int wait_for_database(const db_drv_t *driver)
{
  for (int attempt = 0; attempt < READY_ATTEMPTS; attempt++) {
    int hdb = driver->open(YMGRM_RUNNING_DB);
    if (hdb > 0) {
      driver->close(hdb);
      return 0;
    }
    if (attempt % ATTEMPTS_PER_WARNING == 0) {
      log_warn("Database is NOT ready, and fail to connect.");
    }
    (void)poll(nullptr, 0, READY_INTERVAL_MS); // a sleep that a signal ends
    if (ymgrd_stop_signal() != 0) {
      return -1;
    }
  }
  log_error("Database is NOT ready, and datastore failed to initialize.");
  return -1;
}

int choose_driver(const database_config &config, db_drv_t *ret_driver)
{
  if (config.type == "default") {
    if (config.driver_api_version != DRIVER_API_VERSION) {
      log_error("Api version is NOT 1.0.");
      return -1;
    }
    *ret_driver = builtin_driver;
    return 0;
  }
  if (config.type == "external") {
    return config.driver_path.empty() ? -1 : database_drv_external_init(config.driver_path, ret_driver);
  }
  if (config.type == "null") {
    log_warn("Database.type \"null\" is NOT supported now.");
    return -1;
  }
  log_error("Database.type(%.512s) is NOT supported.", config.type.c_str());
  return -1;
}

} // namespace

int db_drv_api_init(db_drv_t *driver)
{
  const auto *config = context_get_record<database_config>("OPT-database");
  if (config == nullptr || config->type.empty()) {
    log_info("Use redis api as driver.");
    *driver = builtin_driver;
    return 0;
  }
  int chosen = choose_driver(*config, driver);
  return chosen != 0 ? chosen : wait_for_database(driver);
}

bool db_drv_is_builtin(const db_drv_t *driver)
{
  return driver->open == builtin_driver.open;
}

void db_drv_api_exit()
{
  void *library = context_get_record<void>(LIBRARY_OPTION);
  if (library != nullptr) {
    dlclose(library);
    context_remove_option(LIBRARY_OPTION);
  }
}
