// Small documents: hellos, start tags, error replies.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <libxml/tree.h>

struct netconf_doc_delete_t {
  void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using netconf_doc_ptr = std::unique_ptr<xmlDoc, netconf_doc_delete_t>;

// Null when the text is no well-formed XML, has a document type, or exceeds the limits of libconf/xml_limits.h. A
// declared encoding other than UTF-8 is not followed.
netconf_doc_ptr netconf_parse(std::string_view text);
std::string netconf_print(xmlDoc *doc); // the root element, without a declaration; empty when memory is short

xmlNode *netconf_first_element(const xmlNode *parent); // null when there is none
xmlNode *netconf_next_element(const xmlNode *node);
std::string_view netconf_name(const xmlNode *node); // without its prefix
bool netconf_is(const xmlNode *node, std::string_view name, std::string_view name_space);
std::string netconf_text(const xmlNode *node); // blanks around it stripped
// The attribute without a namespace; nothing when there is none.
std::optional<std::string> netconf_attribute(const xmlNode *node, const char *name);
// Text of the first element of that name below `node`, at any depth; empty when there is none.
std::string netconf_find_text(const xmlNode *node, std::string_view name);
