// Frequent-item list: weighted counting, the floor of the support table, the
// order (support descending, then item ascending) and the input statistics.
#include "qrcf1.h"

#include <utility>

#include "support/engine.h"

namespace {

using namespace quarlo_test;
using Listing = std::vector<std::pair<uint32_t, int32_t>>;  // (item, support)

class FreqItems : public TempDirTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(init_buf_pool(16), 0);
    ASSERT_EQ(init_buf(&db_, 16), 0);
  }
  void TearDown() override {
    free_buf(&db_);
    free_freq_tbl();
  }

  // Lists `records` under the support `table` of `ntrans` transactions.
  Listing List(const std::string& table, uint32_t ntrans, const std::vector<Record>& records) {
    EXPECT_EQ(set_support(table, ntrans, 16, path("table")), 0);
    fill(&db_, records);
    int32_t n = -1;
    ItemEntry* list = nullptr;
    EXPECT_EQ(create_freqitemlist(&db_, &n, &list, 16), 0);
    Listing out;
    for (int32_t i = 0; i < n; ++i) out.emplace_back(*list[i].items, list[i].support);
    return out;
  }

  TranBuf db_ = {};
};

TEST_F(FreqItems, OrdersBySupportThenItemAndDropsItemsBelowFloor) {
  // 20 % of 10: floor 2. Item 4 (support 1) is dropped; 1, 7 and 9 tie.
  EXPECT_EQ(List("20", 10, {{{1, 3, 7}}, {{3, 7, 9}}, {{3, 9}}, {{4}}, {{1, 12}}, {{0}, 5}}),
            (Listing{{0, 5}, {3, 3}, {1, 2}, {7, 2}, {9, 2}}));
}

// A record adds its weight to its items and to the sum of lengths, which is
// averaged over records, not weights.
TEST_F(FreqItems, WeightedRecordsCountTheirWeightAndStatistics) {
  tran_max_items = 0;
  EXPECT_EQ(List("0", 5, {{{2, 5}}, {{5}, 3}, {{1, 2, 3, 5}}}),
            (Listing{{5, 5}, {2, 2}, {1, 1}, {3, 1}}));
  EXPECT_EQ(tran_max_items, 4u);
  EXPECT_DOUBLE_EQ(tran_avg_items, (2.0 + 3 * 1 + 4) / 3);
}

}  // namespace
