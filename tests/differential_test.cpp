// Randomized differential test of the whole engine: for many small random
// databases, support constraints and size limits, the (itemset, support) pairs
// written to the pattern file must equal a brute-force enumeration that counts
// every itemset directly. The pattern file's line format is checked on the way.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "cfptree.h"
#include "qr.h"
#include "suppfunc.h"
#include "ttoqr.h"
#include "vscmdl.h"

namespace {

namespace fs = std::filesystem;
using Items = std::vector<uint32_t>;
using PatternSet = std::map<Items, int32_t>;

// One random case: the database and the support constraint.
struct Case {
  std::vector<Items> trans;
  std::vector<std::pair<uint32_t, double>> table;  // empty: constant support
  double percent = 0.0;
  uint32_t min_size = 1;
  uint32_t max_size = 0;  // 0: no -M
};

class Differential : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string templ = (fs::temp_directory_path() / "quarlo-diff-XXXXXX").string();
    ASSERT_NE(mkdtemp(templ.data()), nullptr);
    dir_ = templ;
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Runs the engine on `c` with stdout silenced; returns its status.
  int Run(const Case& c) {
    // Fresh names every run: truncating files that already hold data costs
    // far more on some file systems than creating new ones.
    ++runs_;
    const std::string input = (dir_ / ("db" + std::to_string(runs_))).string();
    WriteQr(input + ".qr", c.trans);
    std::vector<std::string> args = {"quarlo"};
    if (c.table.empty()) {
      char pct[32];
      snprintf(pct, sizeof pct, "%.17g", c.percent);
      args.insert(args.end(), {"-s", pct});
    } else {
      const std::string table = input + ".supp";
      std::ofstream out(table);
      for (auto& [len, f] : c.table) out << len << ' ' << f << '\n';
      args.insert(args.end(), {"-S", table});
    }
    if (c.min_size != 1) args.insert(args.end(), {"-m", std::to_string(c.min_size)});
    if (c.max_size != 0) args.insert(args.end(), {"-M", std::to_string(c.max_size)});
    args.push_back(input);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    parse(static_cast<int>(argv.size()), argv.data(), 0);
    fflush(stdout);
    int saved = dup(1);
    int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, 1);
    close(null_fd);
    int status = find_frequent_patterns();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    return status;
  }

  static void WriteQr(const std::string& path, const std::vector<Items>& trans) {
    std::ofstream out(path, std::ios::binary);
    uint32_t top = 0;
    for (const Items& t : trans) {
      uint32_t n = static_cast<uint32_t>(t.size());
      out.write(reinterpret_cast<const char*>(&n), 4);
      out.write(reinterpret_cast<const char*>(t.data()), 4 * n);
      for (uint32_t x : t) top = std::max(top, x + 1);
    }
    item_count = top;
  }

  // Reads the pattern file, checking every line's identifier, percentage and
  // item order; returns the (itemset, support) pairs.
  PatternSet ReadPatterns(uint32_t ntrans) {
    PatternSet got;
    std::ifstream in(dir_ / ("db" + std::to_string(runs_) + ".fp_conv"));
    std::map<uint32_t, uint32_t> next_ordinal;
    std::string line;
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      uint32_t len_minus_one = 0, ordinal = 0;
      char dash = 0;
      int32_t support = 0;
      std::string pct;
      fields >> len_minus_one >> dash >> ordinal >> support >> pct;
      Items items;
      for (uint32_t x; fields >> x;) items.push_back(x);
      EXPECT_EQ(dash, '-') << line;
      EXPECT_EQ(len_minus_one + 1, items.size()) << line;
      EXPECT_EQ(ordinal, next_ordinal[len_minus_one]++) << line;
      char want[32];
      snprintf(want, sizeof want, "%.3f", support * 100.0 / ntrans);
      EXPECT_EQ(pct, want) << line;
      EXPECT_TRUE(std::is_sorted(items.begin(), items.end())) << line;
      EXPECT_TRUE(got.emplace(items, support).second) << "repeated: " << line;
    }
    return got;
  }

  fs::path dir_;
  int runs_ = 0;
};

// Minimum support count of every length 1 .. nitems, as the table demands.
std::vector<uint32_t> MinSupports(const Case& c, uint32_t ntrans, uint32_t nitems) {
  std::vector<uint32_t> need(nitems + 1, percent_to_count(c.percent, ntrans));
  if (!c.table.empty()) {
    size_t next = 0;
    uint32_t current = 0;
    for (uint32_t len = 1; len <= nitems; ++len) {
      while (next < c.table.size() && c.table[next].first <= len) {
        current = percent_to_count(c.table[next++].second, ntrans);
      }
      need[len] = current;
    }
  }
  return need;
}

// Every itemset over the items present, counted directly, kept when its
// support reaches the minimum of its length and its length lies in the limits.
PatternSet BruteForce(const Case& c) {
  uint32_t nitems = 0;
  for (const Items& t : c.trans) {
    for (uint32_t x : t) nitems = std::max(nitems, x + 1);
  }
  std::vector<uint32_t> masks;
  for (const Items& t : c.trans) {
    uint32_t m = 0;
    for (uint32_t x : t) m |= 1u << x;
    masks.push_back(m);
  }
  const uint32_t ntrans = static_cast<uint32_t>(c.trans.size());
  const std::vector<uint32_t> need = MinSupports(c, ntrans, nitems);
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
  for (const Items& t : c.trans) {
    for (uint32_t x : t) out << x << ' ';
    out << '\n';
  }
  if (c.table.empty()) out << "-s " << c.percent;
  for (auto& [len, f] : c.table) out << "table " << len << ' ' << f << "; ";
  out << " -m " << c.min_size << " -M " << c.max_size << '\n';
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
  const PatternSet want = BruteForce(c);
  EXPECT_EQ(got, want) << Describe(c);
}

TEST_F(Differential, RandomDatabasesMatchBruteForce) {
  reset_mining_counters();
  std::mt19937 rng(20240611);
  for (int round = 0; round < 1500; ++round) {
    const Case c = RandomCase(rng);
    const int status = Run(c);
    const PatternSet got = ReadPatterns(static_cast<uint32_t>(c.trans.size()));
    ExpectSameAsBruteForce(c, status, got);
    if (HasFailure()) {
      ADD_FAILURE() << "round " << round;
      break;
    }
  }
  const MiningCounters& n = mining_counters();
  std::printf(
      "single paths %llu, marked nodes %llu, pruned nodes %llu, cut items %llu, "
      "conditional trees %llu\n",
      static_cast<unsigned long long>(n.single_paths),
      static_cast<unsigned long long>(n.marked_nodes),
      static_cast<unsigned long long>(n.pruned_nodes), static_cast<unsigned long long>(n.cut_items),
      static_cast<unsigned long long>(n.conditional_trees));
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
  for (int i = 0; i < 10; ++i) c.trans.push_back({0});
  for (int i = 0; i < 3; ++i) c.trans.push_back({1, 2, 3});
  c.table = {{1, 90.0}, {3, 23.0}};
  reset_mining_counters();
  const int status = Run(c);
  const PatternSet got = ReadPatterns(13);
  ExpectSameAsBruteForce(c, status, got);
  EXPECT_EQ(got, (PatternSet{{{1, 2, 3}, 3}}));
  EXPECT_EQ(mining_counters().cut_items, 10u);
}

}  // namespace
