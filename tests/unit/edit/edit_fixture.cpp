#include "unit/edit/edit_fixture.h"

#include <filesystem>

#include "ymgrd/broker/broker.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore.h"
#include "ymgrd/datastore/edit_config.h"
#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/schema/schema.h"

namespace {

const char sample_module[] = R"(
module sample {
  yang-version 1.1; namespace "urn:sample"; prefix s; revision 2026-01-01;
  container top {
    leaf plain { type string; }
    leaf number { type uint8; must ". < 2 or ../plain = '0'"; }
    leaf bound { when "../number > 0"; type string; } leaf-list hint { type string; default "h"; }
    leaf preset { type string; default "0"; } anyxml markup;
    container inner { leaf preset { type string; default "1"; } leaf plain { type string; }
      container deep { leaf-list value { type string; ordered-by user; } } }
    container there { presence "Says something by itself."; leaf preset { type string; default "2"; }
      leaf-list value { type string; } }
    choice way { default right;
      case left { leaf left-leaf { type string; } container left-box { leaf preset { type string; default "0"; } }
        choice side { leaf near { type string; } case far { leaf-list far { type string; ordered-by user; } } } }
      case right { leaf right-preset { type string; default "1"; } list right-list { key k; leaf k { type string; } } }
      list other { key k; ordered-by user; leaf k { type string; } leaf v { type string; } } }
    leaf-list tag { type string; }
    leaf-list server { type string; ordered-by user; }
    list plain-list { key k; leaf k { type string; } leaf preset { type string; default "2"; }
      list rule { key k; ordered-by user; leaf k { type string; } leaf v { type string; }
        leaf-list server { type string; ordered-by user; } } }
    list rule { key "k n"; ordered-by user; leaf k { type string; } leaf n { type string; }
      leaf v { type string; } container box { leaf preset { type string; default "0"; } }
      list rule { key k; ordered-by user; leaf k { type string; } leaf v { type string; } }
      list plain-list { key k; leaf k { type string; } leaf v { type string; } } }
  }
  list top-rule { key k; ordered-by user; leaf k { type string; } leaf v { type string; }
    leaf-list server { type string; ordered-by user; } }
})";

constexpr int (*init_in_order[])(int stage) = {context_init, broker_init, database_init, schema_init, datastore_init};
constexpr void (*exit_in_order[])() = {broker_exit, schema_exit, datastore_exit, database_exit, context_exit};

void init_components(int stage)
{
  for (auto init : init_in_order) {
    ASSERT_EQ(0, init(stage));
  }
}

lyxml_ptr request_of(const random_edit_t &edit)
{
  const std::string base = NETCONF_BASE_NS_1_0;
  return lyxml_parse_mem("<rpc xmlns='" + base + "' xmlns:nc='" + base +
                         "' xmlns:yang='urn:ietf:params:xml:ns:yang:1'><edit-config><config>" + edit.content +
                         "</config></edit-config></rpc>");
}

} // namespace

void edit_fixture::SetUp()
{
  log_open(LOG_TO_STDERR, LOG_LEVEL_WARN);
  ly_log_options(LY_LOSTORE);
  std::string modules_dir = dir / "modules";
  std::filesystem::copy(YMGR_MODULES_DIR, modules_dir);
  support::write_file(modules_dir + "/sample.yang", sample_module);
  std::vector<std::string> names = {"ietf-netconf", "sample"};
  for (const auto &[name, text] : more_modules) {
    names.push_back(name);
    if (!text.empty()) {
      support::write_file(modules_dir + "/" + name + ".yang", text);
    }
  }
  init_components(STAGE_RESOURCE);
  const unsigned char key[16] = {};
  std::string address = "unix://" + redis.socket_path();
  database_save_conf("default", 0, key, sizeof(key), address.c_str(), "1.0");
  context_save_option("OPT-modules-dir", modules_dir.c_str(), static_cast<int>(modules_dir.size()) + 1);
  context_save_int("OPT-smooth-start", 0);
  context_save_record("OPT-schema", new schema_config{1, address});
  for (const std::string &name : names) {
    ASSERT_EQ(0, schema_save_modelcfg(schema_create_modelcfg(name.c_str(), "")));
  }
  init_components(STAGE_CONFIG);
}

void edit_fixture::TearDown()
{
  for (auto exit_component : exit_in_order) {
    exit_component();
  }
}

edit_outcome_t edit_fixture::apply(int datastore, const random_edit_t &edit, edit_end end)
{
  lyxml_ptr request = request_of(edit);
  ds_config_t config;
  reply_error_ptr error;
  ds_session_db db;
  edit_outcome_t outcome;
  EXPECT_EQ(0, ds_parse_rpc_config(request.get(), NC_OP_EDITCONFIG, &config, &error)) << edit.content;
  EXPECT_EQ(0, db.open(datastore));
  EXPECT_EQ(0, ds_lock_all_data(db.hdb(), DB_LOCK_WRITE, db.locks()));
  EXPECT_EQ(0, db.start());
  edit_request_t task;
  task.hdb = db.hdb();
  task.tflag = 1;
  task.default_operation = edit.default_operation;
  task.config = config.tree.get();
  task.changes = &outcome.changes;
  bool is_written = false;
  outcome.is_accepted = edit_operations(task, &outcome.data, &outcome.tree, &is_written, &error) == 0;
  if (outcome.is_accepted && end == edit_end::committed) {
    EXPECT_EQ(0, db.commit());
  }
  return outcome;
}

lyd_tree_ptr edit_fixture::stored(int datastore)
{
  ds_session_db db;
  lyd_tree_ptr data;
  EXPECT_EQ(0, db.open(datastore));
  EXPECT_EQ(0, ds_db_get_data_from_top(db.hdb(), 0, "/", &data));
  return data;
}

std::string edit_fixture::text_of(const lyd_tree_ptr &data)
{
  char *text = nullptr;
  EXPECT_EQ(LY_SUCCESS, lyd_print_mem(&text, data.get(), LYD_XML,
                                      LYD_PRINT_WITHSIBLINGS | LYD_PRINT_WD_ALL | LYD_PRINT_KEEPEMPTYCONT));
  c_string_ptr owner(text);
  return text == nullptr ? "" : text;
}
