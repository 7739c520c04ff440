// What XML from outside may be, so that neither time nor stack run away with it: libxml2's own limits do not cover
// this, and are off for long documents.
#pragma once

#include <string_view>

#include <libxml/parser.h>

// To be asked before parsing: false when a tag has too many attributes.
bool xml_tags_are_small(std::string_view text);
// Makes the parser refuse what is too deep, has too many namespaces in scope, or has a document type. Stays for all
// documents that it reads. What it finds wrong is not written to standard error, as it quotes the document.
void xml_limit_parser(xmlParserCtxt *parser);
// To be asked after parsing, with xmlResetLastError() before it. libxml2 leaves out what it has no memory for, be it a
// value or the rest of the document, and may call what is left well-formed.
bool xml_is_complete(const xmlParserCtxt *parser);
