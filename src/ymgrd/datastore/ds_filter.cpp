// Cutting data down to what a subtree filter selects: one walk marks what is selected by any of the filter's elements,
// a second one frees what is not marked. Data elements are looked at once for each filter element that may select them,
// which are found by name and, for the usual many entries of one list, by content.
#include "ymgrd/datastore/ds_filter.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "libconf/wiped_string.h"

namespace {

// --- Marks, in the elements' private field.

char mark_path;  // something below is selected
char mark_whole; // all of it is selected

void mark_on_path(lyxml_elem *elem)
{
  if (elem->_private == nullptr) {
    elem->_private = &mark_path;
  }
}

void mark_as_whole(lyxml_elem *elem)
{
  elem->_private = &mark_whole;
}

bool is_whole(const lyxml_elem *elem)
{
  return elem->_private == &mark_whole;
}

// Frees the siblings, and what is below them, that are not marked; takes the marks off. Whether any is left.
bool drop_unmarked(lyxml_elem *first)
{
  bool any = false;
  lyxml_elem *next = nullptr;
  for (lyxml_elem *elem = first; elem != nullptr; elem = next) {
    next = lyxml_next(elem);
    void *mark = std::exchange(elem->_private, nullptr);
    if (mark == nullptr) {
      lyxml_free_elem(elem);
      continue;
    }
    any = true;
    if (mark == &mark_path) {
      (void)drop_unmarked(lyxml_first_child(elem)); // something is left, or it would not be marked
    }
  }
  return any;
}

// --- A filter's sibling list, prepared for look-ups.

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

// A name and a text, by which content match nodes and the data that fits them find each other.
wiped_string content_key(const lyxml_elem *elem)
{
  wiped_string buffer;
  wiped_string key(lyxml_name(elem));
  key.append(1, '\0').append(nc_clrwspace(text_of(elem, &buffer)));
  return key;
}

bool fits(const lyxml_elem *refer, const lyxml_elem *node)
{
  return lyxml_name(refer) == lyxml_name(node) && nc_nscmp(refer, node) == 0 && attrcmp(refer, node) == 0;
}

struct content_hash_t {
  size_t operator()(const wiped_string &key) const { return std::hash<std::string_view>()(key); }
};
template <class T>
using content_map = std::unordered_multimap<wiped_string, T, content_hash_t>;

} // namespace

// A containment or selection node.
struct filter_node_t {
  const lyxml_elem *elem = nullptr;
  std::unique_ptr<filter_siblings_t> below; // null for a selection node
};

// Filter siblings of one name.
struct filter_group_t {
  std::vector<const filter_node_t *> always;     // must be tried on each data element of the name
  content_map<const filter_node_t *> by_content; // only on those with that child
  std::vector<std::string_view> names;           // of these children
};

struct filter_siblings_t {
  std::vector<const lyxml_elem *> matches; // content match nodes
  content_map<size_t> match_index;         // the same by content; the positions in `matches`
  std::vector<std::string_view> match_names;
  std::vector<std::unique_ptr<filter_node_t>> nodes; // the others
  std::unordered_map<std::string_view, filter_group_t> groups;
};

namespace {

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

std::unique_ptr<filter_siblings_t> prepare(const ds_filter_elements &elements)
{
  auto siblings = std::make_unique<filter_siblings_t>();
  for (const lyxml_elem *elem : elements) {
    const lyxml_elem *child = lyxml_first_child(elem);
    wiped_string buffer;
    if (child == nullptr && !nc_clrwspace(text_of(elem, &buffer)).empty()) {
      siblings->match_index.emplace(content_key(elem), siblings->matches.size());
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
      group.by_content.emplace(content_key(match), node.get());
      add_name(&group.names, lyxml_name(match));
    }
    siblings->nodes.push_back(std::move(node));
  }
  return siblings;
}

// --- Selection.

class selector {
public:
  // Marks what the filter siblings select of the data siblings. Whether it is anything.
  bool select(lyxml_elem *first, const filter_siblings_t &filter)
  {
    return filter.matches.empty() ? ds_filter_containment(first, filter) : ds_filter_leaf(first, filter);
  }

private:
  bool ds_filter_containment(lyxml_elem *first, const filter_siblings_t &filter);
  bool ds_filter_leaf(lyxml_elem *first, const filter_siblings_t &filter);
  bool select_by(const filter_node_t &node, lyxml_elem *elem);
  bool select_by_content(const filter_group_t &group, lyxml_elem *elem);
};

bool selector::select_by(const filter_node_t &node, lyxml_elem *elem)
{
  if (!fits(node.elem, elem)) {
    return false;
  }
  if (node.below == nullptr) {
    mark_as_whole(elem);
    return true;
  }
  if (!select(lyxml_first_child(elem), *node.below)) {
    return false;
  }
  mark_on_path(elem);
  return true;
}

// By the filter siblings that want a child of a certain content.
bool selector::select_by_content(const filter_group_t &group, lyxml_elem *elem)
{
  bool any = false;
  if (group.names.empty()) {
    return false;
  }
  for (const lyxml_elem *child = lyxml_first_child(elem); child != nullptr; child = lyxml_next(child)) {
    if (std::find(group.names.begin(), group.names.end(), lyxml_name(child)) == group.names.end()) {
      continue;
    }
    auto [begin, end] = group.by_content.equal_range(content_key(child));
    for (auto found = begin; found != end; ++found) {
      any |= select_by(*found->second, elem);
    }
  }
  return any;
}

// Without content match nodes among the filter siblings: each selects by itself.
bool selector::ds_filter_containment(lyxml_elem *first, const filter_siblings_t &filter)
{
  bool any = false;
  for (lyxml_elem *elem = first; elem != nullptr; elem = lyxml_next(elem)) {
    auto group = filter.groups.find(lyxml_name(elem));
    if (group == filter.groups.end()) {
      continue;
    }
    for (const filter_node_t *node : group->second.always) {
      any |= !is_whole(elem) && select_by(*node, elem);
    }
    any |= !is_whole(elem) && select_by_content(group->second, elem);
    any |= is_whole(elem);
  }
  return any;
}

// With content match nodes: all of them must hold, then they are selected, with what their siblings select; all data
// siblings are when there are no filter siblings but content match nodes.
bool selector::ds_filter_leaf(lyxml_elem *first, const filter_siblings_t &filter)
{
  std::vector<lyxml_elem *> matching;
  std::vector<bool> holds(filter.matches.size());
  size_t missing = holds.size();
  for (lyxml_elem *elem = first; elem != nullptr; elem = lyxml_next(elem)) {
    const auto &names = filter.match_names;
    if (std::find(names.begin(), names.end(), lyxml_name(elem)) == names.end()) {
      continue;
    }
    auto [begin, end] = filter.match_index.equal_range(content_key(elem));
    for (auto found = begin; found != end; ++found) {
      if (fits(filter.matches[found->second], elem)) {
        matching.push_back(elem);
        missing -= holds[found->second] ? 0 : 1;
        holds[found->second] = true;
      }
    }
  }
  if (missing > 0) {
    return false;
  }
  for (lyxml_elem *elem : matching) {
    mark_as_whole(elem);
  }
  for (lyxml_elem *elem = filter.nodes.empty() ? first : nullptr; elem != nullptr; elem = lyxml_next(elem)) {
    mark_as_whole(elem);
  }
  (void)ds_filter_containment(first, filter); // what holds is selected in any case
  return true;
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
  (void)selector().select(config, filter.siblings()); // the marks say what was selected
  return drop_unmarked(config);
}

lyxml_ptr ds_xml_subtree_filter(lyxml_ptr old, const ds_prepared_filter &filter)
{
  bool any = ncxml_subtree_filter(lyxml_first_child(old.get()), filter);
  return any ? std::move(old) : nullptr;
}
