// Random edits of a tree: mostly such that are accepted, some that are not.
#pragma once

#include <random>
#include <set>
#include <string>

#include "property_model.h"

namespace property {

typedef struct _request {
  std::string default_operation = "merge";
  std::string config;         // the content of <config>
  node_t result;              // what the data is after it; without meaning when it is to be refused
  std::set<std::string> tags; // of which a refusal has one; none when it is to be accepted
} request_t;

class generator {
public:
  generator(const schema &yang, uint64_t seed) : yang_(yang), random_(seed) {}

  size_t pick(size_t count) { return random_() % count; } // below `count`
  bool chance(size_t percent) { return pick(100) < percent; }
  // An edit of data that is now `data`.
  request_t edit(const node_t &data);

private:
  typedef struct _context {
    const node_t *data; // the node that stands where the edit's node goes; null when there is none
    std::string operation;
    int depth;
  } context_t;

  node_t draw_config(const std::string &default_operation);
  void add_children(node_t *config, const context_t &here);
  node_t draw_node(const lysc_node *schema, const context_t &parent);
  std::string draw_operation(const lysc_node *schema, const std::string &inherited, bool exists, int depth);
  void draw_value(node_t *leaf, const lysc_type *type);
  void draw_position(node_t *entry, const context_t &parent);
  std::string spoil(node_t *config);

  template <class T>
  const T &one_of(const std::vector<T> &all)
  {
    return all[pick(all.size())];
  }

  const schema &yang_;
  std::mt19937_64 random_;
  const node_t *root_ = nullptr; // of the data
};

} // namespace property
