// The length-decreasing support table: percentages to counts, the table
// file reader, the minimum output size, and the inverse lookup from a count
// to the shortest length (cached below 100, searched from 100 on).
#include "suppfunc.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/harness.h"
#include "vscmdl.h"

namespace {

using quarlo_test::Argv;
using quarlo_test::matches_regex;
using quarlo_test::regex_escape;
using quarlo_test::StdoutCapture;
using quarlo_test::write_file;

class SupportTable : public quarlo_test::TempDirTest {
 protected:
  void SetUp() override { set_min_size("1"); }
  void TearDown() override { free_freq_tbl(); }

  // The builders read the minimum output size (-m) from the option record.
  void set_min_size(const std::string& m) {
    args_ = std::make_unique<Argv>(Argv{"quarlo", "-m", m, "in.txt"});
    parse(args_->argc(), args_->argv(), 0);
  }

  // Writes `text` as the table file "tbl" and builds from it; what the
  // builder reported lands in report_.
  int build_from_file(const std::string& text, uint32_t ntrans, uint32_t nitems) {
    write_file(path("tbl"), text);
    return build_from_path(path("tbl"), ntrans, nitems);
  }

  int build_from_path(const std::string& file, uint32_t ntrans, uint32_t nitems) {
    StdoutCapture capture;
    int rc = init_freq_tbl(file.c_str(), ntrans, nitems);
    report_ = capture.release();
    return rc;
  }

  int build_constant(double percent, uint32_t ntrans, uint32_t nitems) {
    StdoutCapture capture;
    int rc = init_freq_tbl_with_minsup(percent, ntrans, nitems);
    report_ = capture.release();
    return rc;
  }

  static std::vector<uint32_t> counts(uint32_t nitems) {
    std::vector<uint32_t> out;
    for (uint32_t len = 1; len <= nitems; ++len) out.push_back(minsup_of_length(len));
    return out;
  }

  std::string report_;

 private:
  std::unique_ptr<Argv> args_;
};

using U = std::vector<uint32_t>;

struct PercentCase {
  double percent;
  uint32_t ntrans;
  uint32_t count;
};

// Each count is the ceiling of N*f/100 as 80-bit extended precision sees it;
// plain double arithmetic would give 8, 1 and 10 for the first three.
const PercentCase kPercentCases[] = {
    {0.8, 1000, 9},    {0.1, 1000, 2},     {0.1, 10000, 11},  {0.15, 1000, 2},
    {0.2, 1000, 3},    {0.3, 1000, 3},     {1.0, 1000, 10},   {5, 1000, 50},
    {0, 1000, 1},      {100, 1000, 1000},  {0.8, 100000, 801}, {0.01, 100000, 11},
    // Exactly 27 in decimal, but f/100 rounds up in extended precision: the
    // quotient-first product decides.
    {3.375, 800, 28},
    {50, 3, 2},        {100, 4294967295u, 4294967295u},       {0, 1, 1},
};

TEST_F(SupportTable, PercentRoundsInExtendedPrecision) {
  for (const PercentCase& c : kPercentCases) {
    EXPECT_EQ(percent_to_count(c.percent, c.ntrans), c.count)
        << c.percent << "% of " << c.ntrans;
  }
}

TEST_F(SupportTable, ConstantSupportFillsEveryLength) {
  for (const PercentCase& c : kPercentCases) {
    ASSERT_EQ(build_constant(c.percent, c.ntrans, 4), 0);
    EXPECT_EQ(counts(4), U(4, c.count)) << c.percent << "% of " << c.ntrans;
    EXPECT_EQ(lowest_minsup(), c.count);
  }
  EXPECT_EQ(report_, "");
}

TEST_F(SupportTable, FileEntriesUseTheSameRounding) {
  ASSERT_EQ(build_from_file("1 0.8\n2 0.1\n3 0.15\n4 0.2\n5 0\n", 1000, 5), 0);
  EXPECT_EQ(counts(5), (U{9, 2, 2, 3, 1}));
  EXPECT_EQ(report_, "");
}

TEST_F(SupportTable, FileGapsTakeTheEarlierLengthsValue) {
  ASSERT_EQ(build_from_file("1 1.0\n4 0.8\n", 1000, 6), 0);
  EXPECT_EQ(counts(6), (U{10, 10, 10, 9, 9, 9}));
  EXPECT_EQ(lowest_minsup(), 9u);

  ASSERT_EQ(build_from_file("1 5\n3 2\n", 1000, 4), 0);
  EXPECT_EQ(counts(4), (U{50, 50, 20, 20}));
  EXPECT_EQ(lowest_minsup(), 20u);
}

TEST_F(SupportTable, FileWordsAreBlankSeparatedInAnyLayout) {
  ASSERT_EQ(build_from_file("  1\t1.0\n\n4    0.8", 1000, 6), 0);
  EXPECT_EQ(counts(6), (U{10, 10, 10, 9, 9, 9}));
  // One pair per line is the usual layout, but line breaks carry no meaning.
  ASSERT_EQ(build_from_file("1 1.0 4\n0.8\n", 1000, 6), 0);
  EXPECT_EQ(counts(6), (U{10, 10, 10, 9, 9, 9}));
}

TEST_F(SupportTable, LaterLineForTheSameLengthOverwrites) {
  ASSERT_EQ(build_from_file("1 1.0\n1 2.0\n", 1000, 3), 0);
  EXPECT_EQ(counts(3), (U{20, 20, 20}));
}

TEST_F(SupportTable, MalformedPercentageCountsAsZero) {
  ASSERT_EQ(build_from_file("1 5\n2 abc\n", 1000, 3), 0);
  EXPECT_EQ(counts(3), (U{50, 1, 1}));
}

TEST_F(SupportTable, LengthAboveItemCountStopsReading) {
  // The line "1 50" after the stop would raise length 1 to 500 if read.
  ASSERT_EQ(build_from_file("1 1.0\n9 1.0\n1 50\n", 1000, 5), 0);
  EXPECT_EQ(counts(5), (U{10, 10, 10, 10, 10}));
  // A negative length compares as a huge one.
  ASSERT_EQ(build_from_file("1 1.0\n-1 2.0\n2 0.5\n", 1000, 3), 0);
  EXPECT_EQ(counts(3), (U{10, 10, 10}));
  // Stopping before length 1 was given is the missing-length-1 failure.
  EXPECT_EQ(build_from_file("2 1.0\n9 1.0\n1 5\n", 1000, 5), 1);
  EXPECT_NE(report_.find("Support value for length=1 must be given"), std::string::npos)
      << report_;
}

TEST_F(SupportTable, MissingLengthOneFails) {
  const std::string file = path("tbl");
  ASSERT_EQ(build_from_file("2 5.0\n", 1000, 4), 1);
  EXPECT_TRUE(matches_regex(report_, R"(\.\./vscom/suppfunc\(\d+\) Support value for )"
                                     R"(length=1 must be given in ")" +
                                         regex_escape(file) + "\"\n"))
      << report_;
  ASSERT_EQ(build_from_file("", 1000, 4), 1);
  EXPECT_NE(report_.find("Support value for length=1"), std::string::npos);
}

TEST_F(SupportTable, UnreadableFileFailsWithTheSystemError) {
  const std::string file = path("absent");
  ASSERT_EQ(build_from_path(file, 1000, 4), 1);
  EXPECT_TRUE(matches_regex(report_, R"(\.\./vscom/suppfunc\(\d+\) fopen\()" + regex_escape(file) +
                                         R"(, "r"\): No such file or directory)" + "\n"))
      << report_;
}

TEST_F(SupportTable, RejectsLengthZeroAndOverlongWords) {
  ASSERT_EQ(build_from_file("1 1.0\n0 2.0\n", 1000, 4), 1);
  EXPECT_NE(report_.find("length 0"), std::string::npos) << report_;

  const std::string long_word(20, '1');
  ASSERT_EQ(build_from_file("1 " + long_word + "\n", 1000, 4), 1);
  EXPECT_NE(report_.find("too long"), std::string::npos) << report_;
  ASSERT_EQ(build_from_file(long_word + " 1.0\n", 1000, 4), 1);
  EXPECT_NE(report_.find("too long"), std::string::npos) << report_;

  // Nineteen characters are still fine.
  ASSERT_EQ(build_from_file("1 " + std::string("1.") + std::string(17, '0') + "\n", 1000, 2), 0)
      << report_;
  EXPECT_EQ(counts(2), (U{10, 10}));
}

TEST_F(SupportTable, MinimumSizeBlocksShorterLengths) {
  set_min_size("3");
  ASSERT_EQ(build_from_file("1 1.0\n4 0.8\n", 1000, 6), 0);
  EXPECT_EQ(counts(6), (U{1001, 1001, 10, 9, 9, 9}));
  EXPECT_EQ(lowest_minsup(), 9u);
  EXPECT_EQ(min_length_of_support(9), 4u);
  EXPECT_EQ(min_length_of_support(10), 3u);
  EXPECT_EQ(min_length_of_support(1000), 3u);
  EXPECT_EQ(min_length_of_support(1001), 2u);

  ASSERT_EQ(build_constant(1.0, 1000, 5), 0);
  EXPECT_EQ(counts(5), (U{1001, 1001, 10, 10, 10}));
  EXPECT_EQ(lowest_minsup(), 10u);  // the plain count, not N + 1
}

TEST_F(SupportTable, MinimumSizeBeyondTheLengthsIsClamped) {
  for (const char* m : {"7", "8", "100", "-1"}) {
    set_min_size(m);
    ASSERT_EQ(build_from_file("1 1.0\n4 0.8\n", 1000, 6), 0) << m;
    EXPECT_EQ(counts(6), U(6, 1001)) << m;
    EXPECT_EQ(lowest_minsup(), 1001u) << m;
    ASSERT_EQ(build_constant(1.0, 1000, 6), 0) << m;
    EXPECT_EQ(counts(6), U(6, 1001)) << m;
    EXPECT_EQ(lowest_minsup(), 10u) << m;
  }
}

TEST_F(SupportTable, ShortestLengthFromTheCache) {
  ASSERT_EQ(build_from_file("1 1.0\n4 0.8\n", 1000, 6), 0);
  EXPECT_EQ(min_length_of_support(9), 4u);
  EXPECT_EQ(min_length_of_support(8), 6u);   // no length qualifies: the last
  EXPECT_EQ(min_length_of_support(0), 6u);
  EXPECT_EQ(min_length_of_support(50), 2u);  // never below 2 from 3 lengths on
  EXPECT_EQ(min_length_of_support(10), 2u);
  EXPECT_EQ(min_length_of_support(99), 2u);
}

TEST_F(SupportTable, ShortestLengthFromTheSearch) {
  // 1.0 % and 0.8 % of 100000 are 1000 and 801 (the latter one above the
  // decimal value), so every query from 100 on takes the search.
  ASSERT_EQ(build_from_file("1 1.0\n4 0.8\n", 100000, 6), 0);
  EXPECT_EQ(counts(6), (U{1000, 1000, 1000, 801, 801, 801}));
  EXPECT_EQ(min_length_of_support(900), 4u);
  EXPECT_EQ(min_length_of_support(801), 4u);
  EXPECT_EQ(min_length_of_support(800), 6u);
  EXPECT_EQ(min_length_of_support(100), 6u);
  EXPECT_EQ(min_length_of_support(999), 4u);
  EXPECT_EQ(min_length_of_support(1000), 2u);
  EXPECT_EQ(min_length_of_support(5000), 2u);
  EXPECT_EQ(min_length_of_support(99), 6u);
}

TEST_F(SupportTable, CacheAndSearchAgreeAcrossTheirBorder) {
  // Counts 200, 100, 100, 50, 50: the border between cached and searched
  // counts falls inside the table.
  ASSERT_EQ(build_from_file("1 25\n2 12.5\n4 6.25\n", 800, 5), 0);
  ASSERT_EQ(counts(5), (U{200, 100, 100, 50, 50}));
  EXPECT_EQ(min_length_of_support(49), 5u);
  EXPECT_EQ(min_length_of_support(50), 4u);
  EXPECT_EQ(min_length_of_support(99), 4u);
  EXPECT_EQ(min_length_of_support(100), 2u);
  EXPECT_EQ(min_length_of_support(150), 2u);
  EXPECT_EQ(min_length_of_support(200), 2u);
  EXPECT_EQ(min_length_of_support(1 << 30), 2u);
}

TEST_F(SupportTable, OneOrTwoLengthsAlwaysAnswerTheLastLength) {
  ASSERT_EQ(build_from_file("1 1.0\n", 1000, 1), 0);
  EXPECT_EQ(counts(1), (U{10}));
  EXPECT_EQ(lowest_minsup(), 10u);
  for (int32_t s : {0, 9, 10, 99, 100, 5000}) EXPECT_EQ(min_length_of_support(s), 1u) << s;

  ASSERT_EQ(build_from_file("1 1.0\n2 0.5\n", 1000, 2), 0);
  EXPECT_EQ(counts(2), (U{10, 5}));
  EXPECT_EQ(lowest_minsup(), 5u);
  for (int32_t s : {0, 4, 5, 10, 99, 100, 5000}) EXPECT_EQ(min_length_of_support(s), 2u) << s;
}

TEST_F(SupportTable, ConstantSupportCachesTheMinimumSize) {
  struct Case {
    const char* m;
    uint32_t cached;
  };
  for (const Case& c : {Case{"0", 1}, Case{"1", 1}, Case{"3", 3}}) {
    set_min_size(c.m);
    ASSERT_EQ(build_constant(5, 1000, 6), 0);
    for (int32_t s = 0; s < 100; ++s) {
      ASSERT_EQ(min_length_of_support(s), c.cached) << "-m " << c.m << ", count " << s;
    }
  }
}

TEST_F(SupportTable, ConstantSupportSearchesFrom100On) {
  set_min_size("3");
  ASSERT_EQ(build_constant(25, 1000, 6), 0);
  ASSERT_EQ(counts(6), (U{1001, 1001, 250, 250, 250, 250}));
  EXPECT_EQ(min_length_of_support(250), 3u);
  EXPECT_EQ(min_length_of_support(249), 6u);
  EXPECT_EQ(min_length_of_support(1001), 2u);
}

TEST_F(SupportTable, RebuildReplacesTheTable) {
  ASSERT_EQ(build_from_file("1 50\n", 1000, 3), 0);
  ASSERT_EQ(build_constant(1.0, 1000, 5), 0);
  EXPECT_EQ(counts(5), U(5, 10));
  EXPECT_EQ(lowest_minsup(), 10u);
  ASSERT_EQ(build_from_file("1 1.0\n2 0.5\n", 1000, 4), 0);
  EXPECT_EQ(counts(4), (U{10, 5, 5, 5}));
  EXPECT_EQ(min_length_of_support(7), 2u);
}

}  // namespace
