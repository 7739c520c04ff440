// What XML from outside may be, so that neither time nor stack run away with it: libxml2's own limits do not cover
// this, and are off for long documents.
#pragma once

#include <string_view>

#include <libxml/parser.h>

// To be asked before parsing: false when a tag has too many attributes.
bool xml_tags_are_small(std::string_view text);
// Makes the parser refuse what is too deep, has too many namespaces in scope, or has a document type. Stays for all
// documents that it reads.
void xml_limit_parser(xmlParserCtxt *parser);
