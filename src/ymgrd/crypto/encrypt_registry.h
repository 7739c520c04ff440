// Which leaves are sensitive: the records of the profile's "sensitive-key", kept in "LIST-sencitive". A leaf is named
// by its path from the top, each name with its module's name and ":" before it where the module changes, as in
// "/ex-sys:system/user/password" or "/ex-sys:system/ex-ext:ntp/key"; without list keys, choices and cases.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

typedef struct _sensitive_step {
  std::string module;
  std::string name;
} sensitive_step_t;

typedef struct _sensitive_config {
  std::string module; // of the top node
  std::string prefix; // of that module; empty until it is loaded, like the namespace
  std::string ns;
  std::string path;
  std::vector<sensitive_step_t> steps; // the path's
} sensitive_config_t;

// Null when the path has not that form (logged). Owned by the caller until it is saved.
sensitive_config_t *encrypt_create_sensitives(const char *path);
void encrypt_free_sensitive(sensitive_config_t *cfg);
// 0: the list owns the record. A path that is there already is -1 (logged), like a list that takes no more.
int encrypt_save_sensitive(sensitive_config_t *cfg);
bool encrypt_has_sensitive();
std::vector<const sensitive_config_t *> encrypt_sensitives(); // borrowed

// A module was loaded: completes its records, and makes its namespace known to encrypt_module_ns. 0 or -1.
int encrypt_add_ns_prefix(const char *module, const char *ns, const char *prefix);
std::string_view encrypt_module_ns(std::string_view module); // empty when unknown
// A module is not to be had: its records go. How many there were.
size_t encrypt_delete_sensitive(const char *module);

// The record of a path in the form above; null when that leaf is not sensitive.
const sensitive_config_t *encrypt_find_sensitive(std::string_view path);

// Whether any sensitive leaf has that name, wherever it stands.
bool encrypt_is_sensitive_name(std::string_view name);

// All leaves as a tree of steps, for whoever walks data beside it. `leaf` is set where a path ends.
typedef struct _sensitive_node {
  std::string module;
  const sensitive_config_t *leaf = nullptr;
  std::multimap<std::string, struct _sensitive_node, std::less<>> children; // by name
} sensitive_node_t;
const sensitive_node_t &encrypt_sensitive_tree();
