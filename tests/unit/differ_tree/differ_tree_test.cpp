#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "unit/differ_tree/differ_builder.h"
#include "ymgrd/core/context.h"
#include "ymgrd/core/handles.h"
#include "ymgrd/core/log.h"

namespace {

const char test_module[] = R"(
module m {
  namespace "urn:m"; prefix m;
  container c { leaf v { type string; } }
})";

// Trees are written as one text for each node: its path, its code in brackets, and "old>new" for leaves with values.
class differ_tree : public testing::Test {
protected:
  void SetUp() override
  {
    log_open(LOG_TO_STDERR, LOG_LEVEL_WARN);
    ly_ctx *made = nullptr;
    ASSERT_EQ(LY_SUCCESS, ly_ctx_new(nullptr, LY_CTX_NO_YANGLIBRARY, &made));
    ctx_.reset(made);
    ASSERT_EQ(LY_SUCCESS, lys_parse_mem(made, test_module, LYS_IN_YANG, nullptr));
    differ_tree_set_ctx(made);
    ASSERT_EQ(0, context_init(0));
  }
  void TearDown() override { context_exit(); }

  differ_node_t *leaf(const std::string &value, int code, const char *old_value = nullptr)
  {
    lyd_tree_ptr now = parse("<v>" + value + "</v>");
    lyd_tree_ptr before = parse(old_value == nullptr ? "" : "<v>" + std::string(old_value) + "</v>");
    return new_differ_node("/m:c/v", "/m:c/v", static_cast<ENUM_ACTION>(code), lyd_child(now.get()),
                           lyd_child(before.get()));
  }
  static std::vector<std::string> texts(const differ_node_t *tree)
  {
    std::vector<std::string> all;
    for (; tree != nullptr; tree = tree->next) {
      EXPECT_TRUE(tree->next == nullptr || tree->next->prev == tree);
      std::string text = std::string(tree->data_path) + " (" + std::to_string(tree->oper_type) + ")";
      if (tree->leaf_value_old != nullptr || tree->leaf_value_new != nullptr) {
        text += std::string(" ") + (tree->leaf_value_old == nullptr ? "" : tree->leaf_value_old) + ">" +
                (tree->leaf_value_new == nullptr ? "" : tree->leaf_value_new);
      }
      all.push_back(text);
      for (const differ_node_t *child = tree->child; child != nullptr; child = child->next) {
        EXPECT_EQ(tree, child->parent);
      }
      for (const std::string &below : texts(tree->child)) {
        all.push_back(below);
      }
    }
    return all;
  }
  std::vector<std::string> merged(differ_node_t *first, differ_node_t *second)
  {
    differ_tree_merge(&first, &second, 0);
    EXPECT_EQ(nullptr, second);
    EXPECT_TRUE(first == nullptr || first->doc == nullptr);
    std::vector<std::string> all = texts(first);
    free_differ_tree(first);
    return all;
  }

  lyd_tree_ptr parse(const std::string &content)
  {
    lyd_node *tree = nullptr;
    std::string xml = "<c xmlns='urn:m'>" + content + "</c>";
    EXPECT_EQ(LY_SUCCESS, lyd_parse_data_mem(ctx_.get(), xml.c_str(), LYD_XML, LYD_PARSE_ONLY, 0, &tree));
    return lyd_tree_ptr(tree);
  }

  ly_ctx_ptr ctx_;
};

using node_texts = std::vector<std::string>;

} // namespace

TEST_F(differ_tree, root_record_moves_to_the_successor_of_the_first_node)
{
  differ_node_t *first = list({node("/m:a", 1), node("/m:b", 1), node("/m:c", 1)});
  differ_node_t *second = first->next;
  differ_root_t *root = new_differ_root(first);
  free_differ_node(first);
  EXPECT_EQ(second, root->root);
  EXPECT_EQ(root, second->doc);
  EXPECT_EQ(nullptr, second->prev);
  unlink_differ_node(second->next->prev);
  EXPECT_EQ(nullptr, second->doc);
  EXPECT_STREQ("/m:c", root->root->data_path);
  free_differ_node(second);
  free_differ_tree(root->root);
  EXPECT_EQ(nullptr, free_differ_root(root));
}

// What random edits of a datastore seldom or never come to.
TEST_F(differ_tree, a_value_taken_back_leaves_nothing_and_codes_that_do_not_follow_each_other_one_node)
{
  const struct {
    differ_node_t *first;
    differ_node_t *second;
    node_texts left;
  } rows[] = {
      {leaf("2", 4, "1"), leaf("1", 4, "2"), {}},
      {leaf("1", 1), leaf("2", 1), {"/m:c/v (1) >1"}},
      {leaf("1", 2), leaf("1", 2), {"/m:c/v (2) >1"}},
      {leaf("1", 2), leaf("2", 4, "1"), {"/m:c/v (2) >1"}},
      {leaf("2", 4, "1"), leaf("3", 1), {"/m:c/v (4) 1>2"}},
      {leaf("2", 4, "1"), leaf("3", 16), {"/m:c/v (4) 1>2"}},
      {node("/m:c", 8, {node("/m:c/x", 1)}), node("/m:c", 4), {"/m:c (8)", "/m:c/x (1)"}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(&row - rows);
    EXPECT_EQ(row.left, merged(row.first, row.second));
  }
}

TEST_F(differ_tree, value_taken_back_at_a_new_place_marks_the_node_behind_as_moved)
{
  differ_node_t *first = list({leaf("2", 4, "1"), node("/m:c/next", 8, {node("/m:c/next/x", 1)})});
  EXPECT_EQ((node_texts{"/m:c/v (4) 1>2", "/m:c/next (16)", "/m:c/next/x (1)"}), merged(first, leaf("1", 4 | 16, "2")));
  EXPECT_EQ((node_texts{"/m:c/v (4) 1>2"}), merged(leaf("2", 4, "1"), leaf("1", 4 | 16, "2")));
}

TEST_F(differ_tree, bulk_edits_of_one_list_merge_in_linear_time)
{
  constexpr int entries = 100000;
  auto bulk = [](int from, int code) {
    differ_node_t *parent = node("/m:c", 8);
    differ_node_t *last = nullptr;
    for (int i = from; i < from + entries; i++) {
      differ_node_t *entry = node("/m:c/l[k=\"" + std::to_string(i) + "\"]", code);
      differ_node_add_child(parent, last, entry);
      last = entry;
    }
    return parent;
  };
  differ_node_t *tree = bulk(0, 1);
  for (differ_node_t *later : {bulk(entries, 1), bulk(0, 8), bulk(entries / 2, 2)}) {
    differ_tree_merge(&tree, &later, 0);
  }
  auto left = texts(tree);
  EXPECT_EQ(1U + entries, left.size());
  EXPECT_EQ("/m:c/l[k=\"49999\"] (1)", left[entries / 2]);
  EXPECT_EQ("/m:c/l[k=\"150000\"] (1)", left[entries / 2 + 1]);
  free_differ_tree(tree);
}

TEST_F(differ_tree, moves_join_the_changes_of_their_entries)
{
  auto entry = [](int key) { return "/m:c/l[k=\"" + std::to_string(key) + "\"]"; };
  differ_node_t *tree = node("/m:c", 8,
                             {node(entry(1), 1, {node(entry(1) + "/k", 1)}), node(entry(2), 8), node(entry(3), 2),
                              node(entry(4), 16), node(entry(5), 16), node("/m:c/v", 4)});
  differ_node_t *moves =
      list({node(entry(1), 16), node(entry(2), 16), node(entry(3), 8), node(entry(4), 17), node(entry(5), 2),
            node(entry(9), 16), node(entry(8), 16), node(entry(7), 8), node("/m:d/l[k=\"1\"]", 16)});
  merge_move_differ_node(&tree, &moves);
  EXPECT_EQ((node_texts{"/m:c (8)", entry(1) + " (17)", entry(1) + "/k (17)", entry(2) + " (24)", entry(3) + " (2)",
                        entry(4) + " (17)", "/m:c/v (4)", entry(9) + " (16)", entry(8) + " (16)"}),
            texts(tree));
  EXPECT_EQ((node_texts{entry(3) + " (8)", entry(5) + " (2)", entry(7) + " (8)", "/m:d/l[k=\"1\"] (16)"}),
            texts(moves));
  free_differ_tree(tree);

  tree = nullptr;
  merge_move_differ_node(&tree, &moves);
  EXPECT_EQ(nullptr, moves);
  EXPECT_EQ(4U, texts(tree).size());
  free_differ_tree(tree);
}
