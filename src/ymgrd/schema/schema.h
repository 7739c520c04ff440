// The YANG schema: one libyang context, loaded once at start from the profile's modules; the schema database, which
// tells the device's other processes what was loaded; capabilities; look-ups. After stage 1 everything is read-only,
// and look-ups are answered from memory.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <libyang/libyang.h>

// A module of the profile, in "LIST-model".
typedef struct _model_config {
  std::string name; // may carry "@REVISION"
  std::string revision;
  std::vector<std::string> feature;   // in the profile's order; "*" stands for all
  std::vector<std::string> deviation; // names of the modules that deviate this one
} model_config_t;

// The profile's "schema" section; its address is the option "OPT-schema". Made with new; deleted by schema_exit.
typedef struct _schema_config {
  int db_enabled = 0;
  std::string path; // address of the schema database, empty when not configured
} schema_config;

// Stage 0 makes the lists that the profile fills, stage 1 loads, saves and registers. 0 or -1.
int schema_init(int stage);
// Frees everything, in any state. The listeners of schema_on_exit are called first.
void schema_exit();

// `release` is called by schema_exit while the context still lives: whoever keeps data trees, schema nodes or interned
// texts drops them there. Listeners are called once, the latest first.
void schema_on_exit(void (*release)());

// Profile parsing. A created record belongs to the caller until it is saved.
model_config_t *schema_create_modelcfg(const char *name, const char *revision);
int schema_enable_feature(model_config_t *mod_cfg, const char *feature);
int schema_attach_deviation(model_config_t *mod_cfg, const char *deviation);
int schema_save_modelcfg(model_config_t *mod_cfg);
void schema_free_modelcfg(model_config_t *mod_cfg);

// Appends a copy to "LIST-cpblt". 0 or -1.
int schema_add_capability(const char *capability_id);

// Loads the modules of "LIST-model" and brings the schema database in line with them. A module that fails is logged and
// left out; -1 only when the schema database cannot be used or the key of sensitive values is not ready.
int schema_load_yang();

// The daemon's libyang context; null before stage 1. Never freed while data trees or diff trees live.
ly_ctx *schema_ctx();

// Look-ups of loaded modules; empty when there is no such module.
std::string schema_get_module_ns(const std::string &module_name);
// The namespace text for "ietf-netconf" and "zentra-ymgrd", else the module's prefix.
std::string schema_get_module_prefix(const std::string &module_name);
std::string schema_get_module_name(const std::string &ns);
// The module that a token before ":" in a value names: by name first, then by prefix (of implemented modules); null
// when there is none.
const lys_module *schema_find_module(const char *token, size_t token_len);
// Whether an anyxml or anydata node has that name, anywhere; and whether the node at the data path, given without
// predicates, is one.
bool schema_has_any(std::string_view name);
bool schema_is_any(std::string_view data_path);
// The key leaf or leaf-list at the data path, given without predicates, when its values may be instance-identifiers;
// else null. Whether one has that name, anywhere.
const lysc_node *schema_find_path_key(std::string_view data_path);
bool schema_has_path_key(std::string_view name);
// "/MODULE:NAME" of a top-level data element; empty when its namespace is unknown (an element without namespace is
// looked for in all modules).
std::string schema_make_toppath(const std::string &ns, const std::string &name);
