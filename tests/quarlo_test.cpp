// Unit tests of sort_by_length: regrouping a numbered pattern file by the
// length in its pattern ids, and the per-length count lines. The log is never
// opened in this process, so the count lines reach standard output only.
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <initializer_list>
#include <csignal>
#include <string>
#include <utility>

#include "quarlo.h"
#include "support/harness.h"

namespace {

using quarlo_test::read_file;
using quarlo_test::run_forked;

const char kFormat[] = "  Number of Frequent Patterns[Length%5u]      %u";

class SortByLength : public quarlo_test::TempDirTest {
 protected:
  // Sorts the file as it stands with `format`; returns what was printed.
  std::string sort_existing(const char* format = kFormat) {
    quarlo_test::StdoutCapture capture;
    sort_by_length(file().c_str(), format);
    return capture.release();
  }
  std::string file() const { return path("patterns.fp_conv"); }
};

// "  Number of Frequent Patterns[Length    L]      N\n" for each (L, N).
std::string counts(std::initializer_list<std::pair<const char*, int>> lengths) {
  std::string out;
  for (auto [len, n] : lengths) {
    out += "  Number of Frequent Patterns[Length" + std::string(len) + "]      " +
           std::to_string(n) + "\n";
  }
  return out;
}

TEST_F(SortByLength, GroupsLinesByTheNumberBeforeTheFirstDash) {
  const struct {
    std::string text, sorted, report;
  } cases[] = {
      {"1-0 4 40.000 2 5\n0-0 7 70.000 2\n2-0 3 30.000 1 2 5\n0-1 6 60.000 5\n"
       "1-1 3 30.000 1 2\n0-2 5 50.000 1\n",
       "0-0 7 70.000 2\n0-1 6 60.000 5\n0-2 5 50.000 1\n1-0 4 40.000 2 5\n"
       "1-1 3 30.000 1 2\n2-0 3 30.000 1 2 5\n",
       counts({{"    1", 3}, {"    2", 2}, {"    3", 1}})},
      // Only the length decides; the ordinal and the rest are never compared.
      {"0-5 z\n1-0 b\n0-1 a\n1-0 a\n0-3 y\n", "0-5 z\n0-1 a\n0-3 y\n1-0 b\n1-0 a\n",
       counts({{"    1", 3}, {"    2", 2}})},
      {"10-3 x\n9-0 y\n10-0 z\n1-0 w\n", "1-0 w\n9-0 y\n10-3 x\n10-0 z\n",
       counts({{"    2", 1}, {"   10", 1}, {"   11", 2}})},
      // A non-digit counts as 0: "1x" is key 10, "x" alone key 0, "2 " key 20.
      {"1x-0 a\n9-0 b\nx-1 c\n2 -0 d\n0-5-7 e\n", "x-1 c\n0-5-7 e\n9-0 b\n1x-0 a\n2 -0 d\n",
       counts({{"    1", 2}, {"   10", 1}, {"   11", 1}, {"   21", 1}})},
      // Counts only for lengths present, right-aligned in five columns.
      {"3-0 a\n0-0 b\n3-1 c\n12344-0 d\n", "0-0 b\n3-0 a\n3-1 c\n12344-0 d\n",
       counts({{"    1", 1}, {"    4", 2}, {"12345", 1}})},
      // A last line without its newline gets one.
      {"1-0 a\n0-0 b", "0-0 b\n1-0 a\n", counts({{"    1", 1}, {"    2", 1}})},
      // Huge keys take the general path; lines without "-" come last in file
      // order and are not counted.
      {"3000000-0 1\nno dash here\n1-0 2\n3000000-1 3\n\n0-0 4\n",
       "0-0 4\n1-0 2\n3000000-0 1\n3000000-1 3\nno dash here\n\n",
       counts({{"    1", 1}, {"    2", 1}, {"3000001", 2}})},
      {"no dash\n1-0 2\n\n0-0 4\n1-1 5\n", "0-0 4\n1-0 2\n1-1 5\nno dash\n\n",
       counts({{"    1", 1}, {"    2", 2}})},
      {"", "", ""},
  };
  for (const auto& c : cases) {
    quarlo_test::write_file(file(), c.text);
    EXPECT_EQ(sort_existing(), c.report) << c.text;
    EXPECT_EQ(read_file(file()), c.sorted) << c.text;
  }
}

TEST_F(SortByLength, NullFormatRewritesTheFileButReportsNothing) {
  quarlo_test::write_file(file(), "1-0 a\n0-0 b\n");
  EXPECT_EQ(sort_existing(nullptr), "");
  EXPECT_EQ(read_file(file()), "0-0 b\n1-0 a\n");
}

TEST_F(SortByLength, MissingFileGivesAnEmptyFileUnreadableOneNothing) {
  // A missing file is created, empty, with mode 0664 before the umask.
  const mode_t mask = umask(0);
  const std::string report = sort_existing();
  umask(mask);
  EXPECT_EQ(report, "");
  EXPECT_EQ(read_file(file()), "");
  struct stat st;
  ASSERT_EQ(stat(file().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0664u);
  // A directory in the file's place: nothing to read, nothing can be written.
  ASSERT_EQ(unlink(file().c_str()), 0);
  ASSERT_EQ(mkdir(file().c_str(), 0755), 0);
  EXPECT_EQ(sort_existing(), "");
}

TEST_F(SortByLength, RewriteThatCannotBeWrittenWholeIsReported) {
  // A file-size limit below the file's size stands in for a full disk (it
  // caps the captured report as well, hence 4 KiB against 16 KiB of lines).
  std::string lines;
  for (int i = 0; i < 1000; ++i) lines += "1-" + std::to_string(i) + " 4 40.0 2 5\n";
  quarlo_test::write_file(file(), lines);
  const std::string name = file();
  quarlo_test::RunResult r = run_forked([&name] {
    signal(SIGXFSZ, SIG_IGN);
    const struct rlimit limit = {4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    return sort_by_length(name.c_str(), kFormat) ? 0 : 3;
  });
  EXPECT_EQ(r.status, 3);
  EXPECT_TRUE(quarlo_test::matches_regex(
      r.out, "quarlo\\(\\d+\\) Failed to write " + quarlo_test::regex_escape(name) +
                 ": File too large\n"))
      << r.out;
}

}  // namespace
