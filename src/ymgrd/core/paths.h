// Where the daemon's files are: what is found by default, and the paths in force once the profile was read.
#pragma once

#include <string>

#include "libconf/default_paths.h"

constexpr const char DEFAULT_PROFILE_PATH[] = YMGR_CONFIG_DIR "/ymgrd.conf";
constexpr const char DEFAULT_PLUGINS_DIR[] = YMGR_CONFIG_DIR "/plugins";
constexpr const char DEFAULT_KEY_TABLE_PATH[] = YMGR_CONFIG_DIR "/table2.key";
constexpr const char DEFAULT_INSTANCE_PATH[] = "/var/tmp/ymgrd.pid";
constexpr const char DEFAULT_REDIS_SOCKET[] = "/tmp/redis.sock";
// The device's offset from universal time, for a daemon without TZ in its environment.
constexpr const char TIME_ZONE_PATH[] = "/tmp/pdt_lsw_timezone.txt";

// The profile's modules-dir ("OPT-modules-dir"), else "modules" beside the profile. Valid until the option changes.
const char *ymgrd_modules_dir();
// The profile's plugins-dir ("OPT-plugins-dir"), else "plugins" beside the profile.
const char *ymgrd_plugins_dir();

// The profile file in use, and the directory that holds it; set once by the command line.
void ymgrd_set_profile_path(const std::string &path);
const std::string &ymgrd_profile_path();
const std::string &ymgrd_config_dir();
// The key table file: "table2.key" beside the profile.
const std::string &ymgrd_key_table_path();

// The absolute path that the address of a unix socket names: what stands behind the address's first "/". "unix:/a/b",
// "unix://a/b" and "unix:///a/b" all name "/a/b".
std::string ymgrd_socket_path(const std::string &address);
