// Transaction store: record encoding, the readers, loading the binary file in
// 1 MiB slices with room for the end word, and the two-block pool.
#include "qrdb.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

class TranStore : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string templ = (fs::temp_directory_path() / "quarlo-qrdb-XXXXXX").string();
    ASSERT_NE(mkdtemp(templ.data()), nullptr);
    dir_ = templ;
    ASSERT_EQ(init_buf_pool(64), 0);
    ASSERT_EQ(init_buf(&buf_, 64), 0);
  }
  void TearDown() override {
    free_buf(&buf_);
    fs::remove_all(dir_);
  }

  // Writes `words` as a little-endian binary file and returns its path.
  std::string WriteWords(const std::vector<uint32_t>& words) {
    const std::string path = (dir_ / "db.qr").string();
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(words.data()), 4 * words.size());
    return path;
  }

  std::vector<uint32_t> Items(const CurTran* t) {
    std::vector<uint32_t> items;
    for (int32_t i = 0; i < t->n; ++i) items.push_back(t->slot[i].item);
    return items;
  }

  fs::path dir_;
  TranBuf buf_ = {};
};

TEST_F(TranStore, AppendsPlainAndWeightedRecordsAndKeepsEndWord) {
  const uint32_t a[] = {4, 9, 2};
  ASSERT_EQ(insert_tran_to_trandb(&buf_, a, 3, 0), 0);
  EXPECT_EQ(buf_.position, 0u);
  EXPECT_EQ(buf_.data[0], 0);
  ASSERT_EQ(insert_tran_to_trandb(&buf_, a, 3, 1), 0);
  EXPECT_EQ(buf_.position, 16u);
  ASSERT_EQ(insert_tran_to_trandb(&buf_, a, 2, 3), 0);
  EXPECT_EQ(buf_.position, 32u);
  const std::vector<int32_t> words(buf_.data, buf_.data + 9);
  EXPECT_EQ(words, (std::vector<int32_t>{3, 4, 9, 2, -3, 2, 4, 9, 0}));
}

TEST_F(TranStore, ReadersUnpackInFileOrderAndStopAtEndWord) {
  const uint32_t a[] = {4, 9, 2};
  insert_tran_to_trandb(&buf_, a, 3, 1);
  insert_tran_to_trandb(&buf_, a + 1, 2, 5);
  buf_.position = 0;
  CurTran* t = nullptr;
  EXPECT_EQ(read_tran(&buf_, &t), 1);
  EXPECT_EQ(Items(t), (std::vector<uint32_t>{4, 9, 2}));
  EXPECT_EQ(t->slot[0].aux, 0u);
  EXPECT_EQ(read_tran(&buf_, &t), 5);
  EXPECT_EQ(Items(t), (std::vector<uint32_t>{9, 2}));
  const uint32_t end = buf_.position;
  EXPECT_EQ(read_tran(&buf_, &t), 0);
  EXPECT_EQ(buf_.position, end);

  buf_.position = 4;
  EXPECT_EQ(read_tran_at(&buf_, &t, 16), 5);
  EXPECT_EQ(Items(t), (std::vector<uint32_t>{9, 2}));
  EXPECT_EQ(buf_.position, 4u);

  uint32_t ntrans = 0;
  count_tran(&buf_, &ntrans);
  EXPECT_EQ(ntrans, 6u);
}

TEST_F(TranStore, AppendGrowsByOneBlockWhenFull) {
  std::vector<uint32_t> items(60, 7);
  const uint32_t records = kTranBlockBytes / (4 * 61) + 1;
  for (uint32_t r = 0; r < records; ++r) {
    ASSERT_EQ(insert_tran_to_trandb(&buf_, items.data(), 60, 1), 0);
  }
  EXPECT_EQ(buf_.capacity, 2 * kTranBlockBytes);
  uint32_t ntrans = 0;
  count_tran(&buf_, &ntrans);
  EXPECT_EQ(ntrans, records);
}

TEST_F(TranStore, EmptyFileLoadsAsEndWordOnly) {
  ASSERT_EQ(load_trandb(WriteWords({}).c_str(), &buf_), 0);
  EXPECT_EQ(buf_.data[0], 0);
  uint32_t ntrans = 7;
  count_tran(&buf_, &ntrans);
  EXPECT_EQ(ntrans, 0u);
}

TEST_F(TranStore, LoadsFileRecordsVerbatim) {
  ASSERT_EQ(load_trandb(WriteWords({2, 1, 5, 1, 3, 3, 0, 2, 4}).c_str(), &buf_), 0);
  CurTran* t = nullptr;
  buf_.position = 0;
  EXPECT_EQ(read_tran(&buf_, &t), 1);
  EXPECT_EQ(Items(t), (std::vector<uint32_t>{1, 5}));
  EXPECT_EQ(read_tran(&buf_, &t), 1);
  EXPECT_EQ(Items(t), (std::vector<uint32_t>{3}));
  EXPECT_EQ(read_tran(&buf_, &t), 1);
  EXPECT_EQ(Items(t), (std::vector<uint32_t>{0, 2, 4}));
  EXPECT_EQ(read_tran(&buf_, &t), 0);
}

// Fills a file of `bytes` (a multiple of 8) with records "1 item".
std::vector<uint32_t> SingleItemRecords(uint32_t bytes) {
  std::vector<uint32_t> words;
  for (uint32_t i = 0; i < bytes / 8; ++i) words.insert(words.end(), {1, i % 64});
  return words;
}

TEST_F(TranStore, FileOfExactlyOneBlockGrowsBeforeEndWord) {
  ASSERT_EQ(load_trandb(WriteWords(SingleItemRecords(kTranBlockBytes)).c_str(), &buf_), 0);
  EXPECT_EQ(buf_.capacity, 2 * kTranBlockBytes);
  EXPECT_EQ(buf_.data[kTranBlockBytes / 4], 0);
  uint32_t ntrans = 0;
  count_tran(&buf_, &ntrans);
  EXPECT_EQ(ntrans, kTranBlockBytes / 8);
}

TEST_F(TranStore, FileOfTwoBlocksAndABitReadsWhole) {
  std::vector<uint32_t> words = SingleItemRecords(2 * kTranBlockBytes);
  words.insert(words.end(), {2, 3, 4});
  ASSERT_EQ(load_trandb(WriteWords(words).c_str(), &buf_), 0);
  EXPECT_EQ(buf_.capacity, 3 * kTranBlockBytes);
  uint32_t ntrans = 0;
  count_tran(&buf_, &ntrans);
  EXPECT_EQ(ntrans, 2 * kTranBlockBytes / 8 + 1);
}

TEST_F(TranStore, FileFourBytesShortOfABlockKeepsOneBlock) {
  std::vector<uint32_t> words = SingleItemRecords(kTranBlockBytes - 16);
  words.insert(words.end(), {2, 1, 2});
  ASSERT_EQ(words.size() * 4, kTranBlockBytes - 4);
  ASSERT_EQ(load_trandb(WriteWords(words).c_str(), &buf_), 0);
  EXPECT_EQ(buf_.capacity, kTranBlockBytes);
  uint32_t ntrans = 0;
  count_tran(&buf_, &ntrans);
  EXPECT_EQ(ntrans, (kTranBlockBytes - 16) / 8 + 1);
}

TEST_F(TranStore, MissingFileFailsWithOpenDiagnostic) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(load_trandb((dir_ / "absent.qr").c_str(), &buf_), -1);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("open: No such file or directory\n"), std::string::npos) << err;
  EXPECT_NE(err.find("qrdb(134) : open\n"), std::string::npos) << err;
}

TEST(TranPool, LendsBothBlocksThenAllocatesAndTakesReturnedBlocksBack) {
  ASSERT_EQ(init_buf_pool(8), 0);
  TranBuf a, b, c;
  ASSERT_EQ(init_buf(&a, 8), 0);
  ASSERT_EQ(init_buf(&b, 8), 0);
  ASSERT_EQ(init_buf(&c, 8), 0);
  EXPECT_NE(a.data, b.data);
  free_buf(&c);
  int32_t* first = a.data;
  free_buf(&a);
  TranBuf d;
  ASSERT_EQ(init_buf(&d, 8), 0);
  EXPECT_EQ(d.data, first);
  EXPECT_EQ(d.capacity, kTranBlockBytes);
  EXPECT_EQ(d.position, 0u);
  free_buf(&d);
  free_buf(&b);
}

TEST(TranPool, GrownPoolBlockStaysInThePool) {
  ASSERT_EQ(init_buf_pool(8), 0);
  TranBuf a;
  ASSERT_EQ(init_buf(&a, 8), 0);
  std::vector<uint32_t> items(1000, 1);
  while (a.capacity == kTranBlockBytes) insert_tran_to_trandb(&a, items.data(), 1000, 1);
  int32_t* grown = a.data;
  free_buf(&a);
  TranBuf b;
  ASSERT_EQ(init_buf(&b, 8), 0);
  EXPECT_EQ(b.data, grown);
  free_buf(&b);
}

}  // namespace
