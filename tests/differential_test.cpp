// Randomized differential test of the whole engine through the library: for
// many small random databases, support constraints and size limits, the
// itemsets and supports found must equal a brute-force enumeration that
// counts every itemset directly, maximal pruning must keep exactly the
// uncontained ones, and the runs of a split by items (shards) must together
// find exactly the same. Mining on threads and mining in parts must give the
// very Result of one thread, order and ordinals included.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "quarlo/quarlo.h"
#include "support/harness.h"


namespace {

// The sanitizer build runs a tenth of the rounds.
constexpr int kRoundShare = quarlo_test::kSanitized ? 10 : 1;

using Items = std::vector<uint32_t>;
using PatternSet = std::map<Items, uint32_t>;

struct Case {
  std::vector<Items> trans;
  std::vector<std::pair<uint32_t, double>> table;  // empty: constant support
  double percent = 0.0;
  uint32_t min_size = 1;
  uint32_t max_size = 0;  // 0: no limit
};

quarlo::Options options_of(const Case& c) {
  quarlo::Options o;
  o.support = c.table.empty() ? quarlo::Support::percent(c.percent) : quarlo::Support::table(c.table);
  o.min_size = c.min_size;
  if (c.max_size != 0) o.max_size = c.max_size;
  return o;
}

// The itemsets of a result in the case's own item values, checking the
// ordinals on the way: 0, 1, ... within each length, or (after maximal
// pruning, which keeps the ordinals) rising.
PatternSet patterns_of(const quarlo::Result& r, bool pruned = false) {
  PatternSet out;
  std::map<size_t, uint32_t> next_ordinal;
  for (const quarlo::Itemset& s : r.itemsets) {
    uint32_t& next = next_ordinal[s.items.size()];
    if (pruned) {
      EXPECT_GE(s.ordinal, next);
    } else {
      EXPECT_EQ(s.ordinal, next);
    }
    next = s.ordinal + 1;
    Items items;
    for (uint32_t i : s.items) items.push_back(static_cast<uint32_t>(std::stoul(r.labels[i])));
    EXPECT_TRUE(std::is_sorted(items.begin(), items.end()));
    EXPECT_TRUE(out.emplace(items, s.support).second);
  }
  return out;
}

// The count `percent` of `ntrans` transactions demands, worked out here apart
// from the library: the ceiling of ntrans * percent / 100 on the exact binary
// value of the double, at least 1. The tests draw quarters of a percent,
// where this and the library's extended-precision rule must agree.
uint32_t exact_count(double percent, uint32_t ntrans) {
  if (!(percent > 0.0)) return 1;
  int exponent = 0;
  const double fraction = std::frexp(percent, &exponent);  // percent = fraction * 2^exponent
  const auto mantissa = static_cast<__int128>(std::ldexp(fraction, 53));
  exponent -= 53;  // percent = mantissa * 2^exponent exactly
  __int128 num = mantissa * ntrans;
  __int128 den = 100;
  if (exponent >= 0) {
    num <<= exponent;
  } else {
    den <<= -exponent;
  }
  const __int128 count = (num + den - 1) / den;
  return count < 1 ? 1u : static_cast<uint32_t>(count);
}

// Every itemset over the items present, counted directly, kept when its
// support reaches the minimum of its length and its length lies in the limits.
PatternSet brute_force(const Case& c) {
  uint32_t nitems = 0;
  for (const Items& t : c.trans) {
    for (uint32_t x : t) nitems = std::max(nitems, x + 1);
  }
  EXPECT_LE(nitems, 24u) << "brute force over 2^items sets";
  // support[set]: the transactions holding every item of `set`. Each
  // transaction counts at its own set; then, item by item, every set adds the
  // count of the set with that item added (sums over supersets).
  const uint32_t nsets = 1u << std::min(nitems, 24u);
  std::vector<uint32_t> support(nsets, 0);
  for (const Items& t : c.trans) {
    uint32_t m = 0;
    for (uint32_t x : t) m |= 1u << x;
    ++support[m];
  }
  uint32_t* const sup = support.data();
  for (uint32_t bit = 1; bit < nsets; bit <<= 1) {
    for (uint32_t set = 0; set < nsets; ++set) {
      if (!(set & bit)) sup[set] += sup[set | bit];
    }
  }
  const uint32_t ntrans = static_cast<uint32_t>(c.trans.size());
  std::vector<uint32_t> need(nitems + 1, exact_count(c.percent, ntrans));
  for (uint32_t len = 1, next = 0, current = 0; len <= nitems && !c.table.empty(); ++len) {
    while (next < c.table.size() && c.table[next].first <= len) {
      current = exact_count(c.table[next++].second, ntrans);
    }
    need[len] = current;
  }
  const uint32_t max_size = c.max_size == 0 ? nitems : c.max_size;
  PatternSet want;
  for (uint32_t set = 1; set < nsets; ++set) {
    const uint32_t len = static_cast<uint32_t>(__builtin_popcount(set));
    if (len < c.min_size || len > max_size || sup[set] == 0 || sup[set] < need[len]) continue;
    Items items;
    for (uint32_t x = 0; x < nitems; ++x) {
      if (set >> x & 1) items.push_back(x);
    }
    want.emplace(items, sup[set]);
  }
  return want;
}

// The shards of a random split of the items: each item's shard gets every
// transaction that holds one of its items, cut after the last one in the
// order of falling support (ties by item).
std::vector<quarlo::Result> mine_shards(const Case& c, std::mt19937& rng) {
  std::map<uint32_t, uint32_t> support;
  for (const Items& t : c.trans) {
    for (uint32_t x : t) ++support[x];
  }
  auto before = [&](uint32_t a, uint32_t b) {
    return support[a] != support[b] ? support[a] > support[b] : a < b;
  };
  const uint32_t ngroups = 1 + rng() % 4;
  std::map<uint32_t, uint32_t> group;
  quarlo::Shard base;
  base.transactions = static_cast<uint32_t>(c.trans.size());
  for (const auto& [x, s] : support) {
    group[x] = rng() % ngroups;
    base.item_supports.emplace_back(std::to_string(x), s);
  }
  std::vector<quarlo::Result> shards;
  for (uint32_t g = 0; g < ngroups; ++g) {
    quarlo::Shard shard = base;
    for (const auto& [x, gx] : group) {
      if (gx == g) shard.items.push_back(std::to_string(x));
    }
    std::vector<Items> part;
    for (Items t : c.trans) {
      std::sort(t.begin(), t.end(), before);
      size_t end = 0;
      for (size_t i = 0; i < t.size(); ++i) {
        if (group[t[i]] == g) end = i + 1;
      }
      if (end > 0) part.emplace_back(t.begin(), t.begin() + end);
    }
    shards.push_back(quarlo::mine_shard(quarlo::Transactions::from_numbers(part), shard, options_of(c)));
  }
  return shards;
}

// The union of the shards of a random split; no itemset comes twice.
PatternSet mine_in_shards(const Case& c, std::mt19937& rng) {
  PatternSet all;
  for (const quarlo::Result& r : mine_shards(c, rng)) {
    for (const auto& [items, s] : patterns_of(r)) EXPECT_TRUE(all.emplace(items, s).second);
  }
  return all;
}

std::string describe(const Case& c) {
  std::ostringstream out;
  for (const Items& t : c.trans) out << testing::PrintToString(t) << '\n';
  out << "-s " << c.percent << " table " << testing::PrintToString(c.table) << " -m " << c.min_size
      << " -M " << c.max_size << '\n';
  return out.str();
}

// A random database: items with skewed frequencies so that trees share
// prefixes, branch and also degenerate into single paths.
Case random_case(std::mt19937& rng) {
  Case c;
  const uint32_t nitems = 1 + rng() % 11;
  const uint32_t ntrans = rng() % 40;
  std::vector<double> p(nitems);
  const double base = 0.15 + (rng() % 70) / 100.0;
  for (uint32_t i = 0; i < nitems; ++i) p[i] = base * (0.3 + (rng() % 70) / 100.0);
  std::uniform_real_distribution<double> coin(0.0, 1.0);
  for (uint32_t t = 0; t < ntrans; ++t) {
    Items items;
    for (uint32_t i = 0; i < nitems; ++i) {
      if (coin(rng) < p[i]) items.push_back(i);
    }
    if (!items.empty()) c.trans.push_back(items);
  }
  // Now and then, many records of one popular item beside a few copies of one
  // longer record: path pruning may cut the popular item everywhere and leave
  // a single path.
  if (rng() % 4 == 0) {
    if (rng() % 2 == 0) c.trans.resize(std::min<size_t>(c.trans.size(), rng() % 3));
    const uint32_t popular = rng() % nitems;
    Items block;
    for (uint32_t i = 0; i < nitems; ++i) {
      if (i != popular && rng() % 2 == 0) block.push_back(i);
    }
    for (uint32_t t = 1 + rng() % 5; t > 0 && !block.empty(); --t) c.trans.push_back(block);
    for (uint32_t t = rng() % 15; t > 0; --t) c.trans.push_back({popular});
  }
  if (rng() % 3 == 0) {
    c.percent = (rng() % 60) + (rng() % 4) * 0.25;
  } else {
    double f = 20.0 + rng() % 80;
    for (uint32_t len = 1; len <= nitems; len += 1 + rng() % 2) {
      c.table.emplace_back(len, f);
      // Mostly falling, sometimes rising: the result must be exact for any table.
      f = rng() % 5 == 0 ? f + static_cast<double>(rng() % 40)
                         : std::max(0.0, f - static_cast<double>(rng() % 60));
    }
  }
  if (rng() % 4 == 0) c.min_size = rng() % 4;
  if (rng() % 4 == 0) c.max_size = 1 + rng() % 4;
  return c;
}

void expect_brute_force(const Case& c) {
  if (c.trans.empty() && !c.table.empty()) {
    // No items means no length 1 to give a support for: the table is refused.
    EXPECT_THROW(quarlo::mine(quarlo::Transactions::from_numbers(c.trans), options_of(c)), quarlo::Error);
    return;
  }
  const quarlo::Result r = quarlo::mine(quarlo::Transactions::from_numbers(c.trans), options_of(c));
  const PatternSet want = brute_force(c);
  EXPECT_EQ(patterns_of(r), want) << describe(c);
  // Maximal pruning keeps exactly the itemsets no other one found contains.
  PatternSet maximal;
  for (const auto& [items, support] : want) {
    if (std::none_of(want.begin(), want.end(), [&items = items](const auto& other) {
          return other.first.size() > items.size() &&
                 std::includes(other.first.begin(), other.first.end(), items.begin(), items.end());
        })) {
      maximal.emplace(items, support);
    }
  }
  quarlo::Options o = options_of(c);
  o.maximal = true;
  EXPECT_EQ(patterns_of(quarlo::mine(quarlo::Transactions::from_numbers(c.trans), o), true), maximal)
      << "maximal\n" << describe(c);
}

// Two results are the same when their itemsets, in order, their parents and
// their per-length counts are.
void expect_same_result(const quarlo::Result& want, const quarlo::Result& got, const std::string& what) {
  ASSERT_EQ(want.itemsets.size(), got.itemsets.size()) << what;
  for (size_t i = 0; i < want.itemsets.size(); ++i) {
    const quarlo::Itemset& a = want.itemsets[i];
    const quarlo::Itemset& b = got.itemsets[i];
    ASSERT_TRUE(a.items == b.items && a.support == b.support && a.ordinal == b.ordinal)
        << what << " row " << i;
  }
  EXPECT_EQ(want.parents, got.parents) << what;
  EXPECT_EQ(want.count_by_length, got.count_by_length) << what;
  EXPECT_EQ(want.labels, got.labels) << what;
}

// The Result of mine() against the same run on 2-3 threads and in 1-5 parts
// (more parts than items now and then), with parents or maximal pruning; the
// parts are planned from all transactions or, with totals, from partitions
// scanned apart and cut down to the items that reach the lowest count.
void expect_same_on_threads_and_in_parts(const Case& c, std::mt19937& rng) {
  quarlo::Options o = options_of(c);
  o.parents = rng() % 2 == 0;
  o.maximal = rng() % 3 == 0;
  const quarlo::Result want = quarlo::mine(quarlo::Transactions::from_numbers(c.trans), o);
  quarlo::Options threaded = o;
  threaded.threads = 2 + rng() % 2;
  expect_same_result(want, quarlo::mine(quarlo::Transactions::from_numbers(c.trans), threaded),
                     "threads\n" + describe(c));
  // As a cluster run does it: partitions scanned apart, their counts added,
  // items below the lowest count dropped, the rest coded for the plan.
  const size_t npart = 1 + rng() % 3;
  std::vector<quarlo::Scan> scans;
  for (size_t p = 0; p < npart; ++p) {
    std::vector<Items> part;
    for (size_t r = p; r < c.trans.size(); r += npart) part.push_back(c.trans[r]);
    scans.push_back(quarlo::scan(quarlo::Transactions::from_numbers(part)));
  }
  std::map<std::string, uint32_t> support;
  quarlo::Totals totals;
  for (const quarlo::Scan& sc : scans) {
    totals.transactions += static_cast<uint32_t>(sc.ends.size());
    for (size_t i = 0; i < sc.labels.size(); ++i) support[sc.labels[i]] += sc.supports[i];
  }
  totals.item_supports.assign(support.begin(), support.end());
  const uint32_t lowest = quarlo::lowest_count(o, totals);
  // The plan takes the partitions in their order, so the whole run is mined
  // over the same order of transactions.
  std::vector<Items> in_order;
  std::vector<std::string> labels;
  std::vector<uint32_t> codes;
  std::vector<uint64_t> ends;
  for (size_t p = 0; p < npart; ++p) {
    const quarlo::Scan& sc = scans[p];
    const uint32_t base = static_cast<uint32_t>(labels.size());
    labels.insert(labels.end(), sc.labels.begin(), sc.labels.end());
    for (size_t r = 0, begin = 0; r < sc.ends.size(); begin = sc.ends[r++]) {
      Items t;
      for (size_t k = begin; k < sc.ends[r]; ++k) {
        const std::string& label = sc.labels[sc.codes[k]];
        t.push_back(static_cast<uint32_t>(std::stoul(label)));
        if (support[label] >= lowest) codes.push_back(base + sc.codes[k]);
      }
      in_order.push_back(t);
      ends.push_back(codes.size());
    }
  }
  const quarlo::Result whole = quarlo::mine(quarlo::Transactions::from_numbers(in_order), o);
  const bool with_totals = rng() % 2 == 0;
  const uint32_t groups = 1 + rng() % 5;
  const quarlo::Plan plan =
      with_totals ? quarlo::plan(quarlo::Transactions::from_codes(labels, codes, ends), o, groups, &totals)
                  : quarlo::plan(quarlo::Transactions::from_numbers(in_order), o, groups);
  ASSERT_EQ(plan.parts.size(), groups);
  std::vector<std::string> mined;
  for (const std::string& part : plan.parts) mined.push_back(quarlo::mine_part(part));
  expect_same_result(whole, quarlo::merge(plan.record, mined, o),
                     "parts " + std::to_string(groups) + (with_totals ? " with totals\n" : "\n") +
                         describe(c));
}

TEST(Differential, RandomDatabasesMatchBruteForceWholeAndInShards) {
  std::mt19937 rng(20240611);
  for (int round = 0; round < 1500 / kRoundShare && !testing::Test::HasFailure(); ++round) {
    const Case c = random_case(rng);
    expect_brute_force(c);
    if (!c.trans.empty()) {
      EXPECT_EQ(mine_in_shards(c, rng), brute_force(c)) << describe(c);
      expect_same_on_threads_and_in_parts(c, rng);
    }
    if (testing::Test::HasFailure()) ADD_FAILURE() << "round " << round;
  }
}

// Larger random databases under steep tables (hundreds of records, counts
// above the support cache, items that node pruning drops below the floor
// half-way): threads and parts must still give one thread's Result.
TEST(Differential, LargerDatabasesOnThreadsAndInPartsMatchOneThread) {
  std::mt19937 rng(7102026);
  for (int round = 0; round < 150 / kRoundShare && !testing::Test::HasFailure(); ++round) {
    Case c;
    const uint32_t nitems = 8 + rng() % 10;
    std::vector<double> p(nitems);
    for (double& x : p) x = 0.05 + (rng() % 60) / 100.0;
    std::uniform_real_distribution<double> coin(0.0, 1.0);
    for (uint32_t t = 150 + rng() % 250; t > 0; --t) {
      Items items;
      for (uint32_t i = 0; i < nitems; ++i) {
        if (coin(rng) < p[i]) items.push_back(i);
      }
      if (!items.empty()) c.trans.push_back(items);
    }
    double f = 30.0 + rng() % 50;
    for (uint32_t len = 1; len <= nitems; ++len) {
      c.table.emplace_back(len, f);
      f = std::max(0.2, f * (0.3 + (rng() % 60) / 100.0));
    }
    if (c.trans.empty()) continue;
    expect_same_on_threads_and_in_parts(c, rng);
    if (testing::Test::HasFailure()) ADD_FAILURE() << "round " << round;
  }
}

// Dense databases whose records keep many frequent items, so that a
// conditional tree's records are re-sorted by ranks that differ from their
// parent's order, and sparse ones of up to 60 items whose upper nodes have
// more than 8 children, which the tree builder looks up in its child index.
// One thread takes its conditional trees straight from the parent's nodes,
// threads and parts go through a buffer at the top level: all must give one
// Result.
TEST(Differential, LongRecordsAndWideNodesOnThreadsAndInPartsMatchOneThread) {
  std::mt19937 rng(240518);
  for (int round = 0; round < 40 / kRoundShare && !testing::Test::HasFailure(); ++round) {
    Case c;
    const bool sparse = round % 2 == 1;
    const uint32_t nitems = sparse ? 40 + rng() % 21 : 20 + rng() % 11;
    std::vector<double> p(nitems);
    for (double& x : p) x = sparse ? 0.03 + (rng() % 20) / 100.0 : 0.35 + (rng() % 60) / 100.0;
    std::uniform_real_distribution<double> coin(0.0, 1.0);
    for (uint32_t t = (sparse ? 200 : 60) + rng() % 80; t > 0; --t) {
      Items items;
      for (uint32_t i = 0; i < nitems; ++i) {
        if (coin(rng) < p[i]) items.push_back(i);
      }
      if (!items.empty()) c.trans.push_back(items);
    }
    // Steep enough that dense data stays within a few thousand itemsets.
    double f = sparse ? 20.0 : 90.0;
    for (uint32_t len = 1; len <= nitems; ++len) {
      c.table.emplace_back(len, f);
      f = sparse ? std::max(1.0, f * 0.6) : std::max(40.0 + rng() % 20, f * (0.9 + (rng() % 8) / 100.0));
    }
    expect_same_on_threads_and_in_parts(c, rng);
    if (testing::Test::HasFailure()) ADD_FAILURE() << "round " << round;
  }
}

// A database whose frequent records take more than the 1 MiB from which the
// tree builder walks the paths of the coming records ahead of inserting
// them, under a steep table so that path pruning cuts items while it builds:
// the result is still the brute force one, on one thread and on threads.
TEST(Differential, DatabaseBuiltWithLookAheadMatchesBruteForce) {
  std::mt19937 rng(10102026);
  for (int round = 0; round < 2 && !testing::Test::HasFailure(); ++round) {
    Case c;
    const uint32_t nitems = 12;
    std::vector<double> p(nitems);
    for (double& x : p) x = 0.2 + (rng() % 70) / 100.0;
    std::uniform_real_distribution<double> coin(0.0, 1.0);
    size_t words = 0;
    while (words < 330000) {
      Items items;
      for (uint32_t i = 0; i < nitems; ++i) {
        if (coin(rng) < p[i]) items.push_back(i);
      }
      if (items.empty()) continue;
      words += items.size() + 1;
      c.trans.push_back(items);
    }
    double f = 60.0;
    for (uint32_t len = 1; len <= nitems; ++len) {
      c.table.emplace_back(len, f);
      f = std::max(2.0, f * 0.55);
    }
    const quarlo::Result r = quarlo::mine(quarlo::Transactions::from_numbers(c.trans), options_of(c));
    EXPECT_EQ(patterns_of(r), brute_force(c)) << "round " << round;
    quarlo::Options o = options_of(c);
    o.threads = 3;
    expect_same_result(r, quarlo::mine(quarlo::Transactions::from_numbers(c.trans), o), "3 threads");
  }
}

// Ten records of x and three of y z w, with 90 % for lengths 1-2 and 23 % from
// length 3 (minimum counts 12 and 3 of 13): path pruning cuts x from every
// record, the remaining tree is the single path y-z-w, and {y, z, w} with
// support 3 must still be found.
TEST(Differential, SinglePathAfterTopItemWasCutEverywhere) {
  Case c;
  c.trans.assign(10, {0});
  c.trans.insert(c.trans.end(), 3, {1, 2, 3});
  c.table = {{1, 90.0}, {3, 23.0}};
  expect_brute_force(c);
  const quarlo::Result r = quarlo::mine(quarlo::Transactions::from_numbers(c.trans), options_of(c));
  EXPECT_EQ(patterns_of(r), (PatternSet{{{1, 2, 3}, 3}}));
}

}  // namespace

// The itemsets of a random split's shards, put together by combine(), are
// the Result of one run put in the canonical order: rows, parents, maximal
// itemsets and counts by length, whatever the split.
TEST(Differential, ShardsCombinedGiveOneRunInCanonicalOrder) {
  std::mt19937 rng(20261125);
  for (int round = 0; round < 800 / kRoundShare && !testing::Test::HasFailure(); ++round) {
    const Case c = random_case(rng);
    if (c.trans.empty()) continue;
    const std::vector<quarlo::Result> shards = mine_shards(c, rng);
    for (const bool maximal : {false, true}) {
      quarlo::Options options = options_of(c);
      options.parents = true;
      options.maximal = maximal;
      quarlo::Result want = quarlo::mine(quarlo::Transactions::from_numbers(c.trans), options);
      quarlo::sort_canonical(&want);
      std::vector<quarlo::Itemset> found;
      for (const quarlo::Result& r : shards) {
        ASSERT_EQ(r.labels, want.labels) << describe(c);
        for (auto it = r.itemsets.rbegin(); it != r.itemsets.rend(); ++it) found.push_back(*it);
      }
      const quarlo::Result got = quarlo::combine(std::move(found), want.labels, want.stats.transactions, options);
      expect_same_result(want, got, describe(c) + (maximal ? "maximal" : ""));
      EXPECT_EQ(got.stats.frequent, want.stats.frequent) << describe(c);
    }
    if (testing::Test::HasFailure()) ADD_FAILURE() << "round " << round;
  }
  EXPECT_THROW(quarlo::combine({quarlo::Itemset{{0, 0}, 1, 0}}, {"a"}, 1, quarlo::Options()), quarlo::Error);
  EXPECT_THROW(quarlo::combine({quarlo::Itemset{{1}, 1, 0}}, {"a"}, 1, quarlo::Options()), quarlo::Error);
  EXPECT_THROW(quarlo::combine({quarlo::Itemset{{0}, 1, 0}, quarlo::Itemset{{0}, 2, 0}}, {"a"}, 1,
                               quarlo::Options()),
               quarlo::Error);
}
