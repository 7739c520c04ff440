// XML: reading a reply with libxml2, writing texts.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <libxml/tree.h>

struct ctl_xml_delete_t {
  void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using ctl_xml_ptr = std::unique_ptr<xmlDoc, ctl_xml_delete_t>;

ctl_xml_ptr ctl_parse_xml(const std::string &text);     // null when it is none
bool ctl_xml_is(const xmlNode *node, const char *name); // an element of that name
// The first child element of that name; null when there is none, or no parent.
const xmlNode *ctl_xml_child(const xmlNode *parent, const char *name);
std::string ctl_xml_text(const xmlNode *node);

// As text of an element or attribute.
std::string ctl_xml_escape(std::string_view text);
// What libyang has printed, with its carriage returns as references: of those as they are a parser makes line feeds.
std::string ctl_xml_keep_returns(std::string_view printed);
