// Reading a reply's XML with libxml2.
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
// What libyang has printed, with its carriage returns as references: of those as they are a parser makes line feeds.
std::string ctl_xml_keep_returns(std::string_view printed);
