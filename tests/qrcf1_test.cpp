// Frequent-item list: weighted counting, the floor of the support table, the
// order (support descending, then item ascending) and the input statistics.
#include "qrcf1.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "suppfunc.h"
#include "vscmdl.h"

namespace {

namespace fs = std::filesystem;
using Listing = std::vector<std::pair<uint32_t, int32_t>>;  // (item, support)

class FreqItems : public ::testing::Test {
 protected:
  void SetUp() override {
    char arg0[] = "quarlo", file[] = "db";
    char* argv[] = {arg0, file};
    parse(2, argv, 0);
    ASSERT_EQ(init_buf_pool(16), 0);
    ASSERT_EQ(init_buf(&db_, 16), 0);
  }
  void TearDown() override { free_buf(&db_); }

  void Add(std::vector<uint32_t> items, uint32_t w = 1) {
    ASSERT_EQ(insert_tran_to_trandb(&db_, items.data(), static_cast<uint32_t>(items.size()), w), 0);
  }

  // Runs create_freqitemlist and returns the listed (item, support) pairs.
  Listing List() {
    int32_t n = -1;
    ItemEntry* list = nullptr;
    EXPECT_EQ(create_freqitemlist(&db_, &n, &list, 16), 0);
    Listing out;
    for (int32_t i = 0; i < n; ++i) {
      EXPECT_EQ(list[i].length, 1u);
      out.emplace_back(*list[i].items, list[i].support);
    }
    if (list != nullptr) {
      EXPECT_EQ(list[n].support, -1);
    }
    return out;
  }

  TranBuf db_ = {};
};

TEST_F(FreqItems, OrdersBySupportThenItemAndDropsItemsBelowFloor) {
  ASSERT_EQ(init_freq_tbl_with_minsup(20.0, 10, 16), 0);  // floor 2
  Add({1, 3, 7});
  Add({3, 7, 9});
  Add({3, 9});
  Add({4});
  Add({1, 12});
  EXPECT_EQ(List(), (Listing{{3, 3}, {1, 2}, {7, 2}, {9, 2}}));
  free_freq_tbl();
}

TEST_F(FreqItems, WeightedRecordsCountTheirWeight) {
  ASSERT_EQ(init_freq_tbl_with_minsup(0.0, 10, 16), 0);  // floor 1
  Add({5}, 3);
  Add({2, 5});
  EXPECT_EQ(List(), (Listing{{5, 4}, {2, 1}}));
  free_freq_tbl();
}

TEST_F(FreqItems, FloorIsTheLowestLengthNotLengthOne) {
  const fs::path table = fs::temp_directory_path() / ("quarlo-qrcf1-" + std::to_string(getpid()));
  std::ofstream(table) << "1 100\n2 20\n";
  ASSERT_EQ(init_freq_tbl(table.c_str(), 10, 16), 0);  // 10 for length 1, 2 afterwards
  fs::remove(table);
  Add({0, 6});
  Add({6, 8});
  EXPECT_EQ(List(), (Listing{{6, 2}}));
  free_freq_tbl();
}

TEST_F(FreqItems, EmptyDatabaseListsNothingAndKeepsTheAverage) {
  ASSERT_EQ(init_freq_tbl_with_minsup(0.0, 0, 16), 0);
  tran_avg_items = 1.5;
  int32_t n = -1;
  ItemEntry dummy = {};
  ItemEntry* list = &dummy;
  ASSERT_EQ(create_freqitemlist(&db_, &n, &list, 16), 0);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(tran_avg_items, 1.5);
  free_freq_tbl();
}

TEST_F(FreqItems, StatisticsCountRecordsAndWeightTheirLengths) {
  ASSERT_EQ(init_freq_tbl_with_minsup(0.0, 10, 16), 0);
  tran_max_items = 0;
  Add({1, 2, 3, 4});
  Add({1, 2}, 4);
  List();
  EXPECT_EQ(tran_max_items, 4u);
  EXPECT_DOUBLE_EQ(tran_avg_items, (4.0 + 2.0 * 4) / 2);
  // The maximum only ever rises.
  free_buf(&db_);
  ASSERT_EQ(init_buf(&db_, 16), 0);
  Add({1});
  List();
  EXPECT_EQ(tran_max_items, 4u);
  EXPECT_DOUBLE_EQ(tran_avg_items, 1.0);
  free_freq_tbl();
}

}  // namespace
