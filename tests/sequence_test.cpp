#include "sequence.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

Sequence one(std::initializer_list<uint32_t> items) {
  Sequence s;
  s.itemsets.push_back(Itemset(items));
  return s;
}

TEST(Sequence, AddItemKeepsAscendingWithoutDuplicates) {
  Itemset set;
  for (uint32_t v : {7u, 3u, 7u, 0u, 3u}) add_item(&set, v);
  EXPECT_EQ(set, (Itemset{0, 3, 7}));
}

TEST(Sequence, ReadNumberAcceptsDigitsAndMinusOneOnly) {
  uint32_t v = 0;
  EXPECT_TRUE(read_number("0", &v));
  EXPECT_EQ(v, 0u);
  EXPECT_TRUE(read_number("4294967294", &v));
  EXPECT_EQ(v, 4294967294u);
  EXPECT_TRUE(read_number("-1", &v));
  EXPECT_EQ(v, 4294967295u);
  EXPECT_TRUE(read_number("007", &v));
  EXPECT_EQ(v, 7u);
  for (const char* bad : {"", "4294967296", "99999999999999999999", "-2", "+5", "5a", "1.5", "a"}) {
    EXPECT_FALSE(read_number(bad, &v)) << bad;
  }
  EXPECT_FALSE(read_number(std::string_view("1\0" "2", 3), &v));
}

TEST(Sequence, ParseKeepsFieldsAndSortsTheItemset) {
  Sequence s = parse_sequence("0-0 25 12.500 7 3 7", 3);
  EXPECT_EQ(s.fields, (std::vector<std::string>{"0-0", "25", "12.500"}));
  ASSERT_EQ(s.itemsets.size(), 1u);
  EXPECT_EQ(s.itemsets[0], (Itemset{3, 7}));
  EXPECT_EQ(length(s), 2u);
}

TEST(Sequence, ParseSplitsItemsetsAtMinusOne) {
  Sequence s = parse_sequence("x y z 1 2 -1 3", 3);
  ASSERT_EQ(s.itemsets.size(), 2u);
  EXPECT_EQ(s.itemsets[0], (Itemset{1, 2}));
  EXPECT_EQ(s.itemsets[1], (Itemset{3}));
  // Leading, trailing and repeated breaks open no empty itemset.
  Sequence t = parse_sequence("-1 -1 5 -1 -1 6 -1", 0);
  ASSERT_EQ(t.itemsets.size(), 2u);
  EXPECT_EQ(t.itemsets[0], (Itemset{5}));
  EXPECT_EQ(t.itemsets[1], (Itemset{6}));
}

TEST(Sequence, ParseStopsAtFirstNonNumberAndPadsMissingFields) {
  Sequence s = parse_sequence("\t4 2\r\v\f x 9\r", 0);
  ASSERT_EQ(s.itemsets.size(), 1u);
  EXPECT_EQ(s.itemsets[0], (Itemset{2, 4}));
  Sequence t = parse_sequence("1-0", 3);
  EXPECT_EQ(t.fields, (std::vector<std::string>{"1-0", "", ""}));
  EXPECT_TRUE(t.itemsets.empty());
  EXPECT_EQ(length(parse_sequence("", 0)), 0u);
}

TEST(Sequence, WithoutItemCountsPositionsOverAllItemsets) {
  Sequence s = parse_sequence("f 1 2 -1 3 -1 4 5", 1);
  std::unique_ptr<Sequence> a(without_item(s, 2));  // drops 3, its itemset goes
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(a->itemsets.size(), 2u);
  EXPECT_EQ(a->itemsets[0], (Itemset{1, 2}));
  EXPECT_EQ(a->itemsets[1], (Itemset{4, 5}));
  EXPECT_TRUE(a->fields.empty());
  std::unique_ptr<Sequence> b(without_item(s, 3));
  EXPECT_EQ(b->itemsets[2], (Itemset{5}));
  std::unique_ptr<Sequence> c(without_item(one({9}), 0));
  EXPECT_TRUE(c->itemsets.empty());
  EXPECT_EQ(length(*c), 0u);
}

TEST(Sequence, ContainsIsSubsetForOneItemsetRecords) {
  Sequence abc = one({1, 4, 9});
  EXPECT_TRUE(contains(abc, abc));
  EXPECT_TRUE(contains(abc, Sequence{}));
  EXPECT_TRUE(contains(abc, one({1, 9})));
  EXPECT_FALSE(contains(abc, one({1, 5})));
  EXPECT_FALSE(contains(abc, one({0, 1, 4, 9})));
  EXPECT_FALSE(contains(one({1, 4}), one({4, 10})));
  EXPECT_FALSE(contains(Sequence{}, one({1})));
}

TEST(Sequence, ContainsChecksItemsetCountsFromTheMatch) {
  Sequence a = parse_sequence("1 2 -1 3", 0);
  EXPECT_TRUE(contains(a, parse_sequence("1 -1 3", 0)));
  // {3} matches a's last itemset, leaving no room for a second one.
  EXPECT_FALSE(contains(a, parse_sequence("3 -1 1", 0)));
  EXPECT_FALSE(contains(a, parse_sequence("1 -1 2 -1 3", 0)));
}

TEST(Sequence, EqualsComparesItemsetsInPlace) {
  EXPECT_TRUE(equals(parse_sequence("a 3 7", 1), parse_sequence("b 7 3 3", 1)));
  EXPECT_FALSE(equals(one({3, 7}), one({3, 8})));
  EXPECT_FALSE(equals(one({3, 7}), parse_sequence("3 -1 7", 0)));
  EXPECT_FALSE(equals(parse_sequence("3 -1 7", 0), parse_sequence("7 -1 3", 0)));
}

TEST(SequenceSet, AtAndFindIndexFollowInsertionOrderPerLength) {
  SequenceSet set;
  EXPECT_EQ(set.max_length(), 0u);
  set.insert(one({1, 2}));
  set.insert(one({5}));
  set.insert(one({1, 3}));
  set.insert(one({1, 2}));  // stored twice
  EXPECT_EQ(set.max_length(), 2u);
  ASSERT_NE(set.at(2, 1), nullptr);
  EXPECT_EQ(set.at(2, 1)->itemsets[0], (Itemset{1, 3}));
  EXPECT_EQ(set.at(2, 3), nullptr);
  EXPECT_EQ(set.at(2, 2)->itemsets[0], (Itemset{1, 2}));
  EXPECT_EQ(set.at(3, 0), nullptr);
  EXPECT_EQ(set.at(0, 0), nullptr);
  uint32_t index = 99;
  EXPECT_TRUE(set.find_index(parse_sequence("2 1 2", 0), &index));
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
  rewind(f);
  SequenceSet set;
  set.load(f, 3);
  fclose(f);
  EXPECT_EQ(set.max_length(), 2u);
  ASSERT_NE(set.at(0, 0), nullptr);  // the empty line, under length 0
  EXPECT_EQ(set.at(0, 0)->fields, (std::vector<std::string>{"", "", ""}));
  EXPECT_EQ(set.at(1, 0)->fields[0], "0-0");
  EXPECT_EQ(set.at(2, 0)->itemsets[0], (Itemset{3, 7}));
  ASSERT_NE(set.at(2, 1), nullptr);
  EXPECT_EQ(set.at(2, 1)->fields[2], "25.000");
  EXPECT_EQ(set.at(2, 1)->itemsets[0], (Itemset{1, 9}));
}

}  // namespace
