#include "ymgrd/notify/plugin_event.h"

#include <algorithm>
#include <iterator>

#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"
#include "ymgrd/crypto/encrypt_find.h"
#include "ymgrd/datastore/ds_operation.h"
#include "ymgrd/rpc/lyxml.h"
#include "ymgrd/schema/schema.h"
#include "ymgrd/ymgrd.h"

namespace {

// Who sent these would speak in the daemon's name.
constexpr std::string_view own_modules[] = {"ietf-netconf-notifications", "nc-notifications", "notifications"};

// The document's element as the only child of a new root. Null when memory is short.
lyxml_ptr put_below_root(lyxml_ptr elem)
{
  xmlDoc *doc = elem->doc;
  xmlNode *root = xmlNewDocNode(doc, nullptr, reinterpret_cast<const xmlChar *>("events"), nullptr);
  if (root == nullptr) {
    return nullptr;
  }
  lyxml_elem *child = xmlDocSetRootElement(doc, root); // which takes the element out
  (void)elem.release();                                // goes with the document
  xmlAddChild(root, child);
  return lyxml_ptr(root);
}

int encrypt_values(lyxml_elem *events)
{
  reply_error_ptr error;
  if (!encrypt_has_sensitive() || security_find_sensitive_in_lyxml(events, SENSITIVE_ENCRYPT, &error) == 0) {
    return 0;
  }
  log_error("An event of a plugin is not sent: %.512s", error == nullptr || error->message == nullptr
                                                            ? "its sensitive values cannot be encrypted."
                                                            : error->message);
  return -1;
}

int check_module(const lyxml_elem *event)
{
  std::string module = schema_get_module_name(std::string(lyxml_ns(event)));
  if (module.empty()) {
    log_error("An event of a plugin is not sent: no module defines it(%.512s).", lyxml_name(event).data());
    return -1;
  }
  if (std::find(std::begin(own_modules), std::end(own_modules), module) != std::end(own_modules)) {
    log_error("An event of a plugin is not sent: %.512s of module %.512s is the daemon's own.",
              lyxml_name(event).data(), module.c_str());
    return -1;
  }
  return 0;
}

void log_yang_reason()
{
  const char *reason = ly_errmsg(schema_ctx());
  const char *place = ly_errpath(schema_ctx());
  log_error("An event of a plugin is not sent: %.512s (%.512s)", reason == nullptr ? "it cannot be checked." : reason,
            place == nullptr ? "" : place);
}

// The event as libyang prints it, which names namespaces where they change.
int validate(lyxml_elem *event, std::string *ret_content)
{
  lyd_tree_ptr tree;
  lyd_node *notification = nullptr;
  std::string text = lyxml_print_self_contained(event);
  if (text.empty() || ds_parse_operation(text.c_str(), LYD_TYPE_NOTIF_YANG, &tree, &notification) != 0) {
    log_yang_reason();
    return -1;
  }
  char *printed = nullptr;
  LY_ERR result = lyd_print_mem(&printed, tree.get(), LYD_XML, LYD_PRINT_SHRINK);
  c_string_ptr owner(printed);
  if (result != LY_SUCCESS || printed == nullptr) {
    log_error("An event of a plugin is not sent: memory is short.");
    return -1;
  }
  ret_content->assign(printed);
  return 0;
}

} // namespace

int plugin_event_check(std::string_view datagram, std::string *ret_content)
{
  lyxml_ptr event = lyxml_parse_mem(datagram);
  if (event == nullptr) {
    log_error("An event of a plugin is not sent: it is not one well-formed element.");
    return -1;
  }
  if (check_module(event.get()) != 0) {
    return -1;
  }
  lyxml_ptr events = put_below_root(std::move(event));
  if (events == nullptr) {
    log_error("An event of a plugin is not sent: memory is short.");
    return -1;
  }
  return encrypt_values(events.get()) != 0 ? -1 : validate(lyxml_first_child(events.get()), ret_content);
}

bool event_content_for_client(std::string_view content, wiped_string *ret_text)
{
  if (!encrypt_has_sensitive() || content.find(CIPHER_TEXT_MARKER) == std::string_view::npos) {
    return false;
  }
  lyxml_ptr event = lyxml_parse_mem(content);
  lyxml_ptr events = event == nullptr ? nullptr : put_below_root(std::move(event));
  if (events == nullptr) {
    return false;
  }
  reply_error_ptr error; // nobody is there to be told: it was logged
  (void)security_find_sensitive_in_lyxml(events.get(), SENSITIVE_DECRYPT, &error);
  wiped_string text;
  if (lyxml_append_children(events.get(), &text) != 0) {
    return false;
  }
  *ret_text = std::move(text);
  return true;
}
