// The length-decreasing support table: percentages to counts, the table file
// reader, the minimum output size, and the inverse lookup from a count to the
// shortest length (cached below 100, searched from 100 on).
#include "suppfunc.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/harness.h"
#include "vscmdl.h"

namespace {

using quarlo_test::Argv;
using quarlo_test::StdoutCapture;
using U = std::vector<uint32_t>;

class SupportTable : public quarlo_test::TempDirTest {
 protected:
  void SetUp() override { set_min_size("1"); }
  void TearDown() override { free_freq_tbl(); }

  // The builders read the minimum output size (-m) from the option record.
  void set_min_size(const std::string& m) {
    args_ = std::make_unique<Argv>(Argv{"quarlo", "-m", m, "in.txt"});
    parse(args_->argc(), args_->argv(), 0);
  }
  // Builds from `text` written as the file "tbl" (or from `file` when given);
  // what the builder printed lands in report_.
  int build_from_file(const std::string& text, uint32_t ntrans, uint32_t nitems,
                      const std::string& file = "") {
    if (file.empty()) quarlo_test::write_file(path("tbl"), text);
    StdoutCapture capture;
    const int rc = init_freq_tbl((file.empty() ? path("tbl") : file).c_str(), ntrans, nitems);
    report_ = capture.release();
    return rc;
  }
  int build_constant(double percent, uint32_t ntrans, uint32_t nitems) {
    StdoutCapture capture;
    const int rc = init_freq_tbl_with_minsup(percent, ntrans, nitems);
    report_ = capture.release();
    return rc;
  }
  static U counts(uint32_t nitems) {
    U out;
    for (uint32_t len = 1; len <= nitems; ++len) out.push_back(minsup_of_length(len));
    return out;
  }

  std::string report_;

 private:
  std::unique_ptr<Argv> args_;
};

TEST_F(SupportTable, PercentRoundsInExtendedPrecision) {
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
  };
  for (const auto& c : cases) {
    EXPECT_EQ(percent_to_count(c.percent, c.ntrans), c.count) << c.percent << "% of " << c.ntrans;
    // The constant builder gives every length that count.
    ASSERT_EQ(build_constant(c.percent, c.ntrans, 4), 0);
    EXPECT_EQ(counts(4), U(4, c.count)) << c.percent << "% of " << c.ntrans;
    EXPECT_EQ(lowest_minsup(), c.count);
    EXPECT_EQ(report_, "");
  }
}

TEST_F(SupportTable, FileEntriesFillTheLengthsUpToTheItemCount) {
  const std::string word19 = "1." + std::string(17, '0');  // 19 characters are still fine
  const struct {
    std::string text;
    uint32_t ntrans, nitems;
    U counts;
  } cases[] = {
      {"1 0.8\n2 0.1\n3 0.15\n4 0.2\n5 0\n", 1000, 5, {9, 2, 2, 3, 1}},
      // A gap takes the earlier length's value.
      {"1 1.0\n4 0.8\n", 1000, 6, {10, 10, 10, 9, 9, 9}},
      {"1 5\n3 2\n", 1000, 4, {50, 50, 20, 20}},
      // Words are blank-separated in any layout; line breaks carry no meaning.
      {"  1\t1.0\n\n4    0.8", 1000, 6, {10, 10, 10, 9, 9, 9}},
      {"1 1.0 4\n0.8\n", 1000, 6, {10, 10, 10, 9, 9, 9}},
      {"1 1.0\n1 2.0\n", 1000, 3, {20, 20, 20}},  // a later line overwrites
      {"1 5\n2 abc\n", 1000, 3, {50, 1, 1}},      // a malformed percentage is 0
      // A length above the item count stops reading: "1 50" would give 500.
      {"1 1.0\n9 1.0\n1 50\n", 1000, 5, {10, 10, 10, 10, 10}},
      {"1 1.0\n-1 2.0\n2 0.5\n", 1000, 3, {10, 10, 10}},  // negative: a huge length
      {"1 " + word19 + "\n", 1000, 2, {10, 10}},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(build_from_file(c.text, c.ntrans, c.nitems), 0) << c.text << report_;
    EXPECT_EQ(counts(c.nitems), c.counts) << c.text;
    EXPECT_EQ(lowest_minsup(), c.counts.back()) << c.text;
    EXPECT_EQ(report_, "");
  }
}

TEST_F(SupportTable, BadFilesFailWithTheirMessage) {
  const std::string tbl = quarlo_test::regex_escape(path("tbl"));
  const std::string no_length_one = "Support value for length=1 must be given in \"" + tbl + "\"";
  const std::string too_long = "Word too long \\(over 19 characters\\) in \"" + tbl + "\"";
  const std::string word20(20, '1');
  const std::pair<std::string, std::string> cases[] = {
      {"2 5.0\n", no_length_one},
      {"", no_length_one},
      {"2 1.0\n9 1.0\n1 5\n", no_length_one},  // stopped before length 1 was given
      {"1 1.0\n0 2.0\n", "Invalid length 0 in \"" + tbl + "\""},
      {"1 " + word20 + "\n", too_long},
      {word20 + " 1.0\n", too_long},
  };
  for (const auto& [text, message] : cases) {
    ASSERT_EQ(build_from_file(text, 1000, 5), 1) << text;
    EXPECT_TRUE(quarlo_test::matches_regex(report_, R"(\.\./vscom/suppfunc\(\d+\) )" + message + "\n"))
        << report_;
  }
  const std::string absent = path("absent");
  ASSERT_EQ(build_from_file("", 1000, 4, absent), 1);
  EXPECT_TRUE(quarlo_test::matches_regex(
      report_, R"(\.\./vscom/suppfunc\(\d+\) fopen\()" + quarlo_test::regex_escape(absent) +
                   R"(, "r"\): No such file or directory)" + "\n"))
      << report_;
}

TEST_F(SupportTable, MinimumSizeBlocksShorterLengths) {
  set_min_size("3");
  ASSERT_EQ(build_from_file("1 1.0\n4 0.8\n", 1000, 6), 0);
  EXPECT_EQ(counts(6), (U{1001, 1001, 10, 9, 9, 9}));
  EXPECT_EQ(lowest_minsup(), 9u);
  for (auto [support, len] : {std::pair{9, 4u}, {10, 3u}, {1000, 3u}, {1001, 2u}}) {
    EXPECT_EQ(min_length_of_support(support), len) << support;
  }
  ASSERT_EQ(build_constant(1.0, 1000, 5), 0);
  EXPECT_EQ(counts(5), (U{1001, 1001, 10, 10, 10}));
  EXPECT_EQ(lowest_minsup(), 10u);  // the plain count, not N + 1
  // From 100 on the constant table is searched like any other.
  ASSERT_EQ(build_constant(25, 1000, 6), 0);
  for (auto [support, len] : {std::pair{250, 3u}, {249, 6u}, {1001, 2u}}) {
    EXPECT_EQ(min_length_of_support(support), len) << support;
  }

  // A minimum size beyond the lengths blocks them all.
  for (const char* m : {"7", "100", "-1"}) {
    set_min_size(m);
    ASSERT_EQ(build_from_file("1 1.0\n4 0.8\n", 1000, 6), 0) << m;
    EXPECT_EQ(counts(6), U(6, 1001)) << m;
    EXPECT_EQ(lowest_minsup(), 1001u) << m;
    ASSERT_EQ(build_constant(1.0, 1000, 6), 0) << m;
    EXPECT_EQ(counts(6), U(6, 1001)) << m;
    EXPECT_EQ(lowest_minsup(), 10u) << m;
  }
}

TEST_F(SupportTable, ConstantSupportCachesTheMinimumSize) {
  for (auto [m, cached] : {std::pair{"0", 1u}, {"1", 1u}, {"3", 3u}}) {
    set_min_size(m);
    ASSERT_EQ(build_constant(5, 1000, 6), 0);
    for (int32_t s = 0; s < 100; ++s) {
      ASSERT_EQ(min_length_of_support(s), cached) << "-m " << m << ", count " << s;
    }
  }
}

TEST_F(SupportTable, ShortestLengthFromTheCacheAndTheSearch) {
  const struct {
    std::string text;
    uint32_t ntrans, nitems;
    std::vector<std::pair<int32_t, uint32_t>> support_to_length;
  } cases[] = {
      // Counts 10,10,10,9,9,9, all cached. With no qualifying length the last
      // one is the answer; from three lengths on it is never below 2.
      {"1 1.0\n4 0.8\n", 1000, 6, {{9, 4}, {8, 6}, {0, 6}, {50, 2}, {10, 2}, {99, 2}}},
      // Counts 1000,1000,1000,801,801,801: every query from 100 on is searched.
      {"1 1.0\n4 0.8\n", 100000, 6,
       {{900, 4}, {801, 4}, {800, 6}, {100, 6}, {999, 4}, {1000, 2}, {5000, 2}, {99, 6}}},
      // Counts 200,100,100,50,50: the cache border falls inside the table.
      {"1 25\n2 12.5\n4 6.25\n", 800, 5,
       {{49, 5}, {50, 4}, {99, 4}, {100, 2}, {150, 2}, {200, 2}, {1 << 30, 2}}},
      // One or two lengths always answer the last length.
      {"1 1.0\n", 1000, 1, {{0, 1}, {10, 1}, {99, 1}, {100, 1}, {5000, 1}}},
      {"1 1.0\n2 0.5\n", 1000, 2, {{0, 2}, {4, 2}, {5, 2}, {10, 2}, {99, 2}, {100, 2}, {5000, 2}}},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(build_from_file(c.text, c.ntrans, c.nitems), 0);
    for (auto [support, len] : c.support_to_length) {
      EXPECT_EQ(min_length_of_support(support), len)
          << c.text << "of " << c.ntrans << ", count " << support;
    }
  }
}

}  // namespace
