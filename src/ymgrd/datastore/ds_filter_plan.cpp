#include "ymgrd/datastore/ds_filter_plan.h"

#include <algorithm>
#include <limits>
#include <list>
#include <memory>
#include <unordered_map>

#include "ymgrd/core/log.h"
#include "ymgrd/database/database_element.h"
#include "ymgrd/database/database_path.h"
#include "ymgrd/datastore/dbkey.h"
#include "ymgrd/datastore/ds_filter_text.h"
#include "ymgrd/datastore/ds_sealed.h"
#include "ymgrd/schema/schema_value.h"

namespace {

// Reads of the database for one request; beyond that, what they have in common is read as a whole.
constexpr size_t MAX_REMOTE_READS = 64;
// Text that is cut down at once: what is known of its elements takes more memory than the text.
constexpr size_t PIECE_BYTES = 65536;
// Entries of a user-ordered list whose positions are looked up, each at the cost of a walk along the list.
constexpr size_t MAX_POSITIONS = 64;

struct plan_node_t {
  ds_step_t step;              // of the root: none
  bool whole = false;          // read with all below; else only `children`
  bool selected = false;       // all that is read is selected; else it is cut down by
  ds_filter_elements elements; // that the node stands for
  std::vector<std::unique_ptr<plan_node_t>> children;
  std::unordered_map<std::string, plan_node_t *> index; // of `children`, by their key below this node

  plan_node_t *child(const lysc_node *schema, std::vector<std::string> keys);
};

plan_node_t *plan_node_t::child(const lysc_node *schema, std::vector<std::string> keys)
{
  ds_step_t wanted{schema, std::move(keys)};
  std::string key = ds_path_key({&wanted});
  auto known = index.find(key);
  if (known != index.end()) {
    return known->second;
  }
  auto made = std::make_unique<plan_node_t>();
  made->step = std::move(wanted);
  plan_node_t *node = made.get();
  index.emplace(std::move(key), node);
  children.push_back(std::move(made));
  return node;
}

// --- From filter to plan

bool is_content_match(const lyxml_elem *elem)
{
  return lyxml_first_child(elem) == nullptr && !lyxml_is_blank(lyxml_text(elem));
}

const lyxml_elem *first_match(const lyxml_elem *parent, const lysc_node *key, const lysc_node *list)
{
  for (const lyxml_elem *elem = lyxml_first_child(parent); elem != nullptr; elem = lyxml_next(elem)) {
    if (is_content_match(elem) && ds_filter_schema(elem, {list}) == ds_schema_nodes{key}) {
      return elem;
    }
  }
  return nullptr;
}

// The keys of the entry that the filter names by all of them; none when it does not.
std::vector<std::string> entry_keys(const lyxml_elem *elem, const lysc_node *list)
{
  std::vector<std::string> keys;
  for (const lysc_node *key = lysc_node_child(list); key != nullptr && lysc_is_key(key); key = key->next) {
    const lyxml_elem *match = first_match(elem, key, list);
    std::string value = match == nullptr ? std::string() : std::string(nc_clrwspace(lyxml_text(match)));
    const lysc_type *type = reinterpret_cast<const lysc_node_leaf *>(key)->type;
    bool may_be_path = value.starts_with('/') && schema_may_be_path(type); // the filter has not its canonical form
    if (match == nullptr || may_be_path || !ds_can_be_key(value)) {
      return {};
    }
    keys.push_back(std::move(value));
  }
  return keys;
}

void plan_siblings(const lyxml_elem *parent, const ds_schema_nodes &schemas, plan_node_t *node);

void plan_element(const lyxml_elem *elem, const lysc_node *schema, bool is_sure, plan_node_t *parent)
{
  if (elem->properties != nullptr) {
    return; // stored elements have no attributes
  }
  if (parent->step.is_entry() && lysc_is_key(schema)) {
    return; // an entry brings its keys
  }
  bool is_selection = lyxml_first_child(elem) == nullptr;
  bool may_be_entry = is_sure && !is_selection && schema->nodetype == LYS_LIST;
  plan_node_t *node = parent->child(schema, may_be_entry ? entry_keys(elem, schema) : std::vector<std::string>());
  node->elements.push_back(elem);
  if (node->step.is_entry() || (is_sure && !is_selection && schema->nodetype == LYS_CONTAINER)) {
    plan_siblings(elem, {schema}, node);
  } else {
    node->whole = true;
    node->selected = node->selected || is_selection;
  }
}

// `schemas`: of the parent element; empty for <filter>.
void plan_siblings(const lyxml_elem *parent, const ds_schema_nodes &schemas, plan_node_t *node)
{
  size_t named_keys = 0;
  bool any = false; // but content match nodes
  for (const lyxml_elem *elem = lyxml_first_child(parent); elem != nullptr; elem = lyxml_next(elem)) {
    ds_schema_nodes nodes = ds_filter_schema(elem, schemas);
    if (!is_content_match(elem)) {
      any = true;
      for (const lysc_node *schema : nodes) {
        plan_element(elem, schema, nodes.size() == 1, node);
      }
    } else if (node->step.is_entry() && nodes.size() == 1 && lysc_is_key(nodes.front()) &&
               elem->properties == nullptr) {
      named_keys++;
    } else {
      node->whole = true; // what it is compared with may be any of the siblings
      return;
    }
  }
  bool is_contradiction = named_keys > node->step.keys.size(); // a key is wanted to have two values
  node->whole = node->whole || !any || is_contradiction;
  node->selected = node->selected || (!any && !is_contradiction); // nothing but its keys: all of the entry
}

// --- Fewer and larger reads

// Entries of a list that is read as a whole: what the filter wants of them is cut out of the list.
void drop_covered(plan_node_t *node)
{
  std::unordered_map<const lysc_node *, plan_node_t *> whole_lists;
  for (const auto &child : node->children) {
    if (child->whole && !child->step.is_entry() && child->step.schema->nodetype == LYS_LIST) {
      whole_lists.emplace(child->step.schema, child.get());
    }
  }
  std::erase_if(node->children, [&](const std::unique_ptr<plan_node_t> &child) {
    auto list = whole_lists.find(child->step.schema);
    if (list == whole_lists.end() || list->second == child.get()) {
      return false;
    }
    ds_filter_elements *elements = &list->second->elements;
    elements->insert(elements->end(), child->elements.begin(), child->elements.end());
    return true;
  });
}

struct group_t {
  size_t entries = 0;
  size_t reads = 0;
};

// The number of reads that the node comes to.
size_t simplify(plan_node_t *node, size_t limit)
{
  if (node->whole) {
    return 1;
  }
  drop_covered(node);
  size_t total = node->step.is_entry() ? 1 : 0; // whether it is there
  std::unordered_map<const lysc_node *, group_t> groups;
  for (const auto &child : node->children) {
    size_t reads = simplify(child.get(), limit);
    total += reads;
    if (child->step.is_entry()) {
      groups[child->step.schema].entries++;
      groups[child->step.schema].reads += reads;
    }
  }
  for (const auto &[list, group] : groups) {
    bool is_ordered = lysc_is_userordered(list);
    if (group.reads > limit || (is_ordered && group.entries > MAX_POSITIONS)) {
      node->child(list, {})->whole = true;
      total -= group.reads - 1;
    }
  }
  drop_covered(node);
  if (total <= limit) {
    return total;
  }
  node->whole = true;
  return 1;
}

// --- Cutting down

// The end of the element that starts at `pos`, in text that the daemon made.
size_t end_of_element(std::string_view text, size_t pos)
{
  int open = 0;
  do {
    bool is_closing = pos + 1 < text.size() && text[pos + 1] == '/';
    char quote = '\0';
    size_t end = pos + 1;
    for (; end < text.size() && (quote != '\0' || text[end] != '>'); end++) {
      char c = text[end];
      if (quote != '\0') {
        quote = c == quote ? '\0' : quote;
      } else if (c == '"' || c == '\'') {
        quote = c;
      }
    }
    bool is_empty = end > 0 && end < text.size() && text[end - 1] == '/';
    open += is_closing ? -1 : is_empty ? 0 : 1;
    pos = open > 0 ? ds_find_tag(text, end) : std::min(end + 1, text.size());
  } while (open > 0 && pos != std::string_view::npos);
  return std::min(pos, text.size());
}

// The end of the first elements that come to `enough` bytes.
size_t end_of_elements(std::string_view text, size_t enough)
{
  size_t end = 0;
  while (end < std::min(text.size(), enough)) {
    end = end_of_element(text, end);
  }
  return end;
}

// Appends what the filter selects of the elements in `piece`, which inherit the namespace `ns`. 0 or -1.
int cut_piece(std::string_view piece, std::string_view ns, const ds_prepared_filter &filter, wiped_string *text)
{
  wiped_string document("<data xmlns=\"");
  handle_special_key(&document, ns, DB_XML_ESCAPE);
  bool has_seals = ds_needs_xml_seals(piece);
  document.append("\">").append(has_seals ? ds_seals_to_xml(piece) : wiped_string(piece)).append("</data>");
  lyxml_ptr data = lyxml_parse_mem(document);
  if (data == nullptr) {
    log_error("Stored data is no XML.");
    return -1;
  }
  lyxml_ptr selected = ds_xml_subtree_filter(std::move(data), filter);
  if (selected == nullptr || !has_seals) {
    return selected == nullptr ? 0 : lyxml_append_children(selected.get(), text);
  }
  wiped_string sealed;
  if (lyxml_append_children(selected.get(), &sealed) != 0) {
    return -1;
  }
  text->append(ds_seals_from_xml(sealed));
  return 0;
}

// In pieces, which siblings of one name allow: none of them decides about another.
int cut_text(std::string_view read, const plan_node_t &node, wiped_string *text)
{
  ds_prepared_filter filter(node.elements);
  const lysc_node *parent = node.step.schema == nullptr ? nullptr : lysc_data_parent(node.step.schema);
  std::string_view ns = parent == nullptr ? "" : parent->module->ns;
  ds_text_cutter cutter(filter, ns);
  size_t enough = node.step.schema == nullptr ? read.size() : PIECE_BYTES;
  while (!read.empty()) {
    size_t taken = cutter.cut(read, enough, text);
    if (taken == 0) { // markup of an anyxml, which may be anything: left to the parser
      taken = end_of_elements(read, enough);
      if (cut_piece(read.substr(0, taken), ns, filter, text) != 0) {
        return -1;
      }
    }
    read.remove_prefix(taken);
  }
  return 0;
}

// --- From plan to text

class plan_reader {
public:
  plan_reader(const ds_source &source, wiped_string *text) : source_(source), text_(text) {}

  // The node at the end of the path.
  int read(plan_node_t *node)
  {
    if (node->whole && node->selected) {
      return source_.read_text(path_, text_);
    }
    if (node->whole) {
      wiped_string read;
      return source_.read_text(path_, &read) != 0 ? -1 : cut_text(read, *node, text_);
    }
    if (path_.empty()) {
      return read_children(node);
    }
    bool is_there = true;
    if (node->step.is_entry() && source_.has_entry(path_, &is_there) != 0) {
      return -1;
    }
    if (!is_there) {
      return 0;
    }
    std::string name;
    size_t begin = text_->size();
    if (ds_append_opening(path_, text_, &name) != 0) {
      return -1;
    }
    size_t content = text_->size();
    if (read_children(node) != 0) {
      return -1;
    }
    if (text_->size() == content && !node->step.is_entry()) {
      text_->resize(begin); // nothing below is there: not selected
    } else {
      db_add_etag(name, text_);
    }
    return 0;
  }

private:
  int read_children(plan_node_t *node)
  {
    if (order_entries(node) != 0) {
      return -1;
    }
    for (const auto &child : node->children) {
      path_.push_back(&child->step);
      int result = read(child.get());
      path_.pop_back();
      if (result != 0) {
        return -1;
      }
    }
    return 0;
  }

  // Entries of user-ordered lists come in the order of their list, whatever the order in the filter.
  int order_entries(plan_node_t *node)
  {
    std::unordered_map<const lysc_node *, size_t> entries;
    for (const auto &child : node->children) {
      entries[child->step.schema] += child->step.is_entry() && lysc_is_userordered(child->step.schema) ? 1 : 0;
    }
    for (const auto &[list, count] : entries) {
      if (count > 1 && order_entries_of(node, list) != 0) {
        return -1;
      }
    }
    return 0;
  }

  int order_entries_of(plan_node_t *node, const lysc_node *list)
  {
    std::vector<std::pair<int, std::unique_ptr<plan_node_t>>> placed;
    for (auto &child : node->children) {
      if (child->step.schema != list) {
        continue;
      }
      path_.push_back(&child->step);
      int index = 0;
      int result = source_.index_of(path_, &index);
      path_.pop_back();
      if (result != 0) {
        return -1;
      }
      placed.emplace_back(index, std::move(child));
    }
    std::sort(placed.begin(), placed.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    auto next = placed.begin();
    for (auto &child : node->children) {
      if (child == nullptr) {
        child = std::move((next++)->second);
      }
    }
    return 0;
  }

  const ds_source &source_;
  wiped_string *text_;
  ds_path_t path_;
};

} // namespace

int ds_filter_read(const ds_source &source, const nc_filter_t &filter, wiped_string *text)
{
  if (filter.type != NC_FILTER_SUBTREE) {
    log_error("Unkown filter type(%d).", filter.type);
    return -1;
  }
  if (filter.subtree_filter == nullptr) {
    log_error("invalid filter.");
    return -1;
  }
  plan_node_t root;
  for (const lyxml_elem *elem = lyxml_first_child(filter.subtree_filter.get()); elem != nullptr;
       elem = lyxml_next(elem)) {
    root.elements.push_back(elem);
  }
  plan_siblings(filter.subtree_filter.get(), {}, &root);
  (void)simplify(&root, source.is_remote() ? MAX_REMOTE_READS : std::numeric_limits<size_t>::max());
  return plan_reader(source, text).read(&root);
}
