// A model of configuration data, to which the daemon is compared: what an edit does to a tree, told as plainly as
// possible and without any of the daemon's code. Of libyang only the schema is looked at.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <libyang/libyang.h>

namespace property {

constexpr char MODULE[] = "prop";
constexpr char AUGMENTING_MODULE[] = "prop-ext";
// Sensitive leaves with their defaults, which are no secrets: no other node has the name of one. The profile's form of
// all follows.
const std::map<std::string, std::string> SENSITIVE = {{"title", ""}, {"number", "7"},   {"banner-text", ""},
                                                      {"code", ""},  {"label", "none"}, {"width", ""}};
constexpr char SENSITIVE_KEYS[] = R"(["/prop:title", "/prop:top/number", "/prop:top/banner-text", "/prop:top/item/code",
  "/prop:top/item/label", "/prop:top/item/width"])";

// The test's modules, in a context of their own.
class schema {
public:
  explicit schema(const std::string &dir); // throws when they do not load

  const lys_module *find_by_ns(const char *ns) const { return ly_ctx_get_module_implemented_ns(ctx_.get(), ns); }
  // Data nodes that may stand below `parent` (null: top nodes), cases passed over.
  std::vector<const lysc_node *> children(const lysc_node *parent) const;
  // Whether the user orders lists of that name: no two that differ in it share one.
  bool is_ordered(const std::string &list) const { return ordered_.contains(list); }

private:
  struct ctx_delete {
    void operator()(ly_ctx *ctx) const { ly_ctx_destroy(ctx); }
  };
  void collect_ordered(const lysc_node *parent);

  std::unique_ptr<ly_ctx, ctx_delete> ctx_;
  const lys_module *module_ = nullptr;
  std::set<std::string> ordered_;
};

// A node of the data, or of an edit. The root of either has no schema; its children are the top nodes.
typedef struct _node {
  const lysc_node *schema = nullptr;
  std::string value = {};                  // of a leaf or leaf-list entry, canonical
  std::vector<struct _node> children = {}; // those of a list entry begin with its keys, in the schema's order

  // Of an edit only.
  std::string operation = {}; // empty: none of its own
  std::string insert = {};
  std::string reference = {};       // predicate of the entry that insert refers to
  std::string reference_xpath = {}; // the same, as the request has it
  std::string spelling = {};        // the value as the request has it
  std::string extra = {};           // attributes and content that make the request invalid
} node_t;

inline bool is_inner(const lysc_node *node)
{
  return node->nodetype & (LYS_CONTAINER | LYS_LIST);
}
inline bool is_entry(const lysc_node *node) // of a list or leaf-list
{
  return node->nodetype & (LYS_LIST | LYS_LEAFLIST);
}
inline bool is_key(const lysc_node *node)
{
  return lysc_is_key(node);
}
inline const lysc_node_leaf *as_leaf(const lysc_node *node) // also of a leaf-list, up to its type
{
  return reinterpret_cast<const lysc_node_leaf *>(node);
}

// What tells an entry from its siblings, in the form of the database, without brackets: name="a",id="1" or .="a".
std::string predicate(const node_t &entry);
// The child that `like` names: same schema, for entries same keys or value. Null when there is none.
const node_t *find(const node_t &parent, const node_t &like);
std::vector<const node_t *> instances(const node_t &parent, const lysc_node *schema);
// Values of the key of /prop:top/item, to which all leafrefs point.
std::set<std::string> item_names(const node_t &root);

// Applies `config` to `data` after RFC 6241, 7.2, and fills in defaults. The error-tags of which the refusal has one;
// none when the edit is accepted. `data` is unspecified after a refusal.
std::set<std::string> apply(node_t *data, const node_t &config, const std::string &default_operation);

} // namespace property
