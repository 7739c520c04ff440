// A broker whose deliveries end in a script of the test instead of a plugin layer.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "unit/differ_tree/differ_builder.h"
#include "ymgrd/broker/broker_plugin.h"
#include "ymgrd/core/handles.h"

plugin_inst_t make_plugin(int plugin_id); // called "pID"

typedef struct _offered {
  int plugin_id;
  int oper_type;
  std::string path;
} offered_t;

class broker_fixture : public testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  // Both take the tree over.
  differ_node_t *keep(differ_node_t *tree);
  int publish(int err_opt, differ_node_t *tree);

  // "PLUGIN:PATH" of all offers, "~" before those that take back.
  static std::vector<std::string> offers();

  // Answers an offer with SUBPUB_...; SUBPUB_CONTINUE unless a test says otherwise.
  static std::function<int(const offered_t &)> on_offer;
  static std::function<int(const std::string &)> on_status;
  static std::vector<offered_t> offered;
  static std::vector<std::string> asked; // of status publishers
  static int ended;                      // publications
  static int was_rollback;
  static reply_error_ptr errors;
  static int status_ended;
  static std::vector<int> given_up; // plugins
  static std::vector<int> kicked_off;
  static differ_node_t *cfgr_tree; // null: it can not be read
  static differ_node_t *smooth_tree;
  static int smooth_starts_ended;

private:
  static void set_hooks();

  ly_ctx_ptr ctx_;
  std::vector<differ_node_t *> trees_;
};
