#include "ymgrd/core/profile.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "libconf/safe_string.h"
#include "ymgrd/broker/plugin.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt_registry.h"
#include "ymgrd/database/database.h"
#include "ymgrd/database/database_config.h"
#include "ymgrd/notify/notifier.h"
#include "ymgrd/schema/schema.h"

namespace {

enum json_type {
  JSON_FALSE = 0,
  JSON_TRUE = 1,
  JSON_NULL = 2,
  JSON_NUMBER = 3,
  JSON_STRING = 4,
  JSON_ARRAY = 5,
  JSON_OBJECT = 6,
};

json_type json_type_of(const cJSON *item)
{
  // Null is what remains.
  static constexpr struct {
    cJSON_bool (*is_type)(const cJSON *item);
    json_type type;
  } tests[] = {
      {cJSON_IsFalse, JSON_FALSE},   {cJSON_IsTrue, JSON_TRUE},   {cJSON_IsNumber, JSON_NUMBER},
      {cJSON_IsString, JSON_STRING}, {cJSON_IsArray, JSON_ARRAY}, {cJSON_IsObject, JSON_OBJECT},
  };
  for (const auto &test : tests) {
    if (test.is_type(item)) {
      return test.type;
    }
  }
  return JSON_NULL;
}

bool is_member(const cJSON *item, const char *name, json_type type)
{
  return item->string != nullptr && strcmp(item->string, name) == 0 && json_type_of(item) == type;
}

// The last member of that name and type wins, as it does at the top of the profile; null when there is none.
const cJSON *find_member(const cJSON *object, const char *name, json_type type)
{
  const cJSON *found = nullptr;
  for (const cJSON *item = object->child; item != nullptr; item = item->next) {
    if (is_member(item, name, type)) {
      found = item;
    }
  }
  return found;
}

// Null for a null item.
const char *text_of(const cJSON *item)
{
  return item == nullptr ? nullptr : item->valuestring;
}

// --- Scalar members.

typedef struct _config_param {
  const char *name;
  unsigned int type;
  const char *opt_name;
} config_param_t;

const config_param_t g_tbl_config_param[] = {
    {"session-spec", JSON_NUMBER, "OPT-session-spec"},
    {"plugin-spec", JSON_NUMBER, "OPT-plugin-spec"},
    {"modules-dir", JSON_STRING, "OPT-modules-dir"},
    {"plugins-dir", JSON_STRING, "OPT-plugins-dir"},
    {"encrypt_key", JSON_STRING, "OPT-encrypt-key"},
    {"daemonize", JSON_FALSE, "OPT-daemonize"},
    {"daemonize", JSON_TRUE, "OPT-daemonize"},
    {"working-dir", JSON_STRING, "OPT-working-dir"},
    {"max-message-size", JSON_NUMBER, "OPT-max-message-size"},
};

void save_param(const config_param_t &param, const cJSON *item)
{
  int result = 0;
  switch (param.type) {
  case JSON_NUMBER:
    result = context_save_int(param.opt_name, item->valueint);
    break;
  case JSON_STRING:
    result = context_save_option(param.opt_name, item->valuestring, static_cast<int>(strlen(item->valuestring) + 1));
    break;
  default:
    result = context_save_int(param.opt_name, param.type == JSON_TRUE ? 1 : 0);
    break;
  }
  if (result != 0) {
    log_error("Save %s option to context failed.", param.opt_name);
  }
}

// --- "database"

// The bytes of the working key: cleared when the record goes.
typedef struct _working_key {
  unsigned char bytes[WORKING_KEY_LENGTH] = {};

  _working_key() = default;
  _working_key(const _working_key &) = delete;
  _working_key &operator=(const _working_key &) = delete;
  ~_working_key() { memset_s(bytes, sizeof(bytes), 0, sizeof(bytes)); }
} working_key_t;

void ymgrd_parse_database_working_key(const cJSON *items, unsigned char *keys, int len)
{
  int count = 0;
  for (cJSON *item = items->child; item != nullptr; item = item->next) {
    if (count == len || !cJSON_IsNumber(item)) {
      log_error("The length of working-key is more than %d.", len);
      return;
    }
    keys[count++] = static_cast<unsigned char>(item->valueint & 0xff);
    cJSON_SetNumberHelper(item, 0); // the tree is freed without being cleared
  }
}

void ymgrd_parse_database_driver(const cJSON *driver, const char **ret_path, const char **ret_api_version)
{
  *ret_path = text_of(find_member(driver, "path", JSON_STRING));
  *ret_api_version = text_of(find_member(driver, "api-version", JSON_STRING));
}

void ymgrd_parse_database(const cJSON *database)
{
  const char *driver_path = nullptr;
  const char *api_version = nullptr;
  int validate_level = -1;
  working_key_t key;
  if (const cJSON *level = find_member(database, "validate-level", JSON_NUMBER)) {
    validate_level = level->valueint;
  }
  if (const cJSON *items = find_member(database, "working-key", JSON_ARRAY)) {
    ymgrd_parse_database_working_key(items, key.bytes, WORKING_KEY_LENGTH);
  }
  if (const cJSON *driver = find_member(database, "driver", JSON_OBJECT)) {
    ymgrd_parse_database_driver(driver, &driver_path, &api_version);
  }
  database_save_conf(text_of(find_member(database, "type", JSON_STRING)), validate_level, key.bytes, WORKING_KEY_LENGTH,
                     driver_path, api_version);
}

// --- "schema"

void ymgrd_parse_schema(const cJSON *schema)
{
  auto config = std::make_unique<schema_config>();
  config->db_enabled = find_member(schema, "db-enabled", JSON_TRUE) != nullptr ? 1 : 0;
  if (const char *path = text_of(find_member(schema, "path", JSON_STRING))) {
    config->path = path;
  }
  std::unique_ptr<schema_config> replaced(context_get_record<schema_config>("OPT-schema"));
  if (context_save_record("OPT-schema", config.get()) != 0) {
    log_error("Save %s option to context failed.", "OPT-schema");
    (void)replaced.release(); // still the store's
    return;
  }
  (void)config.release(); // the schema component frees it
}

// --- "capabilities"

void ymgrd_parse_cpblts(const cJSON *capabilities)
{
  for (const cJSON *item = capabilities->child; item != nullptr; item = item->next) {
    if (!cJSON_IsObject(item)) {
      continue;
    }
    const char *capability = text_of(find_member(item, "capid", JSON_STRING));
    bool enabled = find_member(item, "enable", JSON_TRUE) != nullptr;
    if (capability != nullptr && enabled && schema_add_capability(capability) != 0) {
      log_warn("Add capability <%.512s> failed.", capability);
    }
  }
}

// --- "modules"

typedef struct _module_header {
  const cJSON *name = nullptr;
  const cJSON *revision = nullptr;
  const cJSON *feature = nullptr;
  const cJSON *deviation = nullptr;
} module_header_t;

module_header_t ymgrd_parse_module_header(const cJSON *module)
{
  module_header_t header;
  header.name = find_member(module, "name", JSON_STRING);
  header.revision = find_member(module, "revision", JSON_STRING);
  header.feature = find_member(module, "feature", JSON_ARRAY);
  header.deviation = find_member(module, "deviation", JSON_ARRAY);
  return header;
}

// Adds each text of the array (which may be null) to the module; `add` logs its failures.
void add_texts(model_config_t *module, const cJSON *texts, int (*add)(model_config_t *, const char *))
{
  if (texts == nullptr) {
    return;
  }
  for (const cJSON *item = texts->child; item != nullptr; item = item->next) {
    if (cJSON_IsString(item)) {
      (void)add(module, item->valuestring); // the module is used without it
    }
  }
}

void parse_module(const cJSON *item)
{
  module_header_t header = ymgrd_parse_module_header(item);
  if (header.name == nullptr || header.revision == nullptr) {
    log_warn("Invalid yang-module(name=%p, revision=%p).", static_cast<const void *>(header.name),
             static_cast<const void *>(header.revision));
    return;
  }
  const char *name = header.name->valuestring;
  model_config_t *module = schema_create_modelcfg(name, header.revision->valuestring);
  if (module == nullptr) {
    log_warn("Create yang-module <%.512s> failed.", name);
    return;
  }
  add_texts(module, header.feature, schema_enable_feature);
  add_texts(module, header.deviation, schema_attach_deviation);
  if (schema_save_modelcfg(module) != 0) {
    log_warn("Save yang-module <%.512s> failed.", name);
    schema_free_modelcfg(module);
  }
}

// In the profile's order, which is the order of loading.
void ymgrd_parse_modules(const cJSON *modules)
{
  for (const cJSON *item = modules->child; item != nullptr; item = item->next) {
    if (cJSON_IsObject(item)) {
      parse_module(item);
    }
  }
}

// --- "plugins"

void parse_plugin(const cJSON *item)
{
  const cJSON *name = find_member(item, "name", JSON_STRING);
  const cJSON *so_path = find_member(item, "so-path", JSON_STRING);
  if (name == nullptr || so_path == nullptr) {
    log_warn("Invalid local-plugin(name=%p), please check your config file", static_cast<const void *>(name));
    return;
  }
  if (plugin_create_local_inst(name->valuestring, so_path->valuestring) != 0) {
    log_warn("Create local-plugin <name=%.512s> failed.", name->valuestring);
  }
}

void ymgrd_parse_plugins(const cJSON *plugins)
{
  for (const cJSON *item = plugins->child; item != nullptr; item = item->next) {
    if (cJSON_IsObject(item)) {
      parse_plugin(item);
    }
  }
}

// --- "sensitive-key"

void ymgrd_parse_sencitives(const cJSON *sensitives)
{
  for (const cJSON *item = sensitives->child; item != nullptr; item = item->next) {
    if (!cJSON_IsString(item)) {
      continue;
    }
    sensitive_config_t *cfg = encrypt_create_sensitives(item->valuestring);
    if (cfg == nullptr) {
      log_warn("Create sensitive key failed.");
    } else if (encrypt_save_sensitive(cfg) != 0) {
      log_warn("save sensitive <name=%.512s> failed.", item->valuestring);
      encrypt_free_sensitive(cfg);
    }
  }
}

// --- The whole profile.

typedef void (*ymgrd_parse_func)(const cJSON *item);

typedef struct _config_handle {
  const char *name;
  unsigned int type;
  ymgrd_parse_func func;
} config_handle_t;

const config_handle_t g_tbl_config_content[] = {
    {"database", JSON_OBJECT, ymgrd_parse_database},
    {"schema", JSON_OBJECT, ymgrd_parse_schema},
    {"notification", JSON_OBJECT, notifier_parse_notification},
    {"capabilities", JSON_ARRAY, ymgrd_parse_cpblts},
    {"modules", JSON_ARRAY, ymgrd_parse_modules},
    {"plugins", JSON_ARRAY, ymgrd_parse_plugins},
    {"sensitive-key", JSON_ARRAY, ymgrd_parse_sencitives},
};

// The first row for the member's name and type; null when there is none.
template <class row_t, size_t count>
const row_t *find_row(const row_t (&table)[count], const cJSON *item)
{
  for (const row_t &row : table) {
    if (is_member(item, row.name, static_cast<json_type>(row.type))) {
      return &row;
    }
  }
  return nullptr;
}

// Scalars first: the sections may need them (plugins-dir), wherever they stand.
void parse_members(const cJSON *root)
{
  for (const cJSON *item = root->child; item != nullptr; item = item->next) {
    if (const config_param_t *param = find_row(g_tbl_config_param, item)) {
      save_param(*param, item);
    }
  }
  for (const cJSON *item = root->child; item != nullptr; item = item->next) {
    if (const config_handle_t *handle = find_row(g_tbl_config_content, item)) {
      handle->func(item);
    }
  }
}

// Only the place: the text there may be a byte of the working key.
void log_parse_error(const char *data, size_t length)
{
  const char *place = cJSON_GetErrorPtr();
  if (place < data || place > data + length) {
    log_error("Json parse error(out of memory).");
    return;
  }
  const char *line_start = data;
  int line = 1;
  for (const char *c = data; c < place; c++) {
    if (*c == '\n') {
      line_start = c + 1;
      line++;
    }
  }
  log_error("Json parse error(line %d, column %d).", line, static_cast<int>(place - line_start) + 1);
}

// A file mapped read-only into memory.
class mapped_file {
public:
  mapped_file(int fd, size_t length) : length_(length), data_(mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0)) {}
  mapped_file(const mapped_file &) = delete;
  mapped_file &operator=(const mapped_file &) = delete;
  ~mapped_file()
  {
    if (is_mapped()) {
      munmap(data_, length_);
    }
  }
  bool is_mapped() const { return data_ != MAP_FAILED; }
  const char *data() const { return static_cast<const char *>(data_); }
  size_t length() const { return length_; }

private:
  size_t length_;
  void *data_;
};

} // namespace

int ymgrd_load_config(const char *path)
{
  unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    log_error("Open file default-ymgrd-profile failed(%s).", strerror(errno));
    return -1;
  }
  struct stat status = {};
  if (fstat(fd.get(), &status) != 0 || status.st_size <= 0) {
    log_error("Ymgrd's profile is invalid.");
    return -1;
  }
  mapped_file file(fd.get(), static_cast<size_t>(status.st_size));
  if (!file.is_mapped()) {
    log_error("Mapping file default-ymgrd-profile to memory failed(%s).", strerror(errno));
    return -1;
  }
  int result = ymgrd_parse_config(file.data(), file.length());
  if (result != 0) {
    log_error("Read ymgrd's configuration file  failed.");
  }
  return result;
}

int ymgrd_parse_config(const char *data, size_t length)
{
  cjson_ptr root(cJSON_ParseWithLength(data, length));
  if (root == nullptr) {
    log_parse_error(data, length);
    return -1;
  }
  parse_members(root.get());
  return 0;
}
