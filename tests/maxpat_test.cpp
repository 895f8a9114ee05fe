// Maximal-pattern pruning on the text of the PC list and the record files,
// and the id set behind it. Pruning a whole run against the definition of
// maximal patterns is checked through the built program.
#include "maxpat.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "support/harness.h"

namespace {

using quarlo_test::file_exists;
using quarlo_test::read_file;
using quarlo_test::StdoutCapture;
using quarlo_test::write_file;

class MaxPat : public quarlo_test::TempDirTest {
 protected:
  void SetUp() override { ASSERT_EQ(create_unmaximal_set(), 0); }
  void TearDown() override { destroy_unmaximal_set(); }
};

TEST_F(MaxPat, DropsTheRecordsWhoseIdStandsAsAParent) {
  const struct {
    std::string pc, records, kept_text;
    uint32_t kept;
  } cases[] = {
      {"1-0 0-1 0-0\n0-0\n0-1\n", "0-0 6 60.000 1\n1-0 4 40.000 1 2\n0-1 5 50.000 2\n",
       "1-0 4 40.000 1 2\n", 1},
      {read_file(quarlo_test::data_path("post/lattice_skips.pc")),
       read_file(quarlo_test::data_path("post/lattice_skips.fp_conv")), "3-0 2 20.000 1 2 3 4\n", 1},
      // Ids match as whole text: "1-0" removes neither "1-01" nor "11-0".
      {"2-0 1-0\n", "1-0 2 20.000 1 2\n1-01 2 20.000 1 3\n11-0 2 20.000 1 4\n",
       "1-01 2 20.000 1 3\n11-0 2 20.000 1 4\n", 2},
      // "#" lines are kept and not counted, in the PC list they add no ids; a
      // "#" after a blank starts no comment.
      {"# 9-9 0-0\n 1-1 0-1\n2-0\t1-0  0-2\n",
       "# header 0-1\n0-0 5 50.000 1\n #0-0 not a comment\n0-1 5 50.000 2\n0-2 5 50.000 3\n",
       "# header 0-1\n0-0 5 50.000 1\n #0-0 not a comment\n", 2},
      // Empty lines are kept and counted; every line written ends with a newline.
      {"1-0 0-0\n", "0-0 5 50.000 1\n\n  \n1-0 2 20.000 1 2", "\n  \n1-0 2 20.000 1 2\n", 3},
      // No PC list: nothing is pruned.
      {"", "0-0 5 50.000 1\r\n1-0 4 40.000 1 2  extra\n", "0-0 5 50.000 1\r\n1-0 4 40.000 1 2  extra\n",
       2},
  };
  for (const auto& c : cases) {
    destroy_unmaximal_set();
    ASSERT_EQ(create_unmaximal_set(), 0);
    if (!c.pc.empty()) write_file(path("p.pc"), c.pc);
    write_file(path("p.fp_conv"), c.records);
    load_unmaximal_ids(path(c.pc.empty() ? "absent.pc" : "p.pc").c_str());
    EXPECT_EQ(remove_unmaximal_records(path("p.fp_conv").c_str()), c.kept) << c.records;
    EXPECT_EQ(read_file(path("p.fp_conv")), c.kept_text) << c.records;
    EXPECT_FALSE(file_exists(path("p.fp_conv.tmp")));
  }
  // A line's own id, first after any leading blanks, is not a parent.
  destroy_unmaximal_set();
  ASSERT_EQ(create_unmaximal_set(), 0);
  write_file(path("p.pc"), cases[3].pc);
  load_unmaximal_ids(path("p.pc").c_str());
  EXPECT_EQ(unmaximal_ids->size(), 3u);
  for (const char* id : {"0-1", "1-0", "0-2"}) EXPECT_TRUE(unmaximal_ids->contains(id)) << id;
  for (const char* id : {"9-9", "1-1", "2-0", "1-"}) EXPECT_FALSE(unmaximal_ids->contains(id)) << id;
}

TEST_F(MaxPat, FileIsReplacedThroughTheTemporaryFile) {
  const std::string records = "0-0 5 50.000 1\n";
  write_file(path("r.fp_conv"), records);
  ASSERT_EQ(link(path("r.fp_conv").c_str(), path("before").c_str()), 0);
  const mode_t old_mask = umask(0);
  EXPECT_EQ(remove_unmaximal_records(path("r.fp_conv").c_str()), 1u);
  umask(old_mask);
  EXPECT_EQ(read_file(path("r.fp_conv")), records);
  struct stat now {}, before {};
  ASSERT_EQ(stat(path("r.fp_conv").c_str(), &now), 0);
  ASSERT_EQ(stat(path("before").c_str(), &before), 0);
  EXPECT_NE(now.st_ino, before.st_ino);  // a new file was moved over the name
  EXPECT_EQ(now.st_mode & 0777, 0664u);

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
  StdoutCapture capture;
  EXPECT_EQ(remove_unmaximal_records(target.c_str()), 0u);
  EXPECT_EQ(capture.release(), "../vscom/maxpat(94) rename(" + target + ".tmp, " + target +
                                   ") failed: Is a directory\n../vscom/maxpat(95) Failed to "
                                   "remove unmaximal records from " + target + "\n");
  EXPECT_TRUE(file_exists(target + ".tmp"));
}

TEST_F(MaxPat, TemporaryFileThatCannotBeWrittenLeavesTheRecordsAlone) {
  // A full disk while the temporary file is written: no record may be lost.
  const std::string target = path("records");
  write_file(target, "0-0 3 30.000 1\n1-0 2 20.000 1 2\n");
  ASSERT_EQ(symlink("/dev/full", (target + ".tmp").c_str()), 0);
  StdoutCapture capture;
  EXPECT_EQ(remove_unmaximal_records(target.c_str()), 2u);
  EXPECT_EQ(capture.release(), "../vscom/maxpat(96) Failed to write " + target +
                                   ".tmp\n../vscom/maxpat(95) Failed to remove unmaximal "
                                   "records from " + target + "\n");
  EXPECT_EQ(read_file(target), "0-0 3 30.000 1\n1-0 2 20.000 1 2\n");
}

TEST(MaxPatSet, IdSetKeepsEveryIdThroughGrowth) {
  IdSet set;
  auto id = [](uint32_t len, uint32_t n) { return std::to_string(len) + "-" + std::to_string(n); };
  for (uint32_t n = 0; n < 20000; ++n) {
    set.insert(id(n % 7, n));
    set.insert(id(n % 7, n));
  }
  EXPECT_EQ(set.size(), 20000u);
  for (uint32_t n = 0; n < 20000; ++n) {
    ASSERT_TRUE(set.contains(id(n % 7, n))) << n;
    ASSERT_FALSE(set.contains(id(n % 7 + 1, n))) << n;
  }
  EXPECT_FALSE(set.contains(""));
}

TEST(MaxPatSet, IdSetTellsApartSpellingsOfTheSameNumbers) {
  IdSet set;
  set.insert("0-0");
  EXPECT_FALSE(set.contains("00-0"));
  EXPECT_FALSE(set.contains("0-00"));
  const char* const ids[] = {"0-0",  "00-0", "0-00", "a",           "1-",
                             "-1-0", "1-0x", "4294967296-0", "0-4294967295", "4294967295-7"};
  for (const char* i : ids) {
    set.insert(i);
    set.insert(i);
  }
  EXPECT_EQ(set.size(), 10u);
  for (const char* i : ids) EXPECT_TRUE(set.contains(i)) << i;
  // Ordinals far beyond what the insertions justify still match exactly.
  for (const char* i : {"1-0", "0", "-", "1--0", "0-1", "0-4294967294", "4294967295-6"}) {
    EXPECT_FALSE(set.contains(i)) << i;
  }
}

}  // namespace
