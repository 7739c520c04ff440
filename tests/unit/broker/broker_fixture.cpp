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

void broker_fixture::SetUp()
{
  log_open(LOG_TO_STDERR, LOG_LEVEL_WARN);
  ly_ctx *made = nullptr;
  ASSERT_EQ(LY_SUCCESS, ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY, &made));
  ctx_.reset(made);
  differ_tree_set_ctx(made);
  ASSERT_EQ(0, context_init(STAGE_RESOURCE));
  ASSERT_EQ(0, broker_init(STAGE_RESOURCE));
  on_offer = [](const offered_t &) { return SUBPUB_CONTINUE; };
  on_status = [](const std::string &) { return SUBPUB_CONTINUE; };
  offered.clear();
  asked.clear();
  ended = status_ended = 0;
  was_rollback = -1;
  errors.reset();

  broker_hooks_t hooks = {};
  hooks.publish_config = [](int plugin_id, const plugin_publish_info_t *info, int *status) {
    offered.push_back(
        {plugin_id, info->config.oper_type, info->config.priority, info->config.more_flag, info->config.path});
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
  hooks.plugin_id = [](const plugin_inst_t *plugin) { return plugin->id; };
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

int broker_fixture::publish(int err_opt, differ_node_t *tree)
{
  trees_.push_back(tree);
  return broker_publish_config(7, err_opt, tree);
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
