// File-name joining and the wall clock used for stage timing.
#include "util.h"

#include <sys/time.h>

#include <cstdlib>
#include <memory>

#include <gtest/gtest.h>

namespace {

TEST(NameJoin, AppendsDotAndSuffixUnlessAPartIsEmpty) {
  const struct {
    const char *base, *suffix, *joined;
  } cases[] = {
      {"a.b", "conv", "a.b.conv"},  {"data/tr.txt", "fp_conv", "data/tr.txt.fp_conv"},
      {"../up/x", "qr", "../up/x.qr"}, {"x", "y", "x.y"},
      {"", "conv", nullptr},        {"a.b", "", nullptr},
      {"", "", nullptr},
  };
  for (const auto& c : cases) {
    // Freed with free(), as the contract says.
    std::unique_ptr<char, decltype(&free)> joined(name_join(c.base, c.suffix), &free);
    EXPECT_STREQ(joined.get(), c.joined) << c.base << " + " << c.suffix;
  }
}

TEST(WallSeconds, MatchesTheSystemClockWithMicroseconds) {
  struct timeval before, after;
  gettimeofday(&before, nullptr);
  const double now = wall_seconds();
  gettimeofday(&after, nullptr);
  // A microsecond of slack for the rounding of the two sums.
  EXPECT_GE(now, static_cast<double>(before.tv_sec) + before.tv_usec / 1e6 - 1e-6);
  EXPECT_LE(now, static_cast<double>(after.tv_sec) + after.tv_usec / 1e6 + 1e-6);
}

}  // namespace
