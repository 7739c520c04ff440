#include "ctl/ctl_reply.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "ctl/ctl_xml.h"

namespace {

typedef struct _reply_error {
  std::string tag;
  std::string path;
  std::string message;
  std::string info;
  bool is_warning = false;
} reply_error_t;

reply_error_t read_error(const xmlNode *node)
{
  reply_error_t error;
  const struct {
    const char *name;
    std::string *text;
  } fields[] = {{"error-tag", &error.tag},
                {"error-path", &error.path},
                {"error-message", &error.message},
                {"error-info", &error.info}};
  for (const xmlNode *child = node->children; child != nullptr; child = child->next) {
    for (const auto &field : fields) {
      if (ctl_xml_is(child, field.name)) {
        *field.text = ctl_xml_text(child);
      }
    }
    error.is_warning = error.is_warning || (ctl_xml_is(child, "error-severity") && ctl_xml_text(child) == "warning");
  }
  return error;
}

// What RFC 6241 has as elements, one "NAME TEXT" for each; other text as it is.
std::string info_in_words(const std::string &info)
{
  ctl_xml_ptr doc = ctl_parse_xml("<info>" + info + "</info>");
  std::string words;
  for (const xmlNode *node = doc == nullptr ? nullptr : xmlDocGetRootElement(doc.get())->children; node != nullptr;
       node = node->next) {
    if (node->type != XML_ELEMENT_NODE) {
      return info;
    }
    words += (words.empty() ? "" : ", ") + std::string(reinterpret_cast<const char *>(node->name)) + " " +
             ctl_xml_text(node);
  }
  return words.empty() ? info : words;
}

std::vector<reply_error_t> read_errors(const std::string &reply)
{
  // Most replies have none, and some are long.
  if (reply.find("rpc-error") == std::string::npos) {
    return {};
  }
  ctl_xml_ptr doc = ctl_parse_xml(reply);
  if (doc == nullptr) {
    reply_error_t unreadable; // never to be taken for a success
    unreadable.message = "the daemon's reply cannot be read";
    return {unreadable};
  }
  std::vector<reply_error_t> errors;
  for (const xmlNode *child = xmlDocGetRootElement(doc.get())->children; child != nullptr; child = child->next) {
    if (ctl_xml_is(child, "rpc-error")) {
      errors.push_back(read_error(child));
    }
  }
  return errors;
}

std::string error_line(const reply_error_t &error)
{
  std::string line = error.message.empty() ? "refused" : error.message;
  if (!error.tag.empty()) {
    line += " (" + error.tag + ")";
  }
  if (!error.path.empty()) {
    line += " at " + error.path;
  }
  if (!error.info.empty()) {
    line += ": " + info_in_words(error.info);
  }
  return ctl_visible(line);
}

} // namespace

bool ctl_is_refused(const std::string &reply)
{
  const std::vector<reply_error_t> errors = read_errors(reply);
  return std::any_of(errors.begin(), errors.end(), [](const reply_error_t &error) { return !error.is_warning; });
}

int ctl_tell_errors(const ctl_output_t &output, const std::string &reply)
{
  int result = CTL_OK;
  for (const reply_error_t &error : read_errors(reply)) {
    (void)ctl_fail(output, CTL_REFUSED, (error.is_warning ? "warning: " : "") + error_line(error));
    result = error.is_warning ? result : CTL_REFUSED;
  }
  return result;
}

std::string_view ctl_reply_content(std::string_view reply)
{
  // Data opens and closes the reply; to cut it out spares a parse of what may be megabytes.
  const size_t tag = reply.find("<data");
  const size_t begin = tag == std::string_view::npos ? tag : reply.find('>', tag);
  const size_t end = reply.rfind("</data>");
  const bool has_content = begin != std::string_view::npos && end != std::string_view::npos && begin < end;
  return has_content ? reply.substr(begin + 1, end - begin - 1) : std::string_view(); // "<data/>"
}

int ctl_reply_data(ctl_device &device, std::string reply, ctl_tree_ptr *ret_tree)
{
  const ly_ctx *schema = device.schema();
  if (schema == nullptr) {
    return device.session_id() == 0 ? CTL_UNREACHABLE : CTL_INPUT;
  }
  const std::string_view content = ctl_reply_content(reply);
  if (content.empty()) {
    ret_tree->reset();
    return CTL_OK;
  }
  const size_t begin = static_cast<size_t>(content.data() - reply.data());
  reply.resize(begin + content.size()); // libyang reads up to the end of a text
  lyd_node *tree = nullptr;
  ly_err_clean(const_cast<ly_ctx *>(schema), nullptr);
  // Nodes that our modules do not have become opaque ones, rather than losing all others.
  if (lyd_parse_data_mem(schema, reply.c_str() + begin, LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &tree) !=
      LY_SUCCESS) {
    const ly_err_item *cause = ly_err_last(schema);
    return ctl_fail(device.output(), CTL_INPUT,
                    std::string("the daemon's data cannot be read: ") + (cause == nullptr ? "" : cause->msg));
  }
  ret_tree->reset(tree);
  return CTL_OK;
}

int ctl_read_data(ctl_device &device, std::string_view operation, ctl_tree_ptr *ret_tree)
{
  std::string reply;
  const int result = device.rpc(operation, &reply);
  return result == CTL_OK ? ctl_reply_data(device, std::move(reply), ret_tree) : result;
}

std::optional<std::string> ctl_daemon_text(const std::string &reply, std::initializer_list<const char *> names)
{
  const ctl_xml_ptr document = ctl_parse_xml(reply);
  const xmlNode *node = document == nullptr ? nullptr : xmlDocGetRootElement(document.get());
  node = ctl_xml_child(ctl_xml_child(node, "data"), "daemon");
  for (const char *name : names) {
    node = ctl_xml_child(node, name);
  }
  return node == nullptr ? std::nullopt : std::optional(ctl_xml_text(node));
}

std::optional<ctl_candidate_state_t> ctl_read_candidate_state(const std::string &reply)
{
  const std::optional<std::string> changes = ctl_daemon_text(reply, {"datastore", "pending-changes"});
  if (!changes) {
    return std::nullopt;
  }
  ctl_candidate_state_t state;
  state.has_changes = *changes != "false";
  const std::string holder = ctl_daemon_text(reply, {"datastore", "lock-holder"}).value_or("");
  (void)std::from_chars(holder.data(), holder.data() + holder.size(), state.lock_holder); // stays 0: nobody
  return state;
}
