// Transaction store: record encoding, the readers, loading the binary file in
// 1 MiB slices with room for the end word, and the two-block pool.
#include "qrdb.h"

#include "support/engine.h"

namespace {

using namespace quarlo_test;

class TranStore : public TempDirTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(init_buf_pool(64), 0);
    ASSERT_EQ(init_buf(&buf_, 64), 0);
  }
  void TearDown() override { free_buf(&buf_); }

  uint32_t Count() {
    uint32_t ntrans = 0;
    count_tran(&buf_, &ntrans);
    return ntrans;
  }
  // The record at `offset` (the cursor when negative) and its weight.
  std::pair<Items, int32_t> Read(int64_t offset = -1) {
    CurTran* t = nullptr;
    const int32_t w = offset < 0 ? read_tran(&buf_, &t) : read_tran_at(&buf_, &t, offset);
    Items items;
    for (int32_t i = 0; w != 0 && i < t->n; ++i) items.push_back(t->slot[i].item);
    return {items, w};
  }

  TranBuf buf_ = {};
};

// Weight 0 adds nothing, weight 1 a plain record, others a weighted one; the
// buffer always ends in the end word, where the readers stop.
TEST_F(TranStore, EncodesRecordsAndReadsThemBackInOrder) {
  fill(&buf_, {{{4, 9, 2}, 0}, {{4, 9, 2}, 1}, {{9, 2}, 5}});
  EXPECT_EQ(buf_.position, 32u);
  EXPECT_EQ(std::vector<int32_t>(buf_.data, buf_.data + 9),
            (std::vector<int32_t>{3, 4, 9, 2, -5, 2, 9, 2, 0}));
  buf_.position = 0;
  EXPECT_EQ(Read(), std::make_pair(Items{4, 9, 2}, 1));
  EXPECT_EQ(Read(), std::make_pair(Items{9, 2}, 5));
  EXPECT_EQ(Read(), std::make_pair(Items{}, 0));
  EXPECT_EQ(buf_.position, 32u);
  buf_.position = 4;
  EXPECT_EQ(Read(16), std::make_pair(Items{9, 2}, 5));
  EXPECT_EQ(buf_.position, 4u);
  EXPECT_EQ(Count(), 6u);
}

// A file that fills its last block exactly needs one more block for the end
// word; one that leaves a word free does not.
TEST_F(TranStore, LoadKeepsRoomForTheEndWordAtBlockBoundaries) {
  const struct {
    uint32_t single_item_bytes;  // records "1 item" filling this many bytes
    Items last;                  // then this record, if any
    uint32_t blocks;
  } cases[] = {{0, {}, 1},
               {kTranBlockBytes, {}, 2},
               {kTranBlockBytes - 16, {1, 2}, 1},  // 4 bytes short of a block
               {2 * kTranBlockBytes, {3, 4}, 3}};
  for (const auto& c : cases) {
    std::vector<Items> records(c.single_item_bytes / 8, Items{5});
    if (!c.last.empty()) records.push_back(c.last);
    write_qr(path("db.qr"), records);
    ASSERT_EQ(load_trandb(path("db.qr").c_str(), &buf_), 0);
    EXPECT_EQ(buf_.capacity, c.blocks * kTranBlockBytes) << c.single_item_bytes;
    EXPECT_EQ(Count(), records.size()) << c.single_item_bytes;
    if (!records.empty()) {  // the last record, behind the block boundary, is intact
      EXPECT_EQ(Read(buf_.position - 4 * (records.back().size() + 1)).first, records.back());
    }
    free_buf(&buf_);
    ASSERT_EQ(init_buf(&buf_, 64), 0);
  }
}

TEST_F(TranStore, MissingFileFailsWithOpenDiagnostic) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(load_trandb(path("absent.qr").c_str(), &buf_), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "open: No such file or directory\nqrdb(134) : open\n");
}

// Appending to a full buffer grows it by one block. Two buffers get the two
// pool blocks, a third one a block of its own; a returned block is lent again,
// also after it grew (and moved).
TEST(TranPool, FullBufferGrowsAndReturnedBlocksAreLentAgain) {
  ASSERT_EQ(init_buf_pool(64), 0);
  TranBuf a, b, c;
  ASSERT_EQ(init_buf(&a, 64), 0);
  ASSERT_EQ(init_buf(&b, 64), 0);
  ASSERT_EQ(init_buf(&c, 64), 0);
  EXPECT_NE(a.data, b.data);
  free_buf(&c);
  const std::vector<Record> records(kTranBlockBytes / (4 * 61) + 1, Record{Items(60, 7)});
  fill(&a, records);
  EXPECT_EQ(a.capacity, 2 * kTranBlockBytes);
  uint32_t ntrans = 0;
  count_tran(&a, &ntrans);
  EXPECT_EQ(ntrans, records.size());
  int32_t* grown = a.data;
  free_buf(&a);
  ASSERT_EQ(init_buf(&a, 64), 0);
  EXPECT_EQ(a.data, grown);
  EXPECT_EQ(a.capacity, kTranBlockBytes);
  free_buf(&a);
  free_buf(&b);
}

// A record longer than one growth step (a conditional path of a very long
// transaction) makes the buffer grow as often as it needs to hold it.
TEST_F(TranStore, RecordLongerThanOneGrowthStepIsStoredWhole) {
  Items items(3 * kTranBlockBytes / 4, 0);
  for (uint32_t i = 0; i < items.size(); ++i) items[i] = i;
  ASSERT_EQ(init_buf_pool(static_cast<uint32_t>(items.size())), 0);
  fill(&buf_, {{{1}, 1}, {items, 2}});
  EXPECT_EQ(buf_.capacity, 4 * kTranBlockBytes);
  buf_.position = 0;
  EXPECT_EQ(Read(), std::make_pair(Items{1}, 1));
  EXPECT_EQ(Read(), std::make_pair(items, 2));
  EXPECT_EQ(Read(), std::make_pair(Items{}, 0));
}

}  // namespace
