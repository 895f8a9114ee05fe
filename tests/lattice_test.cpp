// The parent-children list: worked examples, and the hashed search against
// the plain search over SequenceSet on random pattern sets.
#include "lattice.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/harness.h"

namespace {

using quarlo_test::read_file;
using quarlo_test::split_lines;
using quarlo_test::write_file;

class Lattice : public quarlo_test::TempDirTest {
 protected:
  // The PC list of `patterns` by the hashed search.
  std::string pc_of(const std::string& patterns) {
    write_file(path("p.fp_conv"), patterns);
    EXPECT_EQ(generate_lattice(path("p.fp_conv").c_str(), path("p.pc").c_str()), 0);
    return read_file(path("p.pc"));
  }
  // The same through the plain search.
  std::string pc_by_scan(const std::string& patterns) {
    write_file(path("s.fp_conv"), patterns);
    EXPECT_EQ(generate_lattice_by_scan(path("s.fp_conv").c_str(), path("s.pc").c_str()), 0);
    return read_file(path("s.pc"));
  }
};

TEST_F(Lattice, WorkedExamplesGiveTheSameListByBothSearches) {
  const struct {
    std::string patterns, pc;
  } cases[] = {
      // {1,2} and {2,3} are not frequent: {2,3} yields {3} and {2}, then
      // {1,2} yields {2} again (skipped) and {1}.
      {"0-0 9 90.000 1\n0-1 9 90.000 2\n0-2 9 90.000 3\n1-0 5 50.000 1 3\n2-0 3 30.000 1 2 3\n",
       "2-0 1-0 0-2 0-1 0-0\n1-0 0-2 0-0\n0-0\n0-1\n0-2\n"},
      // Lines run from the longest down, each length in file order; the
      // miner writes depth-first, so lengths interleave in the file.
      {"0-0 6 60.000 1\n1-0 4 40.000 1 2\n0-1 5 50.000 2\n", "1-0 0-1 0-0\n0-0\n0-1\n"},
      {"0-0 3 30.000 7\n0-1 3 30.000 2\n0-2 3 30.000 5\n", "0-0\n0-1\n0-2\n"},
      {"", ""},
      // All one-smaller subsets frequent: listed by the smallest removed item.
      {"0-0 9 90.000 2\n0-1 9 90.000 5\n0-2 9 90.000 9\n1-0 8 80.000 2 9\n"
       "1-1 8 80.000 5 9\n1-2 8 80.000 2 5\n2-0 7 70.000 2 5 9\n",
       "2-0 1-1 1-0 1-2\n1-0 0-2 0-0\n1-1 0-2 0-1\n1-2 0-1 0-0\n0-0\n0-1\n0-2\n"},
      // Only {1,2} and {3,4} are frequent below {1,2,3,4}; {4} lies below
      // parent {3,4} but is also reached through {2,4}.
      {read_file(quarlo_test::data_path("post/lattice_skips.fp_conv")),
       read_file(quarlo_test::data_path("post/lattice_skips.pc"))},
      // A repeated itemset is named by its first ordinal; items are sorted.
      {"0-0 5 50.000 4\n0-1 5 50.000 4\n1-0 3 30.000 8 4 8\n0-2 5 50.000 8\n",
       "1-0 0-2 0-0\n0-0\n0-1\n0-2\n"},
      // A line without items is a record of length 0: no line of its own, but
      // the one-item patterns meet it as a frequent subset (whose length
      // minus one wraps in its id).
      {"0-0 5 50.000 1\n\n0-1 5 50.000 2\n0-2 1 1.000\n1-0 3 30.000 1 2\n",
       "1-0 0-1 0-0\n0-0 4294967295-0\n0-1 4294967295-0\n"},
      // Records of several itemsets go to the plain search.
      {"0-0 5 50.000 1\n0-1 5 50.000 2\n1-0 3 30.000 1 -1 2\n1-1 3 30.000 1 2\n"
       "2-0 1 10.000 1 2 3\n",
       "2-0 1-1 0-1 0-0\n1-0 0-1 0-0\n1-1 0-1 0-0\n0-0\n0-1\n"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(pc_of(c.patterns), c.pc) << c.patterns;
    EXPECT_EQ(pc_by_scan(c.patterns), c.pc) << c.patterns;
  }
}

TEST_F(Lattice, IdsOfManyDigitsAreWrittenWhole) {
  std::string patterns;
  for (uint32_t i = 0; i < 12345; ++i) {
    patterns += "0-" + std::to_string(i) + " 1 1.000 " + std::to_string(i * 7) + "\n";
  }
  const std::vector<std::string> lines = split_lines(pc_of(patterns + "1-0 1 1.000 700 70000 \n"));
  ASSERT_EQ(lines.size(), 12346u);
  EXPECT_EQ(lines[0], "1-0 0-10000 0-100");
  EXPECT_EQ(lines[12345], "0-12344");
}

TEST_F(Lattice, UnopenableFilesAreReportedAndTheListGetsMode0664) {
  const std::string missing = path("none.fp_conv");
  const std::string bad_pc = path("no/dir/p.pc");
  quarlo_test::StdoutCapture capture;
  EXPECT_EQ(generate_lattice(missing.c_str(), bad_pc.c_str()), 1);
  write_file(path("ok.fp_conv"), "0-0 1 100.000 1\n");
  EXPECT_EQ(generate_lattice(path("ok.fp_conv").c_str(), bad_pc.c_str()), 1);
  EXPECT_EQ(capture.release(), "../vscom/lattice(37) Failed to open " + missing + "\n" +
                                   "../vscom/lattice(41) Failed to open " + bad_pc + "\n" +
                                   "../vscom/lattice(41) Failed to open " + bad_pc + "\n");

  const mode_t old_mask = umask(0);
  pc_of("0-0 1 100.000 1\n");
  umask(old_mask);
  struct stat st {};
  ASSERT_EQ(stat(path("p.pc").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0664u);
}

// ---------------------------------------------------------------------------
// The hashed search against the plain one on random pattern sets.

using Items = std::vector<uint32_t>;

// Random frequent sets over a few items: each length gets its own inclusion
// rate, so whole levels may be missing and parents sit several levels down.
// Messy sets repeat an itemset, list items unsorted or twice, or add empty
// lines. Adds to *repeated the frequent patterns' non-frequent subsets two
// items shorter reached through two non-frequent paths, which the hashed
// search expands once and the plain one twice.
std::string random_set(std::mt19937* rng, uint32_t universe, bool messy, int* repeated) {
  std::uniform_real_distribution<double> coin(0.0, 1.0);
  const double rates[] = {0.0, 0.1, 0.3, 0.6, 0.9, 1.0};
  std::vector<double> rate(universe + 1);
  for (double& r : rate) r = rates[(*rng)() % 6];
  std::set<uint32_t> masks;
  std::vector<uint32_t> lines;
  for (uint32_t mask = 1; mask < (1u << universe); ++mask) {
    if (coin(*rng) >= rate[__builtin_popcount(mask)]) continue;
    masks.insert(mask);
    lines.push_back(mask);
    if (messy && coin(*rng) < 0.05) lines.push_back(mask);
  }
  for (uint32_t p : masks) {
    for (uint32_t a = p; a != 0; a &= a - 1) {
      for (uint32_t b = a & (a - 1); b != 0; b &= b - 1) {
        const uint32_t pa = p & ~(a & -a), pb = p & ~(b & -b);
        *repeated += !masks.count(pa) && !masks.count(pb) && !masks.count(pa & pb);
      }
    }
  }
  std::shuffle(lines.begin(), lines.end(), *rng);
  std::vector<uint32_t> ordinal(universe + 1, 0);
  std::string text;
  for (uint32_t mask : lines) {
    Items items;
    for (uint32_t i = 0; i < universe; ++i) {
      if (mask & (1u << i)) items.push_back(i * 3 + (i * 7 + universe) % 3);
    }
    text += std::to_string(items.size() - 1) + "-" + std::to_string(ordinal[items.size()]++) +
            " 1 1.000";
    if (messy && coin(*rng) < 0.1) std::shuffle(items.begin(), items.end(), *rng);
    if (messy && coin(*rng) < 0.05) items.push_back(items.front());
    for (uint32_t item : items) text += " " + std::to_string(item);
    text += messy && coin(*rng) < 0.002 ? "\n\n" : "\n";
  }
  return text;
}

TEST_F(Lattice, HashedSearchMatchesPlainSearchOnRandomSets) {
  std::mt19937 rng(20240611);
  int lines = 0, repeated = 0;
  for (int round = 0; round < 80; ++round) {
    const std::string text = random_set(&rng, 1 + rng() % 8, round % 2 == 1, &repeated);
    const std::string fast = pc_of(text);
    ASSERT_EQ(fast, pc_by_scan(text)) << "round " << round << "\n" << text;
    lines += static_cast<int>(split_lines(fast).size());
  }
  // The corpus must reach the cases the hashed search treats differently.
  EXPECT_GT(lines, 2000);
  EXPECT_GT(repeated, 1000);
}

TEST_F(Lattice, HashedSearchMatchesPlainSearchOnWideMostlyClosedSets) {
  // More items, short itemsets nearly all frequent, up to 7 items sparse: big
  // groups for the hash index, few infrequent levels.
  std::mt19937 rng(7);
  for (int round = 0; round < 2; ++round) {
    const uint32_t universe = 10 + round % 3;
    std::string text;
    std::vector<uint32_t> ordinal(universe + 1, 0);
    for (uint32_t mask = 1; mask < (1u << universe); ++mask) {
      const int len = __builtin_popcount(mask);
      if (rng() % 1000 >= (len <= 3 ? 980u : len <= 5 ? 300u : len <= 7 ? 40u : 0u)) continue;
      text += std::to_string(len - 1) + "-" + std::to_string(ordinal[len]++) + " 1 1.000";
      for (uint32_t i = 0; i < universe; ++i) {
        if (mask & (1u << i)) text += " " + std::to_string(i);
      }
      text += "\n";
    }
    ASSERT_EQ(pc_of(text), pc_by_scan(text)) << "round " << round;
  }
}

}  // namespace
