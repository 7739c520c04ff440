#include "broker_fixture.h"

#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"

std::function<int(const offered_t &)> broker_fixture::on_offer;
std::function<int(const std::string &)> broker_fixture::on_status;
std::vector<offered_t> broker_fixture::offered;
std::vector<std::string> broker_fixture::asked;
int broker_fixture::ended = 0;
int broker_fixture::was_rollback = -1;
reply_error_ptr broker_fixture::errors;
int broker_fixture::status_ended = 0;
std::vector<int> broker_fixture::given_up;
std::vector<int> broker_fixture::kicked_off;
differ_node_t *broker_fixture::cfgr_tree = nullptr;
differ_node_t *broker_fixture::smooth_tree = nullptr;
int broker_fixture::smooth_starts_ended = 0;

plugin_inst_t make_plugin(int plugin_id)
{
  plugin_inst_t plugin;
  plugin.plugin_id = plugin_id;
  plugin.name = "p" + std::to_string(plugin_id);
  return plugin;
}

void broker_fixture::SetUp()
{
  log_open(LOG_TO_STDERR, LOG_LEVEL_WARN);
  ly_ctx *made = nullptr;
  ASSERT_EQ(LY_SUCCESS, ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY, &made));
  ctx_.reset(made);
  differ_tree_set_ctx(made);
  ASSERT_EQ(0, context_init(STAGE_RESOURCE));
  ASSERT_EQ(0, context_create_list("LIST-session", 1));
  ASSERT_EQ(0, broker_init(STAGE_RESOURCE));
  on_offer = [](const offered_t &) { return SUBPUB_CONTINUE; };
  on_status = [](const std::string &) { return SUBPUB_CONTINUE; };
  offered.clear();
  asked.clear();
  given_up.clear();
  kicked_off.clear();
  ended = status_ended = smooth_starts_ended = 0;
  cfgr_tree = smooth_tree = nullptr;
  was_rollback = -1;
  errors.reset();
  set_hooks();
}

void broker_fixture::set_hooks()
{
  broker_hooks_t hooks = {};
  hooks.publish_config = [](int plugin_id, const plugin_publish_info_t *info, int *status) {
    offered.push_back({plugin_id, info->config.oper_type, info->config.path});
    *status = on_offer(offered.back());
    return 0;
  };
  hooks.subscribe_status = [](int, const plugin_subscibe_info_t *info, int *status) {
    asked.push_back(info->path);
    *status = on_status(info->path);
    return 0;
  };
  hooks.publish_ended = [](int is_rollback, reply_error_ptr gathered) {
    ended++;
    was_rollback = is_rollback;
    errors = std::move(gathered);
    return 0;
  };
  hooks.status_ended = [] {
    status_ended++;
    return 0;
  };
  hooks.plugin_id = [](const plugin_inst_t *plugin) { return plugin->plugin_id; };
  hooks.plugin_name = [](int plugin_id) {
    static std::string name;
    name = "p" + std::to_string(plugin_id);
    return name.c_str();
  };
  hooks.given_up = [](int plugin_id) { given_up.push_back(plugin_id); };
  hooks.get_cfgr_differ = [](const differ_interest_fn &, differ_node_t **ret_tree) {
    *ret_tree = cfgr_tree;
    return cfgr_tree == nullptr ? -1 : 0;
  };
  hooks.free_cfgr_differ = [] {};
  hooks.smooth_differ = [] { return smooth_tree; };
  hooks.end_smooth_start = [] { smooth_starts_ended++; };
  hooks.kickoff = [](plugin_inst_t *plugin) { kicked_off.push_back(plugin->plugin_id); };
  broker_set_hooks(hooks);
}

void broker_fixture::TearDown()
{
  broker_exit();
  context_exit();
  errors.reset();
  for (differ_node_t *tree : trees_) {
    free_differ_tree(tree);
  }
}

differ_node_t *broker_fixture::keep(differ_node_t *tree)
{
  trees_.push_back(tree);
  return tree;
}

int broker_fixture::publish(int err_opt, differ_node_t *tree)
{
  return broker_publish_config(7, err_opt, keep(tree));
}

std::vector<std::string> broker_fixture::offers()
{
  std::vector<std::string> texts;
  for (const offered_t &offer : offered) {
    const char *mark = (offer.oper_type & DBDIFF_ROLLBACK) != 0 ? "~" : "";
    texts.push_back(mark + std::to_string(offer.plugin_id) + ":" + offer.path);
  }
  return texts;
}
