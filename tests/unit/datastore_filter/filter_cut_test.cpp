// What a filter leaves of data: XML in, XML out, no schema.
#include <string>

#include <gtest/gtest.h>

#include "ymgrd/datastore/ds_filter.h"

namespace {

std::string cut(const std::string &data, const std::string &filter)
{
  lyxml_ptr old = lyxml_parse_mem("<data>" + data + "</data>");
  lyxml_ptr parsed = lyxml_parse_mem("<filter>" + filter + "</filter>");
  if (old == nullptr || parsed == nullptr) {
    return "(not well-formed)";
  }
  ds_filter_elements elements;
  for (const lyxml_elem *elem = lyxml_first_child(parsed.get()); elem != nullptr; elem = lyxml_next(elem)) {
    elements.push_back(elem);
  }
  lyxml_ptr left = ds_xml_subtree_filter(std::move(old), ds_prepared_filter(elements));
  std::string text;
  for (const lyxml_elem *elem = left == nullptr ? nullptr : lyxml_first_child(left.get()); elem != nullptr;
       elem = lyxml_next(elem)) {
    text += lyxml_print_mem(elem);
  }
  return text;
}

const char USERS[] = "<top><users>"
                     "<user><name>root</name><type>super</type><info><dept>1</dept><id>1</id></info></user>"
                     "<user><name>fred</name><type>admin</type><info><dept>2</dept><id>2</id></info></user>"
                     "</users><version>7</version></top>";
const char TAGS[] = "<s><tag>1</tag><tag>2</tag><tag>3</tag><name>n</name></s>";
const char MARKED[] = "<a xmlns=\"urn:1\"><x>1</x></a><a xmlns=\"urn:2\"><x>2</x></a>"
                      "<if name=\"e0\" n:s=\"up\" xmlns:n=\"urn:n\"/><if name=\"e1\"/>";

} // namespace

TEST(filter_cut, siblings_select_by_name_content_and_attributes)
{
  const struct {
    const char *what;
    const char *data;
    const char *filter;
    const char *left;
  } cases[] = {
      {"white space makes no content", USERS, "<top><version> \n </version></top>", "<top><version>7</version></top>"},
      {"content alone in a container", USERS, "<top><users><user><info><id>2</id></info></user></users></top>",
       "<top><users><user><info><dept>2</dept><id>2</id></info></user></users></top>"},
      {"content that holds is selected though the rest is not", USERS,
       "<top><users><user><name>fred</name><info><id>9</id></info></user></users></top>",
       "<top><users><user><name>fred</name></user></users></top>"},
      {"one entry selected by several siblings", USERS,
       "<top><users><user><type/></user><user><name>root</name><info><id/></info></user></users></top>",
       "<top><users><user><name>root</name><type>super</type><info><id>1</id></info></user>"
       "<user><type>admin</type></user></users></top>"},
      {"whole and part, whatever the order", USERS, "<top><version/></top><top><version>7</version></top><top/>",
       USERS},
      {"a filter that fails does not keep another from selecting", USERS,
       "<top><version>8</version></top><top><version/></top>", "<top><version>7</version></top>"},
      {"all values of a leaf-list must be there", TAGS, "<s><tag>2</tag><tag>4</tag><name/></s>", ""},
      {"only the values that match", TAGS, "<s><tag>2</tag><tag>3</tag><name/></s>",
       "<s><tag>2</tag><tag>3</tag><name>n</name></s>"},
      {"values alone keep all", TAGS, "<s><tag>2</tag></s>", TAGS},
      {"namespace", MARKED, "<a xmlns=\"urn:2\"/>", "<a xmlns=\"urn:2\"><x>2</x></a>"},
      {"any namespace", MARKED, "<a><x>1</x></a>", "<a xmlns=\"urn:1\"><x>1</x></a>"},
      {"no such namespace", MARKED, "<a xmlns=\"urn:3\"/>", ""},
      {"attribute", MARKED, "<if name=\"e1\"/>", "<if name=\"e1\"/>"},
      {"attributes, of which one has a namespace", MARKED, "<if name=\"e0\" p:s=\"up\" xmlns:p=\"urn:n\"/>",
       "<if xmlns:n=\"urn:n\" name=\"e0\" n:s=\"up\"/>"},
      {"attributes that are not there", MARKED, "<if name=\"e1\" s=\"up\"/><if other=\"e1\"/>", ""},
  };
  for (const auto &row : cases) {
    EXPECT_EQ(cut(row.data, row.filter), row.left) << row.what;
  }
}
