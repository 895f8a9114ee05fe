// Pattern records read back from text lines: number tokens, itemsets split at
// "-1", leading fields, and the record operations of the post-processing.
#include "sequence.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using Itemsets = std::vector<Itemset>;
using Strings = std::vector<std::string>;

Sequence one(std::initializer_list<uint32_t> items) {
  Sequence s;
  s.itemsets.push_back(Itemset(items));
  return s;
}
Sequence seq(const char* line) { return parse_sequence(line, 0); }

TEST(Sequence, ReadNumberAcceptsDigitsAndMinusOneOnly) {
  for (auto [text, value] : {std::pair{"0", 0u}, {"4294967294", 4294967294u},
                             {"-1", 4294967295u}, {"007", 7u}}) {
    uint32_t v = 0;
    EXPECT_TRUE(read_number(text, &v)) << text;
    EXPECT_EQ(v, value) << text;
  }
  uint32_t v = 0;
  for (const char* bad : {"", "4294967296", "99999999999999999999", "-2", "+5", "5a", "1.5"}) {
    EXPECT_FALSE(read_number(bad, &v)) << bad;
  }
  EXPECT_FALSE(read_number(std::string_view("1\0" "2", 3), &v));
}

TEST(Sequence, ParseReadsFieldsThenItemsetsSplitAtMinusOne) {
  const struct {
    const char* line;
    uint32_t h;
    Strings fields;
    Itemsets itemsets;
  } cases[] = {
      {"0-0 25 12.500 7 3 7", 3, {"0-0", "25", "12.500"}, {{3, 7}}},
      {"x y z 1 2 -1 3", 3, {"x", "y", "z"}, {{1, 2}, {3}}},
      // Leading, trailing and repeated breaks open no empty itemset.
      {"-1 -1 5 -1 -1 6 -1", 0, {}, {{5}, {6}}},
      {"\t4 2\r\v\f x 9\r", 0, {}, {{2, 4}}},  // items stop at the first non-number
      {"1-0", 3, {"1-0", "", ""}, {}},
      {"", 0, {}, {}},
  };
  for (const auto& c : cases) {
    const Sequence s = parse_sequence(c.line, c.h);
    EXPECT_EQ(s.fields, c.fields) << c.line;
    EXPECT_EQ(s.itemsets, c.itemsets) << c.line;
  }
  EXPECT_EQ(length(seq("1 2 -1 3")), 3u);
}

TEST(Sequence, WithoutItemCountsPositionsOverAllItemsets) {
  const Sequence s = parse_sequence("f 1 2 -1 3 -1 4 5", 1);
  std::unique_ptr<Sequence> a(without_item(s, 2));  // drops 3, its itemset goes
  EXPECT_EQ(a->itemsets, (Itemsets{{1, 2}, {4, 5}}));
  EXPECT_TRUE(a->fields.empty());
  std::unique_ptr<Sequence> b(without_item(s, 3));
  EXPECT_EQ(b->itemsets, (Itemsets{{1, 2}, {3}, {5}}));
  std::unique_ptr<Sequence> c(without_item(one({9}), 0));
  EXPECT_TRUE(c->itemsets.empty());
}

TEST(Sequence, ContainsAndEquals) {
  const Sequence abc = one({1, 4, 9});
  EXPECT_TRUE(contains(abc, abc));
  EXPECT_TRUE(contains(abc, Sequence{}));
  EXPECT_TRUE(contains(abc, one({1, 9})));
  EXPECT_FALSE(contains(abc, one({1, 5})));
  EXPECT_FALSE(contains(abc, one({0, 1, 4, 9})));
  EXPECT_FALSE(contains(one({1, 4}), one({4, 10})));
  EXPECT_FALSE(contains(Sequence{}, one({1})));
  EXPECT_TRUE(contains(seq("1 2 -1 3"), seq("1 -1 3")));
  // {3} matches the last itemset, leaving no room for a second one.
  EXPECT_FALSE(contains(seq("1 2 -1 3"), seq("3 -1 1")));
  EXPECT_FALSE(contains(seq("1 2 -1 3"), seq("1 -1 2 -1 3")));

  EXPECT_TRUE(equals(parse_sequence("a 3 7", 1), parse_sequence("b 7 3 3", 1)));
  EXPECT_FALSE(equals(one({3, 7}), one({3, 8})));
  EXPECT_FALSE(equals(one({3, 7}), seq("3 -1 7")));
  EXPECT_FALSE(equals(seq("3 -1 7"), seq("7 -1 3")));
}

TEST(SequenceSet, AtAndFindIndexFollowInsertionOrderPerLength) {
  SequenceSet set;
  EXPECT_EQ(set.max_length(), 0u);
  for (const Sequence& s : {one({1, 2}), one({5}), one({1, 3}), one({1, 2})}) set.insert(s);
  EXPECT_EQ(set.max_length(), 2u);
  ASSERT_NE(set.at(2, 1), nullptr);
  EXPECT_EQ(set.at(2, 1)->itemsets[0], (Itemset{1, 3}));
  EXPECT_EQ(set.at(2, 2)->itemsets[0], (Itemset{1, 2}));  // stored twice
  EXPECT_EQ(set.at(2, 3), nullptr);
  EXPECT_EQ(set.at(3, 0), nullptr);
  EXPECT_EQ(set.at(0, 0), nullptr);
  uint32_t index = 99;
  EXPECT_TRUE(set.find_index(seq("2 1 2"), &index));
  EXPECT_EQ(index, 0u);
  EXPECT_TRUE(set.find_index(one({1, 3}), &index));
  EXPECT_EQ(index, 1u);
  EXPECT_FALSE(set.find_index(one({4}), &index));
  EXPECT_FALSE(set.find_index(one({1, 2, 3}), &index));
}

TEST(SequenceSet, LoadReadsEveryLineIncludingAnUnterminatedLast) {
  FILE* f = tmpfile();
  ASSERT_NE(f, nullptr);
  fputs("0-0 4 50.000 3\n\n1-0 2 25.000 7 3\r\n1-1 2 25.000 9 1", f);
  fflush(f);
  lseek(fileno(f), 0, SEEK_SET);
  SequenceSet set;
  set.load(fileno(f), 3);
  fclose(f);
  EXPECT_EQ(set.max_length(), 2u);
  ASSERT_NE(set.at(0, 0), nullptr);  // the empty line, under length 0
  EXPECT_EQ(set.at(0, 0)->fields, (Strings{"", "", ""}));
  EXPECT_EQ(set.at(1, 0)->fields[0], "0-0");
  EXPECT_EQ(set.at(2, 0)->itemsets[0], (Itemset{3, 7}));
  ASSERT_NE(set.at(2, 1), nullptr);
  EXPECT_EQ(set.at(2, 1)->fields[2], "25.000");
  EXPECT_EQ(set.at(2, 1)->itemsets[0], (Itemset{1, 9}));
}

}  // namespace
