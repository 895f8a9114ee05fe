// Association rules over a mined result. Each frequent itemset Z of two or
// more items gives the rules X -> Z \ X. Their counts come from the result
// where X and Y are frequent themselves; the others are gathered while the
// rules are formed and counted afterwards in one pass over the transactions
// (a trie of all of them, walked by every transaction), after which the
// rules that waited for a count are measured.
//
// Under confidence, a rule's consequents grow one item at a time, as in
// apriori's rule generation: confidence z / count(X) can only fall as X
// shrinks, so a consequent is tried only when every consequent one item
// smaller passed. A rule whose antecedent still waits for its count cannot
// be judged yet and counts as passing until it is; the set it leads to is
// then a superset of the rules that pass, and the final measure decides.
// The other measures are not monotone in the consequent, so every split of
// Z is tried (the support of a rule is Z's, so the support measure skips
// whole itemsets).
#include "quarlo/rules.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <new>
#include <string>

#include "post/itemset_index.h"
#include "post/rules_internal.h"

namespace quarlo {

using detail::ItemsetIndex;

RuleMeasures measure(const Rule& r, uint32_t transactions) {
  const double n = transactions;
  RuleMeasures m;
  m.support = r.count / n;
  m.antecedent_support = r.antecedent_count / n;
  m.consequent_support = r.consequent_count / n;
  m.confidence = static_cast<double>(r.count) / r.antecedent_count;
  m.lift = m.confidence / m.consequent_support;
  m.leverage = m.support - m.antecedent_support * m.consequent_support;
  m.conviction = r.count == r.antecedent_count ? std::numeric_limits<double>::infinity()
                                               : (1 - m.consequent_support) / (1 - m.confidence);
  const double scale = std::max(m.support * (1 - m.antecedent_support),
                                m.antecedent_support * (m.consequent_support - m.support));
  m.zhang = scale == 0 ? 0 : m.leverage / scale;
  return m;
}

namespace {

[[noreturn]] void invalid(const std::string& message) {
  throw Error(Error::Kind::kInvalidArgument, message);
}

constexpr uint32_t kMaxRuleItems = 63;  // a consequent is a bit mask over Z's items

// The threshold of a measure. Support and confidence decide on the shortest
// decimal that reads back as the double, digits * 10^exponent, in integers.
class Threshold {
 public:
  Threshold(RuleMetric metric, double value) : metric_(metric), value_(value) {
    check_range();
    if (metric == RuleMetric::kSupport || metric == RuleMetric::kConfidence) read_decimal();
  }

  // part / whole >= the threshold, exactly on its decimal (whole >= 1).
  bool ratio_reaches(uint64_t part, uint64_t whole) const {
    if (always_) return true;
    using u128 = unsigned __int128;
    return static_cast<u128>(part) * scale_ >= static_cast<u128>(whole) * digits_;
  }

  bool reaches(const Rule& r, uint32_t transactions) const {
    const RuleMeasures m = measure(r, transactions);
    switch (metric_) {
      case RuleMetric::kSupport:
        return ratio_reaches(r.count, transactions);
      case RuleMetric::kConfidence:
        return ratio_reaches(r.count, r.antecedent_count);
      case RuleMetric::kLift:
        return m.lift >= value_;
      case RuleMetric::kLeverage:
        return m.leverage >= value_;
      case RuleMetric::kConviction:
        return m.conviction >= value_;
      case RuleMetric::kZhang:
        return m.zhang >= value_;
    }
    return false;
  }

 private:
  void check_range() const {
    const char* name = "";
    double low = 0, high = 1;
    switch (metric_) {
      case RuleMetric::kSupport:
        name = "support";
        break;
      case RuleMetric::kConfidence:
        name = "confidence";
        break;
      case RuleMetric::kLift:
        name = "lift";
        high = std::numeric_limits<double>::infinity();
        break;
      case RuleMetric::kConviction:
        name = "conviction";
        high = std::numeric_limits<double>::infinity();
        break;
      case RuleMetric::kLeverage:
        name = "leverage";
        low = -1;
        break;
      case RuleMetric::kZhang:
        name = "Zhang's metric";
        low = -1;
        break;
    }
    if (!(value_ >= low && value_ <= high)) {  // NaN fails too
      char text[64];
      const auto end = std::to_chars(text, text + sizeof text, value_).ptr;
      invalid(std::string("a ") + name + " threshold must be from " + (low == 0 ? "0" : "-1") +
              " to " + (std::isinf(high) ? "infinity" : "1") + ", not " + std::string(text, end));
    }
  }

  // value = digits_ / scale_, or always_ when no ratio of 32-bit counts
  // can fall below it.
  void read_decimal() {
    char text[64];
    const char* end = std::to_chars(text, text + sizeof text, value_).ptr;
    uint64_t digits = 0;
    int exponent = 0;
    bool point = false;
    const char* p = text;
    for (; p < end && *p != 'e'; ++p) {
      if (*p == '.') {
        point = true;
        continue;
      }
      digits = digits * 10 + static_cast<uint64_t>(*p - '0');  // at most 17 significant digits
      if (point) --exponent;
    }
    if (p < end) {
      int e = 0;
      const char* q = p + 1 + (p[1] == '+' ? 1 : 0);
      std::from_chars(q, end, e);
      exponent += e;
    }
    if (digits == 0) {
      always_ = true;
      return;
    }
    // value <= 1 and digits < 10^17: an exponent of 0 or more means 1.
    if (exponent >= 0) {
      digits_ = 1;
      scale_ = 1;
      return;
    }
    // Below 10^-10 every ratio of counts under 2^32 passes (it is at least 2^-32).
    if (-exponent > 27) {
      always_ = true;
      return;
    }
    digits_ = digits;
    scale_ = 1;
    for (int k = 0; k < -exponent; ++k) scale_ *= 10;
  }

  RuleMetric metric_;
  double value_;
  bool always_ = false;
  uint64_t digits_ = 0;
  unsigned __int128 scale_ = 1;
};

// Itemsets that are not frequent at their own length, each once, with a
// number (its place in the order they were added).
class MissingSet {
 public:
  uint32_t add(const uint32_t* items, uint32_t length) {
    if (2 * (start_.size() + 1) > slots_.size()) grow();
    const uint64_t h = ItemsetIndex::hash_items(items, length);
    size_t at = h & (slots_.size() - 1);
    for (; slots_[at] != kNone; at = (at + 1) & (slots_.size() - 1)) {
      const uint32_t id = slots_[at];
      if (this->length(id) == length &&
          std::equal(items, items + length,
                     flat_.begin() + static_cast<std::ptrdiff_t>(start_[id]))) {
        return id;
      }
    }
    const uint32_t id = static_cast<uint32_t>(start_.size());
    slots_[at] = id;
    start_.push_back(flat_.size());
    flat_.insert(flat_.end(), items, items + length);
    return id;
  }

  size_t size() const { return start_.size(); }
  const uint32_t* items(uint32_t id) const { return flat_.data() + start_[id]; }
  uint32_t length(uint32_t id) const {
    const uint64_t end = id + 1 < start_.size() ? start_[id + 1] : flat_.size();
    return static_cast<uint32_t>(end - start_[id]);
  }

 private:
  static constexpr uint32_t kNone = 0xffffffffu;

  void grow() {
    slots_.assign(std::max<size_t>(64, 2 * slots_.size()), kNone);
    for (uint32_t id = 0; id < start_.size(); ++id) {
      size_t at = ItemsetIndex::hash_items(items(id), length(id)) & (slots_.size() - 1);
      while (slots_[at] != kNone) at = (at + 1) & (slots_.size() - 1);
      slots_[at] = id;
    }
  }

  std::vector<uint32_t> flat_;
  std::vector<uint64_t> start_;
  std::vector<uint32_t> slots_;
};

// Counts the missing itemsets in one pass: a trie of them, each node's
// children side by side in item order, walked by every transaction (both
// ascending, so a walk merges the two lists).
class CountingTrie {
 public:
  CountingTrie(const MissingSet& missing, uint32_t nitems) : missing_(missing) {
    std::vector<uint32_t> order(missing.size());
    for (uint32_t id = 0; id < order.size(); ++id) order[id] = id;
    std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
      const uint32_t* x = missing.items(a);
      const uint32_t* y = missing.items(b);
      return std::lexicographical_compare(x, x + missing.length(a), y, y + missing.length(b));
    });
    const Children top = build(order.data(), order.data() + order.size(), 0);
    root_.assign(nitems, kNone);
    for (uint32_t c = top.first; c < top.first + top.count; ++c) root_[nodes_[c].item] = c;
    counts_.assign(missing.size(), 0);
  }

  void count(const uint32_t* t, const uint32_t* end) {
    for (; t < end; ++t) {
      const uint32_t c = *t < root_.size() ? root_[*t] : kNone;
      if (c != kNone) visit(nodes_[c], t + 1, end);
    }
  }

  const std::vector<uint32_t>& counts() const { return counts_; }

 private:
  static constexpr uint32_t kNone = 0xffffffffu;
  struct Node {
    uint32_t item;
    uint32_t id;           // the missing itemset ending here, or kNone
    uint32_t first_child;  // index of the first child
    uint32_t children;
  };
  struct Children {
    uint32_t first, count;
  };

  // Nodes for ids [lo, hi), sorted, sharing their first `depth` items and
  // each longer than that; returns where their top nodes lie.
  Children build(const uint32_t* lo, const uint32_t* hi, uint32_t depth) {
    std::vector<const uint32_t*> bounds;
    const uint32_t first = static_cast<uint32_t>(nodes_.size());
    for (const uint32_t* p = lo; p < hi;) {
      const uint32_t item = missing_.items(*p)[depth];
      const uint32_t* q = p;
      while (q < hi && missing_.items(*q)[depth] == item) ++q;
      nodes_.push_back(Node{item, kNone, 0, 0});
      bounds.push_back(p);
      p = q;
    }
    bounds.push_back(hi);
    for (uint32_t k = 0; k + 1 < bounds.size(); ++k) {
      const uint32_t* p = bounds[k];
      if (missing_.length(*p) == depth + 1) nodes_[first + k].id = *p++;  // a prefix sorts first
      if (p == bounds[k + 1]) continue;
      const Children below = build(p, bounds[k + 1], depth + 1);
      nodes_[first + k].first_child = below.first;
      nodes_[first + k].children = below.count;
    }
    return Children{first, static_cast<uint32_t>(bounds.size() - 1)};
  }

  void visit(const Node& node, const uint32_t* t, const uint32_t* end) {
    if (node.id != kNone) ++counts_[node.id];
    if (node.children == 0 || t == end) return;
    const Node* c = nodes_.data() + node.first_child;
    const Node* last = c + node.children;
    if (node.children > 8 * static_cast<size_t>(end - t)) {
      // Many children, few items left: look each item up.
      for (; t < end && c < last; ++t) {
        c = std::lower_bound(c, last, *t,
                             [](const Node& n, uint32_t item) { return n.item < item; });
        if (c < last && c->item == *t) visit(*c++, t + 1, end);
      }
      return;
    }
    while (c < last && t < end) {
      if (c->item < *t) {
        ++c;
      } else if (c->item > *t) {
        ++t;
      } else {
        visit(*c++, ++t, end);
      }
    }
  }

  const MissingSet& missing_;
  std::vector<Node> nodes_;
  std::vector<uint32_t> root_;
  std::vector<uint32_t> counts_;
};

// Forms the rules of every frequent itemset, then counts what is missing.
class RuleMaker {
 public:
  RuleMaker(const Result& mined, const RuleOptions& options, const Threshold& threshold,
            RuleSet* out)
      : mined_(mined), options_(options), threshold_(threshold), out_(out) {
    index_itemsets();
  }

  void from_itemset(const Itemset& z) {
    const uint32_t k = static_cast<uint32_t>(z.items.size());
    if (k > kMaxRuleItems) {
      invalid("rules from an itemset of " + std::to_string(k) + " items are not formed (at most " +
              std::to_string(kMaxRuleItems) + "); lower max_size");
    }
    const uint32_t largest = std::min(k - 1, options_.max_consequent);
    if (options_.metric == RuleMetric::kConfidence) {
      grow_consequents(z, largest);
    } else if (options_.metric != RuleMetric::kSupport ||
               threshold_.ratio_reaches(z.support, out_->transactions)) {
      for (uint32_t size = 1; size <= largest; ++size) {
        // Every mask of `size` bits below 2^k, in increasing order.
        for (uint64_t y = (uint64_t{1} << size) - 1; y < (uint64_t{1} << k);) {
          split(z, y);
          add_rule(z, count_of(x_.data(), static_cast<uint32_t>(x_.size())), true);
          const uint64_t low = y & -y;
          const uint64_t ripple = y + low;
          y = (((ripple ^ y) >> 2) / low) | ripple;
        }
      }
    }
  }

  // Counts the missing itemsets, fills in the rules that waited for them and
  // drops those whose measure then falls short.
  void settle(const std::vector<uint32_t>& items, const std::vector<uint64_t>& ends) {
    out_->counted = static_cast<uint32_t>(missing_.size());
    if (missing_.size() == 0) return;
    CountingTrie trie(missing_, static_cast<uint32_t>(out_->labels.size()));
    uint64_t begin = 0;
    for (uint64_t end : ends) {
      trie.count(items.data() + begin, items.data() + end);
      begin = end;
    }
    const std::vector<uint32_t>& counts = trie.counts();
    std::vector<Rule>& rules = out_->rules;
    size_t kept = 0;
    uint64_t at = 0;
    for (size_t i = 0; i < rules.size(); ++i) {
      Rule r = rules[i];
      if (waiting_[i] & kAntecedentWaits) r.antecedent_count = counts[r.antecedent_count];
      if (waiting_[i] & kConsequentWaits) r.consequent_count = counts[r.consequent_count];
      if (waiting_[i] != 0 && !threshold_.reaches(r, out_->transactions)) continue;
      const uint32_t n = r.antecedent_size + r.consequent_size;
      std::copy_n(out_->items.begin() + static_cast<std::ptrdiff_t>(r.first), n,
                  out_->items.begin() + static_cast<std::ptrdiff_t>(at));
      r.first = at;
      at += n;
      rules[kept++] = r;
    }
    rules.resize(kept);
    out_->items.resize(at);
    std::vector<uint8_t>().swap(waiting_);
  }

 private:
  static constexpr uint8_t kAntecedentWaits = 1;
  static constexpr uint8_t kConsequentWaits = 2;
  static constexpr uint64_t kWaits = uint64_t{1} << 32;

  void index_itemsets() {
    const std::vector<Itemset>& sets = mined_.itemsets;
    for (size_t i = 0; i < sets.size();) {
      const uint32_t len = static_cast<uint32_t>(sets[i].items.size());
      std::vector<const uint32_t*> keys;
      const size_t first = i;
      for (; i < sets.size() && sets[i].items.size() == len; ++i)
        keys.push_back(sets[i].items.data());
      if (index_.size() <= len) {
        index_.resize(len + 1);
        first_.resize(len + 1, 0);
      }
      index_[len].build(std::move(keys), len);
      first_[len] = first;
    }
  }

  // The count of an itemset, or kWaits | its number among the missing ones.
  uint64_t count_of(const uint32_t* items, uint32_t len) {
    if (len < index_.size()) {
      const uint32_t at = index_[len].find(items);
      if (at != ItemsetIndex::kAbsent) return mined_.itemsets[first_[len] + at].support;
    }
    return kWaits | missing_.add(items, len);
  }

  // Splits Z's items by the consequent mask y into x_ and y_.
  void split(const Itemset& z, uint64_t y) {
    x_.clear();
    y_.clear();
    for (uint32_t k = 0; k < z.items.size(); ++k) ((y >> k) & 1 ? y_ : x_).push_back(z.items[k]);
  }

  // Forms the rule x_ -> y_ of Z, given the antecedent's count (as count_of
  // gives it); with `judge`, drops it at once when all its counts are known
  // and its measure falls short.
  void add_rule(const Itemset& z, uint64_t antecedent, bool judge) {
    const uint64_t consequent = count_of(y_.data(), static_cast<uint32_t>(y_.size()));
    Rule r;
    r.first = out_->items.size();
    r.antecedent_size = static_cast<uint32_t>(x_.size());
    r.consequent_size = static_cast<uint32_t>(y_.size());
    r.count = z.support;
    r.antecedent_count = static_cast<uint32_t>(antecedent);
    r.consequent_count = static_cast<uint32_t>(consequent);
    const uint8_t waits =
        (antecedent & kWaits ? kAntecedentWaits : 0) | (consequent & kWaits ? kConsequentWaits : 0);
    if (judge && waits == 0 && !threshold_.reaches(r, out_->transactions)) return;
    out_->items.insert(out_->items.end(), x_.begin(), x_.end());
    out_->items.insert(out_->items.end(), y_.begin(), y_.end());
    out_->rules.push_back(r);
    waiting_.push_back(waits);
  }

  // Confidence: consequents of one item first; a consequent one larger is
  // tried when every consequent it holds one item less passed (or waits).
  void grow_consequents(const Itemset& z, uint32_t largest) {
    const uint32_t k = static_cast<uint32_t>(z.items.size());
    tried_.clear();
    for (uint32_t i = 0; i < k; ++i) tried_.push_back(uint64_t{1} << i);
    for (uint32_t size = 1;; ++size) {
      passed_.clear();
      for (uint64_t y : tried_) {
        split(z, y);
        const uint64_t antecedent = count_of(x_.data(), static_cast<uint32_t>(x_.size()));
        if (!(antecedent & kWaits) && !threshold_.ratio_reaches(z.support, antecedent)) continue;
        passed_.push_back(y);
        add_rule(z, antecedent, false);
      }
      if (size == largest || passed_.size() < size + 1) return;
      grow_passed(k);
      if (tried_.empty()) return;
    }
  }

  // The consequents one item larger than those in passed_ (sorted) whose
  // every subset one item smaller passed, into tried_ (sorted). Each comes
  // from its subset without its highest item. Itemsets of up to
  // kBitmapItems items look their subsets up in a bitmap over all masks,
  // longer ones search passed_.
  void grow_passed(uint32_t k) {
    const bool bitmap = k <= kBitmapItems;
    if (bitmap) {
      if (passed_bits_.empty()) passed_bits_.assign((uint64_t{1} << kBitmapItems) / 64, 0);
      for (uint64_t y : passed_) passed_bits_[y >> 6] |= uint64_t{1} << (y & 63);
    }
    auto passed = [&](uint64_t y) {
      return bitmap ? (passed_bits_[y >> 6] >> (y & 63)) & 1
                    : std::binary_search(passed_.begin(), passed_.end(), y);
    };
    tried_.clear();
    for (uint64_t y : passed_) {
      for (uint32_t p = 64 - std::countl_zero(y); p < k; ++p) {
        const uint64_t grown = y | (uint64_t{1} << p);
        bool all = true;
        for (uint64_t rest = y; rest != 0 && all; rest &= rest - 1)
          all = passed(grown & ~(rest & -rest));
        if (all) tried_.push_back(grown);
      }
    }
    if (bitmap) {
      for (uint64_t y : passed_) passed_bits_[y >> 6] = 0;
    }
    std::sort(tried_.begin(), tried_.end());
  }

  static constexpr uint32_t kBitmapItems = 16;  // a bitmap of 8 KiB

  const Result& mined_;
  const RuleOptions& options_;
  Threshold threshold_;
  RuleSet* out_;
  std::vector<ItemsetIndex> index_;  // by length
  std::vector<size_t> first_;        // by length: index of the first itemset in mined_
  MissingSet missing_;
  std::vector<uint8_t> waiting_;  // by rule: which counts wait for the pass
  std::vector<uint32_t> x_, y_;
  std::vector<uint64_t> tried_, passed_;
  std::vector<uint64_t> passed_bits_;  // by mask, for grow_passed()
};

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

RuleSet rules(const Transactions& transactions, const Options& options,
              const RuleOptions& rule_options) {
  if (options.maximal || options.closed || options.parents) {
    invalid(
        "rules are formed from all frequent itemsets: maximal, closed and parents do not apply");
  }
  if (rule_options.max_consequent == 0) invalid("a rule's consequent needs at least one item");
  if (options.max_size < 2) {
    invalid("rules need itemsets of two or more items, but the length limit is " +
            std::to_string(options.max_size));
  }
  const Threshold threshold(rule_options.metric, rule_options.min_threshold);
  Options mining = options;
  mining.min_size = 1;
  const uint32_t shortest = std::max<uint32_t>(2, options.min_size);
  try {
    std::vector<uint32_t> items;
    std::vector<uint64_t> ends;
    Result mined = detail::mine_keeping_transactions(transactions, mining, &items, &ends);
    const auto start = std::chrono::steady_clock::now();
    RuleSet out;
    out.labels = std::move(mined.labels);
    out.transactions = mined.stats.transactions;
    out.stats = mined.stats;
    for (const Itemset& z : mined.itemsets) out.itemsets += z.items.size() >= shortest ? 1 : 0;
    if (out.itemsets == 0) {
      invalid("the support leaves no frequent itemset of " + std::to_string(shortest) +
              " or more items, so there is no rule to form");
    }
    RuleMaker maker(mined, rule_options, threshold, &out);
    for (const Itemset& z : mined.itemsets) {
      if (z.items.size() >= shortest) maker.from_itemset(z);
    }
    maker.settle(items, ends);
    out.stats.seconds_post = seconds_since(start);
    return out;
  } catch (const std::bad_alloc&) {
    throw Error(Error::Kind::kOutOfMemory, "out of memory");
  }
}

}  // namespace quarlo
