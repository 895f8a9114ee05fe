#include "lattice.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/harness.h"

namespace {

using quarlo_test::data_path;
using quarlo_test::read_file;
using quarlo_test::split_lines;
using quarlo_test::StdoutCapture;
using quarlo_test::write_file;

class Lattice : public quarlo_test::TempDirTest {
 protected:
  // Runs generate_lattice on `patterns`; returns the PC list, result in *rc.
  std::string pc_of(const std::string& patterns, int* rc = nullptr) {
    write_file(path("p.fp_conv"), patterns);
    const int r = generate_lattice(path("p.fp_conv").c_str(), path("p.pc").c_str());
    if (rc != nullptr) *rc = r;
    EXPECT_EQ(r, 0);
    return read_file(path("p.pc"));
  }
  // The same through the plain search.
  std::string pc_by_scan(const std::string& patterns) {
    write_file(path("s.fp_conv"), patterns);
    EXPECT_EQ(generate_lattice_by_scan(path("s.fp_conv").c_str(), path("s.pc").c_str()), 0);
    return read_file(path("s.pc"));
  }
};

TEST_F(Lattice, ParentsFoundThroughInfrequentSubsets) {
  // {1,2} and {2,3} are not frequent: {2,3} yields {3} and {2}, then {1,2}
  // yields {2} again (skipped) and {1}.
  const std::string patterns =
      "0-0 9 90.000 1\n0-1 9 90.000 2\n0-2 9 90.000 3\n1-0 5 50.000 1 3\n2-0 3 30.000 1 2 3\n";
  const std::string expected = "2-0 1-0 0-2 0-1 0-0\n1-0 0-2 0-0\n0-0\n0-1\n0-2\n";
  EXPECT_EQ(pc_of(patterns), expected);
  EXPECT_EQ(pc_by_scan(patterns), expected);
}

TEST_F(Lattice, LinesRunFromLongestDownInFileOrderOfEachLength) {
  // Written depth-first, as the miner does: lengths interleave in the file.
  const std::string patterns = "0-0 6 60.000 1\n1-0 4 40.000 1 2\n0-1 5 50.000 2\n";
  EXPECT_EQ(pc_of(patterns), "1-0 0-1 0-0\n0-0\n0-1\n");
  EXPECT_EQ(pc_of("0-0 3 30.000 7\n0-1 3 30.000 2\n0-2 3 30.000 5\n"), "0-0\n0-1\n0-2\n");
  int rc = -1;
  EXPECT_EQ(pc_of("", &rc), "");
  EXPECT_EQ(rc, 0);
}

TEST_F(Lattice, AllOneSmallerSubsetsFrequentListsThemBySmallestRemovedItem) {
  // {2,9} is 1-0, {5,9} 1-1, {2,5} 1-2: dropping 2, then 5, then 9.
  const std::string patterns =
      "0-0 9 90.000 2\n0-1 9 90.000 5\n0-2 9 90.000 9\n1-0 8 80.000 2 9\n"
      "1-1 8 80.000 5 9\n1-2 8 80.000 2 5\n2-0 7 70.000 2 5 9\n";
  std::vector<std::string> lines = split_lines(pc_of(patterns));
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], "2-0 1-1 1-0 1-2");
  EXPECT_EQ(lines[1], "1-0 0-2 0-0");
  EXPECT_EQ(lines[3], "1-2 0-1 0-0");
}

TEST_F(Lattice, ParentsBelowAnotherParentAreListedWhenReachedThroughInfrequentOnes) {
  // Only {1,2} and {3,4} are frequent among the shorter subsets of {1,2,3,4};
  // {4} lies below parent {3,4} but is also reached through {2,4}.
  const std::string patterns = read_file(data_path("post/lattice_skips.fp_conv"));
  const std::string expected = read_file(data_path("post/lattice_skips.pc"));
  EXPECT_EQ(pc_of(patterns), expected);
  EXPECT_EQ(pc_by_scan(patterns), expected);
}

TEST_F(Lattice, RepeatedItemsetNamesItsFirstOrdinalAndUnsortedItemsAreSorted) {
  const std::string patterns = "0-0 5 50.000 4\n0-1 5 50.000 4\n1-0 3 30.000 8 4 8\n0-2 5 50.000 8\n";
  EXPECT_EQ(pc_of(patterns), "1-0 0-2 0-0\n0-0\n0-1\n0-2\n");
}

TEST_F(Lattice, LinesWithoutItemsGetNoLineAndMatchThePlainSearch) {
  // An empty line or one of fields only is a record of length 0: it has no
  // line of its own, and the one-item patterns meet it as a frequent subset.
  const std::string patterns = "0-0 5 50.000 1\n\n0-1 5 50.000 2\n0-2 1 1.000\n1-0 3 30.000 1 2\n";
  const std::string fast = pc_of(patterns);
  EXPECT_EQ(fast, pc_by_scan(patterns));
  const std::vector<std::string> lines = split_lines(fast);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "1-0 0-1 0-0");
  EXPECT_EQ(lines[1].substr(0, 4), "0-0 ");
}

TEST_F(Lattice, IdsOfManyDigitsAreWrittenWhole) {
  std::string patterns;
  for (uint32_t i = 0; i < 12345; ++i) {
    patterns += "0-" + std::to_string(i) + " 1 1.000 " + std::to_string(i * 7) + "\n";
  }
  patterns += "1-0 1 1.000 700 70000 \n";
  const std::vector<std::string> lines = split_lines(pc_of(patterns));
  ASSERT_EQ(lines.size(), 12346u);
  EXPECT_EQ(lines[0], "1-0 0-10000 0-100");
  EXPECT_EQ(lines[12345], "0-12344");
}

TEST_F(Lattice, RecordsOfSeveralItemsetsGiveTheSameListAsThePlainSearch) {
  const std::string patterns =
      "0-0 5 50.000 1\n0-1 5 50.000 2\n1-0 3 30.000 1 -1 2\n1-1 3 30.000 1 2\n2-0 1 10.000 1 2 3\n";
  const std::string fast = pc_of(patterns);
  EXPECT_EQ(fast, pc_by_scan(patterns));
  EXPECT_EQ(split_lines(fast).size(), 5u);
}

TEST_F(Lattice, UnopenableFilesAreReportedTogether) {
  const std::string missing = path("none.fp_conv");
  const std::string bad_pc = path("no/dir/p.pc");
  StdoutCapture capture;
  const int rc = generate_lattice(missing.c_str(), bad_pc.c_str());
  const std::string out = capture.release();
  EXPECT_EQ(rc, 1);
  EXPECT_EQ(out, "../vscom/lattice(37) Failed to open " + missing + "\n" +
                     "../vscom/lattice(41) Failed to open " + bad_pc + "\n");

  write_file(path("ok.fp_conv"), "0-0 1 100.000 1\n");
  StdoutCapture capture2;
  EXPECT_EQ(generate_lattice(path("ok.fp_conv").c_str(), bad_pc.c_str()), 1);
  EXPECT_EQ(capture2.release(), "../vscom/lattice(41) Failed to open " + bad_pc + "\n");
}

TEST_F(Lattice, ListIsCreatedWithMode0664BeforeTheUmask) {
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

struct RandomSet {
  std::string text;          // the pattern file
  std::set<Items> frequent;  // its distinct itemsets
};

// Random frequent sets over a few items: each length gets its own inclusion
// rate, so whole levels may be missing and parents sit several levels down.
// Some lines repeat an itemset, list items unsorted or twice, or are empty.
RandomSet random_set(std::mt19937* rng, uint32_t universe, bool messy) {
  std::vector<uint32_t> labels(universe);
  for (uint32_t i = 0; i < universe; ++i) labels[i] = i * 3 + (*rng)() % 3;
  std::vector<double> rate(universe + 1);
  const double rates[] = {0.0, 0.1, 0.3, 0.6, 0.9, 1.0};
  for (double& r : rate) r = rates[(*rng)() % 6];
  std::uniform_real_distribution<double> coin(0.0, 1.0);
  std::vector<Items> lines;
  RandomSet out;
  for (uint32_t mask = 1; mask < (1u << universe); ++mask) {
    Items items;
    for (uint32_t i = 0; i < universe; ++i) {
      if (mask & (1u << i)) items.push_back(labels[i]);
    }
    if (coin(*rng) >= rate[items.size()]) continue;
    out.frequent.insert(items);
    lines.push_back(items);
    if (messy && coin(*rng) < 0.05) lines.push_back(items);
  }
  std::shuffle(lines.begin(), lines.end(), *rng);
  std::vector<uint32_t> ordinal(universe + 1, 0);
  for (Items& items : lines) {
    const size_t len = items.size();
    out.text += std::to_string(len - 1) + "-" + std::to_string(ordinal[len]++) + " 1 1.000";
    if (messy && coin(*rng) < 0.1) std::shuffle(items.begin(), items.end(), *rng);
    if (messy && coin(*rng) < 0.05) items.push_back(items.front());
    for (uint32_t item : items) out.text += " " + std::to_string(item);
    out.text += "\n";
    if (messy && coin(*rng) < 0.002) out.text += "\n";
  }
  return out;
}

// Patterns of `set` that the plain search expands more than once: two
// non-frequent one-smaller subsets share a non-frequent two-smaller one.
int repeated_frontier_paths(const RandomSet& set) {
  auto without = [](const Items& s, size_t i) {
    Items r = s;
    r.erase(r.begin() + static_cast<std::ptrdiff_t>(i));
    return r;
  };
  int count = 0;
  for (const Items& p : set.frequent) {
    for (size_t a = 0; a < p.size(); ++a) {
      for (size_t b = a + 1; b < p.size() && p.size() >= 3; ++b) {
        const Items pa = without(p, a), pb = without(p, b), pab = without(pa, b - 1);
        if (!set.frequent.count(pa) && !set.frequent.count(pb) && !set.frequent.count(pab)) ++count;
      }
    }
  }
  return count;
}

// Parents on the list that are at least two items shorter than their pattern.
int deep_parents(const std::string& pc) {
  int count = 0;
  for (const std::string& line : split_lines(pc)) {
    const uint32_t own = static_cast<uint32_t>(std::stoul(line));
    for (size_t at = line.find(' '); at != std::string::npos; at = line.find(' ', at + 1)) {
      if (std::stoul(line.substr(at + 1)) + 2 <= own) ++count;
    }
  }
  return count;
}

TEST_F(Lattice, HashedSearchMatchesPlainSearchOnRandomSets) {
  std::mt19937 rng(20240611);
  int sets = 0, lines = 0, deep = 0, repeated = 0;
  for (int round = 0; round < 600; ++round) {
    const uint32_t universe = 1 + rng() % 8;
    const RandomSet set = random_set(&rng, universe, round % 2 == 1);
    const std::string fast = pc_of(set.text);
    ASSERT_EQ(fast, pc_by_scan(set.text)) << "round " << round << "\n" << set.text;
    ++sets;
    lines += static_cast<int>(split_lines(fast).size());
    deep += deep_parents(fast);
    repeated += repeated_frontier_paths(set);
  }
  // The corpus must reach the cases the hashed search treats differently.
  EXPECT_EQ(sets, 600);
  EXPECT_GT(lines, 15000);
  EXPECT_GT(deep, 1000);
  EXPECT_GT(repeated, 1000);
}

TEST_F(Lattice, HashedSearchMatchesPlainSearchOnWideMostlyClosedSets) {
  // More items, short itemsets nearly all frequent, up to 7 items sparse: big
  // groups for the hash index, few infrequent levels.
  std::mt19937 rng(7);
  for (int round = 0; round < 6; ++round) {
    const uint32_t universe = 10 + round % 3;
    std::string text;
    std::vector<uint32_t> ordinal(universe + 1, 0);
    for (uint32_t mask = 1; mask < (1u << universe); ++mask) {
      const uint32_t len = static_cast<uint32_t>(__builtin_popcount(mask));
      const uint32_t keep_per_mille = len <= 3 ? 980 : len <= 5 ? 300 : len <= 7 ? 40 : 0;
      if (rng() % 1000 >= keep_per_mille) continue;
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
