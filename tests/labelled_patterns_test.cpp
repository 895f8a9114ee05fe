// The pattern file written once in labels: the text of each line, the order
// of the sections whether they stay in memory or go through the spill file,
// and the failures that make the program take the numbered path instead.
#include "cli/labelled_patterns.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "support/harness.h"

using namespace quarlo::cli;

namespace {

using quarlo_test::read_file;

// The line the pattern file holds for a pattern: "L-N support percent ",
// each label (items ascending by number) and a blank, the newline.
std::string expected_line(uint32_t ordinal, int32_t support, uint32_t ntrans,
                          std::vector<uint32_t> items, const std::vector<std::string>& labels) {
  std::sort(items.begin(), items.end());
  char head[96];
  snprintf(head, sizeof head, "%zu-%u %d %.3f ", items.size() - 1, ordinal, support,
           support * 100.0 / ntrans);
  std::string line = head;
  for (uint32_t i : items) line += labels[i] + ' ';
  return line + '\n';
}

class LabelledPatterns : public quarlo_test::TempDirTest {
 protected:
  // Random patterns over `labels`, their expected file text (grouped by
  // length, found order within a length) and a writer fed with them.
  // Most patterns, as in a depth-first search, extend the one before by an
  // item or replace its last items; the others are drawn afresh.
  std::string feed(LabelledPatternWriter* w, const std::vector<std::string>& labels,
                   uint32_t ntrans, int npatterns, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<std::string> by_length(labels.size() + 1);
    std::vector<uint32_t> ordinal(labels.size() + 1, 0);
    std::vector<uint32_t> pool(labels.size());
    for (uint32_t i = 0; i < pool.size(); ++i) pool[i] = i;
    std::vector<uint32_t> items;
    for (int k = 0; k < npatterns; ++k) {
      const uint32_t step = rng() % 4;
      if (step == 0 || items.empty() || items.size() == labels.size()) {
        std::shuffle(pool.begin(), pool.end(), rng);
        items.assign(pool.begin(), pool.begin() + 1 + rng() % pool.size());
      } else {
        if (step == 1) items.resize(1 + rng() % items.size());  // back up, then one more
        std::vector<uint32_t> rest;
        for (uint32_t i : pool) {
          if (std::find(items.begin(), items.end(), i) == items.end()) rest.push_back(i);
        }
        if (rest.empty()) continue;
        items.push_back(rest[rng() % rest.size()]);
      }
      const uint32_t len = static_cast<uint32_t>(items.size());
      const int32_t support = static_cast<int32_t>(rng() % (ntrans + 1));
      w->put({len, support, items.data()});
      by_length[len] += expected_line(ordinal[len]++, support, ntrans, items, labels);
    }
    std::string all;
    for (const std::string& s : by_length) all += s;
    return all;
  }
};

TEST_F(LabelledPatterns, SectionsComeOutInLengthOrderFromMemoryOrSpill) {
  // Short labels (copied as fixed blocks) and long ones; supports far apart
  // that share a slot of the support-text cache (they differ by 4096).
  const std::vector<std::vector<std::string>> label_sets = {
      {"a", "bb", "c", "dd", "e", "ff", "g"},
      {std::string(40, 'x'), "y", std::string(17, 'z'), "w", std::string(15, 'v')},
      {},  // 80 labels: patterns beyond the kept prefixes' depth as well
  };
  for (auto labels : label_sets) {
    if (labels.empty()) {
      for (int i = 0; i < 80; ++i) labels.push_back(std::to_string(i).insert(0, 1, 'i'));
    }
    for (size_t budget : {size_t{0}, size_t{1} << 12, LabelledPatternWriter::kDefaultBudget}) {
      LabelledPatternWriter w;
      ASSERT_TRUE(w.open(labels, 9000, path("out.fp"), budget));
      const std::string want = feed(&w, labels, 9000, 6000, 7);
      ASSERT_FALSE(w.failed());
      EXPECT_EQ(w.count(), 6000u);
      ASSERT_TRUE(w.write_to(path("out.fp")).ok());
      EXPECT_EQ(read_file(path("out.fp")), want) << "budget " << budget;
      uint64_t sum = 0;
      for (uint32_t c : w.counts()) sum += c;
      EXPECT_EQ(sum, 6000u);
    }
  }
}

TEST_F(LabelledPatterns, PatternsThatCannotBeKeptMarkTheWriterFailed) {
  const std::vector<std::string> labels = {"a", "b"};
  uint32_t items[] = {0, 1, 2};
  {
    // An item without a label.
    LabelledPatternWriter w;
    ASSERT_TRUE(w.open(labels, 10, path("out.fp")));
    w.put({3, 5, items});
    EXPECT_TRUE(w.failed());
  }
  {
    // No folder for the spill file: the first chunk beyond the budget fails.
    LabelledPatternWriter w;
    ASSERT_TRUE(w.open(labels, 10, path("absent/out.fp"), 0));
    for (int k = 0; k < 2000 && !w.failed(); ++k) w.put({2, 5, items});
    EXPECT_TRUE(w.failed());
  }
  {
    // The output cannot be made: an I/O status that names it.
    LabelledPatternWriter w;
    ASSERT_TRUE(w.open(labels, 10, path("out.fp")));
    w.put({2, 5, items});
    mkdir(path("blocked").c_str(), 0755);
    mkdir(path("blocked/x").c_str(), 0755);
    const quarlo::detail::Status s = w.write_to(path("blocked"));
    EXPECT_FALSE(s.ok());
    EXPECT_EQ(s.path(), path("blocked"));
  }
}

}  // namespace
