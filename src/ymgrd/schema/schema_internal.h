// What the sources of the schema component share. Included by schema*.cpp only.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "libredisapi/redisapi.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/schema/schema.h"

// --- schema.cpp

int schema_create_lists();
// Hands the context over; it stays empty of look-ups until schema_build_lookups.
void schema_set_ctx(ly_ctx_ptr ctx);
// To be called once, when no module is added any more: what was found is looked up by name, namespace and prefix.
void schema_build_lookups();
// The modules that are saved and announced: all of the context, but of libyang's own only those of the profile. Each
// name once, the implemented revision before others.
std::vector<const lys_module *> schema_loaded_modules();

// The name without "@REVISION".
std::string_view schema_modelcfg_name(const model_config_t &mod_cfg);
// All entries of "LIST-model", in the profile's order.
std::vector<const model_config_t *> schema_all_modelcfgs();
// The first entry of that name; null when the profile does not name the module.
const model_config_t *schema_find_modelcfg(std::string_view module_name);

// --- schema_source.cpp

typedef enum _schema_revision_state {
  SCHEMA_REVISION_FOUND,
  SCHEMA_REVISION_MISSING,
  SCHEMA_REVISION_UNKNOWN, // the file cannot be read or is broken: libyang's message will be better than ours
} schema_revision_state_t;

typedef struct _schema_source {
  std::string path;
  LYS_INFORMAT format;
} schema_source_t;

// NAME.yin of the modules directory, or NAME.yang when only that exists.
schema_source_t schema_get_file_path(std::string_view module_name);
// Whether the file states a revision, found without libyang: what libyang has parsed can never be unloaded.
schema_revision_state_t schema_read_revision_state(const schema_source_t &source);
bool schema_yang_has_revision(std::string_view text);

// --- schema_capability.cpp

// The features of the module's profile entry in their order, "*" replaced by all features that the module defines.
std::vector<std::string> schema_expand_features(const lys_module *module, const std::vector<std::string> &configured);
int schema_add_yang_to_capability(const lys_module *module); // 0 or -1

// --- Content of the schema database: keys, their fields, the fields' values.

constexpr const char SCHEMA_MODULES_KEY[] = "/"; // the hash of the modules' own records

typedef struct _schema_field {
  std::string value;
  std::string_view owner; // name of the module that it comes and goes with; lives as long as the context
} schema_field_t;
using schema_fields_t = std::unordered_map<std::string, schema_field_t>;
using schema_records_t = std::unordered_map<std::string, schema_fields_t>;
using schema_hash_t = std::unordered_map<std::string, std::string>;
using schema_stored_t = std::unordered_map<std::string, schema_hash_t>;
using schema_names_t = std::set<std::string, std::less<>>;
// The commands that change each module's records, by its name.
using schema_changes_t = std::map<std::string, redis_batch_ptr, std::less<>>;

// --- schema_nodes.cpp

// Adds the records of all nodes of the modules, in their own trees and in those that they augment. To be called when
// loading is over.
void schema_collect_records(const std::vector<const lys_module *> &modules, schema_records_t *records);

// --- schema_stored.cpp

// Reads all of the schema database, in a few round trips. 0 or -1.
int schema_read_stored(rContext *srdc, schema_stored_t *ret_stored);
// Plans to remove all that the modules have, and takes it out of `stored`.
void schema_plan_removal(schema_stored_t *stored, const schema_names_t &gone, schema_changes_t *changes);
// Plans what makes `stored` equal to `records`, of which only what must be written is left. Keys of modules that are
// not loaded stay as they are.
void schema_plan_update(const schema_stored_t &stored, const schema_names_t &loaded, schema_records_t *records,
                        schema_changes_t *changes);

// --- schema_database.cpp

// Removes all records of the module, also where it augmented others. On a connection on which the schema database is
// selected. 0 or -1.
int schema_delete_module(rContext *srdc, const std::string &module_name);
// Makes the schema database hold the loaded modules and no others, writing only what differs; announces each module
// that it holds. A module that cannot be saved is left out; it is -1 when that one has sensitive leaves. 0 or -1. The
// connection as above.
int schema_save_modules(rContext *srdc);
// The revision under which the module is saved and announced: its own, or a newer one of its deviations.
std::string schema_module_revision(const lys_module *module);
