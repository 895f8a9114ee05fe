// The length-decreasing support table: percentages to counts, the table file
// reader, the minimum output size, and the inverse lookup from a count to the
// shortest length (cached below 100, searched from 100 on).
#include "support/support_table.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/harness.h"

using namespace quarlo::detail;

namespace {

using U = std::vector<uint32_t>;
using Lines = std::vector<std::string>;
using Lookups = std::vector<std::pair<int32_t, uint32_t>>;

class SupportTableFile : public quarlo_test::TempDirTest {
 protected:
  // Loads `text` written as the file "tbl"; what was reported lands in rep_.
  bool load(const std::string& text, uint32_t ntrans, uint32_t nitems, uint32_t min_size = 1) {
    quarlo_test::write_file(path("tbl"), text);
    rep_ = CollectingReporter();
    return table_.load_file(path("tbl").c_str(), ntrans, nitems, min_size, &rep_).ok();
  }
  U counts() const {
    U out;
    for (uint32_t l = 1; l <= table_.lengths(); ++l) out.push_back(table_.minsup_of_length(l));
    return out;
  }

  SupportTable table_;
  CollectingReporter rep_;
};

TEST(PercentToCount, RoundsInExtendedPrecision) {
  // Each count is the ceiling of N*f/100 as 80-bit extended precision sees
  // it; plain double arithmetic gives 8, 1 and 10 for the first three.
  const struct {
    double percent;
    uint32_t ntrans, count;
  } cases[] = {
      {0.8, 1000, 9},      {0.1, 1000, 2},     {0.1, 10000, 11},  {0.15, 1000, 2},
      {0.2, 1000, 3},      {0.3, 1000, 3},     {1.0, 1000, 10},   {5, 1000, 50},
      {0, 1000, 1},        {100, 1000, 1000},  {0.8, 100000, 801}, {0.01, 100000, 11},
      {3.375, 800, 28},  // exactly 27 in decimal; f/100 rounds up in extended precision
      {50, 3, 2},          {100, 4294967295u, 4294967295u},        {0, 1, 1},
      {-5, 1000, 1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(percent_to_count(c.percent, c.ntrans), c.count) << c.percent << "% of " << c.ntrans;
  }
}

TEST_F(SupportTableFile, TableFileGivesEveryLengthItsCountAndTheShortestLengths) {
  const std::string word19 = "1." + std::string(17, '0');  // 19 characters are still fine
  const struct {
    std::string text;
    uint32_t ntrans, nitems;
    U counts;
    Lookups support_to_length;  // min_length_of_support
    uint32_t min_size = 1;
  } cases[] = {
      {"1 0.8\n2 0.1\n3 0.15\n4 0.2\n5 0\n", 1000, 5, {9, 2, 2, 3, 1}, {}},
      // A gap takes the earlier length's value. All queries come from the
      // cache; with no qualifying length the last one is the answer, and from
      // three lengths on it is never below 2.
      {"1 1.0\n4 0.8\n", 1000, 6, {10, 10, 10, 9, 9, 9},
       {{9, 4}, {8, 6}, {0, 6}, {50, 2}, {10, 2}, {99, 2}}},
      // Words are blank-separated in any layout; line breaks carry no meaning.
      {"  1\t1.0\n\n4    0.8", 1000, 6, {10, 10, 10, 9, 9, 9}, {}},
      {"1 1.0\n1 2.0\n", 1000, 3, {20, 20, 20}, {}},  // a later line overwrites
      {"1 5\n2 abc\n", 1000, 3, {50, 1, 1}, {}},      // a malformed percentage is 0
      // A length above the item count stops reading: "1 50" would give 500.
      {"1 1.0\n9 1.0\n1 50\n", 1000, 5, {10, 10, 10, 10, 10}, {}},
      {"1 1.0\n-1 2.0\n2 0.5\n", 1000, 3, {10, 10, 10}, {}},  // negative: a huge length
      {"1 " + word19 + "\n", 1000, 2, {10, 10}, {}},
      // Every query from 100 on is searched.
      {"1 1.0\n4 0.8\n", 100000, 6, {1000, 1000, 1000, 801, 801, 801},
       {{900, 4}, {801, 4}, {800, 6}, {100, 6}, {999, 4}, {1000, 2}, {5000, 2}, {99, 6}}},
      // The cache border falls inside the table.
      {"1 25\n2 12.5\n4 6.25\n", 800, 5, {200, 100, 100, 50, 50},
       {{49, 5}, {50, 4}, {99, 4}, {100, 2}, {150, 2}, {200, 2}, {1 << 30, 2}}},
      // One or two lengths always answer the last length.
      {"1 1.0\n", 1000, 1, {10}, {{0, 1}, {10, 1}, {99, 1}, {100, 1}, {5000, 1}}},
      {"1 1.0\n2 0.5\n", 1000, 2, {10, 5},
       {{0, 2}, {4, 2}, {5, 2}, {10, 2}, {99, 2}, {100, 2}, {5000, 2}}},
      // The minimum size blocks the shorter lengths with N + 1, or all of them.
      {"1 1.0\n4 0.8\n", 1000, 6, {1001, 1001, 10, 9, 9, 9},
       {{9, 4}, {10, 3}, {1000, 3}, {1001, 2}}, 3},
      {"1 1.0\n4 0.8\n", 1000, 6, U(6, 1001), {}, 7},
      {"1 1.0\n4 0.8\n", 1000, 6, U(6, 1001), {}, 4294967295u},
  };
  for (const auto& c : cases) {
    const std::string what =
        c.text + "of " + std::to_string(c.ntrans) + ", -m " + std::to_string(c.min_size);
    ASSERT_TRUE(load(c.text, c.ntrans, c.nitems, c.min_size)) << what << rep_.summary();
    EXPECT_EQ(counts(), c.counts) << what;
    EXPECT_EQ(table_.lowest_minsup(), c.counts.back()) << what;
    EXPECT_EQ(rep_.lines(), Lines{});
    for (auto [support, len] : c.support_to_length) {
      EXPECT_EQ(table_.min_length_of_support(support), len) << what << ", count " << support;
    }
  }
  // Pairs given in memory follow the same rules: "2 7" comes after "9 1".
  ASSERT_TRUE(table_.set_pairs({{1, 50}, {3, 20}, {9, 1}, {2, 7}}, "pairs", 1000, 4, 1, &rep_).ok());
  EXPECT_EQ(counts(), (U{50, 50, 20, 20}));
}

// The searched answer from 100 on: the shortest length from 2 on whose
// running minimum is at most `support`, or the last length when none is.
uint32_t searched_length(const SupportTable& t, int32_t support) {
  const uint32_t n = t.lengths();
  if (n <= 2) return n;
  for (uint32_t len = 2; len < n; ++len) {
    if (static_cast<int64_t>(t.bound_of_length(len)) <= support) return len;
  }
  return n;
}

TEST_F(SupportTableFile, LookupAgreesWithTheSearchOnBothSidesOfItsTables) {
  // Steps below, across and far above the directly looked-up supports: a
  // count of 2^20 + 5 puts the step of length 3 beyond the direct table.
  const uint32_t big = SupportTable::kMostDirect + 5;
  const struct {
    LengthCounts pairs;
    uint32_t ntrans, nitems;
  } cases[] = {
      {{{1, 5000}, {3, 700}, {5, 120}, {8, 30}}, 10000, 9},
      {{{1, 3 * big}, {3, big}, {4, 1000}, {6, 101}}, 4 * big, 7},
      {{{1, 50}, {2, 40}}, 100, 3},
      {{{1, 500}}, 1000, 2},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(table_.set_pairs(c.pairs, "pairs", c.ntrans, c.nitems, 1, &rep_).ok());
    std::vector<int32_t> probes = {100, 101, INT32_MAX};
    for (uint32_t len = 1; len <= c.nitems; ++len) {
      const int32_t b = static_cast<int32_t>(table_.bound_of_length(len));
      for (int32_t d = -2; d <= 2; ++d) {
        if (b + d >= 100) probes.push_back(b + d);
      }
    }
    probes.push_back(static_cast<int32_t>(SupportTable::kMostDirect) - 1);
    probes.push_back(static_cast<int32_t>(SupportTable::kMostDirect));
    for (int32_t s : probes) {
      EXPECT_EQ(table_.min_length_of_support(s), searched_length(table_, s))
          << c.nitems << " lengths, count " << s;
    }
    // A restored table answers as the one it was saved from.
    SupportTable copy;
    const std::vector<uint32_t> words = table_.save();
    ASSERT_TRUE(copy.restore(words.data(), words.size()));
    for (int32_t s : probes) EXPECT_EQ(copy.min_length_of_support(s), table_.min_length_of_support(s));
  }
  // A constant table keeps its stored answers below 100 (the minimum size
  // whatever the count) and searches above.
  table_.set_constant(300, 1000, 6, 3);
  EXPECT_EQ(table_.min_length_of_support(10), 3u);
  EXPECT_EQ(table_.min_length_of_support(299), 6u);
  EXPECT_EQ(table_.min_length_of_support(300), 3u);
  EXPECT_EQ(table_.min_length_of_support(1001), 2u);
}

TEST_F(SupportTableFile, BadTablesFailWithTheirMessage) {
  const std::string tbl = path("tbl");
  const std::string no_length_one =
      "../vscom/suppfunc(133) Support value for length=1 must be given in \"" + tbl + "\"";
  const std::string too_long =
      "../vscom/suppfunc(77) Word too long (over 19 characters) in \"" + tbl + "\"";
  const std::string word20(20, '1');
  const std::pair<std::string, std::string> cases[] = {
      {"", no_length_one},
      {"1 1.0\n0 2.0\n", "../vscom/suppfunc(84) Invalid length 0 in \"" + tbl + "\""},
      {"1 " + word20 + "\n", too_long},
      {word20 + " 1.0\n", too_long},
  };
  for (const auto& [text, message] : cases) {
    EXPECT_FALSE(load(text, 1000, 5)) << text;
    EXPECT_EQ(rep_.lines(), Lines{message}) << text;
  }
  // Pairs in memory are reported under the name they are given.
  rep_ = CollectingReporter();
  EXPECT_EQ(table_.set_pairs({{2, 5}}, "pairs", 1000, 4, 1, &rep_).code(), Status::Code::kInvalidArgument);
  EXPECT_EQ(table_.set_pairs({{1, 5}, {0, 9}}, "pairs", 1000, 4, 1, &rep_).code(), Status::Code::kInvalidArgument);
  EXPECT_EQ(rep_.lines(),
            (Lines{"../vscom/suppfunc(133) Support value for length=1 must be given in \"pairs\"",
                   "../vscom/suppfunc(84) Invalid length 0 in \"pairs\""}));
  // A file that cannot be opened is an I/O failure that names it and its cause.
  const std::string absent = path("absent");
  const Status missing = table_.load_file(absent.c_str(), 1000, 4, 1, &rep_);
  EXPECT_EQ(missing.code(), Status::Code::kIo);
  EXPECT_EQ(missing.error_number(), ENOENT);
  EXPECT_EQ(missing.path(), absent);
}

}  // namespace
