// Reading of datastores as XML text: from the kept tree when that holds the data, else from the database. The text has
// one form, wherever it comes from.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "libconf/wiped_string.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/database/database_element.h"

// One node on the way from the top: for an entry with its keys.
typedef struct _ds_step {
  const lysc_node *schema = nullptr;
  std::vector<std::string> keys; // canonical, in key order, or the leaf-list's value; none: no entry, or all of them
  bool is_entry() const { return !keys.empty(); }
} ds_step_t;
using ds_path_t = std::vector<const ds_step_t *>;

// Texts that hold no quotes of both kinds can be named in a path.
bool ds_can_be_key(std::string_view value);
// The data key that the steps come to.
std::string ds_path_key(const ds_path_t &path);
// Appends the opening tag of the last step's element, with its keys when it is an entry; its name for db_add_etag. 0 or
// -1.
int ds_append_opening(const ds_path_t &path, wiped_string *text, std::string *ret_name);

// Appends the elements of the way, each inside the one before and with its keys, and `content` inside the last. 0 or
// -1.
int ds_wrap_text(const ds_path_t &way, std::string_view content, wiped_string *text);
// Whether the node is one that the step names.
bool ds_is_entry_of(const lyd_node *node, const ds_step_t &step);
// The first node of that kind; the entry when the path ends with one. Null when there is none.
lyd_node *ds_find_node(const lyd_node *tree, const ds_path_t &path);

// A datastore that is open for reading. The kept tree is held while the object lives.
class ds_source {
public:
  // `hdb` is an open handle of the datastore. `secrets`: how texts have the values of sensitive leaves.
  ds_source(int hdb, int datastore, db_secrets_t secrets);
  ds_source(const lyd_node *tree, db_secrets_t secrets); // borrowed; holds all that there is
  ds_source(const ds_source &) = delete;
  ds_source &operator=(const ds_source &) = delete;
  ~ds_source();

  // Whether each read costs a round trip, or several, to the database.
  bool is_remote() const { return !has_tree_ || !stored_modules_.empty(); }
  // Appends the node at `path` with all below; all entries when it is a list without keys; all data when the path is
  // empty; nothing when there is none. 0 or -1.
  int read_text(const ds_path_t &path, wiped_string *text) const;
  // Whether there is the list entry. 0 or -1.
  int has_entry(const ds_path_t &path, bool *ret_has) const;
  // The entry's position in its list; negative when there is no such entry. 0 or -1.
  int index_of(const ds_path_t &path, int *ret_index) const;
  // The data keys of the entries before and behind the entry; empty at the ends of the list, and when there is no such
  // entry. 0 or -1.
  int neighbours_of(const ds_path_t &path, bool *ret_has, std::string *ret_prev, std::string *ret_next) const;

private:
  bool has_secrets_of_driver() const;
  int read_tree();
  void give_kept_back();
  bool is_in_tree(const ds_path_t &path) const;
  int read_all(wiped_string *text) const;
  int read_stored(const char *path, int depth, wiped_string *text) const;
  int key_at(const ds_path_t &path, int index, std::string *ret_key) const;

  int hdb_ = 0;
  db_secrets_t secrets_;
  bool has_tree_ = false;
  const lyd_node *tree_ = nullptr; // null: it holds nothing
  bool is_kept_ = false;
  lyd_tree_ptr kept_; // the same, when it is not borrowed
  // What the tree does not know: data of these modules is read from the database.
  std::set<std::string, std::less<>> stored_modules_;
};
