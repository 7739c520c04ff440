#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

#include "libconf/conf_misc.h"
#include "libconf/plugin_path.h"
#include "ymgrd/broker/broker_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/keepalive.h"
#include "ymgrd/core/log.h"
#include "ymgrd/datastore/dbkey.h"

namespace {

constexpr uint32_t PUBLISH_TIMEOUT_TICKS = 60;
constexpr int NODES_PER_KEEPALIVE = 1000;

// Its address is the option "OPT-broker-publish" while it runs.
std::unique_ptr<broker_pub_t> publication;

void count_node()
{
  static int nodes = 0;
  nodes++;
  if (nodes == NODES_PER_KEEPALIVE) {
    nodes = 0;
    ymgrd_send_keepalive_msg(0, 0);
  }
}

// --- The end of a publication: what nobody took is reported.

// Whether a node below `node` was offered to a subscriber.
bool broker_check_diffpub(const differ_node_t *node)
{
  for (const differ_node_t *child = node->child; child != nullptr; child = child->next) {
    if (child->pub_flag != 0 || broker_check_diffpub(child)) {
      return true;
    }
  }
  return false;
}

void broker_log_unsub_tree(const differ_node_t *node, bool is_any_offered)
{
  for (; node != nullptr; node = node->next) {
    if (node->pub_flag != 0) {
      continue;
    }
    count_node();
    if (is_any_offered && broker_check_diffpub(node)) {
      broker_log_unsub_tree(node->child, is_any_offered);
    } else {
      log_warn("Subtree on [%.512s] is not processed.", node->data_path);
    }
  }
}

void broker_publish_stop()
{
  broker_pub_t *pub = broker_get_publication();
  if (context_get_option(BROKER_PUBLISH_OPTION) == nullptr) {
    log_error("Get current broker-publish information failed(stop).");
  } else if (pub == nullptr) {
    log_error("Invalid OPT_BROKER_PUB option.");
  }
  int is_rollback = 0;
  reply_error_ptr errors;
  if (pub != nullptr) {
    if (pub->bit_rollback) {
      is_rollback = 1;
    } else {
      broker_log_unsub_tree(pub->tree, pub->is_any_offered);
    }
    errors = std::move(pub->errors);
  }
  broker_publish_abandon();
  (void)broker_hooks().publish_ended(is_rollback, std::move(errors)); // it answers the session itself
}

// --- One delivery.

// What messages say of an offer stays as it is when its subscriber goes.
void note_offer(broker_pub_t *pub, const differ_node_t *node)
{
  const subscriber_t &suber = *pub->suber;
  pub->offered = node;
  pub->offered_path = suber.path;
  pub->offered_pri = suber.pri;
  pub->offered_plugin = suber.plugin_id;
  const char *name = suber.plugin_id == 0 ? nullptr : broker_hooks().plugin_name(suber.plugin_id);
  pub->offered_plugin_name = name == nullptr ? "" : name;
}

std::string where_it_failed(const broker_pub_t &pub)
{
  std::string where = std::string("Error on node ") + pub.offered->data_path;
  return pub.offered_plugin_name.empty() ? where : where + " (plugin " + pub.offered_plugin_name + ")";
}

// The path and the plugin of what was offered last: only an addition.
void add_place(const broker_pub_t &pub, reply_error_t *error)
{
  (void)rpc_set_error_field(error, REPLY_ERR_FIELD_PATH, dbkey_to_xpath(pub.offered->data_path).c_str());
  (void)rpc_set_error_field(error, REPLY_ERR_FIELD_INFO, where_it_failed(pub).c_str());
}

// The newest comes first, but what fails during a rollback comes behind its cause.
void add_error(broker_pub_t *pub, reply_error_ptr error)
{
  if (!pub->bit_rollback || pub->errors == nullptr) {
    error->next = pub->errors.release();
    pub->errors = std::move(error);
    return;
  }
  reply_error_t *last = pub->errors.get();
  while (last->next != nullptr) {
    last = last->next;
  }
  last->next = error.release();
}

} // namespace

int broker_offer(broker_pub_t *pub, const differ_node_t *node, int oper_type, bool is_more)
{
  count_node();
  note_offer(pub, node);
  std::optional<std::string> path = plugin_path_data2std(node->data_path);
  if (!path) {
    log_error("Data path %.512s to std failed%s.", node->data_path, pub->sid < 0 ? "(for cfgr)" : "");
    return SUBPUB_ERROR;
  }
  plugin_publish_info_t info = {};
  info.session_id = pub->sid;
  info.cb_func = pub->suber->sub_cb;
  info.config_flag = true;
  info.config.oper_type = oper_type;
  info.config.priority = pub->suber->pri;
  info.config.more_flag = is_more ? 1 : 0;
  info.config.path = path->c_str();
  int status = SUBPUB_ERROR;
  (void)broker_hooks().publish_config(pub->suber->plugin_id, &info, &status); // `status` says it all
  if (status == SUBPUB_WAIT) {
    pub->timeout = 0;
    pub->awaited = pub->offered_plugin;
  }
  return status;
}

void broker_delivery_failed(broker_pub_t *pub, const differ_node_t *node, const reply_error_t *errors_before)
{
  log_debug("Publish config <%.512s> from session %d failed.", node->data_path, pub->sid);
  if (pub->errors.get() == errors_before) {
    (void)broker_save_error(-1, "Publish configuration failed");
  }
}

differ_node_t *broker_next_to_offer(broker_pub_t *pub, int plugin_id)
{
  auto &subscribers = broker_registry().config_subs;
  while (true) {
    if (pub->is_suber_done) {
      subscriber_pos behind = pub->suber == subscribers.end() ? subscribers.begin() : std::next(pub->suber);
      behind = std::find_if(behind, subscribers.end(), [plugin_id](const subscriber_t &subscriber) {
        return plugin_id == NOBODY || subscriber.plugin_id == plugin_id;
      });
      if (behind == subscribers.end()) {
        return nullptr;
      }
      pub->suber = behind;
      pub->is_suber_done = false;
    }
    const std::string &path = pub->suber->path;
    differ_node_t *node = pub->cur == nullptr ? broker_first_diffnode(&pub->paths, path, pub->tree) : pub->next;
    if (node != nullptr) {
      pub->next = broker_next_diffnode(&pub->paths, path, node);
      pub->cur = node;
      return node;
    }
    pub->cur = nullptr;
    pub->is_suber_done = true;
  }
}

namespace {

// --- The rollback walk: from the current subscriber to the first one, each with its nodes in reverse order.

// The next node to take back, with the cursor on its subscriber; null when all is taken back.
differ_node_t *next_to_take_back(broker_pub_t *pub)
{
  while (pub->suber != broker_registry().config_subs.end()) {
    const std::string &path = pub->suber->path;
    differ_node_t *node = pub->prev;
    if (node == nullptr) {
      node = pub->cur == nullptr ? broker_last_diffnode(&pub->paths, path, differ_node_last(pub->tree))
                                 : broker_prev_diffnode(&pub->paths, path, pub->cur);
    }
    if (node != nullptr) {
      pub->prev = broker_prev_diffnode(&pub->paths, path, node);
      pub->cur = node;
      return node;
    }
    pub->cur = nullptr;
    auto &subscribers = broker_registry().config_subs;
    pub->suber = pub->suber == subscribers.begin() ? subscribers.end() : std::prev(pub->suber);
  }
  return nullptr;
}

void broker_publish_rollback()
{
  broker_pub_t *pub = broker_get_publication();
  if (pub == nullptr) {
    log_error("Get current broker information failed.");
    return;
  }
  pub->bit_rollback = true;
  while (differ_node_t *node = next_to_take_back(pub)) {
    // `next` is what the forward walk left: a subscriber sees the flag of its last offer again.
    int status = broker_offer(pub, node, node->oper_type | DBDIFF_ROLLBACK, pub->next != nullptr);
    if (status == SUBPUB_WAIT) {
      return;
    }
    if (status != SUBPUB_CONTINUE) {
      log_warn("Config rollback failed on %.512s.", node->data_path);
    }
  }
  broker_publish_stop();
}

// --- The forward walk: from the first subscriber to the last one, each with its nodes in document order.

const struct {
  int opt;
  void (*func)();
} g_tbl_erropt[] = {
    {ERROR_OPTION_STOP, broker_publish_stop},
    {ERROR_OPTION_ROLLBACK, broker_publish_rollback},
};

void broker_publish_failed(broker_pub_t *pub)
{
  if (pub->errors != nullptr && pub->offered != nullptr) {
    log_error("Publish failed on (data:%.512s, suber: %.512s, pri: %d)", pub->offered->data_path,
              pub->offered_path.c_str(), pub->offered_pri);
  }
  for (const auto &row : g_tbl_erropt) {
    if (row.opt == pub->error_opt) {
      row.func();
      return;
    }
  }
}

void broker_publish_core(broker_pub_t *pub)
{
  while (pub->errors == nullptr || pub->error_opt == ERROR_OPTION_CONTINUE) {
    differ_node_t *node = broker_next_to_offer(pub, NOBODY);
    if (node == nullptr) {
      broker_publish_stop();
      return;
    }
    node->pub_flag = 1;
    pub->is_any_offered = true;
    const reply_error_t *errors_before = pub->errors.get();
    int status = broker_offer(pub, node, node->oper_type, pub->next != nullptr);
    if (status == SUBPUB_WAIT) {
      return;
    }
    if (status != SUBPUB_CONTINUE) {
      broker_delivery_failed(pub, node, errors_before);
    }
  }
  broker_publish_failed(pub);
}

bool is_error_option(int err_opt)
{
  return err_opt == ERROR_OPTION_STOP || err_opt == ERROR_OPTION_CONTINUE || err_opt == ERROR_OPTION_ROLLBACK;
}

} // namespace

broker_pub_t *broker_get_publication()
{
  return context_get_record<broker_pub_t>(BROKER_PUBLISH_OPTION);
}

broker_pub_t *broker_begin_publication(int session_id, int err_opt)
{
  auto pub = std::unique_ptr<broker_pub_t>(new (std::nothrow) broker_pub_t);
  if (pub == nullptr) {
    log_error("Allocate memory failed(%s).", std::strerror(errno));
    return nullptr;
  }
  pub->sid = session_id;
  pub->error_opt = err_opt;
  pub->suber = broker_registry().config_subs.end();
  if (context_save_record(BROKER_PUBLISH_OPTION, pub.get()) != 0) {
    log_error("Save %s option to context failed.", BROKER_PUBLISH_OPTION);
    return nullptr;
  }
  publication = std::move(pub);
  return publication.get();
}

int broker_publish_config(int session_id, int err_opt, differ_node_t *tree)
{
  if (context_get_option(BROKER_PUBLISH_OPTION) != nullptr) {
    log_error("The last publish configuration is not finished.");
    return -1;
  }
  if (!is_error_option(err_opt)) { // after a failure it would neither end nor go on
    log_error("Error-option %d of session %d is unknown.", err_opt, session_id);
    return -1;
  }
  broker_pub_t *pub = broker_begin_publication(session_id, err_opt);
  if (pub == nullptr) {
    return -1;
  }
  pub->tree = tree;
  broker_publish_core(pub);
  return 0;
}

void broker_publish_continue(int plugin_id)
{
  broker_pub_t *pub = broker_get_publication();
  if (pub == nullptr) {
    log_error("Get current broker-publish information failed(continue).");
    return;
  }
  if (pub->awaited != plugin_id) {
    log_debug("The publication does not wait for plugin %d.", plugin_id);
    return;
  }
  pub->awaited = NOBODY;
  if (pub->sid == SESSION_OF_CFGR || pub->sid == SESSION_OF_SMOOTH) {
    broker_restore_continue(pub);
  } else if (pub->bit_rollback) {
    broker_publish_rollback();
  } else {
    broker_publish_core(pub);
  }
}

int broker_save_error(int err_code, const char *err_msg)
{
  broker_pub_t *pub = broker_get_publication();
  if (pub == nullptr) {
    log_error("Get current broker information failed.");
    return -1;
  }
  bool is_in_rollback = pub->bit_rollback && pub->errors != nullptr;
  reply_error_ptr error(rpc_create_error(is_in_rollback ? REPLY_ERR_ROLLBACK_FAILED : REPLY_ERR_OP_FAILED));
  char code[32];
  int result = error != nullptr && conf_itoa(err_code, code, sizeof(code)) >= 0 &&
                       rpc_set_error_field(error.get(), REPLY_ERR_FIELD_APPTAG, code) == 0 &&
                       rpc_set_error_field(error.get(), REPLY_ERR_FIELD_MSG, err_msg) == 0
                   ? 0
                   : -1;
  if (result != 0) {
    log_error("Save error message(%d:%.512s) failed.", err_code, err_msg);
  }
  if (error == nullptr) {
    return -1;
  }
  if (pub->offered != nullptr) {
    add_place(*pub, error.get());
    log_error("%.512s: %.512s (code %d)", where_it_failed(*pub).c_str(), err_msg, err_code);
  }
  add_error(pub, std::move(error)); // also when it says little: without it the change would count as accepted
  return result;
}

int broker_is_publish_over()
{
  return context_get_option(BROKER_PUBLISH_OPTION) == nullptr ? 0 : -1;
}

void broker_publish_forget(subscriber_pos subscriber)
{
  broker_pub_t *pub = broker_get_publication();
  if (pub == nullptr || pub->suber != subscriber) {
    return;
  }
  // The walk goes on, in either direction, as if the one before had just been finished.
  auto &subscribers = broker_registry().config_subs;
  pub->suber = subscriber == subscribers.begin() ? subscribers.end() : std::prev(subscriber);
  pub->is_suber_done = true;
  pub->cur = pub->next = pub->prev = nullptr;
}

void broker_publish_tick()
{
  broker_pub_t *pub = broker_get_publication();
  if (pub != nullptr && ++pub->timeout > PUBLISH_TIMEOUT_TICKS) {
    log_warn("Publish configuration timeout.");
    broker_give_up(pub->awaited);
  }
}

void broker_publish_pass_over(int plugin_id)
{
  const broker_pub_t *pub = broker_get_publication();
  if (pub != nullptr && pub->awaited == plugin_id) {
    (void)broker_save_error(-1, "Publish configuration timeout"); // logged there; the walk goes on in any case
    broker_publish_continue(plugin_id);
  }
}

void broker_publish_abandon()
{
  context_remove_option(BROKER_PUBLISH_OPTION);
  publication.reset();
}
