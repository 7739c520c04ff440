// Preparing a filter, and cutting parsed data down to what it selects: one walk marks, a second one frees what is not
// marked.
#include "ymgrd/datastore/ds_filter.h"

#include <algorithm>
#include <utility>

#include "ymgrd/datastore/ds_filter_select.h"
#include "ymgrd/datastore/ds_sealed.h"

namespace {

// --- Parsed data. The marks are in the elements' private field.

char mark_path;
char mark_whole;

// The text directly below: in place when it is one piece, as it is in leafs.
std::string_view text_of(const lyxml_elem *elem, wiped_string *buffer)
{
  const xmlNode *text = elem->children;
  if (text == nullptr) {
    return {};
  }
  if (text->next == nullptr && text->type == XML_TEXT_NODE && text->content != nullptr) {
    return reinterpret_cast<const char *>(text->content);
  }
  buffer->assign(lyxml_text(elem));
  return *buffer;
}

struct parsed_data {
  using elem_t = lyxml_elem;

  static lyxml_elem *first_child(const lyxml_elem *elem) { return lyxml_first_child(elem); }
  static lyxml_elem *next(const lyxml_elem *elem) { return lyxml_next(elem); }
  static std::string_view name(const lyxml_elem *elem) { return lyxml_name(elem); }
  static content_key_t content_key(const lyxml_elem *elem, wiped_string *buffer)
  {
    return {lyxml_name(elem), nc_clrwspace(text_of(elem, buffer))};
  }
  static bool fits(const lyxml_elem *refer, const lyxml_elem *node)
  {
    return lyxml_name(refer) == lyxml_name(node) && nc_nscmp(refer, node) == 0 && attrcmp(refer, node) == 0;
  }
  static filter_mark_t mark(const lyxml_elem *elem)
  {
    return elem->_private == &mark_whole ? MARK_WHOLE : elem->_private == &mark_path ? MARK_PATH : MARK_NONE;
  }
  static void set_mark(lyxml_elem *elem, filter_mark_t mark)
  {
    elem->_private = mark == MARK_WHOLE ? &mark_whole : mark == MARK_PATH ? &mark_path : nullptr;
  }
};

// The same where sensitive values are sealed.
struct sealed_data : parsed_data {
  static content_key_t content_key(const lyxml_elem *elem, wiped_string *buffer)
  {
    content_key_t key = parsed_data::content_key(elem, buffer);
    if (ds_is_sealed_in_xml(key.text)) {
      key.text = ds_open_sealed_in_xml(wiped_string(key.text), buffer);
    } else if (ds_needs_xml_seals(key.text)) { // a private-use character of the data's own
      *buffer = ds_seals_from_xml(key.text);
      key.text = *buffer;
    }
    return key;
  }
};

// Frees the siblings, and what is below them, that are not marked; takes the marks off. Whether any is left.
bool drop_unmarked(lyxml_elem *first)
{
  bool any = false;
  lyxml_elem *next = nullptr;
  for (lyxml_elem *elem = first; elem != nullptr; elem = next) {
    next = lyxml_next(elem);
    filter_mark_t mark = parsed_data::mark(elem);
    parsed_data::set_mark(elem, MARK_NONE);
    if (mark == MARK_NONE) {
      lyxml_free_elem(elem);
      continue;
    }
    any = true;
    if (mark == MARK_PATH) {
      (void)drop_unmarked(lyxml_first_child(elem)); // something is left, or it would not be marked
    }
  }
  return any;
}

// The same without freeing anything.
bool clear_marks(lyxml_elem *first)
{
  bool any = false;
  for (lyxml_elem *elem = first; elem != nullptr; elem = lyxml_next(elem)) {
    any |= parsed_data::mark(elem) != MARK_NONE;
    parsed_data::set_mark(elem, MARK_NONE);
    (void)clear_marks(lyxml_first_child(elem)); // a mark counts when it is on the top
  }
  return any;
}

// --- A filter's sibling list, prepared for look-ups.

void add_name(std::vector<std::string_view> *names, std::string_view name)
{
  if (std::find(names->begin(), names->end(), name) == names->end()) {
    names->push_back(name);
  }
}

ds_filter_elements elements_from(const lyxml_elem *first)
{
  ds_filter_elements elements;
  for (const lyxml_elem *elem = first; elem != nullptr; elem = lyxml_next(elem)) {
    elements.push_back(elem);
  }
  return elements;
}

// The key of a content match node; its text lives as long as `siblings`.
content_key_t kept_key(const lyxml_elem *elem, filter_siblings_t *siblings)
{
  wiped_string buffer;
  content_key_t key = parsed_data::content_key(elem, &buffer);
  key.text = siblings->texts.emplace_back(key.text);
  return key;
}

std::unique_ptr<filter_siblings_t> prepare(const ds_filter_elements &elements)
{
  auto siblings = std::make_unique<filter_siblings_t>();
  for (const lyxml_elem *elem : elements) {
    const lyxml_elem *child = lyxml_first_child(elem);
    wiped_string buffer;
    if (child == nullptr && !nc_clrwspace(text_of(elem, &buffer)).empty()) {
      siblings->match_index.emplace(kept_key(elem, siblings.get()), siblings->matches.size());
      siblings->matches.push_back(elem);
      add_name(&siblings->match_names, lyxml_name(elem));
      continue;
    }
    auto node = std::make_unique<filter_node_t>();
    node->elem = elem;
    node->below = child == nullptr ? nullptr : prepare(elements_from(child));
    filter_group_t &group = siblings->groups[lyxml_name(elem)];
    if (node->below == nullptr || node->below->matches.empty()) {
      group.always.push_back(node.get());
    } else {
      const lyxml_elem *match = node->below->matches.front();
      group.by_content.emplace(kept_key(match, siblings.get()), node.get());
      add_name(&group.names, lyxml_name(match));
    }
    siblings->nodes.push_back(std::move(node));
  }
  return siblings;
}

} // namespace

int nc_nscmp(const lyxml_elem *refer, const lyxml_elem *node)
{
  std::string_view wanted = lyxml_ns(refer);
  return wanted.empty() || wanted == lyxml_ns(node) ? 0 : 1;
}

int attrcmp(const lyxml_elem *refer, const lyxml_elem *node)
{
  for (const xmlAttr *attr = refer->properties; attr != nullptr; attr = attr->next) {
    if (attr->children == nullptr) {
      return 0;
    }
    const xmlChar *ns = attr->ns == nullptr ? nullptr : attr->ns->href;
    std::unique_ptr<xmlChar, void (*)(void *)> wanted(xmlNodeListGetString(refer->doc, attr->children, 1), xmlFree);
    std::unique_ptr<xmlChar, void (*)(void *)> value(
        ns == nullptr ? xmlGetNoNsProp(node, attr->name) : xmlGetNsProp(node, attr->name, ns), xmlFree);
    if (value == nullptr || !xmlStrEqual(wanted.get(), value.get())) {
      return 1;
    }
  }
  return 0;
}

std::string_view nc_clrwspace(std::string_view in)
{
  constexpr std::string_view blanks = " \t\r\n";
  size_t first = in.find_first_not_of(blanks);
  return first == std::string_view::npos ? std::string_view()
                                         : in.substr(first, in.find_last_not_of(blanks) - first + 1);
}

ds_prepared_filter::ds_prepared_filter(const ds_filter_elements &elements) : siblings_(prepare(elements)) {}

ds_prepared_filter::~ds_prepared_filter() = default;

bool ncxml_subtree_filter(lyxml_elem *config, const ds_prepared_filter &filter)
{
  (void)selector<parsed_data>().select(config, filter.siblings()); // the marks say what was selected
  return drop_unmarked(config);
}

bool ncxml_subtree_selects(lyxml_elem *config, const ds_prepared_filter &filter)
{
  (void)selector<parsed_data>().select(config, filter.siblings());
  return clear_marks(config);
}

lyxml_ptr ds_xml_subtree_filter(lyxml_ptr old, const ds_prepared_filter &filter)
{
  lyxml_elem *first = lyxml_first_child(old.get());
  (void)selector<sealed_data>().select(first, filter.siblings()); // the marks say what was selected
  bool any = drop_unmarked(first);
  return any ? std::move(old) : nullptr;
}
