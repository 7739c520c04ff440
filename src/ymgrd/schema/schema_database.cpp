// The schema database: database 0 of its server, read by other processes of the device. Its hash "/" has one field per
// saved module, whose value is
//   bytes 0-10   newest revision "YYYY-MM-DD" and NUL, all zero when there is none
//   bytes 11-42  prefix, padded with NUL; a longer one is cut and has no NUL
//   bytes 43-    namespace and NUL
// Its other hashes hold the records of the modules' nodes (docs/protocol.md).
#include <algorithm>

#include "ymgrd/core/keepalive.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/schema/schema_internal.h"

namespace {

constexpr size_t REVISION_SIZE = 11;
constexpr size_t REVISION_TEXT_SIZE = 10;
constexpr size_t PREFIX_SIZE = 32;
constexpr size_t URI_OFFSET = REVISION_SIZE + PREFIX_SIZE;

// Modules that are announced with the newer revision of a deviation. libyang's own text must stay as it is: it is what
// a file is compared with when it is parsed again.
std::map<std::string, std::string> raised_revisions;

std::string encode_module(const lys_module *module)
{
  std::string record(URI_OFFSET, '\0');
  schema_module_revision(module).copy(record.data(), REVISION_TEXT_SIZE);
  std::string_view(module->prefix).copy(record.data() + REVISION_SIZE, PREFIX_SIZE);
  record += module->ns;
  record += '\0';
  return record;
}

std::string greatest_revision(const std::vector<std::string> &module_names)
{
  std::string greatest;
  for (const std::string &name : module_names) {
    const model_config_t *mod_cfg = schema_find_modelcfg(name);
    greatest = mod_cfg == nullptr ? greatest : std::max(greatest, mod_cfg->revision);
  }
  return greatest;
}

// A deviated module shows a new revision whenever its deviation does.
void fill_new_revision(const std::vector<const lys_module *> &modules)
{
  raised_revisions.clear();
  for (const lys_module *module : modules) {
    const model_config_t *mod_cfg = schema_find_modelcfg(module->name);
    if (mod_cfg == nullptr || module->revision == nullptr) {
      continue;
    }
    std::string revision = greatest_revision(mod_cfg->deviation);
    if (revision > module->revision) {
      raised_revisions[module->name] = revision.substr(0, REVISION_TEXT_SIZE);
    }
  }
}

void announce_module(const lys_module *module)
{
  (void)schema_add_yang_to_capability(module); // logged there; the module can be used all the same
  (void)encrypt_add_ns_prefix(module->name, module->ns, module->prefix);
}

// All that the schema database is to hold for the modules.
schema_records_t collect_records(const std::vector<const lys_module *> &modules)
{
  schema_records_t records;
  for (const lys_module *module : modules) {
    records[SCHEMA_MODULES_KEY].emplace(module->name, schema_field_t{encode_module(module), module->name});
  }
  schema_collect_records(modules, &records);
  return records;
}

typedef struct _schema_plan {
  schema_changes_t removals; // of modules that are not loaded any more
  schema_changes_t updates;  // of loaded ones, as far as their records differ
} schema_plan_t;

// All records are compared, not only the revisions: a feature, a deviation or an augment changes a module's records and
// leaves its revision.
int plan_changes(rContext *srdc, const std::vector<const lys_module *> &modules, schema_plan_t *ret_plan)
{
  schema_stored_t stored;
  if (schema_read_stored(srdc, &stored) != 0) {
    return -1;
  }
  schema_names_t loaded;
  for (const lys_module *module : modules) {
    loaded.insert(module->name);
  }
  schema_names_t gone;
  for (const auto &[name, record] : stored[SCHEMA_MODULES_KEY]) {
    if (!name.empty() && !loaded.contains(name)) { // an empty name would stand before all names without a module
      gone.insert(name);
    }
  }
  schema_records_t records = collect_records(modules);
  schema_plan_removal(&stored, gone, &ret_plan->removals);
  schema_plan_update(stored, loaded, &records, &ret_plan->updates);
  return 0;
}

// All records of a module or none: a reader, or the next start, never meets half a module.
int delete_module(rContext *srdc, redis_batch_t *removal)
{
  if (redis_batch_run_atomic(srdc, removal) != 0) {
    log_error("del improve error\n");
    return -1;
  }
  return 0;
}

int save_module(rContext *srdc, redis_batch_t *update)
{
  if (redis_batch_run_atomic(srdc, update) != 0) {
    log_error("hash set error\n");
    return -1;
  }
  return 0;
}

} // namespace

std::string schema_module_revision(const lys_module *module)
{
  auto raised = raised_revisions.find(module->name);
  if (raised != raised_revisions.end()) {
    return raised->second;
  }
  return module->revision == nullptr ? "" : module->revision;
}

int schema_delete_module(rContext *srdc, const std::string &module_name)
{
  schema_stored_t stored;
  schema_changes_t changes;
  if (schema_read_stored(srdc, &stored) != 0) {
    return -1;
  }
  schema_plan_removal(&stored, {module_name}, &changes);
  auto removal = changes.find(module_name);
  return removal == changes.end() ? 0 : delete_module(srdc, removal->second.get());
}

int schema_save_modules(rContext *srdc)
{
  std::vector<const lys_module *> modules = schema_loaded_modules();
  fill_new_revision(modules);
  schema_plan_t plan;
  if (plan_changes(srdc, modules, &plan) != 0) {
    return -1;
  }
  for (const auto &[name, removal] : plan.removals) {
    if (delete_module(srdc, removal.get()) != 0) {
      log_warn("Delete module %.512s fail", name.c_str());
    }
  }
  for (const lys_module *module : modules) {
    auto update = plan.updates.find(module->name);
    if (update == plan.updates.end() || save_module(srdc, update->second.get()) == 0) {
      announce_module(module);
    } else {
      log_warn("Save module %s to schema-db failed", module->name);
      (void)schema_delete_module(srdc, module->name); // logged there; the database may be out of reach
      if (encrypt_delete_sensitive(module->name) > 0) {
        return -1; // clients would set in clear what the profile wants encrypted
      }
    }
    ymgrd_send_keepalive_msg(0, 0);
  }
  return 0;
}
