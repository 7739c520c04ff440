// The daemon as ymgrctl sees it: one session, opened with the first request, and the YANG modules that it serves.
// Functions that return an exit code (ctl_output.h) have told the fault themselves when it is not CTL_OK.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <libyang/libyang.h>

#include "client/client.h"
#include "ctl/ctl_output.h"

// A commit may take minutes while plugins work. A daemon that died is noticed by the end of the connection.
constexpr ymgr_duration CTL_LONG_WORK = std::chrono::hours(24 * 365);

typedef struct _ctl_module {
  std::string name;
  std::string revision; // empty when it has none
  std::string name_space;
  std::vector<std::string> features; // that are enabled
  std::vector<std::string> deviations;
} ctl_module_t;

class ctl_device {
public:
  ctl_device(std::string run_dir, ctl_output_t output);
  ~ctl_device();
  ctl_device(const ctl_device &) = delete;
  ctl_device &operator=(const ctl_device &) = delete;

  ctl_output_t &output() { return output_; }
  const std::string &run_dir() const { return run_dir_; }

  // One operation, the content of <rpc>. The whole <rpc-reply> in `*ret_reply` (may be null). Connects when there is no
  // session. An <rpc-error> is told, in one line for each, and is CTL_REFUSED.
  int rpc(std::string_view operation, std::string *ret_reply = nullptr);
  // The same without telling an <rpc-error>: for whoever goes on differently.
  int try_rpc(std::string_view operation, std::string *ret_reply = nullptr);
  // The connection, opened when there was none; null when it cannot be (told). Borrowed.
  ymgr_client_t *client();
  int session_id() const { return session_id_; } // 0 while there is none
  void disconnect();
  // Whether more commands follow on the session, as in the shell.
  bool goes_on() const { return goes_on_; }
  void set_goes_on(bool goes_on) { goes_on_ = goes_on; }

  // All modules, with features and deviations as the daemon has them. Null when the modules cannot be had (told).
  // Loaded once; lives as long as the device.
  const ly_ctx *schema();
  const std::vector<ctl_module_t> &modules(); // empty when they cannot be had (told)

private:
  int connect();
  int exchange(std::string_view operation, std::string *ret_reply);
  int find_modules_directory(std::string *ret_directory);

  std::string run_dir_;
  ctl_output_t output_;
  ymgr_client_ptr client_;
  int session_id_ = 0;
  bool goes_on_ = false;
  std::vector<ctl_module_t> modules_;
  std::unique_ptr<ly_ctx, void (*)(ly_ctx *)> schema_{nullptr, ly_ctx_destroy};
};
