#include "libconf/xml_limits.h"

#include <algorithm>
#include <iterator>

#include <libxml/SAX2.h>
#include <libxml/parserInternals.h>

namespace {

// libxml2 compares each attribute of a tag with all others of it: a tag of 400 KB would hold the daemon up for 12
// seconds.
constexpr int MAX_ATTRIBUTES = 64;
// Each prefix is looked for in all declarations in scope.
constexpr int MAX_NAMESPACES_IN_SCOPE = 256;
constexpr int MAX_DEPTH = 256;

// Position behind the start or end tag at `pos`; npos when it has too many attributes.
size_t skip_tag(std::string_view text, size_t pos)
{
  char quote = '\0';
  int attributes = 0;
  for (; pos < text.size(); pos++) {
    char c = text[pos];
    if (quote != '\0') {
      quote = c == quote ? '\0' : quote;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      return pos + 1;
    } else if (c == '=' && ++attributes > MAX_ATTRIBUTES) {
      return std::string_view::npos;
    }
  }
  return pos;
}

void refuse_document(xmlParserCtxt *parser)
{
  xmlStopParser(parser);
  parser->wellFormed = 0; // a stopped parser does not count as failed
}

void refuse_dtd(void *context, const xmlChar *, const xmlChar *, const xmlChar *)
{
  refuse_document(static_cast<xmlParserCtxt *>(context));
}

void start_element(void *context, const xmlChar *name, const xmlChar *prefix, const xmlChar *ns, int namespace_count,
                   const xmlChar **namespaces, int attribute_count, int defaulted_count, const xmlChar **attributes)
{
  auto *parser = static_cast<xmlParserCtxt *>(context);
  constexpr int SLOTS_OF_NAMESPACE = 2;
  if (parser->nodeNr >= MAX_DEPTH || parser->nsNr > SLOTS_OF_NAMESPACE * MAX_NAMESPACES_IN_SCOPE) {
    refuse_document(parser);
    return;
  }
  xmlSAX2StartElementNs(context, name, prefix, ns, namespace_count, namespaces, attribute_count, defaulted_count,
                        attributes);
}

} // namespace

bool xml_tags_are_small(std::string_view text)
{
  static constexpr struct {
    std::string_view start;
    std::string_view end;
  } sections[] = {{"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}};

  size_t pos = text.find('<');
  while (pos != std::string_view::npos) {
    const auto *section = std::find_if(std::begin(sections), std::end(sections), [&](const auto &candidate) {
      return text.compare(pos, candidate.start.size(), candidate.start) == 0;
    });
    if (section == std::end(sections)) {
      pos = skip_tag(text, pos);
      if (pos == std::string_view::npos) {
        return false;
      }
    } else {
      size_t end = text.find(section->end, pos + section->start.size());
      pos = end == std::string_view::npos ? text.size() : end + section->end.size();
    }
    pos = text.find('<', pos);
  }
  return true;
}

void xml_limit_parser(xmlParserCtxt *parser)
{
  parser->sax->internalSubset = refuse_dtd;
  parser->sax->startElementNs = start_element;
  parser->vctxt.error = nullptr; // told what is wrong even where XML_PARSE_NOERROR is set
  parser->vctxt.warning = nullptr;
}

bool xml_is_complete(const xmlParserCtxt *parser)
{
  const xmlError *last = xmlGetLastError(); // text that could not be copied is not the parser's error
  return parser->disableSAX == 0 && (last == nullptr || last->code != XML_ERR_NO_MEMORY);
}
