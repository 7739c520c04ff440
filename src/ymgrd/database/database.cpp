// The public interface: checks the handle and forwards to the driver. Life cycle and profile record of the component.
#include "ymgrd/database/database.h"

#include <cstring>

#include "libconf/safe_string.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database_config.h"
#include "ymgrd/database/database_internal.h"

namespace {

constexpr const char CONFIG_OPTION[] = "OPT-database";
constexpr int LIST_SIZE = 8;

typedef struct _list_row {
  const char *name;
  void (*free_entry)(void *entry);
} list_row_t;

void free_handle(void *entry)
{
  std::unique_ptr<hdb_t> owner(static_cast<hdb_t *>(entry));
}

const list_row_t lists[] = {{"LIST-hdb", free_handle},
                            {"LIST-running-lock", db_free_lock},
                            {"LIST-candidate-lock", db_free_lock},
                            {"LIST-startup-lock", db_free_lock},
                            {"LIST-status-lock", db_free_lock}};

std::unique_ptr<db_drv_t> g_db_drv; // zeroed in the first stage, filled in the second

int init_resources()
{
  for (const list_row_t &row : lists) {
    if (context_create_list(row.name, LIST_SIZE) != 0) {
      return -1;
    }
  }
  g_db_drv = std::make_unique<db_drv_t>();
  return 0;
}

int database_read_conf()
{
  const auto *config = context_get_record<database_config>(CONFIG_OPTION);
  return db_set_address(config != nullptr ? config->driver_path : std::string());
}

bool is_ready()
{
  return g_db_drv != nullptr && g_db_drv->open != nullptr;
}

} // namespace

int database_init(int stage)
{
  switch (stage) {
  case STAGE_RESOURCE:
    return init_resources();
  case STAGE_CONFIG:
    return database_read_conf() != 0 || db_drv_api_init(g_db_drv.get()) != 0 ? -1 : 0;
  default:
    return 0;
  }
}

void database_exit()
{
  for (const list_row_t &row : lists) {
    context_destroy_list(row.name, row.free_entry);
  }
  db_pool_close();
  db_differences_forget_all();
  db_backups_forget();
  db_forget_set_aside();
  std::unique_ptr<database_config> config(context_get_record<database_config>(CONFIG_OPTION));
  if (config != nullptr) {
    context_remove_option(CONFIG_OPTION);
  }
  db_drv_api_exit();
  g_db_drv.reset();
}

void database_save_conf(const char *type, int level, const unsigned char *keys, int len, const char *path,
                        const char *version)
{
  if (type == nullptr || path == nullptr || version == nullptr || len < 0 || len > WORKING_KEY_LENGTH ||
      (keys == nullptr && len > 0)) {
    log_warn("Invalid type, driver path or version for database.");
    return;
  }
  auto config = std::make_unique<database_config>();
  config->type = type;
  config->validate_level = level;
  config->driver_path = path;
  config->driver_api_version = version;
  if (len > 0) {
    (void)memcpy_s(config->working_key, sizeof(config->working_key), keys, static_cast<size_t>(len)); // checked above
  }
  std::unique_ptr<database_config> older(context_get_record<database_config>(CONFIG_OPTION));
  if (context_save_record(CONFIG_OPTION, config.get()) != 0) {
    (void)older.release(); // still the saved one
    return;
  }
  (void)config.release(); // the option holds it until database_exit
}

int database_open(int target)
{
  return is_ready() ? g_db_drv->open(target) : -1;
}

void database_close(int hdb)
{
  if (hdb > 0 && is_ready()) {
    g_db_drv->close(hdb);
  }
}

bool database_is_builtin()
{
  return is_ready() && db_drv_is_builtin(g_db_drv.get());
}

int database_copy(int target, int source)
{
  return is_ready() ? g_db_drv->copy(target, source) : -1;
}

int database_clean(int target)
{
  return is_ready() ? g_db_drv->clean(target) : -1;
}

int database_set(int hdb, const char *path, int datatype, const char *data)
{
  return hdb > 0 && is_ready() ? g_db_drv->set(hdb, path, datatype, data) : -1;
}

int database_delete(int hdb, const char *path)
{
  return hdb > 0 && is_ready() ? g_db_drv->del(hdb, path) : -1;
}

int database_new(int hdb, const char *path, const char *coords, int offset, int datatype, const char *data)
{
  return hdb > 0 && is_ready() ? g_db_drv->create(hdb, path, coords, offset, datatype, data) : -1;
}

int database_move(int hdb, const char *path, const char *coords, int offset)
{
  return hdb > 0 && is_ready() ? g_db_drv->move(hdb, path, coords, offset) : -1;
}

int database_get(int hdb, int tflag, const char *path, int deepth, char **result)
{
  if (hdb <= 0 || !is_ready()) {
    return -1;
  }
  if (!db_drv_is_builtin(g_db_drv.get())) {
    tflag &= ~(DB_TFLAG_ABSENT_OK | DB_TFLAG_SEAL); // no part of the drivers' interface
  }
  return g_db_drv->get(hdb, tflag, path, deepth, result);
}

int database_list(int hdb, int tflag, const char *path, char **result)
{
  return hdb > 0 && is_ready() ? g_db_drv->list(hdb, tflag, path, result) : -1;
}

int database_index(int hdb, int tflag, const char *path)
{
  return hdb > 0 && is_ready() ? g_db_drv->index(hdb, tflag, path) : -1;
}

int database_trans_start(int hdb)
{
  return hdb > 0 && is_ready() ? g_db_drv->trans_start(hdb) : -1;
}

int database_trans_commit(int hdb)
{
  return hdb > 0 && is_ready() ? g_db_drv->trans_commit(hdb) : -1;
}

int database_trans_discard(int hdb)
{
  if (hdb <= 0 || !is_ready()) {
    return -1;
  }
  g_db_drv->trans_discard(hdb); // tells nothing; a failure is logged there
  return 0;
}

int database_flush(int hdb)
{
  if (hdb <= 0 || !is_ready()) {
    return -1;
  }
  return db_drv_is_builtin(g_db_drv.get()) ? db_flush(hdb) : 0; // an external driver has its own ways
}

int database_recover()
{
  if (!is_ready()) {
    return -1;
  }
  return db_drv_is_builtin(g_db_drv.get()) ? db_recover_all() : 0; // an external driver looks after itself
}

int database_protect_stored()
{
  if (!is_ready()) {
    return -1;
  }
  return db_drv_is_builtin(g_db_drv.get()) ? db_protect_stored() : 0;
}

int database_set_aside_misfits()
{
  if (!is_ready()) {
    return -1;
  }
  return db_drv_is_builtin(g_db_drv.get()) ? db_set_aside_misfits() : 0;
}

uint64_t database_foreign_writes()
{
  static uint64_t unwatched = 0;
  // Nothing is known of an external driver's storage.
  return is_ready() && db_drv_is_builtin(g_db_drv.get()) ? db_foreign_writes() : ++unwatched;
}

bool database_differing_modules(int target, int source, std::set<std::string, std::less<>> *ret_modules)
{
  if (!is_ready() || !db_drv_is_builtin(g_db_drv.get())) {
    return false;
  }
  (void)db_foreign_writes(); // before what is known of the differences is used
  const db_key_set *keys = db_differences(target, source);
  if (keys == nullptr) {
    return false;
  }
  std::set<std::string, std::less<>> modules;
  for (const std::string &key : *keys) {
    std::string_view module = belong_module(key); // none for "/", which changes with its modules' keys only
    if (!module.empty() && !modules.contains(module.substr(1))) {
      modules.emplace(module.substr(1));
    }
  }
  *ret_modules = std::move(modules);
  return true;
}

int database_lock(int hdb, int type, const char *path)
{
  return hdb > 0 && is_ready() ? g_db_drv->lock(hdb, type, path) : -1;
}

void database_unlock(int hdb, int lock_id)
{
  if (hdb > 0 && lock_id > 0 && is_ready()) {
    g_db_drv->unlock(hdb, lock_id);
  }
}
