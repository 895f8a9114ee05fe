// Pattern writer: the hand-made line format against printf, numbering per
// length, the size limits and item order.
#include "iopttn.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "support/engine.h"

namespace {

using namespace quarlo_test;

class Writer : public TempDirTest {
 protected:
  void Write(Items items, int32_t support) {
    write_freqpattern({static_cast<uint32_t>(items.size()), support, items.data()});
  }
};

// Items come out ascending; -m and -M drop patterns without numbering them,
// so with -m 2 the first pair is "1-0"; the total counts written lines only.
TEST_F(Writer, WritesNumberedLinesWithinTheSizeLimits) {
  const struct {
    std::vector<std::string> options;
    std::string want;
  } cases[] = {
      {{}, "1-0 3 30.000 3 7\n2-0 10 100.000 2 5 9\n0-0 1 10.000 4\n1-1 5 50.000 0 1\n"},
      {{"-m", "2"}, "1-0 3 30.000 3 7\n2-0 10 100.000 2 5 9\n1-1 5 50.000 0 1\n"},
      {{"-m", "2", "-M", "2"}, "1-0 3 30.000 3 7\n1-1 5 50.000 0 1\n"},
      {{"-M", "1"}, "0-0 1 10.000 4\n"},
  };
  for (const auto& c : cases) {
    set_options(c.options);
    ASSERT_EQ(open_pattern_file(path("db.fp_conv").c_str(), 10, 16), 0);
    const uint32_t before = pattern_count();
    Write({7, 3}, 3);
    Write({9, 2, 5}, 10);
    Write({4}, 1);
    Write({1, 0}, 5);
    ASSERT_EQ(close_pattern_file(), 0);
    EXPECT_EQ(read_file(path("db.fp_conv")), c.want);
    EXPECT_EQ(pattern_count() - before, split_lines(c.want).size());
  }
}

// Every support of several transaction counts, written twice (the second time
// from the percentage cache), with lines of every length and item numbers up
// to 2^32 - 1, several output buffers in all: the file equals what printf
// writes, "%.3f" rounding included.
TEST_F(Writer, MatchesPrintfByteForByte) {
  set_options({});
  std::mt19937 rng(7);
  for (uint32_t ntrans : {1u, 3u, 7u, 8u, 13u, 400u, 3196u, 8124u, 88162u}) {
    ASSERT_EQ(open_pattern_file(path("db.fp_conv").c_str(), ntrans, 3000), 0);
    std::string want;
    std::vector<uint32_t> per_length(3000, 0);
    char text[64];
    for (uint32_t i = 0; i < 2 * (ntrans + 1); ++i) {
      const uint32_t len = (i % 997 == 0) ? 1 + rng() % 3000 : 1 + rng() % 12;
      Items items(len);
      for (uint32_t& x : items) x = (rng() % 5 == 0) ? 0xffffffffu - rng() % 9 : rng() % 100000;
      const uint32_t support = i / 2;
      Write(items, static_cast<int32_t>(support));
      snprintf(text, sizeof text, "%u-%u %u %.3f", len - 1, per_length[len - 1]++, support,
               support * 100.0 / ntrans);
      want += text;
      std::sort(items.begin(), items.end());
      for (uint32_t x : items) want += " " + std::to_string(x);
      want += "\n";
    }
    ASSERT_EQ(close_pattern_file(), 0);
    // Megabytes of text: show where the first difference lies.
    const std::string got = read_file(path("db.fp_conv"));
    const size_t at =
        std::mismatch(got.begin(), got.end(), want.begin(), want.end()).first - got.begin();
    EXPECT_EQ(got.substr(at, 60), want.substr(at, 60)) << "ntrans " << ntrans << ", byte " << at;
  }
}

}  // namespace
