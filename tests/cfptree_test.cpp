// FP-tree building (shared prefixes, weights, insertion order, node blocks,
// path pruning) and the single-path enumeration, checked on the tree's shape
// and on the written lines. The mining recursion as a whole is checked against
// brute force by the differential test.
#include "cfptree.h"

#include "np2.h"
#include "support/engine.h"

namespace {

using namespace quarlo_test;

constexpr uint32_t kItems = 200;

class FpTree : public TempDirTest {
 protected:
  void SetUp() override {
    set_options({});
    ASSERT_EQ(init_buf_pool(kItems), 0);
    ASSERT_EQ(alloc_avetbl(kItems, 1000), 0);
  }
  void TearDown() override { Release(); }

  void Release() {
    if (built_) free_fptree(&tree_);
    built_ = false;
    free_freq_tbl();
  }

  // Builds tree_ from `records` as the engine builds the first tree, under the
  // support `table` of `ntrans` transactions.
  void Build(const std::string& table, uint32_t ntrans, const std::vector<Record>& records) {
    Release();
    reset_mining_counters();
    ASSERT_EQ(set_support(table, ntrans, kItems, path("table")), 0);
    TranBuf db;
    ASSERT_EQ(init_buf(&db, kItems), 0);
    fill(&db, records);
    int32_t nfreq = 0;
    ItemEntry* list = nullptr;
    ASSERT_EQ(create_freqitemlist(&db, &nfreq, &list, kItems), 0);
    cur_pattern_length = 1;
    ASSERT_EQ(create_fptree(&db, nfreq, list, &tree_, kItems), 0);
    free_buf(&db);
    built_ = true;
  }

  // Mines tree_ into a pattern file and returns its lines.
  std::vector<std::string> Mine(uint32_t ntrans) {
    EXPECT_EQ(open_pattern_file(path("db.fp_conv").c_str(), ntrans, kItems), 0);
    EXPECT_EQ(mine_fptree(&tree_, kItems), 0);
    built_ = false;
    EXPECT_EQ(close_pattern_file(), 0);
    return read_lines(path("db.fp_conv"));
  }

  // The subtree below `v` as "item:count(children...)".
  static std::string Shape(const FPNode* v) {
    std::string s;
    for (const FPNode* c = v->first_child; c != nullptr; c = c->next_sibling) {
      if (!s.empty()) s += ",";
      s += std::to_string(c->item) + ":" + std::to_string(c->count);
      if (c->first_child != nullptr) s += "(" + Shape(c) + ")";
    }
    return s;
  }

  // The header table as "item:support ...".
  std::string Headers() const {
    std::string s;
    for (const HeaderEntry* h = tree_.header; h < tree_.header + tree_.nheader; ++h) {
      s += (s.empty() ? "" : " ") + std::to_string(h->item) + ":" + std::to_string(h->support);
    }
    return s;
  }

  FPTree tree_ = {};
  bool built_ = false;
};

// Records sharing a prefix share its nodes, whose counts add the records'
// weights; a node's children keep the order they were made in. Records go in
// longest first, equal lengths in database order; along every path items
// follow the list order (support descending, then item ascending).
// Path pruning (table 1 90 / 3 23 of 13: counts 12 and 3) cuts an item that
// would need a longer pattern than any new branch can give, unless the item
// already has its node on the path.
TEST_F(FpTree, SharedPrefixesInListAndRecordOrderWithPathPruning) {
  const std::vector<Record> ten_zeros(10, Record{{0}});
  struct {
    std::string table;
    uint32_t ntrans;
    std::vector<Record> records;
    std::string tree, headers;
    uint64_t cut_items;
    int32_t top_support;
  } cases[] = {
      {"0", 2, {{{1, 2}}, {{1, 3}}}, "1:2(2:1,3:1)", "1:2 2:1 3:1", 0, 2},
      {"0", 2, {{{1, 3}}, {{1, 2}}}, "1:2(3:1,2:1)", "1:2 2:1 3:1", 0, 2},
      {"0", 2, {{{7}}, {{4, 5}}}, "4:1(5:1),7:1", "4:1 5:1 7:1", 0, 1},
      {"0", 4, {{{1, 2, 9}}, {{2, 9}}, {{9}}, {{1, 9}}}, "9:4(1:2(2:1),2:1)", "9:4 1:2 2:2", 0, 4},
      {"0", 4, {{{1, 2}, 3}, {{1}}}, "1:4(2:3)", "1:4 2:3", 0, 4},
      {"50", 4, {{{1, 2}}, {{1}}, {{5, 6}}, {{2}}}, "1:2(2:1),2:1", "1:2 2:2", 0, 2},
      {"1 90\n3 23\n", 13, ten_zeros, "1:3(2:3(3:3))", "0:0 1:3 2:3 3:3", 10, 10},
      {"1 90\n3 23\n", 13, ten_zeros, "0:11(1:1(2:1)),1:2(2:2)", "0:11 1:3 2:3", 0, 11},
  };
  cases[6].records.insert(cases[6].records.end(), 3, Record{{1, 2, 3}});
  cases[7].records.push_back(Record{{0, 1, 2}});
  cases[7].records.insert(cases[7].records.end(), 2, Record{{1, 2}});
  for (const auto& c : cases) {
    Build(c.table, c.ntrans, c.records);
    EXPECT_EQ(Shape(tree_.root), c.tree);
    EXPECT_EQ(Headers(), c.headers) << c.tree;
    EXPECT_EQ(mining_counters().cut_items, c.cut_items) << c.tree;
    EXPECT_EQ(tree_.top_support, c.top_support) << c.tree;
  }
}

// Blocks hold 100 nodes: a path of 99 items and the root fill the first, the
// 101st node opens a second.
TEST_F(FpTree, HundredFirstNodeOpensSecondBlock) {
  Record path;
  for (uint32_t i = 0; i < 99; ++i) path.items.push_back(i);
  Build("0", 1, {path});
  EXPECT_EQ(tree_.first_block->next, nullptr);
  EXPECT_EQ(tree_.nodes_used, 100u);
  path.items.push_back(99);
  Build("0", 1, {path});
  ASSERT_EQ(tree_.first_block->next, tree_.cur_block);
  EXPECT_EQ(tree_.nodes_used, 1u);
  EXPECT_EQ(tree_.cur_block->node[0].depth, 100u);
}

// Node pruning of item 5 (support 5 of 10; counts 9, 4, 1 for lengths 1, 2,
// 3): 5 needs 2 items, so its leaf below the root goes; the 3 left need 3
// items, so its leaf below 1 goes as well, and then 1 is a leaf too shallow.
TEST_F(FpTree, NodePruningRaisesTheLengthWithEveryRemovedLeaf) {
  std::vector<Record> records(5, Record{{1}});
  records.insert(records.end(), 3, Record{{1, 5}});
  records.insert(records.end(), 2, Record{{5}});
  Build("1 90\n2 40\n3 10\n", 10, records);
  EXPECT_EQ(Shape(tree_.root), "1:8(5:3),5:2");
  EXPECT_EQ(Mine(10), std::vector<std::string>{});
  EXPECT_EQ(mining_counters().pruned_nodes, 3u);
}

// a(5) -> b(4) -> c(2) with minimum count 2: a single path whose 7 subsets are
// written depth first with the support of their deepest node.
TEST_F(FpTree, ChainYieldsAllSubsetsWithTheirSupports) {
  Build("40", 5, {{{0, 1, 2}}, {{0, 1, 2}}, {{0, 1}}, {{0, 1}}, {{0}}});
  EXPECT_EQ(Shape(tree_.root), "0:5(1:4(2:2))");
  EXPECT_EQ(Mine(5),
            (std::vector<std::string>{"0-0 5 100.000 0", "1-0 4 80.000 0 1", "2-0 2 40.000 0 1 2",
                                      "1-1 2 40.000 0 2", "0-1 4 80.000 1", "1-2 2 40.000 1 2",
                                      "0-2 2 40.000 2"}));
  EXPECT_EQ(mining_counters().single_paths, 1u);
}

// Nodes with many children (here the root and item 0) find them through the
// build's child index: repeated records still land on their existing child,
// and new children still go to the end of the list.
TEST_F(FpTree, WideNodesKeepCountsAndChildOrder) {
  std::vector<Record> records;
  for (uint32_t i = 1; i <= 30; ++i) records.push_back(Record{{0, i}});
  records.push_back(Record{{0, 7}});
  records.push_back(Record{{25, 0}});
  for (uint32_t i = 31; i <= 45; ++i) records.push_back(Record{{i}});
  records.push_back(Record{{40}});
  Build("0", static_cast<uint32_t>(records.size()), records);
  std::string below_zero;
  for (uint32_t i = 1; i <= 30; ++i) {
    below_zero += (i > 1 ? "," : "") + std::to_string(i) + (i == 7 || i == 25 ? ":2" : ":1");
  }
  std::string expected = "0:32(" + below_zero + ")";
  for (uint32_t i = 31; i <= 45; ++i) expected += "," + std::to_string(i) + (i == 40 ? ":2" : ":1");
  EXPECT_EQ(Shape(tree_.root), expected);
}

}  // namespace
