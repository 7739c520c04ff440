#include "ymgrd/datastore/ds_restore.h"

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "ymgrd/broker/broker.h"
#include "ymgrd/broker/plugin.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/log.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/datastore_internal.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/datastore/ds_plugin_path.h"
#include "ymgrd/datastore/ds_publication.h"

namespace {

constexpr const char SMOOTH_OPTION[] = "OPT-smooth-start";

differ_tree_ptr cfgr_differ_nodes;
differ_tree_ptr smooth_differ_nodes;

// Builds a diff tree from the top, in document order.
class tree_builder {
public:
  // `depth` is 0 for a top node; the node's parent has been added. Takes the node over.
  void add(size_t depth, differ_node_t *node)
  {
    differ_node_t *before = depth < last_.size() ? last_[depth] : nullptr;
    if (depth == 0) {
      differ_node_t *first = differ_node_add_sibling(tree_.release(), before, node);
      tree_.reset(first);
    } else {
      differ_node_add_child(last_[depth - 1], before, node);
    }
    last_.resize(depth);
    last_.push_back(node);
  }
  differ_tree_ptr take() { return std::move(tree_); }

private:
  differ_tree_ptr tree_;
  std::vector<differ_node_t *> last_; // by depth, of the node added last and those above it
};

// Running as it stands, for reading; where it may be kept it is, for plugins will ask for it.
int read_running(lyd_tree_ptr *ret_tree)
{
  ds_session_db db;
  if (db.open(ENUM_DATASTORE_RUNNING) != 0) {
    return -1;
  }
  return differ_nodes == nullptr ? ds_take_data(db.hdb(), 0, "/", ret_tree)
                                 : ds_db_get_data_from_top(db.hdb(), 0, "/", ret_tree);
}

void give_running_back(lyd_tree_ptr tree)
{
  if (differ_nodes == nullptr) {
    ds_kept_store(std::move(tree));
  }
}

// Running as new nodes. What nobody asks for is left out: a node costs more here than in the tree that is read.
class new_tree_builder {
public:
  explicit new_tree_builder(const differ_interest_fn &interest) : interest_(interest) {}

  // 0 or -1.
  int build(const lyd_node *first, differ_tree_ptr *ret_tree)
  {
    for (const lyd_node *top = first; top != nullptr; top = top->next) {
      std::string key = dbkey_data_key(top);
      if (add(0, &key, top) != 0) {
        return -1;
      }
    }
    *ret_tree = builder_.take();
    return 0;
  }

private:
  typedef struct _kind {
    const char *schema_key;
    differ_interest_t interest;
  } kind_t;

  // Null on failure (logged).
  const kind_t *kind_of(const lysc_node *schema)
  {
    auto [known, is_new] = kinds_.try_emplace(schema);
    if (is_new) {
      const char *key = dbkey_schema_key(schema);
      known->second = {key, key == nullptr ? DIFFER_APART : interest_(key)};
    }
    return known->second.schema_key == nullptr ? nullptr : &known->second;
  }

  // `key` is the node's data key, and stands so again afterwards.
  int add(size_t depth, std::string *key, const lyd_node *node)
  {
    const kind_t *kind = kind_of(node->schema);
    if (kind == nullptr || kind->interest == DIFFER_APART) {
      return kind == nullptr ? -1 : 0;
    }
    differ_node_t *added = new_differ_node(key->c_str(), kind->schema_key, DBDIFF_ADD, node, nullptr);
    if (added == nullptr) {
      return -1;
    }
    builder_.add(depth, added);
    const lyd_node *child = kind->interest == DIFFER_BELOW ? lyd_child_no_keys(node) : nullptr;
    for (const size_t length = key->size(); child != nullptr; child = child->next) {
      dbkey_append(key, child);
      int result = add(depth + 1, key, child);
      key->resize(length);
      if (result != 0) {
        return -1;
      }
    }
    return 0;
  }

  const differ_interest_fn &interest_;
  std::unordered_map<const lysc_node *, kind_t> kinds_;
  tree_builder builder_;
};

// What brings a plugin that may or may not have heard `told` to the node as it is now.
int smooth_action(int told, bool stands)
{
  if (!stands) {
    return DBDIFF_REM;
  }
  return told & DBDIFF_REM ? DBDIFF_ADD : told & (DBDIFF_ADD | DBDIFF_MOD | DBDIFF_CHAIN | DBDIFF_MOVE);
}

differ_node_t *smooth_node(const ds_told_t &told, const lyd_node *running)
{
  ds_steps_t steps;
  std::string error;
  if (ds_parse_plugin_path(told.data_path, &steps, &error) != 0 || steps.empty()) {
    log_warn("A node of the publication that was cut off is not known any more(%.512s).", error.c_str());
    return nullptr;
  }
  const lyd_node *node = ds_find_node(running, ds_path_of(steps));
  const char *schema_key = dbkey_schema_key(steps.back().schema);
  int action = smooth_action(told.oper_type, node != nullptr);
  return new_differ_node(told.data_path.c_str(), schema_key, static_cast<ENUM_ACTION>(action), node, nullptr);
}

differ_tree_ptr smooth_diff(const std::vector<ds_told_t> &publication, const lyd_node *running)
{
  tree_builder builder;
  size_t skipped = SIZE_MAX; // depth of a node that was left out: what is below goes with it
  for (const ds_told_t &told : publication) {
    if (told.depth > skipped) {
      continue;
    }
    differ_node_t *node = smooth_node(told, running);
    skipped = node == nullptr ? told.depth : SIZE_MAX;
    if (node != nullptr) {
      builder.add(told.depth, node);
    }
  }
  return builder.take();
}

// Finishes or takes back what was cut off in the datastore.
int end_transaction(int datastore)
{
  transact_state_e state = database_get_transaction_state(datastore);
  bool is_cut_off = false;
  if (database_is_cut_off(datastore, &is_cut_off) != 0) {
    return -1;
  }
  if (is_cut_off) {
    return database_smooth_cancel_transaction(datastore);
  }
  bool is_at_rest = state == E_TRANS_INVALID || state == E_TRANS_INIT || state == E_TRANS_COMMIT_END;
  return is_at_rest ? 0 : database_smooth_commit_transaction(datastore);
}

int read_smooth_diff()
{
  std::string journal;
  if (database_get_publication(&journal) != 0) {
    return -1;
  }
  std::vector<ds_told_t> publication;
  if (!ds_read_journal(journal, &publication)) {
    log_error("What is known of the publication that was cut off is damaged.");
  }
  lyd_tree_ptr running;
  if (publication.empty()) {
    return 0;
  }
  if (read_running(&running) != 0) {
    return -1;
  }
  smooth_differ_nodes = smooth_diff(publication, running.get());
  give_running_back(std::move(running));
  return 0;
}

} // namespace

int ds_get_cfgr_differ(const differ_interest_fn &interest, differ_node_t **ret_tree)
{
  lyd_tree_ptr running;
  differ_tree_ptr tree;
  if (read_running(&running) != 0) {
    return -1;
  }
  int result = new_tree_builder(interest).build(running.get(), &tree);
  give_running_back(std::move(running));
  if (result != 0) {
    return -1;
  }
  cfgr_differ_nodes = std::move(tree);
  *ret_tree = cfgr_differ_nodes.get();
  return 0;
}

void ds_free_cfgr_differ()
{
  cfgr_differ_nodes.reset();
}

differ_node_t *ds_smooth_differ()
{
  return smooth_differ_nodes.get();
}

int ds_begin_smooth_start()
{
  // Candidate's changes of the earlier life are not known any more: the next edit makes it equal to running.
  if (database_get_transaction_state(ENUM_DATASTORE_CANDIDATE) == E_TRANS_PUB) {
    log_warn("Changes of candidate that were not committed are dropped.");
  }
  for (int datastore : {ENUM_DATASTORE_RUNNING, ENUM_DATASTORE_CANDIDATE}) {
    if (end_transaction(datastore) != 0) {
      return -1;
    }
  }
  return database_recover() != 0 || database_protect_stored() != 0 || database_set_aside_misfits() != 0
             ? -1
             : read_smooth_diff();
}

void ds_end_smooth_start()
{
  bool is_on = context_get_int(SMOOTH_OPTION, 0) == 1;
  if (!is_on || broker_is_publish_over() != 0) { // the broker may be walking the tree
    return;
  }
  (void)context_save_int(SMOOTH_OPTION, 0); // as large as the value that stands
  smooth_differ_nodes.reset();
  (void)database_drop_publication(plugin_names_up_to_date()); // logged there; the next publication replaces it
  log_info("Smooth start has ended.");
}

void ds_restore_forget()
{
  cfgr_differ_nodes.reset();
  smooth_differ_nodes.reset();
}
