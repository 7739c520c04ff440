#include "ctl/ctl_diff.h"

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "ctl/ctl_print.h"
#include "ctl/ctl_tree.h"
#include "ctl/ctl_tree_writer.h"

namespace {

using node_list = std::vector<const lyd_node *>;

// Siblings by their schema node (null: all that the schema does not know), in document order.
class sibling_groups {
public:
  explicit sibling_groups(const lyd_node *first)
  {
    for (const lyd_node *node = first; node != nullptr; node = node->next) {
      if (!ctl_is_shown(node)) {
        continue;
      }
      auto [place, is_new] = groups_.try_emplace(node->schema);
      if (is_new) {
        order_.push_back(node->schema);
      }
      place->second.push_back(node);
    }
  }

  const std::vector<const lysc_node *> &order() const { return order_; }
  const node_list &of(const lysc_node *schema) const
  {
    static const node_list none;
    auto found = groups_.find(schema);
    return found == groups_.end() ? none : found->second;
  }

private:
  std::unordered_map<const lysc_node *, node_list> groups_;
  std::vector<const lysc_node *> order_;
};

// The order of `to`, with what only `from` has behind what it follows there.
std::vector<const lysc_node *> merged_order(const sibling_groups &from, const sibling_groups &to)
{
  std::vector<const lysc_node *> order = to.order();
  size_t place = 0;
  for (const lysc_node *schema : from.order()) {
    auto found = std::find(order.begin(), order.end(), schema);
    if (found == order.end()) {
      found = order.insert(order.begin() + static_cast<std::ptrdiff_t>(place), schema);
    }
    place = static_cast<size_t>(found - order.begin()) + 1;
  }
  return order;
}

// Which instances are the same one: entries of a list by their keys, others by their value.
typedef struct _matching {
  std::vector<size_t> from_place; // for each of `to`, where it was; NOWHERE
  std::vector<bool> is_kept;      // for each of `from`
} matching_t;
constexpr size_t NOWHERE = SIZE_MAX;

bool is_same_instance(const lyd_node *one, const lyd_node *other)
{
  const bool has_identity = one->schema != nullptr;
  return lyd_compare_single(one, other, has_identity ? 0 : LYD_COMPARE_FULL_RECURSION) == LY_SUCCESS;
}

matching_t match(const node_list &from, const node_list &to)
{
  matching_t matching{std::vector<size_t>(to.size(), NOWHERE), std::vector<bool>(from.size(), false)};
  std::unordered_multimap<uint32_t, size_t> places;
  places.reserve(from.size());
  for (size_t i = 0; i < from.size(); i++) {
    places.emplace(from[i]->hash, i); // of schema and keys; 0 for what the schema does not know
  }
  for (size_t i = 0; i < to.size(); i++) {
    auto [begin, end] = places.equal_range(to[i]->hash);
    for (auto place = begin; place != end; ++place) {
      if (is_same_instance(from[place->second], to[i])) {
        matching.from_place[i] = place->second;
        matching.is_kept[place->second] = true;
        places.erase(place);
        break;
      }
    }
  }
  return matching;
}

// Of the instances that are in both: those that need not move so that the order becomes the new one, as many as can be
// (a longest increasing subsequence of the old places).
std::vector<bool> find_resting(const std::vector<size_t> &from_place)
{
  std::vector<size_t> tails; // by length, the instance that ends a subsequence with the lowest old place
  std::vector<size_t> previous(from_place.size(), NOWHERE);
  for (size_t i = 0; i < from_place.size(); i++) {
    if (from_place[i] == NOWHERE) {
      continue;
    }
    auto slot = std::lower_bound(tails.begin(), tails.end(), from_place[i],
                                 [&](size_t tail, size_t place) { return from_place[tail] < place; });
    previous[i] = slot == tails.begin() ? NOWHERE : *(slot - 1);
    if (slot == tails.end()) {
      tails.push_back(i);
    } else {
      *slot = i;
    }
  }
  std::vector<bool> is_resting(from_place.size(), false);
  for (size_t i = tails.empty() ? NOWHERE : tails.back(); i != NOWHERE; i = previous[i]) {
    is_resting[i] = true;
  }
  return is_resting;
}

bool has_instances(const lysc_node *schema)
{
  return schema == nullptr || (schema->nodetype & (LYS_LIST | LYS_LEAFLIST)) != 0;
}

// Walks two trees side by side. Without a writer it only counts.
class tree_differ {
public:
  explicit tree_differ(ctl_tree_writer *writer) : writer_(writer) {}

  void siblings(const lyd_node *from, const lyd_node *to);
  const ctl_diff_counts_t &counts() const { return counts_; }

private:
  void single(const lyd_node *from, const lyd_node *to);
  void instances(const node_list &from, const node_list &to, bool is_ordered);
  void inside(const lyd_node *from, const lyd_node *to);
  void added(const lyd_node *node);
  void removed(const lyd_node *node);
  void moved(const lyd_node *node, const lyd_node *before);
  void show_context();
  void show(const lyd_node *node, ctl_mark mark);

  ctl_tree_writer *writer_;
  ctl_diff_counts_t counts_;
  node_list path_;         // from the top to where the walk is
  size_t shown_depth_ = 0; // how many of them have their line
};

void tree_differ::siblings(const lyd_node *from, const lyd_node *to)
{
  const sibling_groups old_groups(from);
  const sibling_groups new_groups(to);
  for (const lysc_node *schema : merged_order(old_groups, new_groups)) {
    const node_list &old_nodes = old_groups.of(schema);
    const node_list &new_nodes = new_groups.of(schema);
    if (has_instances(schema)) {
      instances(old_nodes, new_nodes, schema != nullptr && lysc_is_userordered(schema));
    } else {
      single(old_nodes.empty() ? nullptr : old_nodes.front(), new_nodes.empty() ? nullptr : new_nodes.front());
    }
  }
}

void tree_differ::single(const lyd_node *from, const lyd_node *to)
{
  const lysc_node *schema = to == nullptr ? from->schema : to->schema;
  const bool is_container = schema->nodetype == LYS_CONTAINER;
  // A container without presence is only a place: what is in it came, or went.
  if (is_container && ((from != nullptr && to != nullptr) || (schema->flags & LYS_PRESENCE) == 0)) {
    inside(from, to);
  } else if (from == nullptr) {
    added(to);
  } else if (to == nullptr) {
    removed(from);
  } else if (lyd_compare_single(from, to, LYD_COMPARE_FULL_RECURSION) != LY_SUCCESS) {
    counts_.changed++;
    show(from, ctl_mark::removed);
    show(to, ctl_mark::added);
  }
}

void tree_differ::instances(const node_list &from, const node_list &to, bool is_ordered)
{
  const matching_t matching = match(from, to);
  for (size_t i = 0; i < from.size(); i++) {
    if (!matching.is_kept[i]) {
      removed(from[i]);
    }
  }
  const std::vector<bool> is_resting = is_ordered ? find_resting(matching.from_place) : std::vector<bool>();
  for (size_t i = 0; i < to.size(); i++) {
    if (matching.from_place[i] == NOWHERE) {
      added(to[i]);
      continue;
    }
    if (is_ordered && !is_resting[i]) {
      moved(to[i], i == 0 ? nullptr : to[i - 1]);
    }
    const lyd_node *old = from[matching.from_place[i]];
    // Most entries are what they were; to see that is cheaper than to walk them.
    if (to[i]->schema != nullptr && to[i]->schema->nodetype == LYS_LIST &&
        lyd_compare_single(old, to[i], LYD_COMPARE_FULL_RECURSION) != LY_SUCCESS) {
      inside(old, to[i]);
    }
  }
}

void tree_differ::inside(const lyd_node *from, const lyd_node *to)
{
  path_.push_back(to == nullptr ? from : to);
  siblings(from == nullptr ? nullptr : lyd_child_no_keys(from), to == nullptr ? nullptr : lyd_child_no_keys(to));
  path_.pop_back();
  shown_depth_ = std::min(shown_depth_, path_.size());
}

void tree_differ::added(const lyd_node *node)
{
  counts_.added++;
  show(node, ctl_mark::added);
}

void tree_differ::removed(const lyd_node *node)
{
  counts_.removed++;
  show(node, ctl_mark::removed);
}

void tree_differ::moved(const lyd_node *node, const lyd_node *before)
{
  counts_.changed++;
  if (writer_ == nullptr) {
    return;
  }
  const bool is_entry = node->schema->nodetype == LYS_LIST;
  std::string text = is_entry ? "" : ctl_value_text(node) + " ";
  text += before == nullptr ? "moved first" : "moved after ";
  if (before != nullptr) {
    text += is_entry ? ctl_node_name(before) + ctl_key_text(before) : ctl_value_text(before);
  }
  show_context();
  writer_->remark(node, static_cast<int>(path_.size()), ctl_mark::moved, text);
}

void tree_differ::show_context()
{
  for (; shown_depth_ < path_.size(); shown_depth_++) {
    writer_->node(path_[shown_depth_], static_cast<int>(shown_depth_), ctl_mark::context);
  }
}

void tree_differ::show(const lyd_node *node, ctl_mark mark)
{
  if (writer_ != nullptr) {
    show_context();
    writer_->subtree(node, static_cast<int>(path_.size()), mark);
  }
}

int print_encoded_diff(const ctl_output_t &output, const lyd_node *from, const lyd_node *to, bool *ret_different)
{
  lyd_node *tree = nullptr;
  if (lyd_diff_siblings(from, to, 0, &tree) != LY_SUCCESS) {
    const ly_err_item *cause = ly_err_last(LYD_CTX(from == nullptr ? to : from));
    return ctl_fail(output, CTL_INPUT,
                    std::string("the difference cannot be made: ") +
                        (cause == nullptr || cause->msg == nullptr ? "" : cause->msg));
  }
  const ctl_tree_ptr diff(tree);
  *ret_different = diff != nullptr;
  return ctl_print(output, diff.get());
}

} // namespace

int ctl_print_diff(ctl_device &device, const lyd_node *from, const lyd_node *to, bool *ret_different)
{
  const ctl_output_t &output = device.output();
  if (output.format != ctl_format::tree) {
    return print_encoded_diff(output, from, to, ret_different);
  }
  ctl_tree_writer writer(output);
  tree_differ differ(&writer);
  differ.siblings(from, to);
  const ctl_diff_counts_t &counts = differ.counts();
  *ret_different = counts.added + counts.removed + counts.changed > 0;
  return writer.finish();
}

ctl_diff_counts_t ctl_count_diff(const lyd_node *from, const lyd_node *to)
{
  tree_differ differ(nullptr);
  differ.siblings(from, to);
  return differ.counts();
}
