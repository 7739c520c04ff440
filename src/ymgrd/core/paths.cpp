#include "ymgrd/core/paths.h"

#include "ymgrd/core/context.h"

namespace {

std::string profile_path = DEFAULT_PROFILE_PATH;
std::string config_dir = DEFAULT_CONFIG_DIR;
std::string key_table_path = DEFAULT_KEY_TABLE_PATH;
std::string modules_dir = DEFAULT_MODULES_DIR; // where the profile names none
std::string plugins_dir = DEFAULT_PLUGINS_DIR; // likewise

const char *text_option(const char *opt_name, const std::string &fallback)
{
  const void *text = context_get_option(opt_name);
  return text == nullptr ? fallback.c_str() : static_cast<const char *>(text);
}

std::string directory_of(const std::string &path)
{
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

const char *ymgrd_modules_dir()
{
  return text_option("OPT-modules-dir", modules_dir);
}

const char *ymgrd_plugins_dir()
{
  return text_option("OPT-plugins-dir", plugins_dir);
}

void ymgrd_set_profile_path(const std::string &path)
{
  profile_path = path;
  config_dir = directory_of(path);
  std::string parent = config_dir == "/" ? "" : config_dir;
  key_table_path = parent + "/table2.key";
  modules_dir = parent + "/modules";
  plugins_dir = parent + "/plugins";
}

const std::string &ymgrd_profile_path()
{
  return profile_path;
}

const std::string &ymgrd_config_dir()
{
  return config_dir;
}

const std::string &ymgrd_key_table_path()
{
  return key_table_path;
}

std::string ymgrd_socket_path(const std::string &address)
{
  size_t begin = address.find_first_not_of('/', address.find('/'));
  return begin == std::string::npos ? "/" : "/" + address.substr(begin);
}
