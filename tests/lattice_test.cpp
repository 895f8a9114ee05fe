// The parent-children list: worked examples, and the hashed search against an
// independent breadth-first reference on random pattern sets. File failures
// are checked by whole runs.
#include "cli/pc_list.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "support/harness.h"
#include "support/parents_reference.h"

using namespace quarlo::detail;
using namespace quarlo::cli;

namespace {

using quarlo_test::read_file;
using quarlo_test::write_file;
using Lines = std::vector<std::string>;

class Lattice : public quarlo_test::TempDirTest {
 protected:
  // The PC list of `patterns` as the program writes it.
  std::string pc_of(const std::string& patterns) {
    const std::string in = path("p.fp_conv"), out = path("p.pc");
    write_file(in, patterns);
    CollectingReporter rep;
    EXPECT_TRUE(generate_lattice(in.c_str(), out.c_str(), &rep).ok());
    EXPECT_EQ(rep.lines(), Lines{});
    return read_file(out);
  }
};

TEST_F(Lattice, WorkedExamplesGiveTheListByHandAndByTheReference) {
  std::string many, many_pc = "1-0 0-10000 0-100\n";  // ids of many digits are written whole
  for (uint32_t i = 0; i < 12345; ++i) {
    many += "0-" + std::to_string(i) + " 1 1.000 " + std::to_string(i * 7) + "\n";
    many_pc += "0-" + std::to_string(i) + "\n";
  }
  const struct {
    std::string patterns, pc;
  } cases[] = {
      // Lines run from the longest down, each length in file order; the
      // miner writes depth-first, so lengths interleave in the file.
      {"0-0 6 60.000 1\n1-0 4 40.000 1 2\n0-1 5 50.000 2\n", "1-0 0-1 0-0\n0-0\n0-1\n"},
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
      // An itemset break, which the writer never writes, is skipped: the line
      // is the itemset {1, 2} (repeated, so named by its first ordinal).
      {"0-0 5 50.000 1\n0-1 5 50.000 2\n1-0 3 30.000 1 -1 2\n1-1 3 30.000 1 2\n"
       "2-0 1 10.000 1 2 3\n",
       "2-0 1-0 0-1 0-0\n1-0 0-1 0-0\n1-1 0-1 0-0\n0-0\n0-1\n"},
      {many + "1-0 1 1.000 700 70000 \n", many_pc},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(pc_of(c.patterns), c.pc) << c.patterns.substr(0, 200);
    EXPECT_EQ(quarlo_test::reference_pc_list(c.patterns), c.pc) << c.patterns.substr(0, 200);
  }
}

// ---------------------------------------------------------------------------
// The hashed search against the reference on random pattern sets.

using Items = std::vector<uint32_t>;

// Random frequent sets over `rate.size() - 1` items, rate[k] the inclusion
// rate of the itemsets of k items, so whole levels may be missing, parents
// sit several levels down and non-frequent subsets are met along two paths
// (expanded once by the hashed search). Messy sets
// repeat an itemset, list items unsorted or twice, or add empty lines.
std::string random_set(std::mt19937* rng, const std::vector<double>& rate, bool messy) {
  std::uniform_real_distribution<double> coin(0.0, 1.0);
  const uint32_t universe = static_cast<uint32_t>(rate.size() - 1);
  std::vector<uint32_t> lines;
  for (uint32_t mask = 1; mask < (1u << universe); ++mask) {
    if (coin(*rng) >= rate[__builtin_popcount(mask)]) continue;
    lines.push_back(mask);
    if (messy && coin(*rng) < 0.05) lines.push_back(mask);
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
    for (uint32_t item : items) text.append(" ").append(std::to_string(item));
    text += messy && coin(*rng) < 0.002 ? "\n\n" : "\n";
  }
  return text;
}

TEST_F(Lattice, HashedSearchMatchesTheReferenceOnRandomSets) {
  std::mt19937 rng(20240611);
  const double rates[] = {0.0, 0.1, 0.3, 0.6, 0.9, 1.0};
  for (int round = 0; round < 80; ++round) {
    std::vector<double> rate(2 + rng() % 8);
    for (double& r : rate) r = rates[rng() % 6];
    const std::string text = random_set(&rng, rate, round % 2 == 1);
    ASSERT_EQ(pc_of(text), quarlo_test::reference_pc_list(text)) << "round " << round << "\n" << text;
  }
  // Wide sets: short itemsets nearly all frequent, up to 7 items sparse, give
  // big groups for the hash index and few infrequent levels.
  for (const uint32_t universe : {10u, 11u}) {
    std::vector<double> rate(universe + 1, 0.0);
    for (uint32_t k = 1; k <= 7; ++k) rate[k] = k <= 3 ? 0.98 : k <= 5 ? 0.3 : 0.04;
    const std::string text = random_set(&rng, rate, false);
    ASSERT_EQ(pc_of(text), quarlo_test::reference_pc_list(text)) << universe << " items";
  }
}

// One pattern of every item above levels that are all non-frequent down to
// three items: its search meets every subset of 4 to 16 items (over 100,000
// itemsets, megabytes of memo, so the memo's arrays outgrow their first
// blocks and move while the search runs), and the shorter long patterns
// after it find their subsets already expanded, read through their
// siblings.
TEST_F(Lattice, DeepNonFrequentLevelsMatchTheReference) {
  std::mt19937 rng(7);
  std::vector<double> rate(18, 0.0);
  rate[1] = rate[2] = 1.0;
  rate[3] = 0.7;
  rate[12] = 0.002;
  rate[14] = 0.02;
  rate[17] = 1.0;
  const std::string text = random_set(&rng, rate, false);
  ASSERT_GT(text.size(), 1000u);
  const std::string pc = pc_of(text);
  // The reference walks every subset of the long patterns: under half a
  // second optimised, over ten in the sanitizer build, which runs the search
  // whole (its memo moving as it grows) and leaves the comparison to the
  // optimised build.
  if (!quarlo_test::kSanitized) {
    ASSERT_EQ(pc, quarlo_test::reference_pc_list(text));
  }
}

}  // namespace
