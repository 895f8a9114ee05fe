// Unit tests of sort_by_length: regrouping a numbered pattern file by the
// length in its pattern ids, and the per-length count lines. The log is never
// opened in this process, so the count lines reach standard output only.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "quarlo.h"
#include "support/harness.h"

namespace {

using quarlo_test::file_exists;
using quarlo_test::read_file;
using quarlo_test::StdoutCapture;
using quarlo_test::write_file;

const char kFormat[] = "  Number of Frequent Patterns[Length%5u]      %u";

class SortByLength : public quarlo_test::TempDirTest {
 protected:
  // Writes `content` to a fresh file, sorts it with `format`, and returns
  // what was printed; the file's new text is left in sorted().
  std::string sort(const std::string& content, const char* format = kFormat) {
    write_file(file(), content);
    return sort_existing(format);
  }
  std::string sort_existing(const char* format = kFormat) {
    StdoutCapture capture;
    sort_by_length(file().c_str(), format);
    return capture.release();
  }
  std::string file() const { return path("patterns.fp_conv"); }
  std::string sorted() const { return read_file(file()); }
};

TEST_F(SortByLength, GroupsLinesByLengthKeepingFileOrderWithinEachLength) {
  std::string report = sort(
      "1-0 4 40.000 2 5\n"
      "0-0 7 70.000 2\n"
      "2-0 3 30.000 1 2 5\n"
      "0-1 6 60.000 5\n"
      "1-1 3 30.000 1 2\n"
      "0-2 5 50.000 1\n");
  EXPECT_EQ(sorted(),
            "0-0 7 70.000 2\n"
            "0-1 6 60.000 5\n"
            "0-2 5 50.000 1\n"
            "1-0 4 40.000 2 5\n"
            "1-1 3 30.000 1 2\n"
            "2-0 3 30.000 1 2 5\n");
  EXPECT_EQ(report,
            "  Number of Frequent Patterns[Length    1]      3\n"
            "  Number of Frequent Patterns[Length    2]      2\n"
            "  Number of Frequent Patterns[Length    3]      1\n");
}

TEST_F(SortByLength, OrderWithinALengthIsTheFilesNotTheIds) {
  // Only the length decides; the ordinal after "-" and the rest of the
  // line are never compared.
  sort("0-5 z\n1-0 b\n0-1 a\n1-0 a\n0-3 y\n");
  EXPECT_EQ(sorted(), "0-5 z\n0-1 a\n0-3 y\n1-0 b\n1-0 a\n");
}

TEST_F(SortByLength, KeysOfSeveralDigitsSortAsNumbers) {
  std::string report = sort("10-3 x\n9-0 y\n10-0 z\n1-0 w\n");
  EXPECT_EQ(sorted(), "1-0 w\n9-0 y\n10-3 x\n10-0 z\n");
  EXPECT_EQ(report,
            "  Number of Frequent Patterns[Length    2]      1\n"
            "  Number of Frequent Patterns[Length   10]      1\n"
            "  Number of Frequent Patterns[Length   11]      2\n");
}

TEST_F(SortByLength, NonDigitBeforeTheDashCountsAsZero) {
  // "1x" is 1 then 0: key 10, after "9"; "x" alone and "0" are key 0;
  // "2 " is 20. Only the text before the first "-" counts.
  std::string report = sort("1x-0 a\n9-0 b\nx-1 c\n2 -0 d\n0-5-7 e\n");
  EXPECT_EQ(sorted(), "x-1 c\n0-5-7 e\n9-0 b\n1x-0 a\n2 -0 d\n");
  EXPECT_EQ(report,
            "  Number of Frequent Patterns[Length    1]      2\n"
            "  Number of Frequent Patterns[Length   10]      1\n"
            "  Number of Frequent Patterns[Length   11]      1\n"
            "  Number of Frequent Patterns[Length   21]      1\n");
}

TEST_F(SortByLength, CountLinesOnlyForLengthsPresentAndRightAlignedInFiveColumns) {
  std::string report = sort("3-0 a\n0-0 b\n3-1 c\n12344-0 d\n");
  EXPECT_EQ(report,
            "  Number of Frequent Patterns[Length    1]      1\n"
            "  Number of Frequent Patterns[Length    4]      2\n"
            "  Number of Frequent Patterns[Length12345]      1\n");
}

TEST_F(SortByLength, NullFormatRewritesTheFileButReportsNothing) {
  EXPECT_EQ(sort("1-0 a\n0-0 b\n", nullptr), "");
  EXPECT_EQ(sorted(), "0-0 b\n1-0 a\n");
}

TEST_F(SortByLength, EveryLineEndsWithANewlineAfterTheRewrite) {
  // A last line without its newline is still a line and gets one.
  std::string report = sort("1-0 a\n0-0 b");
  EXPECT_EQ(sorted(), "0-0 b\n1-0 a\n");
  EXPECT_EQ(report,
            "  Number of Frequent Patterns[Length    1]      1\n"
            "  Number of Frequent Patterns[Length    2]      1\n");
}

TEST_F(SortByLength, AlreadyGroupedFileComesBackUnchanged) {
  const std::string grouped = "0-0 1 1\n0-1 1 2\n1-0 1 1 2\n";
  sort(grouped, nullptr);
  EXPECT_EQ(sorted(), grouped);
}

TEST_F(SortByLength, EmptyOrMissingFileGivesAnEmptyFileAndNoCountLine) {
  EXPECT_EQ(sort(""), "");
  EXPECT_EQ(sorted(), "");

  // A missing file is created, empty, with mode 0664 before the umask.
  ASSERT_EQ(unlink(file().c_str()), 0);
  mode_t mask = umask(0);
  std::string report = sort_existing();
  umask(mask);
  EXPECT_EQ(report, "");
  ASSERT_TRUE(file_exists(file()));
  EXPECT_EQ(sorted(), "");
  struct stat st;
  ASSERT_EQ(stat(file().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0664u);
}

TEST_F(SortByLength, FileThatCannotBeReadOrWrittenReportsNothing) {
  // A directory in the file's place: nothing to read, nothing can be written.
  ASSERT_EQ(mkdir(file().c_str(), 0755), 0);
  EXPECT_EQ(sort_existing(), "");
}

}  // namespace

TEST_F(SortByLength, HugeKeysAndLinesWithoutDashKeepTheSameOrderRules) {
  // Keys far above any pattern length take the general ordering path; lines
  // without "-" still come last in file order and are not counted.
  std::string report = sort(
      "3000000-0 1\n"
      "no dash here\n"
      "1-0 2\n"
      "3000000-1 3\n"
      "\n"
      "0-0 4\n");
  EXPECT_EQ(sorted(), "0-0 4\n1-0 2\n3000000-0 1\n3000000-1 3\nno dash here\n\n");
  EXPECT_EQ(report,
            "  Number of Frequent Patterns[Length    1]      1\n"
            "  Number of Frequent Patterns[Length    2]      1\n"
            "  Number of Frequent Patterns[Length3000001]      2\n");

  report = sort("no dash\n1-0 2\n\n0-0 4\n1-1 5\n");
  EXPECT_EQ(sorted(), "0-0 4\n1-0 2\n1-1 5\nno dash\n\n");
  EXPECT_EQ(report,
            "  Number of Frequent Patterns[Length    1]      1\n"
            "  Number of Frequent Patterns[Length    2]      2\n");
}
