#include <memory>

#include "ctl/ctl_commands.h"
#include "ctl/ctl_interrupt.h"
#include "ctl/ctl_operations.h"
#include "ctl/ctl_print.h"
#include "ctl/ctl_tree.h"
#include "ctl/ctl_xml.h"

namespace {

constexpr char NOTIFICATION_NAMESPACE[] = "urn:ietf:params:xml:ns:netconf:notification:1.0";
constexpr char TIMED_OUT[] = "timed out"; // the client's error when nothing is there yet

typedef struct _watch_options {
  std::string start;
  std::string stop;
  std::string stream;
  std::string filter;
  unsigned long count = 0; // 0: without end
} watch_options_t;

// --- What is asked for.

std::string element(const char *name, const std::string &text)
{
  return text.empty() ? "" : std::string("<") + name + ">" + ctl_xml_escape(text) + "</" + name + ">";
}

const lysc_node *find_notification(const lys_module *module, std::string_view name)
{
  const lysc_node_notif *found = module->compiled == nullptr ? nullptr : module->compiled->notifs;
  while (found != nullptr && name != found->name) {
    found = reinterpret_cast<const lysc_node_notif *>(found->next);
  }
  return reinterpret_cast<const lysc_node *>(found);
}

// "ex-sys:service-failed", or the name alone, as a subtree filter. XML is taken as it is.
int make_filter(const ctl_output_t &output, const ly_ctx *schema, const std::string &text, std::string *ret_filter)
{
  if (text.empty() || text.starts_with("<")) {
    *ret_filter = ctl_subtree_filter(text);
    return CTL_OK;
  }
  const std::string path = text.starts_with("/") ? text.substr(1) : text;
  const size_t colon = path.find(':');
  const std::string module_name = colon == std::string::npos ? "" : path.substr(0, colon);
  const std::string name = colon == std::string::npos ? path : path.substr(colon + 1);
  std::string filter;
  uint32_t index = ly_ctx_internal_modules_count(schema);
  while (const lys_module *module = ly_ctx_get_module_iter(schema, &index)) {
    if ((module_name.empty() || module_name == module->name) && find_notification(module, name) != nullptr) {
      filter += "<" + name + " xmlns=\"" + module->ns + "\"/>"; // the same name in several modules: all of them
    }
  }
  if (filter.empty()) {
    return ctl_fail(output, CTL_INPUT, "no module has a notification \"" + text + "\"");
  }
  *ret_filter = ctl_subtree_filter(filter);
  return CTL_OK;
}

// --- What comes.

typedef struct _event {
  ctl_tree_ptr envelope;          // <notification> and the time in it
  ctl_tree_ptr tree;              // that holds `node`
  const lyd_node *node = nullptr; // null when no module knows the event
  std::string time;
} event_t;

event_t parse_event(const ly_ctx *schema, const std::string &payload)
{
  event_t event;
  const ctl_input_ptr input = ctl_open_text(payload);
  if (input == nullptr) {
    return event;
  }
  lyd_node *envelope = nullptr;
  lyd_node *node = nullptr;
  const LY_ERR result = lyd_parse_op(schema, nullptr, input.get(), LYD_XML, LYD_TYPE_NOTIF_NETCONF, &envelope, &node);
  event.envelope.reset(envelope);
  if (result != LY_SUCCESS || node == nullptr) {
    return event;
  }
  event.tree.reset(ctl_top(node));
  event.node = node;
  const auto *time = reinterpret_cast<const lyd_node_opaq *>(lyd_child(envelope));
  event.time = time == nullptr || time->value == nullptr ? "" : time->value;
  return event;
}

void append_values(const ctl_output_t &output, const lyd_node *parent, std::string *line)
{
  for (const lyd_node *node = lyd_child(parent); node != nullptr; node = node->next) {
    if (lyd_child(node) != nullptr) {
      append_values(output, node, line);
    } else if (node->schema == nullptr || (node->schema->nodetype & LYD_NODE_TERM) != 0) {
      line->append(" ").append(ctl_paint(output, ctl_color::faint, ctl_node_name(node) + "="));
      line->append(ctl_value_text(node));
    }
  }
}

// "TIME MODULE:NAME leaf=value leaf=value"
std::string event_line(const ctl_output_t &output, const event_t &event)
{
  const lysc_node *schema = event.node->schema;
  std::string line = ctl_paint(output, ctl_color::faint, event.time) + " ";
  line += ctl_paint(output, ctl_color::name, std::string(schema->module->name) + ":" + schema->name);
  append_values(output, event.node, &line);
  return line;
}

// As in RFC 8040, section 6.4.
std::string event_json(const event_t &event)
{
  std::string content;
  if (!ctl_encode(event.tree.get(), LYD_JSON, LYD_PRINT_SHRINK, &content) || content.empty()) {
    return "";
  }
  return R"({"ietf-restconf:notification":{"eventTime":")" + event.time + "\"," + content.substr(1) + "}";
}

// A newline can only stand in a text.
std::string on_one_line(const std::string &payload)
{
  std::string line;
  for (char byte : payload) {
    byte == '\n' ? (void)line.append("&#10;") : line.push_back(byte);
  }
  return line;
}

int print_event(const ctl_output_t &output, const ly_ctx *schema, const std::string &payload)
{
  if (output.format == ctl_format::xml) {
    return ctl_write(output, on_one_line(payload) + "\n");
  }
  const event_t event = parse_event(schema, payload);
  if (event.node == nullptr) {
    (void)ctl_fail(output, CTL_INPUT, "an event that no module knows: " + ctl_visible(payload));
    return CTL_OK; // others follow
  }
  return ctl_write(output, (output.format == ctl_format::json ? event_json(event) : event_line(output, event)) + "\n");
}

bool says(const std::string &payload, std::string_view element_name)
{
  return payload.find("<" + std::string(element_name)) != std::string::npos;
}

// Until the stop time, the wanted number, Ctrl-C, or the end of the connection.
int print_events(ctl_device &subscriber, const ly_ctx *schema, unsigned long count, const ctl_interrupt &interrupt)
{
  ymgr_client_t *client = subscriber.client();
  for (unsigned long printed = 0; client != nullptr && interrupt.count() == 0 && (count == 0 || printed < count);) {
    std::optional<ymgr_frame_t> frame = ymgr_receive_notification(client, ymgr_duration(0));
    if (frame) {
      const int result = print_event(subscriber.output(), schema, frame->payload);
      if (result != CTL_OK || says(frame->payload, "notificationComplete")) {
        return result;
      }
      printed += says(frame->payload, "replayComplete") ? 0 : 1;
    } else if (ymgr_last_error(client) == TIMED_OUT) {
      interrupt.wait_readable(ymgr_descriptor(client));
    } else {
      return ctl_fail(subscriber.output(), CTL_UNREACHABLE,
                      "the connection to the daemon is lost: " + ymgr_last_error(client));
    }
  }
  return client == nullptr ? CTL_UNREACHABLE : CTL_OK;
}

int run_watch(ctl_device &device, const watch_options_t &options)
{
  const ly_ctx *schema = device.schema();
  std::string filter;
  int result = schema == nullptr ? CTL_INPUT : make_filter(device.output(), schema, options.filter, &filter);
  if (result != CTL_OK) {
    return result;
  }
  // A session of its own: a subscription lasts as long as its session.
  ctl_device subscriber(device.run_dir(), device.output());
  const ctl_interrupt interrupt;
  result = subscriber.rpc(std::string("<create-subscription xmlns=\"") + NOTIFICATION_NAMESPACE + "\">" +
                          element("stream", options.stream) + filter + element("startTime", options.start) +
                          element("stopTime", options.stop) + "</create-subscription>");
  return result == CTL_OK ? print_events(subscriber, schema, options.count, interrupt) : result;
}

} // namespace

ctl_action ctl_define_watch(CLI::App *app)
{
  auto options = std::make_shared<watch_options_t>();
  app->add_option("--start", options->start, "stored events from then on come first (2026-01-31T00:00:00Z)")
      ->type_name("TIME");
  app->add_option("--stop", options->stop, "ends then; needs --start")->type_name("TIME");
  app->add_option("--stream", options->stream, "another stream than NETCONF")->type_name("NAME");
  app->add_option("--filter", options->filter, "a notification's name, or the content of a subtree filter in XML")
      ->type_name("FILTER");
  app->add_option("--count", options->count, "end behind that many")->type_name("N")->check(CLI::PositiveNumber);
  return [options](ctl_device &device) { return run_watch(device, *options); };
}
