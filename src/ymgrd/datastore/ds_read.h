// Reading of datastores as XML text: from the kept tree when that holds the data, else from the database. The text has
// one form, wherever it comes from.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "libconf/wiped_string.h"
#include "ymgrd/core/handles.h"

// One node on the way from the top: for a list entry with its keys.
typedef struct _ds_step {
  const lysc_node *schema = nullptr;
  std::vector<std::string> keys; // stored form, in key order; none: not an entry, or all entries of the list
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

// A datastore that is open for reading. The kept tree is held while the object lives.
class ds_source {
public:
  // `hdb` is an open handle of the datastore.
  ds_source(int hdb, int datastore);
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
  // The entry's position in its list. 0 or -1.
  int index_of(const ds_path_t &path, int *ret_index) const;

private:
  bool is_in_tree(const ds_path_t &path) const;
  int read_all(wiped_string *text) const;
  int read_stored(const char *path, int depth, wiped_string *text) const;

  int hdb_;
  bool has_tree_ = false;
  lyd_tree_ptr tree_; // null: it holds nothing
  // What the tree does not know: data of these modules is read from the database.
  std::set<std::string, std::less<>> stored_modules_;
};
