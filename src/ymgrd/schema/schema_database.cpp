// The schema database: database 0 of its server, read by other processes of the device. Its hash "/" has one field per
// saved module, whose value is
//   bytes 0-10   newest revision "YYYY-MM-DD" and NUL, all zero when there is none
//   bytes 11-42  prefix, padded with NUL; a longer one is cut and has no NUL
//   bytes 43-    namespace and NUL
// All other keys of a module are "/MODULE" and begin with "/MODULE/".
#include <algorithm>
#include <map>

#include "ymgrd/core/keepalive.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt.h"
#include "ymgrd/schema/schema_internal.h"

namespace {

constexpr const char MODULES_KEY[] = "/";
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

// The revision of a stored record; false when the record is none.
bool decode_revision(std::string_view record, std::string *ret_revision)
{
  if (record.size() <= URI_OFFSET) {
    return false;
  }
  std::string_view revision = record.substr(0, REVISION_TEXT_SIZE);
  *ret_revision = revision.substr(0, revision.find('\0'));
  return true;
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

void op_module_record(redis_batch_t *batch, const lys_module *module)
{
  redis_batch_add(batch, {"HSET", MODULES_KEY, module->name, encode_module(module)});
}

// Compares one stored module with the loaded ones. What is unchanged leaves `pending`; what is gone or has another
// revision leaves the database.
void clean_stored_module(rContext *srdc, const std::string &name, std::string_view record,
                         std::vector<const lys_module *> *pending)
{
  auto loaded =
      std::find_if(pending->begin(), pending->end(), [&](const lys_module *module) { return module->name == name; });
  std::string revision;
  if (loaded != pending->end() && decode_revision(record, &revision) && revision == schema_module_revision(*loaded)) {
    announce_module(*loaded);
    pending->erase(loaded);
  } else if (schema_delete_module(srdc, name) != 0) {
    log_warn("Delete module %.512s fail", name.c_str());
  }
}

int schema_save_modules_clean_change(rContext *srdc, std::vector<const lys_module *> *pending)
{
  redis_reply_ptr stored = redis_hash_get_all_bin_safe(srdc, MODULES_KEY);
  if (stored == nullptr) {
    return -1;
  }
  for (size_t i = 0; i + 1 < stored->elements; i += 2) {
    const redisReply *name = stored->element[i];
    const redisReply *record = stored->element[i + 1];
    clean_stored_module(srdc, std::string(name->str, name->len), std::string_view(record->str, record->len), pending);
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

int schema_database_op(rContext *srdc, const lys_module *module, int op)
{
  if (op == SCHEMA_DB_DELETE) {
    return schema_delete_module(srdc, module->name);
  }
  // All records of a module or none: a reader, or the next start, never meets half a module.
  redis_batch_ptr batch(redis_batch_create());
  op_module_record(batch.get(), module);
  if (redis_batch_run_atomic(srdc, batch.get()) != 0) {
    log_error("hash set error\n");
    return -1;
  }
  return 0;
}

int schema_delete_module(rContext *srdc, const std::string &module_name)
{
  // The record in "/" goes last: a module whose deletion was cut short is still found at the next start.
  std::string key = "/" + module_name;
  if (redis_del_improve(srdc, key, {}, {}) != 0 || redis_del_tree(srdc, redis_escape_glob(key) + "/*") != 0 ||
      redis_del_improve(srdc, MODULES_KEY, module_name, {}) != 0) {
    log_error("del improve error\n");
    return -1;
  }
  return 0;
}

int schema_save_modules(rContext *srdc)
{
  std::vector<const lys_module *> pending = schema_loaded_modules();
  fill_new_revision(pending);
  if (schema_save_modules_clean_change(srdc, &pending) != 0) {
    return -1;
  }
  for (const lys_module *module : pending) {
    if (schema_database_op(srdc, module, SCHEMA_DB_SAVE) == 0) {
      announce_module(module);
    } else {
      log_warn("Save module %s to schema-db failed", module->name);
      (void)schema_database_op(srdc, module, SCHEMA_DB_DELETE); // logged there; the database may be out of reach
      encrypt_delete_sensitive(module->name);
    }
    ymgrd_send_keepalive_msg(0, 0);
  }
  return 0;
}
