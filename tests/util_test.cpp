// File-name joining and the wall clock used for stage timing.
#include "util.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

// name_join's result, freed with free() as its contract says.
std::unique_ptr<char, decltype(&free)> joined(const char* base, const char* suffix) {
  return {name_join(base, suffix), &free};
}

TEST(NameJoin, AppendsDotAndSuffixKeepingDirectoryAndExtension) {
  EXPECT_STREQ(joined("a.b", "conv").get(), "a.b.conv");
  EXPECT_STREQ(joined("data/tr.txt", "fp_conv").get(), "data/tr.txt.fp_conv");
  EXPECT_STREQ(joined("noext", "fp").get(), "noext.fp");
  EXPECT_STREQ(joined("../up/x", "qr").get(), "../up/x.qr");
  EXPECT_STREQ(joined("x", "y").get(), "x.y");
}

TEST(NameJoin, EmptyPartGivesNoName) {
  EXPECT_EQ(joined("", "conv").get(), nullptr);
  EXPECT_EQ(joined("a.b", "").get(), nullptr);
  EXPECT_EQ(joined("", "").get(), nullptr);
}

TEST(NameJoin, ResultIsAFreshCopy) {
  std::string base = "run";
  auto first = joined(base.c_str(), "pc");
  base[0] = 'X';
  auto second = joined(base.c_str(), "pc");
  EXPECT_STREQ(first.get(), "run.pc");
  EXPECT_STREQ(second.get(), "Xun.pc");
  EXPECT_NE(first.get(), second.get());
}

TEST(WallSeconds, MatchesTheSystemClockWithMicroseconds) {
  struct timeval before;
  gettimeofday(&before, nullptr);
  const double now = wall_seconds();
  struct timeval after;
  gettimeofday(&after, nullptr);
  const double lo = static_cast<double>(before.tv_sec) + before.tv_usec / 1e6;
  const double hi = static_cast<double>(after.tv_sec) + after.tv_usec / 1e6;
  // A microsecond of slack for the rounding of the two sums.
  EXPECT_GE(now, lo - 1e-6);
  EXPECT_LE(now, hi + 1e-6);
}

TEST(WallSeconds, MeasuresAShortSleep) {
  const double start = wall_seconds();
  usleep(30000);
  const double elapsed = wall_seconds() - start;
  EXPECT_GE(elapsed, 0.025);
  EXPECT_LT(elapsed, 5.0);
}

}  // namespace
