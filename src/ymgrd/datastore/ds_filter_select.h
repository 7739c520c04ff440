// How a prepared filter marks what it selects, for data of any form. Data elements are looked at once for each filter
// element that may select them, which are found by name and, for the usual many entries of one list, by content.
#pragma once

#include <algorithm>
#include <list>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "libconf/wiped_string.h"
#include "ymgrd/rpc/lyxml.h"

// By which content match nodes and the data that fits them find each other. Borrows both texts.
typedef struct _content_key {
  std::string_view name;
  std::string_view text; // without white space at its ends
  bool operator==(const _content_key &other) const = default;
} content_key_t;

struct content_hash_t {
  size_t operator()(const content_key_t &key) const
  {
    constexpr size_t SPREAD = 31;
    return std::hash<std::string_view>()(key.name) * SPREAD + std::hash<std::string_view>()(key.text);
  }
};
template <class T>
using content_map = std::unordered_multimap<content_key_t, T, content_hash_t>;

struct filter_siblings_t;

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
  std::list<wiped_string> texts; // to which the content keys refer
};

typedef enum _filter_mark {
  MARK_NONE = 0,
  MARK_PATH,  // something below is selected
  MARK_WHOLE, // all of it is selected
} filter_mark_t;

// `Data` says how to walk and mark elements of the type Data::elem_t: first_child(), next(), name(), mark(),
// set_mark(), fits(filter element, elem), and content_key(elem, buffer for a text that is not in one piece).
template <class Data>
class selector {
public:
  using elem_t = typename Data::elem_t;

  // Marks what the filter siblings select of the data siblings. Whether it is anything.
  bool select(elem_t *first, const filter_siblings_t &filter)
  {
    return filter.matches.empty() ? ds_filter_containment(first, filter) : ds_filter_leaf(first, filter);
  }

private:
  static bool is_whole(const elem_t *elem) { return Data::mark(elem) == MARK_WHOLE; }

  static bool is_one_of(const std::vector<std::string_view> &names, const elem_t *elem)
  {
    return std::find(names.begin(), names.end(), Data::name(elem)) != names.end();
  }

  bool select_by(const filter_node_t &node, elem_t *elem)
  {
    if (!Data::fits(node.elem, elem)) {
      return false;
    }
    if (node.below == nullptr) {
      Data::set_mark(elem, MARK_WHOLE);
      return true;
    }
    if (!select(Data::first_child(elem), *node.below)) {
      return false;
    }
    if (!is_whole(elem)) {
      Data::set_mark(elem, MARK_PATH);
    }
    return true;
  }

  // By the filter siblings that want a child of a certain content.
  bool select_by_content(const filter_group_t &group, elem_t *elem)
  {
    bool any = false;
    if (group.names.empty()) {
      return false;
    }
    wiped_string buffer;
    for (elem_t *child = Data::first_child(elem); child != nullptr; child = Data::next(child)) {
      if (!is_one_of(group.names, child)) {
        continue;
      }
      auto [begin, end] = group.by_content.equal_range(Data::content_key(child, &buffer));
      for (auto found = begin; found != end; ++found) {
        any |= select_by(*found->second, elem);
      }
    }
    return any;
  }

  // Without content match nodes among the filter siblings: each selects by itself.
  bool ds_filter_containment(elem_t *first, const filter_siblings_t &filter)
  {
    bool any = false;
    for (elem_t *elem = first; elem != nullptr; elem = Data::next(elem)) {
      auto group = filter.groups.find(Data::name(elem));
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
  bool ds_filter_leaf(elem_t *first, const filter_siblings_t &filter)
  {
    std::vector<elem_t *> matching;
    if (!find_matching(first, filter, &matching)) {
      return false;
    }
    for (elem_t *elem : matching) {
      Data::set_mark(elem, MARK_WHOLE);
    }
    for (elem_t *elem = filter.nodes.empty() ? first : nullptr; elem != nullptr; elem = Data::next(elem)) {
      Data::set_mark(elem, MARK_WHOLE);
    }
    (void)ds_filter_containment(first, filter); // what holds is selected in any case
    return true;
  }

  // Whether all content match nodes hold; the data in which they do.
  bool find_matching(elem_t *first, const filter_siblings_t &filter, std::vector<elem_t *> *ret_matching)
  {
    std::vector<bool> holds(filter.matches.size());
    size_t missing = holds.size();
    wiped_string buffer;
    for (elem_t *elem = first; elem != nullptr; elem = Data::next(elem)) {
      if (!is_one_of(filter.match_names, elem)) {
        continue;
      }
      auto [begin, end] = filter.match_index.equal_range(Data::content_key(elem, &buffer));
      for (auto found = begin; found != end; ++found) {
        if (Data::fits(filter.matches[found->second], elem)) {
          ret_matching->push_back(elem);
          missing -= holds[found->second] ? 0 : 1;
          holds[found->second] = true;
        }
      }
    }
    return missing == 0;
  }
};
