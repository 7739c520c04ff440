#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "libconf/plugin_path.h"
#include "ymgrd/broker/broker_internal.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"

namespace {

constexpr uint32_t SUBSCRIBE_TIMEOUT_TICKS = 15;

// The cursor of a status subscription.
typedef struct _broker_sub {
  int sid = 0;
  uint32_t timeout = 0; // ticks spent waiting for the current reply
  int awaited = NOBODY; // the plugin whose reply is waited for
  std::string path;     // asked for, in std form
  publisher_pos puber;  // asked last; the end of the list before the first
} broker_sub_t;

// Its address is the option "OPT-broker-subscribe" while it runs.
std::unique_ptr<broker_sub_t> subscription;

broker_sub_t *get_subscription()
{
  return context_get_record<broker_sub_t>(BROKER_SUBSCRIBE_OPTION);
}

void subscribe_stop()
{
  if (context_get_option(BROKER_SUBSCRIBE_OPTION) == nullptr) {
    log_error("Get current broker-subscribe information failed.");
  } else if (get_subscription() == nullptr) {
    log_error("Invalid OPT_BROKER_SUB option.");
  }
  broker_subscribe_abandon();
  if (broker_hooks().status_ended() != 0) {
    log_error("Datastore finish status-subscribe failed.");
  }
}

// Asks the publisher under the cursor. The status of the delivery.
int ask_publisher(const broker_sub_t &sub)
{
  publisher_t publisher = *sub.puber; // may unregister itself meanwhile
  plugin_subscibe_info_t info = {};
  info.session_id = sub.sid;
  info.cb_func = publisher.sub_cb;
  info.path = publisher.path.c_str();
  int status = SUBPUB_CONTINUE;
  (void)broker_hooks().subscribe_status(publisher.plugin_id, &info,
                                        &status); // what is missing is left out of the reply
  return status;
}

void subscribe_core(broker_sub_t *sub)
{
  if (sub == nullptr || sub->path.empty()) {
    log_error("subscribe node or path is NULL.");
    return;
  }
  auto &publishers = broker_registry().status_pubs;
  while (true) {
    publisher_pos next = sub->puber == publishers.end() ? publishers.begin() : std::next(sub->puber);
    if (next == publishers.end()) {
      break;
    }
    sub->puber = next;
    int order = std::strncmp(sub->path.c_str(), next->path.c_str(), sub->path.size());
    if (order < 0) {
      break; // so are all behind
    }
    int plugin_id = next->plugin_id;
    if (order == 0 && ask_publisher(*sub) == SUBPUB_WAIT) {
      sub->timeout = 0;
      sub->awaited = plugin_id;
      return;
    }
  }
  subscribe_stop();
}

} // namespace

int broker_subscribe_status(int session_id, const char *path)
{
  if (context_get_option(BROKER_SUBSCRIBE_OPTION) != nullptr) {
    log_error("The last status subscribe is not finished.");
    return -1;
  }
  std::optional<std::string> std_path = plugin_path_schema2std(path);
  if (!std_path) {
    log_error("Schema path %.512s to std failed.", path);
    return -1;
  }
  auto sub = std::unique_ptr<broker_sub_t>(new (std::nothrow) broker_sub_t);
  if (sub == nullptr) {
    log_error("Allocate memory failed(%s).", std::strerror(errno));
    return -1;
  }
  sub->sid = session_id;
  sub->path = std::move(*std_path);
  sub->puber = broker_registry().status_pubs.end();
  if (context_save_record(BROKER_SUBSCRIBE_OPTION, sub.get()) != 0) {
    log_error("Save %s option to context failed.", BROKER_SUBSCRIBE_OPTION);
    return -1;
  }
  subscription = std::move(sub);
  subscribe_core(subscription.get());
  return 0;
}

void broker_subscribe_continue(int plugin_id)
{
  broker_sub_t *sub = get_subscription();
  if (sub == nullptr) {
    log_error("Get current broker-subscribe information failed.");
    return;
  }
  if (sub->awaited != plugin_id) {
    log_debug("The status subscription does not wait for plugin %d.", plugin_id);
    return;
  }
  sub->awaited = NOBODY;
  subscribe_core(sub);
}

void broker_subscribe_forget(publisher_pos publisher)
{
  broker_sub_t *sub = get_subscription();
  if (sub == nullptr || sub->puber != publisher) {
    return;
  }
  auto &publishers = broker_registry().status_pubs;
  sub->puber = publisher == publishers.begin() ? publishers.end() : std::prev(publisher);
}

void broker_subscribe_tick()
{
  broker_sub_t *sub = get_subscription();
  if (sub != nullptr && ++sub->timeout > SUBSCRIBE_TIMEOUT_TICKS) {
    log_warn("Subscribe status timeout.");
    broker_give_up(sub->awaited);
  }
}

void broker_subscribe_pass_over(int plugin_id)
{
  const broker_sub_t *sub = get_subscription();
  if (sub != nullptr && sub->awaited == plugin_id) {
    broker_subscribe_continue(plugin_id);
  }
}

void broker_subscribe_abandon()
{
  context_remove_option(BROKER_SUBSCRIBE_OPTION);
  subscription.reset();
}
