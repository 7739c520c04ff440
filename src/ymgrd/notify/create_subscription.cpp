#include "ymgrd/notify/create_subscription.h"

#include <optional>

#include "ymgrd/core/log.h"
#include "ymgrd/notify/event_store.h"
#include "ymgrd/notify/event_time.h"
#include "ymgrd/notify/notification_config.h"
#include "ymgrd/notify/notifier.h"
#include "ymgrd/notify/notifier_send.h"
#include "ymgrd/rpc/rpc_reply.h"
#include "ymgrd/ymgrd.h"

namespace {

constexpr size_t MOST_SUBSCRIPTIONS = 16; // of one session
constexpr size_t MOST_FILTER = 65536;     // bytes: it is kept, and applied to each event

typedef enum {
  NO_WRONG = 0,
  WRONG_START_TIME_FORMAT = 1,
  WRONG_STOP_TIME_FORMAT = 2,
  WRONG_SREAM_FORMAT = 3,
  NO_REPLAY = 4,
  OTHER_WRONG = 5,
} WRONG_TYPE;

// The parameters of the request; null when absent.
typedef struct _subscription_request {
  lyxml_elem *stream = nullptr;
  lyxml_elem *filter = nullptr;
  lyxml_elem *start_time = nullptr;
  lyxml_elem *stop_time = nullptr;
} subscription_request_t;

typedef struct _parameter {
  const char *name;
  lyxml_elem *subscription_request_t::*element;
} parameter_t;
const parameter_t parameters[] = {{"stream", &subscription_request_t::stream},
                                  {"filter", &subscription_request_t::filter},
                                  {"startTime", &subscription_request_t::start_time},
                                  {"stopTime", &subscription_request_t::stop_time}};

// RFC 5277 has the filter in the operation's namespace, as all parameters. Common clients send it in that of get and
// get-config, where it means the same.
bool is_namespace_of(const parameter_t &parameter, std::string_view ns, std::string_view operation_ns)
{
  return ns == operation_ns || (parameter.element == &subscription_request_t::filter && ns == NETCONF_BASE_NS_1_0);
}

const parameter_t *find_parameter(const lyxml_elem *elem, std::string_view operation_ns)
{
  for (const parameter_t &parameter : parameters) {
    if (lyxml_name(elem) == parameter.name && is_namespace_of(parameter, lyxml_ns(elem), operation_ns)) {
      return &parameter;
    }
  }
  return nullptr;
}

// 0, or -1 with the error.
int read_request(const lyxml_elem *operation, subscription_request_t *request, reply_error_ptr *ret_error)
{
  int fault = lyxml_is_blank(lyxml_text(operation)) ? REPLY_ERR_NULL : REPLY_ERR_BAD_ELEM;
  for (lyxml_elem *child = lyxml_first_child(operation); child != nullptr; child = lyxml_next(child)) {
    const parameter_t *parameter = find_parameter(child, lyxml_ns(operation));
    if (parameter == nullptr) {
      fault = REPLY_ERR_UNKNOWN_ELEM;
    } else if (request->*parameter->element != nullptr) {
      fault = REPLY_ERR_BAD_ELEM;
    } else {
      request->*parameter->element = child;
    }
  }
  if (fault == REPLY_ERR_NULL) {
    return 0;
  }
  *ret_error = rpc_make_error(fault, "packet format is wrong");
  return -1;
}

// The element's text without the blanks around it; nothing when elements stand in it.
std::optional<std::string> plain_text(const lyxml_elem *elem)
{
  if (lyxml_first_child(elem) != nullptr) {
    return std::nullopt;
  }
  constexpr const char blanks[] = " \t\r\n";
  std::string text = lyxml_text(elem);
  size_t first = text.find_first_not_of(blanks);
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(blanks) + 1 - first);
}

reply_error_ptr error_with_info(int kind, const char *bad_element)
{
  reply_error_ptr error(rpc_create_error(kind));
  std::string info = std::string("<bad-element>") + bad_element + "</bad-element>";
  if (error != nullptr) {
    (void)rpc_set_error_field(error.get(), REPLY_ERR_FIELD_INFO, info.c_str()); // logged there; the kind says enough
  }
  return error;
}

reply_error_ptr error_of(WRONG_TYPE wrong)
{
  switch (wrong) {
  case WRONG_START_TIME_FORMAT:
    return error_with_info(REPLY_ERR_BAD_ELEM, "startTime");
  case WRONG_STOP_TIME_FORMAT:
    return error_with_info(REPLY_ERR_BAD_ELEM, "stopTime");
  case WRONG_SREAM_FORMAT:
    return error_with_info(REPLY_ERR_BAD_ELEM, "stream");
  case NO_REPLAY:
    return rpc_make_error(REPLY_ERR_OP_FAILED, "Do not support replay mode");
  case NO_WRONG:
  case OTHER_WRONG:
    break;
  }
  return error_with_info(REPLY_ERR_MISSING_ELEM, "startTime"); // a stop time alone
}

// The time that stands for "not given" gives way to the one before it: no event is that old.
bool read_time(const lyxml_elem *elem, time_t *ret_time)
{
  std::optional<std::string> text = plain_text(elem);
  if (!text || event_time_parse(*text, ret_time) != 0) {
    return false;
  }
  if (*ret_time == TIME_NOT_GIVEN) {
    *ret_time = TIME_NOT_GIVEN - 1;
  }
  return true;
}

WRONG_TYPE read_times(const subscription_request_t &request, client_subscription_t *subscription)
{
  if (request.start_time != nullptr &&
      (!read_time(request.start_time, &subscription->starttime) || subscription->starttime > time(nullptr))) {
    return WRONG_START_TIME_FORMAT;
  }
  if (request.stop_time == nullptr) {
    return NO_WRONG;
  }
  if (!read_time(request.stop_time, &subscription->stoptime)) {
    return WRONG_STOP_TIME_FORMAT;
  }
  if (request.start_time == nullptr) {
    return OTHER_WRONG;
  }
  return subscription->stoptime < subscription->starttime ? WRONG_STOP_TIME_FORMAT : NO_WRONG;
}

// The configured stream; null with the error. A stream that is no text is left to be told behind the other faults.
const notification_config_stream *find_stream(const subscription_request_t &request, reply_error_ptr *ret_error)
{
  std::optional<std::string> name = request.stream == nullptr ? NETCONF_STREAM : plain_text(request.stream);
  if (name && *name != NETCONF_STREAM) {
    *ret_error = rpc_make_error(REPLY_ERR_INVALID_VALUE, "Requested stream does not exist..");
    return nullptr;
  }
  if (notification_get_config() == nullptr) {
    *ret_error = rpc_make_error(REPLY_ERR_OP_FAILED, "get notification config from hash failed");
    return nullptr;
  }
  const notification_config_stream *stream = notification_find_stream(NETCONF_STREAM);
  if (stream == nullptr) { // the profile leaves it out
    *ret_error = rpc_make_error(REPLY_ERR_INVALID_VALUE, "Requested stream does not exist..");
  }
  return stream;
}

WRONG_TYPE check_parameters(const subscription_request_t &request, const notification_config_stream &stream,
                            client_subscription_t *subscription)
{
  bool asks_for_replay = request.start_time != nullptr || request.stop_time != nullptr;
  if (asks_for_replay && !notification_has_replay(stream)) {
    return NO_REPLAY;
  }
  WRONG_TYPE wrong = read_times(request, subscription);
  if (wrong != NO_WRONG) {
    return wrong;
  }
  return request.stream != nullptr && !plain_text(request.stream) ? WRONG_SREAM_FORMAT : NO_WRONG;
}

// 0, or -1 with the error.
int take_filter(const subscription_request_t &request, client_subscription_t *subscription, reply_error_ptr *ret_error)
{
  if (request.filter == nullptr) {
    return 0;
  }
  if (lyxml_print_mem(request.filter).size() > MOST_FILTER) {
    *ret_error = rpc_make_error(REPLY_ERR_TOO_BIG, "The filter is too large.");
    return -1;
  }
  switch (event_filter_create(request.filter, &subscription->su_filter)) {
  case EVENT_FILTER_OK:
    return 0;
  case EVENT_FILTER_UNSUPPORTED:
    *ret_error = rpc_make_error(REPLY_ERR_OP_NOT_SUPPORTED, "unexpected filter type.");
    return -1;
  default:
    *ret_error = reply_error_ptr(rpc_create_error(REPLY_ERR_RES_DENIED));
    return -1;
  }
}

// 0, or -1 with the error.
int begin_replay(client_subscription_t *subscription, reply_error_ptr *ret_error)
{
  if (event_store_refresh() != 0) {
    *ret_error = rpc_make_error(REPLY_ERR_OP_FAILED, "The stored events cannot be read.");
    return -1;
  }
  subscription->subscription_type = SUB_REPLAY;
  subscription->is_live = false;
  subscription->is_replaying = true;
  subscription->position = event_store_begin();
  subscription->replay_end = event_store_end();
  subscription->slice = FIRST_SLICE;
  return 0;
}

int make_subscription(const lyxml_elem *operation, client_subscription_t *subscription, reply_error_ptr *ret_error)
{
  subscription_request_t request;
  if (read_request(operation, &request, ret_error) != 0) {
    return -1;
  }
  const notification_config_stream *stream = find_stream(request, ret_error);
  if (stream == nullptr) {
    return -1;
  }
  WRONG_TYPE wrong = check_parameters(request, *stream, subscription);
  if (wrong != NO_WRONG) {
    *ret_error = error_of(wrong);
    return -1;
  }
  if (take_filter(request, subscription, ret_error) != 0) {
    return -1;
  }
  const client_entry_t *entry = client_find(subscription->session_id);
  if (entry != nullptr && entry->ce_subscription.size() >= MOST_SUBSCRIPTIONS) {
    *ret_error = rpc_make_error(REPLY_ERR_RES_DENIED, "The session has too many subscriptions.");
    return -1;
  }
  subscription->su_stream = stream->name;
  subscription->description = stream->description;
  notifier_flush(); // what has happened by now is no live event for this subscription
  return request.start_time == nullptr ? 0 : begin_replay(subscription, ret_error);
}

} // namespace

int oper_create_subscription(int session_id, const char *, lyxml_elem *rpc)
{
  client_subscription_t subscription;
  subscription.session_id = session_id;
  reply_error_ptr error;
  if (make_subscription(lyxml_first_child(rpc), &subscription, &error) != 0) {
    return rpc_answer_error(session_id, rpc, std::move(error));
  }
  if (client_add_subscription(std::move(subscription)) != 0) {
    return rpc_answer_error(session_id, rpc, reply_error_ptr(rpc_create_error(REPLY_ERR_RES_DENIED)));
  }
  return rpc_answer_ok(session_id, rpc); // events follow with the next notifier_run_pending
}
