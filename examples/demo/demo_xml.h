// Looking at replies: printing, picking and comparing XML.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <libxml/tree.h>

struct xml_doc_delete_t {
  void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using demo_doc_ptr = std::unique_ptr<xmlDoc, xml_doc_delete_t>;

demo_doc_ptr demo_parse(std::string_view xml); // null when it is not well-formed
// The document, one element a line, each line after `margin`; the text itself when it is not well-formed.
std::string demo_pretty(std::string_view xml, const std::string &margin);

// Texts of all elements reached from the root by these local names, in document order; the root itself is not named.
std::vector<std::string> demo_texts(std::string_view xml, const std::vector<std::string> &path);
// The first of them; empty when there is none.
std::string demo_text(std::string_view xml, const std::vector<std::string> &path);

// True when the reply's <data> holds every element of `wanted` (one or more elements) with the same namespace and text,
// in any order and possibly among others.
bool demo_data_holds(std::string_view reply, std::string_view wanted);
bool demo_data_is_empty(std::string_view reply);
