// Grouping a numbered pattern file by the length in its pattern ids, with the
// per-length counts, as the program does before the back-conversion. The log
// is never opened in this process, so report lines reach standard output only.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "cli/pattern_file.h"
#include "cli/log.h"
#include "support/harness.h"

using namespace quarlo::detail;
using namespace quarlo::cli;

namespace {

using quarlo_test::read_file;
using quarlo_test::write_file;
using Counts = std::vector<std::pair<uint32_t, uint32_t>>;

class SortByLength : public quarlo_test::TempDirTest {
 protected:
  // Sorts the file as it stands; returns the (length, count) pairs.
  Counts sort_existing() {
    std::vector<LengthCount> counts;
    EXPECT_TRUE(sort_by_length(file().c_str(), &counts));
    Counts out;
    for (const LengthCount& c : counts) out.emplace_back(c.length, c.count);
    return out;
  }
  std::string file() const { return path("patterns.fp_conv"); }
};

TEST_F(SortByLength, GroupsLinesByTheNumberBeforeTheFirstDash) {
  const struct {
    std::string text, sorted;
    Counts counts;
  } cases[] = {
      {"1-0 4 40.000 2 5\n0-0 7 70.000 2\n2-0 3 30.000 1 2 5\n0-1 6 60.000 5\n"
       "1-1 3 30.000 1 2\n0-2 5 50.000 1\n",
       "0-0 7 70.000 2\n0-1 6 60.000 5\n0-2 5 50.000 1\n1-0 4 40.000 2 5\n"
       "1-1 3 30.000 1 2\n2-0 3 30.000 1 2 5\n",
       {{1, 3}, {2, 2}, {3, 1}}},
      // Only the length decides, file order stays within a length.
      {"10-3 x\n9-0 y\n10-0 z\n1-0 w\n", "1-0 w\n9-0 y\n10-3 x\n10-0 z\n", {{2, 1}, {10, 1}, {11, 2}}},
      // Lines without a dash go last and are not counted; a last line gets its newline.
      {"0-0 a\nno dash\n\n1-0 b", "0-0 a\n1-0 b\nno dash\n\n", {{1, 1}, {2, 1}}},
      {"", "", {}},
  };
  for (const auto& c : cases) {
    write_file(file(), c.text);
    EXPECT_EQ(sort_existing(), c.counts) << c.text;
    EXPECT_EQ(read_file(file()), c.sorted) << c.text;
  }
}

// Hundreds of distinct lengths (never in the program's own files) take the
// in-memory way; the result is the same.
TEST_F(SortByLength, ManyDistinctLengthsAreGroupedAlike) {
  std::string text, sorted;
  Counts counts;
  for (uint32_t len = 400; len >= 1; --len) {
    text += std::to_string(len - 1) + "-0 x\n";
  }
  for (uint32_t len = 1; len <= 400; ++len) {
    sorted += std::to_string(len - 1) + "-0 x\n";
    counts.emplace_back(len, 1);
  }
  write_file(file(), text);
  EXPECT_EQ(sort_existing(), counts);
  EXPECT_EQ(read_file(file()), sorted);
}

TEST_F(SortByLength, MissingFileGivesAnEmptyFileOfMode0664) {
  const mode_t mask = umask(0);
  EXPECT_EQ(sort_existing(), Counts{});
  umask(mask);
  EXPECT_EQ(read_file(file()), "");
  struct stat st;
  ASSERT_EQ(stat(file().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0664u);
}

TEST_F(SortByLength, RewriteThatCannotBeWrittenWholeFails) {
  // A file-size limit below the file's size stands in for a full disk.
  std::string lines;
  for (int i = 0; i < 1000; ++i) lines += "1-" + std::to_string(i) + " 4 40.0 2 5\n";
  write_file(file(), lines);
  const std::string name = file();
  quarlo_test::RunResult r = quarlo_test::run_forked([&name] {
    signal(SIGXFSZ, SIG_IGN);
    const struct rlimit limit = {4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    Console console;
    return group_by_length(name.c_str(), &console) ? 0 : 3;
  });
  EXPECT_EQ(r.status, 3);
  EXPECT_TRUE(quarlo_test::matches_pattern(r.out, "quarlo(#) Failed to write " + name +
                                                       ": File too large\n"))
      << r.out;
}

}  // namespace
