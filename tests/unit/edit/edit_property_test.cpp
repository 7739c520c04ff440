// What must hold for every edit, tried with random ones. YMGR_ROUNDS sets how many rounds are run, YMGR_SEED which
// ones: round n of seed s is the first round of seed s + n.
#include <string>
#include <vector>

#include "unit/edit/diff_judge.h"
#include "unit/edit/edit_fixture.h"
#include "ymgrd/database/database.h"
#include "ymgrd/datastore/ds_kept.h"
#include "ymgrd/schema/schema.h"

namespace {

constexpr int CANDIDATE = ENUM_DATASTORE_CANDIDATE;
constexpr int RUNNING = ENUM_DATASTORE_RUNNING;
constexpr int EMPTY = ENUM_DATASTORE_STARTUP; // nothing is ever written to it

class edit_property : public edit_fixture {
protected:
  void run_round(uint64_t seed)
  {
    testing::internal::CaptureStderr();
    random_edit_source source(schema_find_module("sample", 6), seed);
    story_.clear();
    make_start(&source);
    lyd_tree_ptr start = stored(CANDIDATE);
    tell("start", text_of(start));
    differ_node_t *pending = nullptr;
    random_edit_t all;
    bool can_be_combined = true;
    for (int left = 1 + source.below(4); left > 0 && !HasFailure(); left--) {
      random_edit_t edit = source.next(stored(CANDIDATE).get());
      if (source.chance(50)) {
        edit_and_undo(source.chance(50) ? edit : source.next(stored(CANDIDATE).get()), source.chance(50));
      }
      if (one_edit(edit, source.chance(50), &pending)) {
        all.content += edit.content;
        can_be_combined = can_be_combined && edit.default_operation == NC_EDIT_OP_MERGE;
      }
    }
    lyd_tree_ptr end = stored(CANDIDATE);
    expect_right(start, end, pending, "the merged diff");
    free_differ_tree(pending);
    if (can_be_combined) {
      all_at_once(all, start, end);
    }
    expect_quiet_merges(testing::internal::GetCapturedStderr());
    if (HasFailure()) {
      ADD_FAILURE() << "YMGR_SEED=" << seed << " YMGR_ROUNDS=1\n" << story_;
    }
  }

private:
  void tell(const std::string &what, const std::string &text) { story_ += "--- " + what + "\n" + text + "\n"; }

  // Refused, tested or otherwise given up: the tree that is kept is the one from before, and the next edit starts from
  // it.
  void edit_and_undo(const random_edit_t &edit, bool validates)
  {
    tell("edit to be undone", edit.content);
    std::string before = text_of(stored(CANDIDATE));
    edit_outcome_t outcome = apply(CANDIDATE, edit, edit_end::discarded);
    free_differ_tree(outcome.tree);
    reply_error_ptr error;
    bool is_valid = validates && outcome.is_accepted &&
                    ds_validate_edit(&outcome.data, &outcome.changes, REPLY_ERR_OP_FAILED, &error) == 0;
    if (outcome.is_accepted && (is_valid || !validates)) {
      ds_undo_edit(&outcome.data, &outcome.changes);
    }
    lyd_tree_ptr kept;
    if (!ds_kept_take(&kept)) {
      EXPECT_TRUE(error != nullptr) << "the tree was dropped";
      dropped_++;
      return;
    }
    kept_++;
    refused_by_validation_ += error == nullptr ? 0 : 1;
    EXPECT_EQ(before, text_of(kept));
    EXPECT_EQ("", fault_of(kept.get(), nullptr));
    ds_kept_store(std::move(kept));
  }

  // What does not show in the text: links, flags, and whether look-ups find each node and the first entry of each list.
  static std::string fault_of(const lyd_node *first, const lyd_node *parent)
  {
    const lyd_node *before = nullptr;
    for (const lyd_node *node = first; node != nullptr; before = node, node = node->next) {
      lyd_node *match = nullptr;
      bool is_linked =
          lyd_parent(node) == parent && (before == nullptr ? node->prev->next == nullptr : node->prev == before);
      bool is_first = before == nullptr || before->schema != node->schema;
      (void)lyd_find_sibling_first(first, node, &match);
      if (!is_linked || (node->flags & LYD_DEFAULT) || match != node) {
        return node->schema->name;
      }
      if (is_first && node->schema->nodetype != LYS_LEAFLIST &&
          (lyd_find_sibling_val(first, node->schema, nullptr, 0, &match) != LY_SUCCESS || match != node)) {
        return std::string("first ") + node->schema->name;
      }
      std::string below = fault_of(lyd_child(node), node);
      if (!below.empty()) {
        return below;
      }
    }
    return first == nullptr || first->prev == before ? "" : "last";
  }

  void make_start(random_edit_source *source)
  {
    ds_kept_drop();
    ASSERT_EQ(0, database_clean(YMGRM_CANDIDATE_DB));
    for (int i = 0; i < 3; i++) {
      free_differ_tree(apply(CANDIDATE, source->next(stored(CANDIDATE).get())).tree);
    }
    ASSERT_EQ(0, database_copy(YMGRM_RUNNING_DB, YMGRM_CANDIDATE_DB));
  }

  void expect_right(const lyd_tree_ptr &before, const lyd_tree_ptr &after, const differ_node_t *tree,
                    const std::string &what)
  {
    std::string verdict = judge_diff(before.get(), after.get(), tree);
    if (!verdict.empty()) {
      tell(what, text_of_diff(tree));
      ADD_FAILURE() << what << ":\n" << verdict;
    }
  }

  // Whether the edit was accepted; its diff is merged into `*pending` then.
  bool one_edit(const random_edit_t &edit, bool keeps_data, differ_node_t **pending)
  {
    lyd_tree_ptr before = stored(CANDIDATE);
    edit_outcome_t outcome = apply(CANDIDATE, edit);
    tell(std::string("edit, default operation ") + std::to_string(edit.default_operation) +
             (outcome.is_accepted ? "" : ", refused"),
         edit.content);
    lyd_tree_ptr after = stored(CANDIDATE);
    EXPECT_EQ(text_of(after), text_of(outcome.is_accepted ? outcome.data : before));
    if (!outcome.is_accepted) {
      return false;
    }
    if (edit.default_operation == NC_EDIT_OP_REPLACE) {
      expect_only(edit, after);
    }
    if (keeps_data) {
      ds_kept_store(std::move(outcome.data)); // the next edit starts from the tree in memory
    }
    expect_right(before, after, outcome.tree, "the diff of one edit");
    differ_tree_merge(pending, &outcome.tree, 0);
    return true;
  }

  // A replaced datastore holds what the edit makes of an empty one, in the order of the document.
  void expect_only(const random_edit_t &edit, const lyd_tree_ptr &after)
  {
    bool has_places = edit.content.find("yang:insert") != std::string::npos; // references may be there or not
    edit_outcome_t alone = apply(EMPTY, edit, edit_end::discarded);
    if (alone.is_accepted && !has_places) {
      EXPECT_EQ("", judge_diff(alone.data.get(), after.get(), nullptr)) << text_of(after);
    }
    free_differ_tree(alone.tree);
    ds_kept_drop(); // a refused edit leaves the empty tree
  }

  void all_at_once(const random_edit_t &all, const lyd_tree_ptr &start, const lyd_tree_ptr &end)
  {
    ds_kept_drop(); // it is candidate's
    edit_outcome_t outcome = apply(RUNNING, all, edit_end::discarded);
    EXPECT_TRUE(outcome.is_accepted);
    EXPECT_EQ(text_of(end), text_of(outcome.data));
    expect_right(start, outcome.data, outcome.tree, "the diff of all edits in one");
    free_differ_tree(outcome.tree);
    EXPECT_EQ(text_of(start), text_of(stored(RUNNING)));
  }

  void expect_quiet_merges(const std::string &log)
  {
    for (const char *complaint : {" can not be ", "oper_type error"}) {
      if (log.find(complaint) != std::string::npos) {
        ADD_FAILURE() << "a merge complained:\n" << log;
      }
    }
  }

  std::string story_;

protected:
  int kept_ = 0;
  int refused_by_validation_ = 0; // and kept
  int dropped_ = 0;
};

} // namespace

TEST_F(edit_property, diffs_say_exactly_what_edits_did)
{
  uint64_t seed = support::number_from("YMGR_SEED", 1);
  uint64_t rounds = support::number_from("YMGR_ROUNDS", 300);
  for (uint64_t round = 0; round < rounds && !HasFailure(); round++) {
    run_round(seed + round);
  }
  EXPECT_LE(dropped_ * 10, kept_); // by validations that took nodes out
  EXPECT_TRUE(rounds < 300 || refused_by_validation_ > 0);
}

TEST_F(edit_property, replace_moves_as_few_entries_as_it_takes)
{
  auto servers = [](const std::string &names, const char *operation) {
    std::string content = std::string("<top xmlns='urn:sample' nc:operation='") + operation + "'>";
    for (char name : names) {
      content += std::string("<server>") + name + "</server>";
    }
    return random_edit_t{content + "</top>"};
  };
  free_differ_tree(apply(CANDIDATE, servers("abcdef", "create")).tree);
  edit_outcome_t outcome = apply(CANDIDATE, servers("bcxdfea", "replace"));
  EXPECT_EQ("8 /sample:top >\n"
            "17 /sample:top/server[.=\"x\"] >\n"
            "16 /sample:top/server[.=\"f\"] >\n"
            "16 /sample:top/server[.=\"a\"] >\n",
            text_of_diff(outcome.tree));
  free_differ_tree(outcome.tree);
}
