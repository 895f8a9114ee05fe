// quarlo: association rules from the frequent itemsets of a length-decreasing
// minimum support, with exact supports.
//
//   #include <quarlo/rules.h>
//
//   quarlo::Options options;
//   options.support = quarlo::Support::table({{1, 2.0}, {3, 0.5}});
//   quarlo::RuleOptions ro;            // confidence at least 0.8, any consequent size
//   auto data = quarlo::Transactions::from_file("baskets.txt");
//   quarlo::RuleSet rs = quarlo::rules(data, options, ro);
//   for (const quarlo::Rule& r : rs.rules) {
//     for (uint32_t item : rs.antecedent(r)) std::cout << rs.labels[item] << ' ';
//     std::cout << "-> ";
//     for (uint32_t item : rs.consequent(r)) std::cout << rs.labels[item] << ' ';
//     std::cout << quarlo::measure(r, rs.transactions).confidence << '\n';
//   }
//
// A rule X -> Y has X and Y non-empty and disjoint, X u Y a frequent itemset
// (its support reaches the minimum of its own length), and a measure that
// reaches the threshold. Under a support that falls with the length, X or Y
// is often not frequent at its own, shorter length; their counts then come
// from the transactions, in one pass for all such itemsets together, so every
// count of a rule is exact.
#ifndef QUARLO_RULES_H_
#define QUARLO_RULES_H_

#include <cstdint>
#include <span>
#include <vector>

#include "quarlo/quarlo.h"

namespace quarlo {

// The measure a rule must reach. With n transactions, z = count(X u Y),
// a = count(X), c = count(Y), and s = z/n, sA = a/n, sC = c/n:
//   kSupport     s
//   kConfidence  z / a
//   kLift        confidence / sC
//   kLeverage    s - sA * sC
//   kConviction  (1 - sC) / (1 - confidence); +infinity when confidence is 1
//   kZhang       leverage / max(s * (1 - sA), sA * (sC - s)); 0 when that max is 0
// Support and confidence decide exactly on the shortest decimal of the
// threshold (0.8 means 4/5: z >= 0.8 * a in integers); the others compare
// the double value above with the threshold.
enum class RuleMetric { kSupport, kConfidence, kLift, kLeverage, kConviction, kZhang };

struct RuleOptions {
  RuleMetric metric = RuleMetric::kConfidence;
  // Support and confidence: 0 to 1; lift and conviction: at least 0;
  // leverage and Zhang's metric: -1 to 1. Other values throw kInvalidArgument.
  double min_threshold = 0.8;
  uint32_t max_consequent = 0xffffffffu;  // most items of Y (at least 1)
};

// One rule. Its items lie in RuleSet::items: X from `first`, then Y.
struct Rule {
  uint64_t first = 0;
  uint32_t antecedent_size = 0;
  uint32_t consequent_size = 0;
  uint32_t count = 0;             // transactions that hold X and Y
  uint32_t antecedent_count = 0;  // transactions that hold X
  uint32_t consequent_count = 0;  // transactions that hold Y
};

struct RuleSet {
  // The rules of each frequent itemset together, itemsets in the order of
  // Result::itemsets, each one's rules by consequent size.
  std::vector<Rule> rules;
  std::vector<uint32_t> items;      // X then Y of every rule, each ascending
  std::vector<std::string> labels;  // label of every item number
  uint32_t transactions = 0;        // transactions with at least one item
  uint32_t itemsets = 0;            // frequent itemsets the rules came from
  uint32_t counted = 0;             // itemsets not frequent at their length, counted in the data
  Stats stats;                      // of the mining run; seconds_post: rules and counting

  std::span<const uint32_t> antecedent(const Rule& r) const {
    return {items.data() + r.first, r.antecedent_size};
  }
  std::span<const uint32_t> consequent(const Rule& r) const {
    return {items.data() + r.first + r.antecedent_size, r.consequent_size};
  }
};

// A rule's measures, computed as RuleMetric lists them.
struct RuleMeasures {
  double support, antecedent_support, consequent_support;
  double confidence, lift, leverage, conviction, zhang;
};
RuleMeasures measure(const Rule& rule, uint32_t transactions);

// Mines `transactions` with `options` and returns every rule whose measure
// reaches the threshold. Options::max_size bounds the items of X u Y and
// Options::min_size sets their least number (2 at the lowest); maximal,
// closed and parents do not apply to rules and are refused. Throws Error:
// kInvalidArgument for a threshold out of range, for a support that leaves
// no frequent itemset of two or more items, and for an itemset of more than
// 63 items that rules would have to be formed from (consequents are bit masks).
RuleSet rules(const Transactions& transactions, const Options& options,
              const RuleOptions& rule_options = RuleOptions());

}  // namespace quarlo

#endif  // QUARLO_RULES_H_
