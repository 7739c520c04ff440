#include "demo_xml.h"

#include <sstream>

#include <libxml/parser.h>

namespace {

std::string_view view(const xmlChar *text)
{
  return text == nullptr ? std::string_view() : reinterpret_cast<const char *>(text);
}

std::string_view ns_of(const xmlNode *elem)
{
  return elem->ns == nullptr ? std::string_view() : view(elem->ns->href);
}

bool has_children(xmlNode *elem)
{
  return xmlFirstElementChild(elem) != nullptr;
}

std::string text_of(const xmlNode *elem)
{
  xmlChar *content = xmlNodeGetContent(elem);
  std::string text(view(content));
  xmlFree(content);
  return text;
}

// A value that begins with a declared prefix means the namespace, whatever the prefix is called.
std::string value_of(xmlNode *elem)
{
  std::string text = text_of(elem);
  size_t colon = text.find(':');
  if (colon == std::string::npos) {
    return text;
  }
  const xmlNs *ns = xmlSearchNs(elem->doc, elem, reinterpret_cast<const xmlChar *>(text.substr(0, colon).c_str()));
  return ns == nullptr ? text : "{" + std::string(view(ns->href)) + "}" + text.substr(colon + 1);
}

bool holds_children(xmlNode *got, xmlNode *wanted);

bool matches(xmlNode *got, xmlNode *wanted)
{
  if (view(got->name) != view(wanted->name) || ns_of(got) != ns_of(wanted)) {
    return false;
  }
  return has_children(wanted) ? holds_children(got, wanted) : has_children(got) || value_of(got) == value_of(wanted);
}

bool holds_children(xmlNode *got, xmlNode *wanted)
{
  for (xmlNode *want = xmlFirstElementChild(wanted); want != nullptr; want = xmlNextElementSibling(want)) {
    xmlNode *candidate = xmlFirstElementChild(got);
    while (candidate != nullptr && !matches(candidate, want)) {
      candidate = xmlNextElementSibling(candidate);
    }
    if (candidate == nullptr) {
      return false;
    }
  }
  return true;
}

// The <data> of a reply; null when there is none.
xmlNode *find_data(const demo_doc_ptr &reply)
{
  xmlNode *root = reply == nullptr ? nullptr : xmlDocGetRootElement(reply.get());
  xmlNode *data = root == nullptr ? nullptr : xmlFirstElementChild(root);
  return data != nullptr && view(data->name) == "data" ? data : nullptr;
}

void collect(xmlNode *parent, const std::vector<std::string> &path, size_t depth, std::vector<std::string> *texts)
{
  for (xmlNode *child = xmlFirstElementChild(parent); child != nullptr; child = xmlNextElementSibling(child)) {
    if (view(child->name) != path[depth]) {
      continue;
    }
    if (depth + 1 == path.size()) {
      texts->push_back(text_of(child));
    } else {
      collect(child, path, depth + 1, texts);
    }
  }
}

} // namespace

demo_doc_ptr demo_parse(std::string_view xml)
{
  constexpr int OPTIONS = XML_PARSE_NONET | XML_PARSE_NOBLANKS | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  return demo_doc_ptr(xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, OPTIONS));
}

std::string demo_pretty(std::string_view xml, const std::string &margin)
{
  demo_doc_ptr doc = demo_parse(xml);
  if (doc == nullptr) {
    return margin + std::string(xml) + "\n";
  }
  xmlBuffer *buffer = xmlBufferCreate();
  xmlNodeDump(buffer, doc.get(), xmlDocGetRootElement(doc.get()), 0, 1);
  std::istringstream lines{std::string(view(xmlBufferContent(buffer)))};
  xmlBufferFree(buffer);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    text += margin + line + "\n";
  }
  return text;
}

std::vector<std::string> demo_texts(std::string_view xml, const std::vector<std::string> &path)
{
  std::vector<std::string> texts;
  demo_doc_ptr doc = demo_parse(xml);
  if (doc != nullptr && !path.empty()) {
    collect(xmlDocGetRootElement(doc.get()), path, 0, &texts);
  }
  return texts;
}

std::string demo_text(std::string_view xml, const std::vector<std::string> &path)
{
  std::vector<std::string> texts = demo_texts(xml, path);
  return texts.empty() ? std::string() : texts.front();
}

bool demo_data_holds(std::string_view reply, std::string_view wanted)
{
  demo_doc_ptr got = demo_parse(reply);
  demo_doc_ptr want = demo_parse("<wanted>" + std::string(wanted) + "</wanted>");
  xmlNode *data = find_data(got);
  return data != nullptr && want != nullptr && holds_children(data, xmlDocGetRootElement(want.get()));
}

bool demo_data_is_empty(std::string_view reply)
{
  demo_doc_ptr got = demo_parse(reply);
  xmlNode *data = find_data(got);
  return data != nullptr && !has_children(data);
}
