// The id set behind maximal pruning: plain ids kept as bits, other texts in a
// table. What pruning keeps, and how it replaces its files or fails to, is
// checked by whole runs and, against the definition, through the library.
#include "maxpat.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(MaxPatSet, IdSetKeepsEveryIdThroughGrowthAndTellsSpellingsApart) {
  IdSet set;
  auto id = [](uint32_t len, uint32_t n) { return std::to_string(len) + "-" + std::to_string(n); };
  for (uint32_t n = 0; n < 20000; ++n) {
    set.insert(id(n % 7, n));
    set.insert(id(n % 7, n));
  }
  EXPECT_FALSE(set.contains("00-0"));
  EXPECT_FALSE(set.contains("0-00"));
  // Other spellings of the same numbers, and texts that are no plain id.
  const char* const odd[] = {"00-0", "0-00", "a", "1-", "-1-0", "1-0x",
                             "4294967296-0", "0-4294967295", "4294967295-7"};
  for (const char* i : odd) {
    set.insert(i);
    set.insert(i);
  }
  EXPECT_EQ(set.size(), 20009u);
  for (uint32_t n = 0; n < 20000; ++n) {
    ASSERT_TRUE(set.contains(id(n % 7, n))) << n;
    ASSERT_FALSE(set.contains(id(n % 7 + 1, n))) << n;
  }
  for (const char* i : odd) EXPECT_TRUE(set.contains(i)) << i;
  // Ordinals far beyond what the insertions justify still match exactly.
  for (const char* i : {"", "0", "-", "1--0", "0-1", "0-4294967294", "4294967295-6"}) {
    EXPECT_FALSE(set.contains(i)) << i;
  }
}

}  // namespace
