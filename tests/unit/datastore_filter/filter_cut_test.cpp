// What a filter leaves of data: XML in, XML out, no schema.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "ymgrd/datastore/ds_filter.h"
#include "ymgrd/datastore/ds_filter_text.h"
#include "ymgrd/datastore/ds_sealed.h"

namespace {

ds_filter_elements elements_of(const lyxml_ptr &filter)
{
  ds_filter_elements elements;
  for (const lyxml_elem *elem = lyxml_first_child(filter.get()); elem != nullptr; elem = lyxml_next(elem)) {
    elements.push_back(elem);
  }
  return elements;
}

// The same as cut(), without a tree. `ret_taken` may be null.
std::string cut_text(const std::string &data, const std::string &filter, size_t enough, size_t *ret_taken)
{
  lyxml_ptr parsed = lyxml_parse_mem("<filter>" + filter + "</filter>");
  ds_prepared_filter prepared(elements_of(parsed));
  wiped_string text;
  size_t taken = ds_text_cutter(prepared, "urn:0").cut(data, enough, &text);
  if (ret_taken != nullptr) {
    *ret_taken = taken;
  }
  return std::string(text);
}

std::string cut(const std::string &data, const std::string &filter)
{
  lyxml_ptr old = lyxml_parse_mem("<data>" + data + "</data>");
  lyxml_ptr parsed = lyxml_parse_mem("<filter>" + filter + "</filter>");
  if (old == nullptr || parsed == nullptr) {
    return "(not well-formed)";
  }
  lyxml_ptr left = ds_xml_subtree_filter(std::move(old), ds_prepared_filter(elements_of(parsed)));
  std::string text;
  for (const lyxml_elem *elem = left == nullptr ? nullptr : lyxml_first_child(left.get()); elem != nullptr;
       elem = lyxml_next(elem)) {
    text += lyxml_print_mem(elem);
  }
  return text;
}

const char MARKED[] = "<a xmlns=\"urn:1\"><x>1</x></a><a xmlns=\"urn:2\"><x>2</x></a>"
                      "<if name=\"e0\" n:s=\"up\" xmlns:n=\"urn:n\"/><if name=\"e1\"/>";

} // namespace

TEST(filter_cut, siblings_select_by_namespace_and_attributes)
{
  const struct {
    const char *what;
    const char *filter;
    const char *left;
  } cases[] = {
      {"namespace", "<a xmlns=\"urn:2\"/>", "<a xmlns=\"urn:2\"><x>2</x></a>"},
      {"any namespace", "<a><x>1</x></a>", "<a xmlns=\"urn:1\"><x>1</x></a>"},
      {"no such namespace", "<a xmlns=\"urn:3\"/>", ""},
      {"attribute", "<if name=\"e1\"/>", "<if name=\"e1\"/>"},
      {"attributes, of which one has a namespace", "<if name=\"e0\" p:s=\"up\" xmlns:p=\"urn:n\"/>",
       "<if xmlns:n=\"urn:n\" name=\"e0\" n:s=\"up\"/>"},
      {"attributes that are not there", "<if name=\"e1\" s=\"up\"/><if other=\"e1\"/>", ""},
  };
  for (const auto &row : cases) {
    EXPECT_EQ(cut(MARKED, row.filter), row.left) << row.what;
    size_t taken = 0;
    std::string text = cut_text(MARKED, row.filter, std::strlen(MARKED), &taken);
    EXPECT_EQ(taken == 0 ? row.left : text, row.left) << row.what; // attributes are left to the parser
  }
}

TEST(filter_cut, text_is_cut_as_it_is_written)
{
  const std::string data = "<a><x>1 &amp;&#10;2</x><x xmlns=\"urn:1\" xmlns:p=\"urn:p\">p:v</x><y/></a><a><x>3</x></a>";
  const auto all = [&](const std::string &filter) { return cut_text(data, filter, data.size(), nullptr); };
  EXPECT_EQ(all("<a><x> 1 &amp;\n2 </x><y/></a>"), "<a><x>1 &amp;&#10;2</x><y/></a>");
  EXPECT_EQ(all("<a><x xmlns=\"urn:1\"/></a>"), "<a><x xmlns=\"urn:1\" xmlns:p=\"urn:p\">p:v</x></a>");
  EXPECT_EQ(all("<a xmlns=\"urn:0\"><x/><y/></a>"), "<a><x>1 &amp;&#10;2</x><y/></a><a><x>3</x></a>");
  EXPECT_EQ(all("<a z=\"1\"/>"), "");

  size_t taken = 0;
  EXPECT_EQ(cut_text(data, "<a><x>3</x></a>", 1, &taken), "");
  EXPECT_EQ(data.substr(taken), "<a><x>3</x></a>");
}

TEST(filter_cut, text_that_needs_a_parser_is_left_alone)
{
  for (const char *data :
       {"<a><b c=\"1\"/></a>", "<a><p:b xmlns:p=\"urn:p\"/></a>", "<a>text<b/></a>", "<a><b/>text</a>", "<a>&#x31;</a>",
        "<a><!-- b --></a>", "<a><![CDATA[b]]></a>", "<a><?b c?></a>", "<a>1\r</a>", "<a></b>", "<a><b></a></b>",
        "</a>", "<a>", "<a", "<a xmlns=\"urn:1", "a", "<a/>b"}) {
    size_t taken = 1;
    EXPECT_EQ(cut_text(data, "<a/>", 100, &taken), "") << data;
    EXPECT_EQ(taken, 0U) << data;
  }
}

TEST(filter_cut, characters_in_which_seals_are_written_for_a_parser_are_data_too)
{
  const std::string data = "<a><x>\xEE\x80\x80S1\xEE\x80\x80S</x><y>\1#%<&%\1</y></a><a><x>2</x></a>";
  std::string left = cut(std::string(ds_seals_to_xml(data)), "<a><x>\xEE\x80\x80S1\xEE\x80\x80S</x><y/></a>");
  EXPECT_EQ(std::string(ds_seals_from_xml(left)), data.substr(0, data.find("<a><x>2")));
}
