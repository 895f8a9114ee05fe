// Randomized differential test of the whole engine: for many small random
// databases, support constraints and size limits, the (itemset, support) pairs
// written to the pattern file must equal a brute-force enumeration that counts
// every itemset directly. The pattern file's line format is checked on the way.
#include <cstdint>
#include <cstdio>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "cfptree.h"
#include "suppfunc.h"
#include "support/engine.h"

namespace {

using namespace quarlo_test;
using PatternSet = std::map<Items, int32_t>;

// One random case: the database and the support constraint.
struct Case {
  std::vector<Items> trans;
  std::vector<std::pair<uint32_t, double>> table;  // empty: constant support
  double percent = 0.0;
  uint32_t min_size = 1;
  uint32_t max_size = 0;  // 0: no -M
};

class Differential : public TempDirTest {
 protected:
  // Runs the engine on `c`; returns its status and the (itemset, support)
  // pairs of the pattern file, checking every line's identifier, percentage
  // and item order.
  int Run(const Case& c, PatternSet* got) {
    // Fresh names every run: truncating files that already hold data costs
    // far more on some file systems than creating new ones.
    const std::string input = path("db" + std::to_string(++runs_));
    write_qr(input + ".qr", c.trans);
    std::ostringstream table;
    for (auto& [len, f] : c.table) table << len << ' ' << f << '\n';
    write_file(input + ".supp", table.str());
    char pct[32];
    snprintf(pct, sizeof pct, "%.17g", c.percent);
    std::vector<std::string> args = {"-s", pct};
    if (!c.table.empty()) args = {"-S", input + ".supp"};
    if (c.min_size != 1) args.insert(args.end(), {"-m", std::to_string(c.min_size)});
    if (c.max_size != 0) args.insert(args.end(), {"-M", std::to_string(c.max_size)});
    set_options(args, input);
    const int status = run_engine().status;
    std::map<uint32_t, uint32_t> next_ordinal;
    for (const std::string& line : read_lines(input + ".fp_conv")) {
      uint32_t len_minus_one = 0, ordinal = 0;
      int32_t support = 0;
      char pct[16] = "", want[32];
      int used = 0;
      EXPECT_EQ(
          sscanf(line.c_str(), "%u-%u %d %15s%n", &len_minus_one, &ordinal, &support, pct, &used),
          4)
          << line;
      std::istringstream rest(line.substr(used));
      Items items;
      for (uint32_t x; rest >> x;) items.push_back(x);
      EXPECT_EQ(len_minus_one + 1, items.size()) << line;
      EXPECT_EQ(ordinal, next_ordinal[len_minus_one]++) << line;
      snprintf(want, sizeof want, "%.3f", support * 100.0 / c.trans.size());
      EXPECT_STREQ(pct, want) << line;
      EXPECT_TRUE(std::is_sorted(items.begin(), items.end())) << line;
      EXPECT_TRUE(got->emplace(items, support).second) << "repeated: " << line;
    }
    return status;
  }

  int runs_ = 0;
};

// Every itemset over the items present, counted directly, kept when its
// support reaches the minimum of its length and its length lies in the limits.
PatternSet BruteForce(const Case& c) {
  uint32_t nitems = 0;
  std::vector<uint32_t> masks;
  for (const Items& t : c.trans) {
    uint32_t m = 0;
    for (uint32_t x : t) {
      m |= 1u << x;
      nitems = std::max(nitems, x + 1);
    }
    masks.push_back(m);
  }
  const uint32_t ntrans = static_cast<uint32_t>(c.trans.size());
  // Minimum count of every length: the table entry of the longest length up to it.
  std::vector<uint32_t> need(nitems + 1, percent_to_count(c.percent, ntrans));
  for (uint32_t len = 1, next = 0, current = 0; len <= nitems && !c.table.empty(); ++len) {
    while (next < c.table.size() && c.table[next].first <= len) {
      current = percent_to_count(c.table[next++].second, ntrans);
    }
    need[len] = current;
  }
  const uint32_t max_size = c.max_size == 0 ? nitems : c.max_size;
  PatternSet want;
  for (uint32_t set = 1; set < (1u << nitems); ++set) {
    const uint32_t len = static_cast<uint32_t>(__builtin_popcount(set));
    if (len < c.min_size || len > max_size) continue;
    int32_t support = 0;
    for (uint32_t m : masks) support += (m & set) == set;
    if (support == 0 || static_cast<uint32_t>(support) < need[len]) continue;
    Items items;
    for (uint32_t x = 0; x < nitems; ++x) {
      if (set >> x & 1) items.push_back(x);
    }
    want.emplace(items, support);
  }
  return want;
}

std::string Describe(const Case& c) {
  std::ostringstream out;
  for (const Items& t : c.trans) out << testing::PrintToString(t) << '\n';
  out << "-s " << c.percent << " table " << testing::PrintToString(c.table) << " -m " << c.min_size
      << " -M " << c.max_size << '\n';
  return out.str();
}

// A random database: items with skewed frequencies so that trees share
// prefixes, branch and also degenerate into single paths.
Case RandomCase(std::mt19937& rng) {
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
      f = std::max(0.0, f - static_cast<double>(rng() % 60));
    }
  }
  if (rng() % 4 == 0) c.min_size = rng() % 4;
  if (rng() % 4 == 0) c.max_size = 1 + rng() % 4;
  return c;
}

void ExpectSameAsBruteForce(const Case& c, int status, const PatternSet& got) {
  if (c.trans.empty() && !c.table.empty()) {
    // No items means no length 1 to give a support for: the table is refused.
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(got.empty());
    return;
  }
  ASSERT_EQ(status, 0) << Describe(c);
  EXPECT_EQ(got, BruteForce(c)) << Describe(c);
}

TEST_F(Differential, RandomDatabasesMatchBruteForce) {
  reset_mining_counters();
  std::mt19937 rng(20240611);
  for (int round = 0; round < 1500 && !HasFailure(); ++round) {
    const Case c = RandomCase(rng);
    PatternSet got;
    const int status = Run(c, &got);
    ExpectSameAsBruteForce(c, status, got);
    if (HasFailure()) ADD_FAILURE() << "round " << round;
  }
  // Every shortcut of the recursion was taken, so each was checked above.
  const MiningCounters& n = mining_counters();
  EXPECT_GT(n.single_paths, 0u);
  EXPECT_GT(n.marked_nodes, 0u);
  EXPECT_GT(n.pruned_nodes, 0u);
  EXPECT_GT(n.cut_items, 0u);
  EXPECT_GT(n.conditional_trees, 0u);
}

// Ten records of x and three of y z w, with 90 % for lengths 1-2 and 23 % from
// length 3 (minimum counts 12 and 3 of 13): path pruning cuts x from every
// record, the remaining tree is the single path y-z-w, and {y, z, w} with
// support 3 must still be written.
TEST_F(Differential, SinglePathAfterTopItemWasCutEverywhere) {
  Case c;
  c.trans.assign(10, {0});
  c.trans.insert(c.trans.end(), 3, {1, 2, 3});
  c.table = {{1, 90.0}, {3, 23.0}};
  PatternSet got;
  const int status = Run(c, &got);
  ExpectSameAsBruteForce(c, status, got);
  EXPECT_EQ(got, (PatternSet{{{1, 2, 3}, 3}}));
}

}  // namespace
