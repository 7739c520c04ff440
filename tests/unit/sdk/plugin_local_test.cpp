// A local plugin under a daemon that the test plays: which callback a call reaches, and what comes back.
#include <cstdlib>
#include <cstring>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "ymgr/plugin.h"

extern "C" {
std::remove_pointer_t<ymgr_local_callback_fn> ymgr_local_callback;
std::remove_pointer_t<ymgr_local_uninstall_fn> ymgr_local_uninstall;
std::remove_pointer_t<ymgr_local_config_fn> ymgr_local_config;
std::remove_pointer_t<ymgr_local_rpc_fn> ymgr_local_rpc;
}

namespace {

std::string told; // to the daemon

int on_change(ymgr_plugin_t *plugin, const ymgr_change_t *change, void *user)
{
  char *value = nullptr;
  if (ymgr_plugin_pull_value(plugin, "/m:top/leaf", YMGR_OLD, &value) != 0) {
    return -1;
  }
  std::string text = static_cast<const char *>(user) + std::string(" ") + value;
  free(value);
  return change->session_id == 5 ? ymgr_plugin_reject(plugin, 9, text.c_str()) : 1;
}

int on_rpc(ymgr_plugin_t *, int, const char *, char **ret_output, void *)
{
  *ret_output = strdup("<out xmlns=\"urn:m\"/>");
  return 0;
}

int setup(ymgr_plugin_t *plugin)
{
  // A choice may have the name of a node in it; and "how" may be a container as well.
  for (const char *path : {"/m:top/box", "/m:top/how/boxes/lid", "/m:top/x:way/way/way", "/m:top/boxes"}) {
    EXPECT_EQ(ymgr_plugin_on_config(plugin, path, 10, on_change, const_cast<char *>(path)), 0);
  }
  EXPECT_EQ(ymgr_plugin_on_config(plugin, "/m:top", 20, on_change, const_cast<char *>("top")), 0);
  EXPECT_EQ(ymgr_plugin_on_config(plugin, "/m:top/box/hat", 10, on_change, nullptr), -1) << "not to be told from box";
  return ymgr_plugin_on_rpc(plugin, "/m:run", on_rpc, nullptr);
}

} // namespace

YMGR_PLUGIN("local", setup)

TEST(plugin_local, calls_reach_the_callback_that_registered_for_them)
{
  ymgrd_plugin_callback_t daemon = {};
  daemon.conf_plugin_pull = [](const char *, int old, char **ret_xml) {
    *ret_xml = strdup(old == YMGR_OLD ? "<top xmlns=\"urn:m\"><leaf>old</leaf></top>" : "");
    return 0;
  };
  daemon.conf_plugin_error = [](int code, const char *message) {
    told = std::to_string(code) + " " + message;
    return 0;
  };
  daemon.conf_plugin_reply = [](int, const char *output) {
    told = output;
    return 0;
  };
  ASSERT_EQ(ymgr_local_callback(&daemon), 0);
  const struct {
    int priority;
    const char *path;
    const char *told;
  } CALLS[] = {
      {10, "/m:top/box", "9 /m:top/box old"},
      {10, "/m:top/box[key=\"/m:top/boxes\"]/side", "9 /m:top/box old"},
      {10, "/m:top/boxes/lid", "9 /m:top/boxes old"},
      {10, "/m:other", "-1 The plugin has no callback for this."},
      {10, "/m:top/x:way", "9 /m:top/x:way/way/way old"},
      {20, "/m:top/box", "9 top old"},
  };
  for (const auto &call : CALLS) {
    told.clear();
    EXPECT_EQ(ymgr_local_config(5, CONFIG_OP_MOD, 0, call.priority, call.path), -1);
    EXPECT_EQ(told, call.told) << call.path;
  }
  EXPECT_EQ(ymgr_local_rpc(5, "<run xmlns=\"urn:m\"/>"), 0);
  EXPECT_EQ(told, "<out xmlns=\"urn:m\"/>");
  ymgr_local_uninstall();
  EXPECT_EQ(ymgr_local_config(5, CONFIG_OP_MOD, 0, 10, "/m:top/box"), -1);
}
