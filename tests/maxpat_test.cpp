#include "maxpat.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "lattice.h"
#include "support/harness.h"

namespace {

using quarlo_test::data_path;
using quarlo_test::file_exists;
using quarlo_test::read_file;
using quarlo_test::split_lines;
using quarlo_test::StdoutCapture;
using quarlo_test::write_file;

class MaxPat : public quarlo_test::TempDirTest {
 protected:
  void SetUp() override { ASSERT_EQ(create_unmaximal_set(), 0); }
  void TearDown() override { destroy_unmaximal_set(); }

  // Loads `pc` as the PC list, prunes `records`; returns the kept text.
  std::string prune(const std::string& pc, const std::string& records, uint32_t* kept) {
    write_file(path("p.pc"), pc);
    write_file(path("p.fp_conv"), records);
    load_unmaximal_ids(path("p.pc").c_str());
    *kept = remove_unmaximal_records(path("p.fp_conv").c_str());
    return read_file(path("p.fp_conv"));
  }
};

TEST_F(MaxPat, KeepsOnlyPatternsThatNoOneListsAsParent) {
  uint32_t kept = 0;
  const std::string out = prune("1-0 0-1 0-0\n0-0\n0-1\n",
                                "0-0 6 60.000 1\n1-0 4 40.000 1 2\n0-1 5 50.000 2\n", &kept);
  EXPECT_EQ(out, "1-0 4 40.000 1 2\n");
  EXPECT_EQ(kept, 1u);
  EXPECT_FALSE(file_exists(path("p.fp_conv.tmp")));
}

TEST_F(MaxPat, PrunesTheListOfATwoLevelLattice) {
  uint32_t kept = 0;
  const std::string out = prune(read_file(data_path("post/lattice_skips.pc")),
                                read_file(data_path("post/lattice_skips.fp_conv")), &kept);
  EXPECT_EQ(out, "3-0 2 20.000 1 2 3 4\n");
  EXPECT_EQ(kept, 1u);
}

TEST_F(MaxPat, IdsMatchAsWholeText) {
  uint32_t kept = 0;
  const std::string out =
      prune("2-0 1-0\n", "1-0 2 20.000 1 2\n1-01 2 20.000 1 3\n11-0 2 20.000 1 4\n", &kept);
  EXPECT_EQ(out, "1-01 2 20.000 1 3\n11-0 2 20.000 1 4\n");
  EXPECT_EQ(kept, 2u);
  EXPECT_TRUE(unmaximal_ids->contains("1-0"));
  EXPECT_FALSE(unmaximal_ids->contains("1-"));
  EXPECT_FALSE(unmaximal_ids->contains("2-0"));  // a line's own id is not a parent
}

TEST_F(MaxPat, CommentLinesAreKeptUncountedAndAddNoIds) {
  uint32_t kept = 0;
  const std::string pc = "# 9-9 0-0\n 1-1 0-1\n2-0\t1-0  0-2\n";
  const std::string records =
      "# header 0-1\n0-0 5 50.000 1\n #0-0 not a comment\n0-1 5 50.000 2\n0-2 5 50.000 3\n";
  const std::string out = prune(pc, records, &kept);
  EXPECT_EQ(out, "# header 0-1\n0-0 5 50.000 1\n #0-0 not a comment\n");
  EXPECT_EQ(kept, 2u);
  // The PC line with a leading blank is read; its first token is "1-1".
  EXPECT_EQ(unmaximal_ids->size(), 3u);
  EXPECT_FALSE(unmaximal_ids->contains("9-9"));
  EXPECT_FALSE(unmaximal_ids->contains("1-1"));
}

TEST_F(MaxPat, EmptyLinesAreKeptAndCountedAndEveryLineEndsWithANewline) {
  uint32_t kept = 0;
  const std::string out = prune("1-0 0-0\n", "0-0 5 50.000 1\n\n  \n1-0 2 20.000 1 2", &kept);
  EXPECT_EQ(out, "\n  \n1-0 2 20.000 1 2\n");
  EXPECT_EQ(kept, 3u);
}

TEST_F(MaxPat, UnchangedFileIsStillReplacedThroughTheTemporaryFile) {
  const std::string records = "0-0 5 50.000 1\r\n0-1 5 50.000 2  extra\n";
  write_file(path("r.fp_conv"), records);
  ASSERT_EQ(link(path("r.fp_conv").c_str(), path("before").c_str()), 0);
  const mode_t old_mask = umask(0);
  const uint32_t kept = remove_unmaximal_records(path("r.fp_conv").c_str());
  umask(old_mask);
  EXPECT_EQ(kept, 2u);
  EXPECT_EQ(read_file(path("r.fp_conv")), records);
  struct stat now {}, before {};
  ASSERT_EQ(stat(path("r.fp_conv").c_str(), &now), 0);
  ASSERT_EQ(stat(path("before").c_str(), &before), 0);
  EXPECT_NE(now.st_ino, before.st_ino);  // a new file was moved over the name
  EXPECT_EQ(now.st_mode & 0777, 0664u);
  EXPECT_FALSE(file_exists(path("r.fp_conv.tmp")));
}

TEST_F(MaxPat, MissingInputsKeepEverythingOrLeaveAnEmptyFile) {
  // No PC list: nothing is pruned.
  load_unmaximal_ids(path("absent.pc").c_str());
  EXPECT_EQ(unmaximal_ids->size(), 0u);
  write_file(path("r.fp_conv"), "0-0 5 50.000 1\n1-0 4 40.000 1 2\n");
  EXPECT_EQ(remove_unmaximal_records(path("r.fp_conv").c_str()), 2u);
  EXPECT_EQ(read_file(path("r.fp_conv")), "0-0 5 50.000 1\n1-0 4 40.000 1 2\n");
  // No record file (the TID list of every run): an empty file takes its name.
  StdoutCapture capture;
  EXPECT_EQ(remove_unmaximal_records(path("r.tid").c_str()), 0u);
  EXPECT_EQ(capture.release(), "");
  ASSERT_TRUE(file_exists(path("r.tid")));
  EXPECT_EQ(read_file(path("r.tid")), "");
  EXPECT_FALSE(file_exists(path("r.tid.tmp")));
}

TEST_F(MaxPat, FailedRenameIsReportedAndLeavesTheTemporaryFile) {
  // A directory cannot be replaced by a file: rename fails with EISDIR.
  const std::string target = path("records");
  ASSERT_EQ(mkdir(target.c_str(), 0775), 0);
  write_file(target + "/inside", "x\n");
  StdoutCapture capture;
  const uint32_t kept = remove_unmaximal_records(target.c_str());
  const std::string out = capture.release();
  EXPECT_EQ(kept, 0u);
  EXPECT_EQ(out, "../vscom/maxpat(94) rename(" + target + ".tmp, " + target +
                     ") failed: Is a directory\n../vscom/maxpat(95) Failed to remove unmaximal "
                     "records from " + target + "\n");
  EXPECT_TRUE(file_exists(target + ".tmp"));
}

TEST(MaxPatSet, CreateAndDestroyOwnTheProcessWideSet) {
  ASSERT_EQ(unmaximal_ids, nullptr);
  ASSERT_EQ(create_unmaximal_set(), 0);
  ASSERT_NE(unmaximal_ids, nullptr);
  destroy_unmaximal_set();
  EXPECT_EQ(unmaximal_ids, nullptr);
  destroy_unmaximal_set();  // twice is harmless
}

TEST(MaxPatSet, IdSetKeepsEveryIdThroughGrowth) {
  IdSet set;
  for (uint32_t n = 0; n < 20000; ++n) {
    set.insert(std::to_string(n % 7) + "-" + std::to_string(n));
    set.insert(std::to_string(n % 7) + "-" + std::to_string(n));
  }
  EXPECT_EQ(set.size(), 20000u);
  for (uint32_t n = 0; n < 20000; ++n) {
    ASSERT_TRUE(set.contains(std::to_string(n % 7) + "-" + std::to_string(n))) << n;
    ASSERT_FALSE(set.contains(std::to_string(n % 7 + 1) + "-" + std::to_string(n))) << n;
  }
  EXPECT_FALSE(set.contains(""));
}

TEST(MaxPatSet, IdSetTellsApartSpellingsOfTheSameNumbers) {
  IdSet set;
  set.insert("0-0");
  EXPECT_FALSE(set.contains("00-0"));
  EXPECT_FALSE(set.contains("0-00"));
  for (const char* id : {"00-0", "0-00", "a", "1-", "-1-0", "1-0x", "4294967296-0"}) {
    set.insert(id);
    set.insert(id);
  }
  EXPECT_EQ(set.size(), 8u);
  for (const char* id : {"0-0", "00-0", "0-00", "a", "1-", "-1-0", "1-0x", "4294967296-0"}) {
    EXPECT_TRUE(set.contains(id)) << id;
  }
  for (const char* id : {"1-0", "0", "-", "1--0", "0-1"}) EXPECT_FALSE(set.contains(id)) << id;
  // Ordinals far beyond what the insertions justify still match exactly.
  set.insert("0-4294967295");
  set.insert("4294967295-7");
  EXPECT_TRUE(set.contains("0-4294967295"));
  EXPECT_TRUE(set.contains("4294967295-7"));
  EXPECT_FALSE(set.contains("0-4294967294"));
  EXPECT_FALSE(set.contains("4294967295-6"));
  EXPECT_EQ(set.size(), 10u);
}

// ---------------------------------------------------------------------------
// Lattice then pruning, against the definition: a pattern is kept exactly when
// no other frequent pattern contains it.

using Items = std::vector<uint32_t>;

TEST_F(MaxPat, LatticeThenPruningKeepsExactlyPatternsWithoutFrequentSuperset) {
  std::mt19937 rng(99);
  for (int round = 0; round < 200; ++round) {
    const uint32_t universe = 1 + rng() % 9;
    std::vector<Items> patterns;
    std::string text;
    std::vector<uint32_t> ordinal(universe + 1, 0);
    const uint32_t rate_per_len = 200 + rng() % 700;
    for (uint32_t mask = 1; mask < (1u << universe); ++mask) {
      if (rng() % 1000 >= rate_per_len) continue;
      Items items;
      for (uint32_t i = 0; i < universe; ++i) {
        if (mask & (1u << i)) items.push_back(i);
      }
      text += std::to_string(items.size() - 1) + "-" + std::to_string(ordinal[items.size()]++) +
              " 1 1.000";
      for (uint32_t item : items) text += " " + std::to_string(item);
      text += "\n";
      patterns.push_back(items);
    }
    std::string expected;
    for (size_t a = 0; a < patterns.size(); ++a) {
      bool covered = false;
      for (size_t b = 0; b < patterns.size() && !covered; ++b) {
        covered = patterns[b].size() > patterns[a].size() &&
                  std::includes(patterns[b].begin(), patterns[b].end(), patterns[a].begin(),
                                patterns[a].end());
      }
      if (!covered) expected += split_lines(text)[a] + "\n";
    }
    write_file(path("r.fp_conv"), text);
    ASSERT_EQ(generate_lattice(path("r.fp_conv").c_str(), path("r.pc").c_str()), 0);
    destroy_unmaximal_set();
    ASSERT_EQ(create_unmaximal_set(), 0);
    load_unmaximal_ids(path("r.pc").c_str());
    const uint32_t kept = remove_unmaximal_records(path("r.fp_conv").c_str());
    ASSERT_EQ(read_file(path("r.fp_conv")), expected) << "round " << round;
    EXPECT_EQ(kept, split_lines(expected).size());
  }
}

}  // namespace
