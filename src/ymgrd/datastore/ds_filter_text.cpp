#include "ymgrd/datastore/ds_filter_text.h"

#include <limits>

#include "ymgrd/database/database_path.h"
#include "ymgrd/datastore/ds_filter_select.h"
#include "ymgrd/datastore/ds_sealed.h"

namespace {

constexpr uint32_t NO_ELEM = std::numeric_limits<uint32_t>::max();

// Whether the daemon writes these characters so: then it can read them back.
bool is_plain_text(std::string_view written)
{
  if (written.find('\r') != std::string_view::npos) {
    return false;
  }
  if (written.find('&') == std::string_view::npos) {
    return true;
  }
  wiped_string text;
  wiped_string again;
  text.reserve(written.size()); // a short text would not be wiped
  again.reserve(written.size());
  handle_special_key(&text, written, DB_XML_UNESCAPE);
  handle_special_key(&again, text, DB_XML_ESCAPE);
  return again == written;
}

// Finds the elements of a text.
class text_scanner {
public:
  text_scanner(std::string_view text, std::string_view ns, std::vector<text_elem_t> *elems)
      : text_(text), ns_(ns), elems_(elems)
  {
  }

  // Up to the first end of a top element at `enough` or behind it. Bytes taken; 0 when they are not plain.
  size_t scan(size_t enough)
  {
    size_t pos = 0;
    while (pos < text_.size() && (!open_.empty() || pos < enough)) {
      size_t tag = ds_find_tag(text_, pos);
      if (tag == std::string_view::npos || tag + 1 == text_.size()) {
        return 0;
      }
      pos = text_[tag + 1] == '/' ? close(pos, tag) : tag == pos ? open(tag) : 0;
      if (pos == 0) {
        return 0;
      }
    }
    return open_.empty() ? pos : 0;
  }

private:
  // An opening tag. Position behind it; 0 when it is not plain.
  size_t open(size_t tag);
  // A closing tag, and the characters before it from `from` on. The same.
  size_t close(size_t from, size_t tag);
  // " xmlns="..."" or " xmlns:prefix="...""; `ret_ns` is set by the first of these. The same.
  size_t declaration(size_t pos, std::string_view *ret_ns) const;

  std::string_view text_;
  std::string_view ns_;
  std::vector<text_elem_t> *elems_;
  std::vector<uint32_t> open_;
  uint32_t last_ = NO_ELEM; // the closed sibling before
};

size_t text_scanner::declaration(size_t pos, std::string_view *ret_ns) const
{
  constexpr std::string_view keyword = " xmlns";
  size_t equals = text_.find_first_of("=>", pos);
  if (text_.compare(pos, keyword.size(), keyword) != 0 || equals == std::string_view::npos || text_[equals] != '=') {
    return 0;
  }
  bool is_default = equals == pos + keyword.size();
  if ((!is_default && text_[pos + keyword.size()] != ':') || equals + 1 == text_.size() || text_[equals + 1] != '"') {
    return 0;
  }
  size_t end = text_.find('"', equals + 2);
  if (end == std::string_view::npos) {
    return 0;
  }
  std::string_view ns = text_.substr(equals + 2, end - equals - 2);
  if (ns.find_first_of("&<") != std::string_view::npos) {
    return 0;
  }
  if (is_default) {
    *ret_ns = ns;
  }
  return end + 1;
}

size_t text_scanner::open(size_t tag)
{
  text_elem_t elem;
  elem.ns = open_.empty() ? ns_ : (*elems_)[open_.back()].ns;
  elem.begin = static_cast<uint32_t>(tag);
  size_t pos = tag + 1;
  while (pos < text_.size() && text_[pos] != '>' && text_[pos] != ' ' && text_[pos] != '/') {
    char c = text_[pos++];
    if (c == ':' || c == '!' || c == '?' || c == '\t' || c == '\n' || c == '<') {
      return 0;
    }
  }
  elem.name = text_.substr(tag + 1, pos - tag - 1);
  while (pos < text_.size() && text_[pos] == ' ') {
    pos = declaration(pos, &elem.ns);
    if (pos == 0) {
      return 0;
    }
  }
  bool is_empty = pos < text_.size() && text_[pos] == '/';
  pos += is_empty ? 1 : 0;
  if (elem.name.empty() || pos >= text_.size() || text_[pos] != '>') {
    return 0;
  }
  pos++;
  elem.content = elem.content_end = elem.end = static_cast<uint32_t>(pos);

  auto index = static_cast<uint32_t>(elems_->size());
  if (last_ != NO_ELEM) {
    (*elems_)[last_].next = index - last_;
  } else if (!open_.empty()) {
    (*elems_)[open_.back()].is_inner = true;
  }
  elems_->push_back(elem);
  last_ = is_empty ? index : NO_ELEM;
  if (!is_empty) {
    open_.push_back(index);
  }
  return pos;
}

size_t text_scanner::close(size_t from, size_t tag)
{
  if (open_.empty()) {
    return 0;
  }
  text_elem_t &elem = (*elems_)[open_.back()];
  size_t end = tag + 2 + elem.name.size();
  if (end >= text_.size() || text_[end] != '>' || text_.compare(tag + 2, elem.name.size(), elem.name) != 0) {
    return 0;
  }
  elem.text = text_.substr(from, tag - from);
  if (!elem.text.empty() && (elem.is_inner || (!ds_is_sealed(elem.text) && !is_plain_text(elem.text)))) {
    return 0;
  }
  elem.content_end = static_cast<uint32_t>(tag);
  elem.end = static_cast<uint32_t>(end + 1);
  last_ = open_.back();
  open_.pop_back();
  return elem.end;
}

struct text_data {
  using elem_t = text_elem_t;

  static text_elem_t *first_child(text_elem_t *elem) { return elem->is_inner ? elem + 1 : nullptr; }
  static text_elem_t *next(text_elem_t *elem) { return elem->next == 0 ? nullptr : elem + elem->next; }
  static std::string_view name(const text_elem_t *elem) { return elem->name; }
  static content_key_t content_key(const text_elem_t *elem, wiped_string *buffer)
  {
    if (ds_is_sealed(elem->text)) {
      return {elem->name, ds_open_sealed(elem->text, buffer)};
    }
    if (elem->text.find('&') == std::string_view::npos) {
      return {elem->name, nc_clrwspace(elem->text)};
    }
    buffer->clear();
    buffer->reserve(elem->text.size()); // a short text would not be wiped
    handle_special_key(buffer, elem->text, DB_XML_UNESCAPE);
    return {elem->name, nc_clrwspace(*buffer)};
  }
  static bool fits(const lyxml_elem *refer, const text_elem_t *elem)
  {
    std::string_view wanted = lyxml_ns(refer);
    bool wants_attribute = refer->properties != nullptr && refer->properties->children != nullptr;
    return !wants_attribute && lyxml_name(refer) == elem->name && (wanted.empty() || wanted == elem->ns);
  }
  static filter_mark_t mark(const text_elem_t *elem) { return static_cast<filter_mark_t>(elem->mark); }
  static void set_mark(text_elem_t *elem, filter_mark_t mark) { elem->mark = mark; }
};

void append_marked(std::string_view read, text_elem_t *first, wiped_string *text)
{
  for (text_elem_t *elem = first; elem != nullptr; elem = text_data::next(elem)) {
    if (elem->mark == MARK_WHOLE) {
      text->append(read, elem->begin, elem->end - elem->begin);
    } else if (elem->mark == MARK_PATH) {
      text->append(read, elem->begin, elem->content - elem->begin);
      append_marked(read, text_data::first_child(elem), text);
      text->append(read, elem->content_end, elem->end - elem->content_end);
    }
  }
}

} // namespace

size_t ds_text_cutter::cut(std::string_view read, size_t enough, wiped_string *text)
{
  elems_.clear();
  read = read.substr(0, std::numeric_limits<int32_t>::max()); // what ends behind that is not plain: it has no end
  size_t taken = text_scanner(read, ns_, &elems_).scan(enough);
  if (taken == 0) {
    return 0;
  }
  if (selector<text_data>().select(elems_.data(), filter_.siblings())) {
    append_marked(read, elems_.data(), text);
  }
  return taken;
}
