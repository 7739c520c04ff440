#include "ctl/ctl_reply.h"

#include <climits>
#include <cstring>

#include <libxml/parser.h>
#include <libxml/tree.h>

namespace {

struct xml_doc_delete_t {
  void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using xml_doc_ptr = std::unique_ptr<xmlDoc, xml_doc_delete_t>;

struct xml_text_delete_t {
  void operator()(xmlChar *text) const { xmlFree(text); }
};
using xml_text_ptr = std::unique_ptr<xmlChar, xml_text_delete_t>;

xml_doc_ptr parse(const std::string &reply)
{
  if (reply.size() > INT_MAX) {
    return nullptr;
  }
  const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE;
  return xml_doc_ptr(xmlReadMemory(reply.data(), static_cast<int>(reply.size()), nullptr, nullptr, options));
}

bool is_named(const xmlNode *node, const char *name)
{
  return node->type == XML_ELEMENT_NODE && strcmp(reinterpret_cast<const char *>(node->name), name) == 0;
}

std::string text_of(const xmlNode *node)
{
  xml_text_ptr text(xmlNodeGetContent(node));
  return text == nullptr ? "" : reinterpret_cast<const char *>(text.get());
}

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
      if (is_named(child, field.name)) {
        *field.text = text_of(child);
      }
    }
    error.is_warning = error.is_warning || (is_named(child, "error-severity") && text_of(child) == "warning");
  }
  return error;
}

} // namespace

std::vector<ctl_reply_error_t> ctl_reply_errors(const std::string &reply)
{
  // Most replies have none, and some are long.
  if (reply.find("rpc-error") == std::string::npos) {
    return {};
  }
  xml_doc_ptr doc = parse(reply);
  const xmlNode *root = doc == nullptr ? nullptr : xmlDocGetRootElement(doc.get());
  std::vector<ctl_reply_error_t> errors;
  for (const xmlNode *child = root == nullptr ? nullptr : root->children; child != nullptr; child = child->next) {
    if (is_named(child, "rpc-error")) {
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
    line += ": " + error.info;
  }
  return line;
}

int ctl_reply_data(ctl_device &, const std::string &, ctl_tree_ptr *)
{
  return CTL_OK;
}
