#include "ctl/ctl_reply.h"

#include "ctl/ctl_xml.h"

namespace {

ctl_reply_error_t read_error(const xmlNode *node)
{
  ctl_reply_error_t error;
  const struct {
    const char *name;
    std::string *text;
  } fields[] = {{"error-tag", &error.tag},
                {"error-app-tag", &error.app_tag},
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

} // namespace

std::vector<ctl_reply_error_t> ctl_reply_errors(const std::string &reply)
{
  // Most replies have none, and some are long.
  if (reply.find("rpc-error") == std::string::npos) {
    return {};
  }
  ctl_xml_ptr doc = ctl_parse_xml(reply);
  const xmlNode *root = doc == nullptr ? nullptr : xmlDocGetRootElement(doc.get());
  std::vector<ctl_reply_error_t> errors;
  for (const xmlNode *child = root == nullptr ? nullptr : root->children; child != nullptr; child = child->next) {
    if (ctl_xml_is(child, "rpc-error")) {
      errors.push_back(read_error(child));
    }
  }
  return errors;
}

std::string ctl_error_line(const ctl_reply_error_t &error)
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
  return line;
}

int ctl_reply_data(ctl_device &device, const std::string &reply, ctl_tree_ptr *ret_tree)
{
  const ly_ctx *schema = device.schema();
  if (schema == nullptr) {
    return device.session_id() == 0 ? CTL_UNREACHABLE : CTL_INPUT;
  }
  // Data opens and closes the reply; to cut it out spares a second parse of what may be megabytes. What its elements
  // need of namespaces they declare themselves.
  size_t begin = reply.find("<data");
  size_t end = reply.rfind("</data>");
  begin = begin == std::string::npos ? begin : reply.find('>', begin);
  if (begin == std::string::npos || end == std::string::npos || begin > end) {
    ret_tree->reset(); // "<data/>"
    return CTL_OK;
  }
  const std::string data = reply.substr(begin + 1, end - begin - 1);
  lyd_node *tree = nullptr;
  ly_err_clean(const_cast<ly_ctx *>(schema), nullptr);
  // Nodes that our modules do not have become opaque ones, rather than losing all others.
  if (lyd_parse_data_mem(schema, data.c_str(), LYD_XML, LYD_PARSE_ONLY | LYD_PARSE_OPAQ, 0, &tree) != LY_SUCCESS) {
    const ly_err_item *cause = ly_err_last(schema);
    return ctl_fail(device.output(), CTL_INPUT,
                    std::string("the daemon's data cannot be read: ") + (cause == nullptr ? "" : cause->msg));
  }
  ret_tree->reset(tree);
  return CTL_OK;
}
