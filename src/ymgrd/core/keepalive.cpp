#include "ymgrd/core/keepalive.h"

#include "ymgr/keepalive.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"

void ymgrd_send_keepalive_msg(int warn_secs, int kill_secs)
{
  const auto *path = static_cast<const char *>(context_get_option("OPT-keepalive-sopath"));
  if (path == nullptr) {
    return;
  }
  // Loaded on every call, so that a product can replace its library under a running daemon.
  shared_object_ptr library(dlopen(path, RTLD_NOW));
  if (library == nullptr) {
    log_error("Load dynamic library <%.512s> failed(%.512s).", path, dlerror());
    return;
  }
  (void)dlerror(); // a null symbol is told from a missing one only by the error text that follows
  auto *keep_alive = reinterpret_cast<decltype(&pdt_keep_alive)>(dlsym(library.get(), "pdt_keep_alive"));
  if (keep_alive == nullptr) {
    const char *reason = dlerror();
    if (reason != nullptr) {
      log_error("Load symbol <pdt_keep_alive> from %.512s.so failed(%.512s).", path, reason);
    } else {
      log_error("Find symbol <pdt_keep_alive> in %.512s.so failed.", path);
    }
    return;
  }
  if (keep_alive(warn_secs, kill_secs) != 0) {
    log_error("Try to execute keep-alive operate failed.");
  }
}
