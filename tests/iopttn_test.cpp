// Pattern writer: the hand-made line format against printf, numbering per
// length, the size limits, item order and the total.
#include "iopttn.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "vscmdl.h"

namespace {

namespace fs = std::filesystem;

class Writer : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string templ = (fs::temp_directory_path() / "quarlo-iopttn-XXXXXX").string();
    ASSERT_NE(mkdtemp(templ.data()), nullptr);
    dir_ = templ;
    file_ = (dir_ / "db.fp_conv").string();
    Options({});
  }
  void TearDown() override { fs::remove_all(dir_); }

  void Options(std::vector<std::string> args) {
    args.insert(args.begin(), "quarlo");
    args.push_back("db");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    parse(static_cast<int>(argv.size()), argv.data(), 0);
  }

  void Write(std::vector<uint32_t> items, int32_t support) {
    write_freqpattern({static_cast<uint32_t>(items.size()), support, items.data()});
  }

  std::string Contents() {
    std::ifstream in(file_, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
  }

  fs::path dir_;
  std::string file_;
};

TEST_F(Writer, WritesIdentifierSupportPercentAndSortedItems) {
  ASSERT_EQ(open_pattern_file(file_.c_str(), 200, 16), 0);
  Write({7, 3}, 25);
  Write({9, 2, 5}, 200);
  Write({4}, 1);
  Write({1, 0}, 3);
  ASSERT_EQ(close_pattern_file(), 0);
  EXPECT_EQ(Contents(),
            "1-0 25 12.500 3 7\n"
            "2-0 200 100.000 2 5 9\n"
            "0-0 1 0.500 4\n"
            "1-1 3 1.500 0 1\n");
}

TEST_F(Writer, MinimumSizeSkipsShortPatternsWithoutNumberingThem) {
  Options({"-m", "2"});
  ASSERT_EQ(open_pattern_file(file_.c_str(), 10, 16), 0);
  const uint32_t before = pattern_count();
  Write({1}, 5);
  Write({1, 2}, 4);
  Write({3}, 5);
  Write({2, 3}, 4);
  ASSERT_EQ(close_pattern_file(), 0);
  EXPECT_EQ(Contents(), "1-0 4 40.000 1 2\n1-1 4 40.000 2 3\n");
  EXPECT_EQ(pattern_count() - before, 2u);
}

TEST_F(Writer, MaximumSizeOneKeepsOnlySingleItems) {
  Options({"-M", "1"});
  ASSERT_EQ(open_pattern_file(file_.c_str(), 10, 16), 0);
  Write({1}, 5);
  Write({1, 2}, 4);
  Write({2}, 5);
  ASSERT_EQ(close_pattern_file(), 0);
  EXPECT_EQ(Contents(), "0-0 5 50.000 1\n0-1 5 50.000 2\n");
}

TEST_F(Writer, OrdinalsRestartAtEveryOpen) {
  ASSERT_EQ(open_pattern_file(file_.c_str(), 10, 16), 0);
  Write({1}, 5);
  ASSERT_EQ(close_pattern_file(), 0);
  ASSERT_EQ(open_pattern_file(file_.c_str(), 10, 16), 0);
  Write({2}, 5);
  ASSERT_EQ(close_pattern_file(), 0);
  EXPECT_EQ(Contents(), "0-0 5 50.000 2\n");
}

// Lines of every length, many supports and item numbers up to 2^32 - 1, far
// more than one output buffer holds: the file equals what fprintf writes.
TEST_F(Writer, LargeOutputMatchesPrintfByteForByte) {
  const uint32_t ntrans = 99991;
  ASSERT_EQ(open_pattern_file(file_.c_str(), ntrans, 3000), 0);
  std::mt19937 rng(7);
  std::string want;
  std::vector<uint32_t> per_length(3001, 0);
  char text[64];
  for (int i = 0; i < 60000; ++i) {
    const uint32_t len = (i % 997 == 0) ? 1 + rng() % 3000 : 1 + rng() % 12;
    std::vector<uint32_t> items(len);
    for (uint32_t& x : items) x = (rng() % 5 == 0) ? 0xffffffffu - rng() % 9 : rng() % 100000;
    const int32_t support = static_cast<int32_t>(rng() % (ntrans + 1));
    Write(items, support);
    snprintf(text, sizeof text, "%u-%u %u %.3f", len - 1, per_length[len - 1]++, support,
             support * 100.0 / ntrans);
    want += text;
    std::sort(items.begin(), items.end());
    for (uint32_t x : items) {
      want += ' ';
      want += std::to_string(x);
    }
    want += "\n";
  }
  ASSERT_EQ(close_pattern_file(), 0);
  EXPECT_EQ(Contents(), want);
}

// The percentage text is cached per support; every support of several
// transaction counts must print as "%.3f" does, including the rounding cases.
TEST_F(Writer, PercentCacheAgreesWithPrintfOnEverySupport) {
  for (uint32_t ntrans : {1u, 3u, 7u, 8u, 13u, 400u, 3196u, 8124u, 88162u}) {
    ASSERT_EQ(open_pattern_file(file_.c_str(), ntrans, 4), 0);
    std::string want;
    char text[64];
    for (uint32_t s = 0; s <= ntrans; ++s) {
      Write({1}, static_cast<int32_t>(s));
      Write({1}, static_cast<int32_t>(s));  // second time from the cache
      snprintf(text, sizeof text, "%.3f", s * 100.0 / ntrans);
      want += text;
      want += "|";
      want += text;
      want += "|";
    }
    ASSERT_EQ(close_pattern_file(), 0);
    std::ifstream in(file_);
    std::string got;
    for (std::string id, sup, pct, item; in >> id >> sup >> pct >> item;) got += pct + "|";
    EXPECT_EQ(got, want) << "ntrans " << ntrans;
  }
}

TEST_F(Writer, UncreatableFileIsReported) {
  testing::internal::CaptureStdout();
  const std::string bad = (dir_ / "missing" / "db.fp_conv").string();
  EXPECT_EQ(open_pattern_file(bad.c_str(), 10, 4), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "iopttn(26) fopen(" + bad + "): No such file or directory\n");
}

}  // namespace
