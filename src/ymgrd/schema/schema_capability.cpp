#include <algorithm>
#include <cstring>

#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/schema/schema_internal.h"

namespace {

std::string join(const std::vector<std::string> &texts)
{
  std::string joined;
  for (const std::string &text : texts) {
    joined += joined.empty() ? text : "," + text;
  }
  return joined;
}

void append_new(std::vector<std::string> *names, const std::string &name)
{
  if (std::find(names->begin(), names->end(), name) == names->end()) {
    names->push_back(name);
  }
}

} // namespace

std::vector<std::string> schema_expand_features(const lys_module *module, const std::vector<std::string> &configured)
{
  std::vector<std::string> names;
  for (const std::string &name : configured) {
    if (name != "*") {
      append_new(&names, name);
      continue;
    }
    uint32_t index = 0;
    const lysp_feature *feature = nullptr;
    while ((feature = lysp_feature_next(feature, module->parsed, &index)) != nullptr) {
      append_new(&names, feature->name);
    }
  }
  return names;
}

int schema_add_capability(const char *capability_id)
{
  c_string_ptr copy(strdup(capability_id));
  if (copy == nullptr) {
    log_error("Duplicate string %.512s failed.", capability_id);
    return -1;
  }
  if (context_save_list_entry("LIST-cpblt", copy.get()) < 0) {
    return -1;
  }
  (void)copy.release(); // the list owns it now
  return 0;
}

int schema_add_yang_to_capability(const lys_module *module)
{
  std::string capability =
      std::string(module->ns) + "?revision=" + schema_module_revision(module) + "&module=" + module->name;
  if (const model_config_t *mod_cfg = schema_find_modelcfg(module->name)) {
    std::vector<std::string> features = schema_expand_features(module, mod_cfg->feature);
    if (!features.empty()) {
      capability += "&feature=" + join(features);
    }
    if (!mod_cfg->deviation.empty()) {
      capability += "&deviations=" + join(mod_cfg->deviation);
    }
  }
  if (schema_add_capability(capability.c_str()) != 0) {
    log_warn("Add capability <%.512s> failed.", capability.c_str());
    return -1;
  }
  return 0;
}
