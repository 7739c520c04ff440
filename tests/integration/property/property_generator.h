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
  // Where a node of the edit goes.
  typedef struct _place {
    const node_t *data; // the parent in the data; null when there is none
    std::string operation;
    int depth;
  } place_t;

  node_t draw_node(const lysc_node *schema, const place_t &place);
  void draw_children(node_t *config, const place_t &here);
  std::string draw_operation(const lysc_node *schema, bool exists, const place_t &place);
  void draw_value(node_t *leaf);
  void draw_position(node_t *entry, const std::vector<const node_t *> &entries);
  std::string spoil(node_t *config);

  template <class T>
  const T &one_of(const std::vector<T> &all)
  {
    return all[pick(all.size())];
  }

  const schema &yang_;
  std::mt19937_64 random_;
  std::vector<std::string> items_; // what leafrefs may name
};

} // namespace property
