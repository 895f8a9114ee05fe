// The library's rules and closed itemsets: counts of sides that are not
// frequent come from the data, the rules of an itemset stand together by
// consequent size, thresholds decide exactly on their decimal, closed
// filtering keeps parents and plans consistent, and bad requests throw
// kInvalidArgument.
#include "quarlo/rules.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace {

using quarlo::Error;
using quarlo::Options;
using quarlo::RuleMetric;
using quarlo::RuleOptions;
using quarlo::RuleSet;
using quarlo::Support;
using quarlo::Transactions;

using Labels = std::vector<std::vector<std::string>>;
using RuleCounts = std::vector<uint32_t>;

std::string side(const RuleSet& rs, std::span<const uint32_t> items) {
  std::string text;
  for (uint32_t item : items) text += (text.empty() ? "" : " ") + rs.labels[item];
  return text;
}

// "X -> Y" of each rule in order, and each rule's three counts by that text.
std::vector<std::string> texts(const RuleSet& rs, std::map<std::string, RuleCounts>* counts = nullptr) {
  std::vector<std::string> out;
  for (const quarlo::Rule& r : rs.rules) {
    out.push_back(side(rs, rs.antecedent(r)) + " -> " + side(rs, rs.consequent(r)));
    if (counts != nullptr)
      (*counts)[out.back()] = {r.count, r.antecedent_count, r.consequent_count};
  }
  return out;
}

// Counts: a 5, b 9, c 6, ab 5, bc 5, ac 1, abc 1 of 10 transactions.
Transactions market() {
  Labels t(4, {"a", "b"});
  for (int i = 0; i < 4; ++i) t.push_back({"b", "c"});
  t.push_back({"c"});
  t.push_back({"a", "b", "c"});
  return Transactions::from_labels(t);
}

Options falling() {
  Options options;
  options.support = Support::count_table({{1, 6}, {2, 1}});  // a alone is not frequent
  return options;
}

RuleOptions at_least(RuleMetric metric, double threshold) {
  RuleOptions ro;
  ro.metric = metric;
  ro.min_threshold = threshold;
  return ro;
}

TEST(Rules, SidesThatAreNotFrequentAreCountedInTheData) {
  const RuleSet rs = quarlo::rules(market(), falling(), at_least(RuleMetric::kConfidence, 0.5));
  EXPECT_EQ(rs.transactions, 10u);
  EXPECT_EQ(rs.itemsets, 4u);
  EXPECT_EQ(rs.counted, 1u);  // {a}, the one side below its length's count
  std::map<std::string, RuleCounts> counts;
  const std::vector<std::string> order = texts(rs, &counts);
  // a -> c (1/5), c -> a (1/6), b c -> a (1/5) and a b -> c (1/5) fall short;
  // with one consequent of {a, b, c} passing, none of two items is tried.
  EXPECT_EQ(counts, (std::map<std::string, RuleCounts>{{"a -> b", {5, 5, 9}},
                                                   {"b -> a", {5, 9, 5}},
                                                   {"b -> c", {5, 9, 6}},
                                                   {"c -> b", {5, 6, 9}},
                                                   {"a c -> b", {1, 1, 9}}}));
  EXPECT_EQ(order.back(), "a c -> b");  // the longest itemset comes last
  const auto measures = quarlo::measure(rs.rules.back(), rs.transactions);
  EXPECT_EQ(measures.confidence, 1.0);
  EXPECT_TRUE(std::isinf(measures.conviction));
  EXPECT_DOUBLE_EQ(measures.lift, 1.0 / 0.9);
}

TEST(Rules, ConsequentsGrowBySizeWithinTheirItemset) {
  Labels t(6, {"a", "b", "c"});
  t.push_back({"a"});
  RuleOptions ro = at_least(RuleMetric::kConfidence, 0.5);
  Options options;
  options.support = Support::count(6);
  options.min_size = 3;  // rules of {a, b, c} only
  const RuleSet all = quarlo::rules(Transactions::from_labels(t), options, ro);
  EXPECT_EQ(texts(all), (std::vector<std::string>{"b c -> a", "a c -> b", "a b -> c", "c -> a b",
                                                  "b -> a c", "a -> b c"}));
  ro.max_consequent = 1;
  EXPECT_EQ(quarlo::rules(Transactions::from_labels(t), options, ro).rules.size(), 3u);
  // An itemset of 18 items: consequents of two items are found past the
  // reach of the bitmap over masks (all 18 + 153 rules pass).
  Labels wide(3);
  for (int i = 0; i < 18; ++i) {
    std::string label = "i";
    label += std::to_string(i);
    for (auto& tr : wide) tr.push_back(label);
  }
  wide.push_back({"i0"});
  options.support = Support::count(3);
  options.min_size = 18;
  ro.max_consequent = 2;
  EXPECT_EQ(quarlo::rules(Transactions::from_labels(wide), options, ro).rules.size(), 171u);
  options.support = Support::count(6);
  options.min_size = 3;
  // Lift measures every split; a is in every transaction, so a rule with
  // a alone on either side has lift 1, the others 7/6.
  ro.metric = RuleMetric::kLift;
  ro.min_threshold = 1.1;
  ro.max_consequent = 0xffffffffu;
  EXPECT_EQ(texts(quarlo::rules(Transactions::from_labels(t), options, ro)),
            (std::vector<std::string>{"a c -> b", "a b -> c", "c -> a b", "b -> a c"}));
}

TEST(Rules, SupportAndConfidenceDecideOnTheThresholdsDecimal) {
  // 3 of 10 with b hold a: confidence 0.3 exactly.
  Labels t(3, {"a", "b"});
  for (int i = 0; i < 7; ++i) t.push_back({"b"});
  Options options;
  options.support = Support::count(1);
  auto b_to_a = [&](RuleMetric metric, double threshold) {
    const RuleSet rs =
        quarlo::rules(Transactions::from_labels(t), options, at_least(metric, threshold));
    for (const std::string& text : texts(rs)) {
      if (text == "b -> a") return true;
    }
    return false;
  };
  EXPECT_TRUE(b_to_a(RuleMetric::kConfidence, 0.3));
  EXPECT_FALSE(b_to_a(RuleMetric::kConfidence, 0.1 + 0.2));  // 0.30000000000000004
  EXPECT_TRUE(b_to_a(RuleMetric::kConfidence, 1e-300));
  EXPECT_TRUE(b_to_a(RuleMetric::kConfidence, 0.0));
  EXPECT_TRUE(b_to_a(RuleMetric::kSupport, 0.3));
  EXPECT_FALSE(b_to_a(RuleMetric::kSupport, 0.30000000000000004));
  EXPECT_FALSE(b_to_a(RuleMetric::kConfidence, 1.0));
}

TEST(Rules, BadRequestsThrowInvalidArgument) {
  auto kind_of = [](const Options& options, const RuleOptions& ro, const Labels& t) {
    try {
      quarlo::rules(Transactions::from_labels(t), options, ro);
    } catch (const Error& e) {
      return e.kind();
    }
    ADD_FAILURE() << "no error";
    return Error::Kind::kIo;
  };
  const Labels ok = {{"a", "b"}, {"a", "b"}};
  const RuleOptions plain;
  const double nan = std::nan("");
  for (const RuleOptions& ro :
       {at_least(RuleMetric::kConfidence, 1.01), at_least(RuleMetric::kConfidence, nan),
        at_least(RuleMetric::kSupport, -0.5), at_least(RuleMetric::kLift, -1),
        at_least(RuleMetric::kConviction, nan), at_least(RuleMetric::kLeverage, 1.5),
        at_least(RuleMetric::kZhang, -2)}) {
    EXPECT_EQ(kind_of(Options(), ro, ok), Error::Kind::kInvalidArgument);
  }
  RuleOptions no_consequent;
  no_consequent.max_consequent = 0;
  EXPECT_EQ(kind_of(Options(), no_consequent, ok), Error::Kind::kInvalidArgument);
  Options options;
  options.max_size = 1;
  EXPECT_EQ(kind_of(options, plain, ok), Error::Kind::kInvalidArgument);
  options = Options();
  options.support = Support::count(3);  // leaves nothing
  EXPECT_EQ(kind_of(options, plain, ok), Error::Kind::kInvalidArgument);
  EXPECT_EQ(kind_of(Options(), plain, {}), Error::Kind::kInvalidArgument);
  for (auto flag : {&Options::maximal, &Options::closed, &Options::parents}) {
    options = Options();
    options.*flag = true;
    EXPECT_EQ(kind_of(options, plain, ok), Error::Kind::kInvalidArgument);
  }
}

// ---------------------------------------------------------------------------
// Closed itemsets

// Supports: a 4, b 3, c 3, ab 3, ac 3, bc 2, abc 2 (and d, e, abcd 1) of 5.
Transactions closing() {
  return Transactions::from_labels(
      {{"a", "b", "c"}, {"a", "b", "c", "d"}, {"a", "b"}, {"a", "c"}, {"e"}});
}

std::vector<std::string> itemset_texts(const quarlo::Result& r) {
  std::vector<std::string> out;
  for (const quarlo::Itemset& s : r.itemsets) {
    std::string text;
    for (uint32_t item : s.items) text += r.labels[item];
    out.push_back(text);
  }
  return out;
}

TEST(Closed, KeepsItemsetsWithoutASupersetOfEqualSupport) {
  Options options;
  options.support = Support::count(2);
  options.closed = true;
  // b lies in ab, c in ac and bc in abc with the same support.
  std::vector<std::string> kept = itemset_texts(quarlo::mine(closing(), options));
  std::sort(kept.begin(), kept.end());
  EXPECT_EQ(kept, (std::vector<std::string>{"a", "ab", "abc", "ac"}));
  options.parents = true;
  const quarlo::Result r = quarlo::mine(closing(), options);
  ASSERT_EQ(r.parents.size(), r.itemsets.size());
  for (const auto& list : r.parents) {
    for (size_t p : list) EXPECT_LT(p, r.itemsets.size());
  }
  options.maximal = true;  // maximal itemsets are closed: both tests leave abc
  EXPECT_EQ(itemset_texts(quarlo::mine(closing(), options)), (std::vector<std::string>{"abc"}));
}

TEST(Closed, AMergedPlanFiltersAsOneRunDoes) {
  Options options;
  options.support = Support::count_table({{1, 3}, {3, 1}});
  const quarlo::Plan plan = quarlo::plan(closing(), options, 2);
  std::vector<std::string> mined;
  for (const std::string& part : plan.parts) mined.push_back(quarlo::mine_part(part));
  options.closed = true;
  EXPECT_EQ(itemset_texts(quarlo::merge(plan.record, mined, options)),
            itemset_texts(quarlo::mine(closing(), options)));
  EXPECT_THROW(quarlo::mine(closing(), options, [](const quarlo::PatternView&) {}), Error);
}

}  // namespace
