// Configuration restore and smooth start: a plugin that has just come is offered the configuration (or what an
// interrupted publication may have left half-done), before it takes part in publications. Both are publications of
// their own kind, which walk over one plugin after the other.
#include <algorithm>

#include "ymgr/plugin.h"
#include "ymgrd/broker/broker_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/rpc/session.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr int SMOOTH_START_TICKS = 60;

typedef conf_dlq_list_t<plugin_inst_t *> plugin_queue;

typedef struct _restore_kind {
  int sid;
  int oper_bit;
  bool plugin_inst_t::*bit; // of a plugin that waits for it or is at it
  plugin_queue broker_registry_t::*queue;
  const char *name;
  const char *title;      // at the begin of a sentence
  const char *short_name; // in messages about the job
  int (*get_tree)(const plugin_inst_t *plugin, differ_node_t **ret_tree);
  void (*stop)();
} restore_kind_t;

bool sessions_may_wait = false; // for the end of a restore
bool start_has_failed = false;  // tried again at the next idle second
int smooth_start_ticks = 0;     // idle seconds in which no plugin was in smooth start

// Each plugin has a tree of its own, which holds no more than it is offered.
int get_cfgr_tree(const plugin_inst_t *plugin, differ_node_t **ret_tree)
{
  broker_hooks().free_cfgr_differ();
  auto interest = [plugin](const char *schema_path) { return broker_interest_of(plugin->plugin_id, schema_path); };
  return broker_hooks().get_cfgr_differ(interest, ret_tree);
}

int get_smooth_tree(const plugin_inst_t *, differ_node_t **ret_tree)
{
  *ret_tree = broker_hooks().smooth_differ();
  return 0;
}

void abandon_restore(const char *stop_name)
{
  if (context_get_option(BROKER_PUBLISH_OPTION) == nullptr) {
    log_error("Get current broker-publish information failed on %s.", stop_name);
  } else if (broker_get_publication() == nullptr) {
    log_error("Invalid OPT_BROKER_PUB option.");
  }
  broker_publish_abandon();
  sessions_may_wait = true;
}

void broker_cfgr_stop()
{
  abandon_restore("cfgr-stop");
  broker_hooks().free_cfgr_differ();
  log_debug("All remote plugins have finished configuration restore.");
}

void broker_smooth_stop()
{
  abandon_restore("smooth-stop");
  log_info("All remote plugins have finished in smooth-start.");
}

const restore_kind_t cfgr = {
    SESSION_OF_CFGR,
    CONFIG_OP_CFGR,
    &plugin_inst_t::bit_cfgr,
    &broker_registry_t::cfgr_plugins,
    "configuration restore",
    "Configuration restore",
    "cfgr",
    get_cfgr_tree,
    broker_cfgr_stop,
};
const restore_kind_t smooth = {
    SESSION_OF_SMOOTH,
    CONFIG_OP_SMOOTH,
    &plugin_inst_t::bit_smooth,
    &broker_registry_t::smooth_plugins,
    "smooth-start",
    "Smooth-start",
    "smooth-start",
    get_smooth_tree,
    broker_smooth_stop,
};

plugin_queue &queue_of(const restore_kind_t &kind)
{
  return broker_registry().*kind.queue;
}

bool is_queued(const restore_kind_t &kind, const plugin_inst_t *plugin)
{
  const plugin_queue &queue = queue_of(kind);
  return std::find(queue.begin(), queue.end(), plugin) != queue.end();
}

bool has_subscribers(const plugin_inst_t *plugin)
{
  const auto &subscribers = broker_registry().config_subs;
  return std::any_of(subscribers.begin(), subscribers.end(),
                     [plugin](const subscriber_t &subscriber) { return subscriber.plugin_id == plugin->plugin_id; });
}

// The running publication when it is a restore of that kind, else null.
broker_pub_t *running_restore(const restore_kind_t &kind)
{
  broker_pub_t *pub = broker_get_publication();
  return pub != nullptr && pub->sid == kind.sid ? pub : nullptr;
}

// To the begin of the walk over the next plugin.
void rewind_cursor(broker_pub_t *pub)
{
  pub->is_tree_wanted = true;
  pub->suber = broker_registry().config_subs.end();
  pub->is_suber_done = true;
  pub->cur = pub->next = pub->prev = nullptr;
  pub->offered = nullptr;
  pub->awaited = NOBODY;
  pub->errors.reset(); // logged when they came
}

// --- The walk over one plugin.

typedef enum _walk_result { WALK_WAITS, WALK_ENDED } walk_result_t;

// A failure is told in the log, and never stops a restore.
void drop_errors(const restore_kind_t &kind, const plugin_inst_t &plugin, broker_pub_t *pub)
{
  if (pub->errors != nullptr) {
    log_error("Plugin %.512s %s failed on(path=%.512s, pri=%d).", plugin.name.c_str(), kind.name,
              pub->offered_path.c_str(), pub->offered_pri);
    pub->errors.reset();
  }
}

// Whether the plugin is still to be offered anything: deliveries may end it.
bool is_at_work(const restore_kind_t &kind, const plugin_inst_t *plugin)
{
  const plugin_queue &queue = queue_of(kind);
  return running_restore(kind) != nullptr && !queue.empty() && queue.front() == plugin;
}

walk_result_t broker_cfgr_plugin(const restore_kind_t &kind, broker_pub_t *pub, plugin_inst_t *plugin)
{
  drop_errors(kind, *plugin, pub);
  while (!plugin->bit_overdue) {
    differ_node_t *node = broker_next_to_offer(pub, plugin->plugin_id);
    if (node == nullptr) {
      break;
    }
    int status = broker_offer(pub, node, node->oper_type | kind.oper_bit, pub->next != nullptr);
    if (!is_at_work(kind, plugin)) {
      return WALK_ENDED; // it has gone
    }
    if (status == SUBPUB_WAIT) {
      return WALK_WAITS;
    }
    if (status != SUBPUB_CONTINUE) {
      log_error("Publish cfgr for plugin %.512s on (path=%.512s, pri=%d) failed.", plugin->name.c_str(),
                pub->offered_path.c_str(), pub->offered_pri);
      broker_delivery_failed(pub, node, nullptr);
    }
    drop_errors(kind, *plugin, pub);
  }
  return WALK_ENDED;
}

// --- The job: the plugins in the order in which they asked.

void end_plugin(const restore_kind_t &kind, plugin_inst_t *plugin)
{
  queue_of(kind).pop_front();
  if (plugin->bit_overdue) { // kept out of publications until it is heard of, and is restored anew
    log_error("Plugin %.512s does not answer, its %s is given up.", plugin->name.c_str(), kind.name);
    return;
  }
  log_info("Plugin %.512s %s finished.", plugin->name.c_str(), kind.name);
  plugin->*kind.bit = false;
  broker_hooks().kickoff(plugin);
}

// 0 or -1 (logged).
int get_wanted_tree(const restore_kind_t &kind, broker_pub_t *pub, const plugin_inst_t *plugin)
{
  if (!pub->is_tree_wanted) {
    return 0;
  }
  pub->paths = {}; // of strings that may go with the tree before
  pub->tree = nullptr;
  if (kind.get_tree(plugin, &pub->tree) != 0) {
    log_error("Get diff-tree for configuration restore failed.");
    return -1;
  }
  pub->is_tree_wanted = false;
  return 0;
}

// Goes on with the first plugin from where the cursor stands.
void run_queue(const restore_kind_t &kind, broker_pub_t *pub)
{
  while (!queue_of(kind).empty()) {
    plugin_inst_t *plugin = queue_of(kind).front();
    if (get_wanted_tree(kind, pub, plugin) != 0) {
      abandon_restore(kind.name); // begun anew for those who still wait
      start_has_failed = true;
      return;
    }
    if (broker_cfgr_plugin(kind, pub, plugin) == WALK_WAITS || running_restore(kind) != pub) {
      return;
    }
    if (is_at_work(kind, plugin)) {
      rewind_cursor(pub);
      end_plugin(kind, plugin);
    }
  }
  kind.stop();
}

void start_restore(const restore_kind_t &kind)
{
  log_info("%s is on now.", kind.title);
  broker_pub_t *pub = broker_begin_publication(kind.sid, ERROR_OPTION_CONTINUE);
  start_has_failed = pub == nullptr;
  if (pub == nullptr) {
    return;
  }
  pub->is_tree_wanted = true;
  run_queue(kind, pub);
}

void schedule(const restore_kind_t &kind)
{
  if (queue_of(kind).empty() || running_restore(kind) != nullptr) {
    return;
  }
  if (broker_is_publish_over() != 0) {
    log_warn("Now broker is publishing, %s doing later.", kind.short_name);
    return;
  }
  start_restore(kind);
}

// Nothing was cut off: the plugins hold what running holds.
void broker_smooth_finish()
{
  plugin_queue &queue = queue_of(smooth);
  while (!queue.empty()) {
    plugin_inst_t *plugin = queue.front();
    queue.pop_front();
    log_info("Kickoff for plugin %.512s.", plugin->name.c_str());
    plugin->bit_smooth = false;
    broker_hooks().kickoff(plugin);
  }
  log_info("All remote plugins have finished smooth-start.");
}

void schedule_unless_publishing()
{
  if (broker_is_publish_over() == 0) {
    broker_smooth_schedule();
  }
  if (broker_is_publish_over() == 0) {
    broker_cfgr_schedule();
  }
}

int request(const restore_kind_t &kind, plugin_inst_t *plugin)
{
  if (!has_subscribers(plugin)) {
    plugin->*kind.bit = false;
    broker_hooks().kickoff(plugin);
    return 0;
  }
  if (!is_queued(kind, plugin)) {
    queue_of(kind).push_back(plugin);
    start_has_failed = false;
    log_debug("Start plugin %.512s's %s.", plugin->name.c_str(), kind.name);
    return 0;
  }
  const broker_pub_t *pub = running_restore(kind);
  if (pub != nullptr && pub->awaited == plugin->plugin_id && !plugin->bit_pub_config) {
    broker_publish_continue(plugin->plugin_id);
  }
  return 0;
}

void forget_plugin(const restore_kind_t &kind, const plugin_inst_t *plugin)
{
  if (is_at_work(kind, plugin)) {
    rewind_cursor(broker_get_publication()); // for the next plugin, see broker_run_pending
  }
  queue_of(kind).remove(const_cast<plugin_inst_t *>(plugin));
}

} // namespace

int broker_plugin_cfgr(plugin_inst_t *plugin)
{
  return request(cfgr, plugin);
}

int broker_plugin_smooth_start(plugin_inst_t *plugin)
{
  return request(smooth, plugin);
}

void broker_cfgr_schedule()
{
  schedule(cfgr);
}

void broker_smooth_schedule()
{
  bool is_pending = !queue_of(smooth).empty() && running_restore(smooth) == nullptr;
  if (is_pending && broker_hooks().smooth_differ() == nullptr) {
    broker_smooth_finish();
    return;
  }
  schedule(smooth);
}

void broker_restore_continue(broker_pub_t *pub)
{
  run_queue(pub->sid == smooth.sid ? smooth : cfgr, pub);
}

void broker_restore_forget(const plugin_inst_t *plugin)
{
  forget_plugin(cfgr, plugin);
  forget_plugin(smooth, plugin);
}

void broker_restore_tick()
{
  start_has_failed = false;
  schedule_unless_publishing();
  bool is_unused_smooth_start = context_get_int("OPT-smooth-start", 0) == 1 && broker_is_publish_over() == 0;
  if (!is_unused_smooth_start) {
    smooth_start_ticks = 0;
  } else if (++smooth_start_ticks > SMOOTH_START_TICKS) {
    smooth_start_ticks = 0;
    log_info("No client has ended the smooth start in %d seconds.", SMOOTH_START_TICKS);
    broker_hooks().end_smooth_start();
  }
}

void broker_run_pending()
{
  broker_pub_t *pub = broker_get_publication();
  bool is_restore = pub != nullptr && (pub->sid == cfgr.sid || pub->sid == smooth.sid);
  if (is_restore && pub->awaited == NOBODY) { // the plugin that it waited for has gone
    broker_restore_continue(pub);
  }
  if (!start_has_failed) {
    schedule_unless_publishing();
  }
  if (sessions_may_wait && broker_is_publish_over() == 0) {
    sessions_may_wait = false;
    session_schedule_next(0);
  }
}
