// Cutting text down to what a filter selects, without making a tree of it: for text in the plain form in which stored
// data is written, which is elements, character data and declarations of namespaces.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "libconf/wiped_string.h"
#include "ymgrd/datastore/ds_filter.h"

// An element in the text. Positions are bytes from the start of the text.
typedef struct _text_elem {
  std::string_view name;
  std::string_view ns;   // as it is written
  std::string_view text; // character data as it is written; empty when there are elements below
  uint32_t begin = 0;
  uint32_t content = 0;     // behind the opening tag
  uint32_t content_end = 0; // where the closing tag starts
  uint32_t end = 0;
  uint32_t next = 0;     // distance to the next sibling in document order; 0 when there is none
  bool is_inner = false; // its first child is the next element in document order
  uint8_t mark = 0;
} text_elem_t;

// For several texts one behind the other, whose elements inherit the namespace `ns`. Borrows both arguments.
class ds_text_cutter {
public:
  ds_text_cutter(const ds_prepared_filter &filter, std::string_view ns) : filter_(filter), ns_(ns) {}

  // Takes elements from the start of `read` until `enough` bytes are taken, and appends what is selected of them to
  // `text`. Bytes taken; 0, and nothing appended, when they are not plain.
  size_t cut(std::string_view read, size_t enough, wiped_string *text);

private:
  const ds_prepared_filter &filter_;
  std::string_view ns_;
  std::vector<text_elem_t> elems_; // in document order
};
