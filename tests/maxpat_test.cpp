// Maximal-pattern pruning on the text of the PC list and the record files,
// and the id set behind it. Pruning a whole run against the definition of
// maximal patterns is checked through the built program.
#include "maxpat.h"

#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "support/harness.h"

namespace {

using quarlo_test::file_exists;
using quarlo_test::read_file;
using quarlo_test::write_file;
using Lines = std::vector<std::string>;

class MaxPat : public quarlo_test::TempDirTest {
 protected:
  // Prunes `file` against an empty id set; what was reported lands in rep_.
  uint32_t prune(const std::string& file) {
    rep_ = CollectingReporter();
    return remove_unmaximal_records(IdSet(), file.c_str(), &rep_);
  }

  CollectingReporter rep_;
};

TEST_F(MaxPat, DropsTheRecordsWhoseIdStandsAsAParent) {
  const std::string commented_pc = "# 9-9 0-0\n 1-1 0-1\n2-0\t1-0  0-2\n";
  const struct {
    std::string pc, records, kept_text;
    uint32_t kept;
  } cases[] = {
      {read_file(quarlo_test::data_path("post/lattice_skips.pc")),
       read_file(quarlo_test::data_path("post/lattice_skips.fp_conv")), "3-0 2 20.000 1 2 3 4\n", 1},
      // Ids match as whole text: "1-0" removes neither "1-01" nor "11-0".
      {"2-0 1-0\n", "1-0 2 20.000 1 2\n1-01 2 20.000 1 3\n11-0 2 20.000 1 4\n",
       "1-01 2 20.000 1 3\n11-0 2 20.000 1 4\n", 2},
      // "#" lines are kept and not counted, in the PC list they add no ids; a
      // "#" after a blank starts no comment.
      {commented_pc,
       "# header 0-1\n0-0 5 50.000 1\n #0-0 not a comment\n0-1 5 50.000 2\n0-2 5 50.000 3\n",
       "# header 0-1\n0-0 5 50.000 1\n #0-0 not a comment\n", 2},
      // Empty lines are kept and counted; every line written ends with a newline.
      {"1-0 0-0\n", "0-0 5 50.000 1\n\n  \n1-0 2 20.000 1 2", "\n  \n1-0 2 20.000 1 2\n", 3},
      // No PC list: nothing is pruned.
      {"", "0-0 5 50.000 1\r\n1-0 4 40.000 1 2  extra\n", "0-0 5 50.000 1\r\n1-0 4 40.000 1 2  extra\n",
       2},
  };
  for (const auto& c : cases) {
    std::unique_ptr<IdSet> ids;
    CollectingReporter rep;
    ASSERT_EQ(create_unmaximal_set(&ids, &rep), 0);
    if (!c.pc.empty()) write_file(path("p.pc"), c.pc);
    write_file(path("p.fp_conv"), c.records);
    load_unmaximal_ids(ids.get(), path(c.pc.empty() ? "absent.pc" : "p.pc").c_str());
    EXPECT_EQ(remove_unmaximal_records(*ids, path("p.fp_conv").c_str(), &rep), c.kept) << c.records;
    EXPECT_EQ(read_file(path("p.fp_conv")), c.kept_text) << c.records;
    EXPECT_FALSE(file_exists(path("p.fp_conv.tmp")));
    EXPECT_EQ(rep.lines(), Lines{});
    destroy_unmaximal_set(&ids);
  }
  // A line's own id, first after any leading blanks, is not a parent.
  IdSet ids;
  write_file(path("p.pc"), commented_pc);
  load_unmaximal_ids(&ids, path("p.pc").c_str());
  EXPECT_EQ(ids.size(), 3u);
  for (const char* id : {"0-1", "1-0", "0-2"}) EXPECT_TRUE(ids.contains(id)) << id;
  for (const char* id : {"9-9", "1-1", "2-0", "1-"}) EXPECT_FALSE(ids.contains(id)) << id;
}

TEST_F(MaxPat, FileIsReplacedThroughTheTemporaryFileOrLeftAloneOnFailure) {
  const std::string records = "0-0 5 50.000 1\n";
  write_file(path("r.fp_conv"), records);
  ASSERT_EQ(link(path("r.fp_conv").c_str(), path("before").c_str()), 0);
  const mode_t old_mask = umask(0);
  EXPECT_EQ(prune(path("r.fp_conv")), 1u);
  umask(old_mask);
  EXPECT_EQ(read_file(path("r.fp_conv")), records);
  struct stat now {}, before {};
  ASSERT_EQ(stat(path("r.fp_conv").c_str(), &now), 0);
  ASSERT_EQ(stat(path("before").c_str(), &before), 0);
  EXPECT_NE(now.st_ino, before.st_ino);  // a new file was moved over the name
  EXPECT_EQ(now.st_mode & 0777, 0664u);

  // No record file (the TID list of every run): an empty file takes its name.
  EXPECT_EQ(prune(path("r.tid")), 0u);
  EXPECT_EQ(rep_.lines(), Lines{});
  ASSERT_TRUE(file_exists(path("r.tid")));
  EXPECT_EQ(read_file(path("r.tid")), "");
  EXPECT_FALSE(file_exists(path("r.tid.tmp")));

  // A directory cannot be replaced by a file: rename fails with EISDIR and
  // the temporary file stays.
  const std::string dir = path("records");
  ASSERT_EQ(mkdir(dir.c_str(), 0775), 0);
  EXPECT_EQ(prune(dir), 0u);
  const std::string failed = "../vscom/maxpat(95) Failed to remove unmaximal records from ";
  EXPECT_EQ(rep_.lines(), (Lines{"../vscom/maxpat(94) rename(" + dir + ".tmp, " + dir +
                                     ") failed: Is a directory",
                                 failed + dir}));
  EXPECT_TRUE(file_exists(dir + ".tmp"));

  // A full disk while the temporary file is written: no record may be lost.
  const std::string file = path("r.fp_conv"), two = "0-0 3 30.000 1\n1-0 2 20.000 1 2\n";
  write_file(file, two);
  ASSERT_EQ(symlink("/dev/full", (file + ".tmp").c_str()), 0);
  EXPECT_EQ(prune(file), 2u);
  EXPECT_EQ(rep_.lines(),
            (Lines{"../vscom/maxpat(96) Failed to write " + file + ".tmp", failed + file}));
  EXPECT_EQ(read_file(file), two);
}

TEST(MaxPatSet, IdSetKeepsEveryIdThroughGrowthAndTellsSpellingsApart) {
  IdSet set;
  auto id = [](uint32_t len, uint32_t n) { return std::to_string(len) + "-" + std::to_string(n); };
  for (uint32_t n = 0; n < 20000; ++n) {
    set.insert(id(n % 7, n));
    set.insert(id(n % 7, n));
  }
  EXPECT_FALSE(set.contains("00-0"));
  EXPECT_FALSE(set.contains("0-00"));
  // Other spellings of the same numbers, and texts that are no plain id.
  const char* const odd[] = {"00-0", "0-00", "a", "1-", "-1-0", "1-0x",
                             "4294967296-0", "0-4294967295", "4294967295-7"};
  for (const char* i : odd) {
    set.insert(i);
    set.insert(i);
  }
  EXPECT_EQ(set.size(), 20009u);
  for (uint32_t n = 0; n < 20000; ++n) {
    ASSERT_TRUE(set.contains(id(n % 7, n))) << n;
    ASSERT_FALSE(set.contains(id(n % 7 + 1, n))) << n;
  }
  for (const char* i : odd) EXPECT_TRUE(set.contains(i)) << i;
  // Ordinals far beyond what the insertions justify still match exactly.
  for (const char* i : {"", "0", "-", "1--0", "0-1", "0-4294967294", "4294967295-6"}) {
    EXPECT_FALSE(set.contains(i)) << i;
  }
}

}  // namespace
