// FP-tree building (shared prefixes, weights, insertion order, node blocks,
// path pruning) and the mining recursion (single-path enumeration, size
// limits, the floor), checked on the tree's shape and on the written lines.
#include "cfptree.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "np2.h"
#include "suppfunc.h"
#include "vscmdl.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kItems = 200;

struct Record {
  std::vector<uint32_t> items;  // ascending
  uint32_t weight = 1;
};

class FpTree : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string templ = (fs::temp_directory_path() / "quarlo-tree-XXXXXX").string();
    ASSERT_NE(mkdtemp(templ.data()), nullptr);
    dir_ = templ;
    Options({});
    ASSERT_EQ(init_buf_pool(kItems), 0);
    ASSERT_EQ(alloc_avetbl(kItems, 1000), 0);
    reset_mining_counters();
  }
  void TearDown() override {
    if (built_) free_fptree(&tree_);
    free_freq_tbl();
    fs::remove_all(dir_);
  }

  void Options(std::vector<std::string> args) {
    args.insert(args.begin(), "quarlo");
    args.push_back("db");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    parse(static_cast<int>(argv.size()), argv.data(), 0);
  }

  void Table(const std::string& lines, uint32_t ntrans) {
    const fs::path file = dir_ / "table";
    std::ofstream(file) << lines;
    ASSERT_EQ(init_freq_tbl(file.c_str(), ntrans, kItems), 0);
  }

  // Builds tree_ from `records` as the engine builds the first tree.
  void Build(const std::vector<Record>& records) {
    TranBuf db;
    ASSERT_EQ(init_buf(&db, kItems), 0);
    for (const Record& r : records) {
      insert_tran_to_trandb(&db, r.items.data(), static_cast<uint32_t>(r.items.size()), r.weight);
    }
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
    const fs::path out = dir_ / "db.fp_conv";
    EXPECT_EQ(open_pattern_file(out.c_str(), ntrans, kItems), 0);
    EXPECT_EQ(mine_fptree(&tree_, kItems), 0);
    built_ = false;
    EXPECT_EQ(close_pattern_file(), 0);
    std::vector<std::string> lines;
    std::ifstream in(out);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }

  // The subtree below `v` as "item:count(children...)".
  static std::string Shape(const FPNode* v) {
    std::string s;
    for (const FPNode* c = v->first_child; c != nullptr; c = c->next_sibling) {
      if (!s.empty()) s += ",";
      s += std::to_string(c->item);
      s += ':';
      s += std::to_string(c->count);
      if (c->first_child != nullptr) {
        s += '(';
        s += Shape(c);
        s += ')';
      }
    }
    return s;
  }

  const HeaderEntry& Header(uint32_t item) {
    for (int32_t i = 0; i < tree_.nheader; ++i) {
      if (tree_.header[i].item == item) return tree_.header[i];
    }
    ADD_FAILURE() << "no header entry for " << item;
    return tree_.header[0];
  }

  fs::path dir_;
  FPTree tree_ = {};
  bool built_ = false;
};

TEST_F(FpTree, SharedPrefixCountsTwiceAndChildrenKeepInsertionOrder) {
  ASSERT_EQ(init_freq_tbl_with_minsup(0.0, 2, kItems), 0);
  Build({{{1, 2}}, {{1, 3}}});
  EXPECT_EQ(Shape(tree_.root), "1:2(2:1,3:1)");
  ASSERT_EQ(tree_.nheader, 3);
  EXPECT_EQ(tree_.header[0].item, 1u);
  EXPECT_EQ(tree_.header[1].item, 2u);
  EXPECT_EQ(tree_.header[2].item, 3u);
  const FPNode* a = tree_.root->first_child;
  EXPECT_EQ(a->depth, 1u);
  EXPECT_EQ(a->first_child->depth, 2u);
  EXPECT_EQ(a->first_child->parent, a);
  EXPECT_EQ(Header(2).head, a->first_child);
  EXPECT_EQ(Header(2).tail, a->first_child);
}

TEST_F(FpTree, EqualLengthRecordsGoInInDatabaseOrder) {
  ASSERT_EQ(init_freq_tbl_with_minsup(0.0, 2, kItems), 0);
  Build({{{1, 3}}, {{1, 2}}});
  EXPECT_EQ(Shape(tree_.root), "1:2(3:1,2:1)");
}

TEST_F(FpTree, LongerRecordsGoInFirst) {
  ASSERT_EQ(init_freq_tbl_with_minsup(0.0, 2, kItems), 0);
  Build({{{7}}, {{4, 5}}});
  // All supports tie, so the lowest item number ranks highest: 4 heads its record.
  EXPECT_EQ(Shape(tree_.root), "4:1(5:1),7:1");
}

TEST_F(FpTree, ItemsFollowSupportOrderAlongEveryPath) {
  ASSERT_EQ(init_freq_tbl_with_minsup(0.0, 4, kItems), 0);
  Build({{{1, 2, 9}}, {{2, 9}}, {{9}}, {{1, 9}}});
  EXPECT_EQ(Shape(tree_.root), "9:4(1:2(2:1),2:1)");
  EXPECT_EQ(tree_.header[0].item, 9u);
  EXPECT_EQ(tree_.header[0].support, 4);
}

TEST_F(FpTree, WeightedRecordAddsItsWeightAlongThePath) {
  ASSERT_EQ(init_freq_tbl_with_minsup(0.0, 4, kItems), 0);
  Build({{{1, 2}, 3}, {{1}}});
  EXPECT_EQ(Shape(tree_.root), "1:4(2:3)");
  EXPECT_EQ(Header(2).support, 3);
}

TEST_F(FpTree, RecordOfInfrequentItemsAddsNoNode) {
  ASSERT_EQ(init_freq_tbl_with_minsup(50.0, 4, kItems), 0);  // count 2
  Build({{{1, 2}}, {{1}}, {{5, 6}}, {{2}}});
  EXPECT_EQ(Shape(tree_.root), "1:2(2:1),2:1");
  EXPECT_EQ(tree_.nodes_used, 4u);
}

// A record of n items makes a path of n nodes below the root.
std::vector<Record> OnePath(uint32_t n) {
  Record r;
  for (uint32_t i = 0; i < n; ++i) r.items.push_back(i);
  return {r};
}

TEST_F(FpTree, HundredNodesFitOneBlock) {
  ASSERT_EQ(init_freq_tbl_with_minsup(0.0, 1, kItems), 0);
  Build(OnePath(99));
  EXPECT_EQ(tree_.first_block, tree_.cur_block);
  EXPECT_EQ(tree_.nodes_used, 100u);
}

TEST_F(FpTree, HundredFirstNodeOpensSecondBlock) {
  ASSERT_EQ(init_freq_tbl_with_minsup(0.0, 1, kItems), 0);
  Build(OnePath(100));
  ASSERT_NE(tree_.first_block, tree_.cur_block);
  EXPECT_EQ(tree_.first_block->next, tree_.cur_block);
  EXPECT_EQ(tree_.nodes_used, 1u);
  EXPECT_EQ(tree_.cur_block->node[0].depth, 100u);
}

// Ten records of item 0 and three of 1 2 3 on the table 1 90 / 3 23: item 0
// (support 10) needs length 3, which a 1-item record cannot give, so it is cut
// from every record; its header support drops to 0.
TEST_F(FpTree, PathPruningCutsAnItemThatNeedsALongerPattern) {
  Table("1 90\n3 23\n", 13);
  std::vector<Record> records(10, Record{{0}});
  records.insert(records.end(), 3, Record{{1, 2, 3}});
  Build(records);
  EXPECT_EQ(Shape(tree_.root), "1:3(2:3(3:3))");
  EXPECT_EQ(Header(0).support, 0);
  EXPECT_EQ(Header(0).head, nullptr);
  EXPECT_EQ(tree_.top_support, 10);
  EXPECT_EQ(mining_counters().cut_items, 10u);
}

TEST_F(FpTree, PathPruningSparesItemsOnAnExistingPath) {
  Table("1 90\n3 23\n", 13);
  std::vector<Record> records(10, Record{{0}});
  records.push_back(Record{{0, 1, 2}});
  records.insert(records.end(), 2, Record{{1, 2}});
  Build(records);
  // The 3-item record goes in first and makes the node of 0; every 1-item
  // record then follows that node and keeps its item.
  EXPECT_EQ(Header(0).support, 11);
  EXPECT_EQ(Shape(tree_.root), "0:11(1:1(2:1)),1:2(2:2)");
  EXPECT_EQ(mining_counters().cut_items, 0u);
}

TEST_F(FpTree, ChainYieldsAllSubsetsWithTheirSupports) {
  ASSERT_EQ(init_freq_tbl_with_minsup(40.0, 5, kItems), 0);  // count 2
  Build({{{0, 1, 2}}, {{0, 1, 2}}, {{0, 1}}, {{0, 1}}, {{0}}});
  EXPECT_EQ(Shape(tree_.root), "0:5(1:4(2:2))");
  EXPECT_EQ(Mine(5),
            (std::vector<std::string>{"0-0 5 100.000 0", "1-0 4 80.000 0 1", "2-0 2 40.000 0 1 2",
                                      "1-1 2 40.000 0 2", "0-1 4 80.000 1", "1-2 2 40.000 1 2",
                                      "0-2 2 40.000 2"}));
  EXPECT_EQ(mining_counters().single_paths, 1u);
}

TEST_F(FpTree, MaxSizeStopsTheSinglePathEnumeration) {
  Options({"-M", "2"});
  ASSERT_EQ(init_freq_tbl_with_minsup(40.0, 5, kItems), 0);
  Build({{{0, 1, 2}}, {{0, 1, 2}}, {{0, 1}}, {{0, 1}}, {{0}}});
  for (const std::string& line : Mine(5)) EXPECT_NE(line.substr(0, 2), "2-") << line;
}

TEST_F(FpTree, BranchingTreeMinesConditionalTrees) {
  ASSERT_EQ(init_freq_tbl_with_minsup(50.0, 4, kItems), 0);  // count 2
  Build({{{1, 2, 3}}, {{1, 2}}, {{1, 3}}, {{2, 3}}});
  std::vector<std::string> lines = Mine(4);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines,
            (std::vector<std::string>{"0-0 3 75.000 3", "0-1 3 75.000 2", "0-2 3 75.000 1",
                                      "1-0 2 50.000 2 3", "1-1 2 50.000 1 3", "1-2 2 50.000 1 2"}));
  EXPECT_GT(mining_counters().conditional_trees, 0u);
}

TEST_F(FpTree, ItemBelowTheFloorIsNeverWrittenNorMined) {
  ASSERT_EQ(init_freq_tbl_with_minsup(50.0, 4, kItems), 0);  // count 2
  Build({{{1, 2}}, {{1, 2}}, {{1, 3}}, {{2, 4}}});
  EXPECT_EQ(tree_.nheader, 2);
  EXPECT_EQ(Mine(4),
            (std::vector<std::string>{"0-0 3 75.000 2", "1-0 2 50.000 1 2", "0-1 3 75.000 1"}));
}

}  // namespace
