// End-to-end tests of the command line and of the report as a user sees it
// on the console and in quarlo.log: usage, options that change nothing, the
// Options block, per-length counts, the log's mirroring and appending, and a
// log that cannot be opened. Every run has its own working directory, so
// quarlo.log starts absent.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/harness.h"

namespace {

using quarlo_test::copy_file;
using quarlo_test::data_path;
using quarlo_test::list_dir;
using quarlo_test::mask_timings;
using quarlo_test::matches_regex;
using quarlo_test::read_file;
using quarlo_test::run_quarlo;
using quarlo_test::RunResult;
using quarlo_test::split_lines;
using quarlo_test::TempDir;

using Names = std::vector<std::string>;

// A run directory holding the market-basket input "market.txt" and the
// support table "market.supp" (1 60 / 2 40).
class Cli : public quarlo_test::TempDirTest {
 protected:
  void SetUp() override { add_inputs(dir()); }
  static void add_inputs(const std::string& to) {
    copy_file(data_path("cli/market.txt"), to + "/market.txt");
    copy_file(data_path("cli/market.supp"), to + "/market.supp");
  }
  std::string log() const { return read_file(path("quarlo.log")); }
};

TEST_F(Cli, HelpAndMissingFilePrintTheUsageOnlyAndExit1) {
  const std::string usage = read_file(quarlo_test::golden_path("usage_quarlo.txt"));
  const Names command_lines[] = {
      {"-h", "market.txt"}, {"--help"}, {}, {"-x", "-s", "5"}, {"-h", "-t", "market.txt"}};
  for (const Names& args : command_lines) {
    SCOPED_TRACE(args.empty() ? "no arguments" : args.front() + " ...");
    RunResult r = run_quarlo(dir(), args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, usage);
    EXPECT_EQ(r.err, "");
  }
  EXPECT_EQ(list_dir(dir()), (Names{"market.supp", "market.txt"}));  // no quarlo.log
}

// Unknown options and missing option arguments draw getopt's complaint on
// standard error and are skipped; -b and -d are accepted and have no effect.
TEST_F(Cli, IgnoredOptionsChangeNeitherReportNorFiles) {
  struct Case {
    Names args;
    std::string complaint;
  };
  const Case cases[] = {
      {{"-q", "-s", "40", "-x", "market.txt"}, "invalid option -- 'q'"},
      {{"-s", "40", "-x", "market.txt", "-m"}, "option requires an argument -- 'm'"},
      {{"-b", "100", "-d", "/tmp", "-s", "40", "-x", "market.txt"}, ""},
  };
  TempDir plain_dir;
  add_inputs(plain_dir.path());
  RunResult plain = run_quarlo(plain_dir.path(), {"-s", "40", "-x", "market.txt"});
  ASSERT_EQ(plain.status, 0) << plain.out;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.front());
    TempDir run;
    add_inputs(run.path());
    RunResult r = run_quarlo(run.path(), c.args);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(mask_timings(r.out), mask_timings(plain.out));
    if (c.complaint.empty()) {
      EXPECT_EQ(r.err, "");
    } else {
      EXPECT_NE(r.err.find(c.complaint), std::string::npos) << r.err;
    }
    const Names names = list_dir(run.path());
    EXPECT_EQ(names, list_dir(plain_dir.path()));
    for (const std::string& name : names) {
      EXPECT_EQ(mask_timings(read_file(run.join(name))),
                mask_timings(read_file(plain_dir.join(name))))
          << name;
    }
  }
}

TEST_F(Cli, OptionsBlockAlignsItsValuesInColumn49) {
  RunResult r = run_quarlo(dir(), {"-s", "40", "market.txt"});
  EXPECT_NE(r.out.find(
                "\nOptions ------------------------------------------------------------------------\n"
                "  Minimum Output Pattern Size:                  1\n"
                "  Maximum Output Pattern Size:                  4294967295\n"
                "  Constant Minimum Support:                     40.000000\n"
                "  PC List File Generation:                      Skip\n"
                "  Non-Maximal Frequent Pattern Pruning:         Skip\n"
                "\n"),
            std::string::npos)
      << r.out;

  // With a table, a non-zero -s is shown and declared ignored.
  copy_file(path("market.supp"), path("tbl"));
  RunResult table = run_quarlo(
      dir(), {"-s", "5", "-S", "tbl", "-m", "2", "-M", "-1", "-p", "-x", "market.txt"});
  EXPECT_NE(table.out.find(
                "\nOptions ------------------------------------------------------------------------\n"
                "  Minimum Output Pattern Size:                  2\n"
                "  Maximum Output Pattern Size:                  4294967295\n"
                "  Length-Decreasing Support Constraint File:    tbl\n"
                "  Constant Minimum Support:                     5.000000: Warning: Ignored: "
                "\"tbl\" is given\n"
                "  PC List File Generation:                      Generate\n"
                "  Non-Maximal Frequent Pattern Pruning:         Prune\n"
                "\n"),
            std::string::npos)
      << table.out;

  RunResult zero = run_quarlo(dir(), {"-s", "0", "-S", "tbl", "market.txt"});
  EXPECT_NE(zero.out.find("\n  Length-Decreasing Support Constraint File:    tbl\n"
                          "  PC List File Generation:"),
            std::string::npos)
      << zero.out;
}

TEST_F(Cli, PerLengthCountsSkipAbsentLengths) {
  // Maximal patterns {a}, {b c} and {d e f g}: lengths 1, 2 and 4 only.
  quarlo_test::write_file(path("lengths.txt"), "a\na\nb c\nb c\nd e f g\nd e f g\n");
  RunResult r = run_quarlo(dir(), {"-s", "30", "-x", "lengths.txt"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("  Number of Maximal Frequent Patterns:          3\n"
                       "  Number of Frequent Patterns[Length    1]      1\n"
                       "  Number of Frequent Patterns[Length    2]      1\n"
                       "  Number of Frequent Patterns[Length    4]      1\n"
                       "\n"),
            std::string::npos)
      << r.out;
}

TEST_F(Cli, EveryStdoutLineStandsInTheLogInOrder) {
  // Nothing else writes to the log, so "line for line, in order" means equal.
  RunResult r = run_quarlo(dir(), {"-S", "market.supp", "-p", "-x", "market.txt"});
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_GT(split_lines(r.out).size(), 20u);
  EXPECT_EQ(log(), r.out);
}

TEST_F(Cli, RunsInARowOverwriteThePatternFileAndAppendTheirReports) {
  RunResult first = run_quarlo(dir(), {"-s", "20", "market.txt"});
  ASSERT_EQ(first.status, 0) << first.out;
  EXPECT_GT(split_lines(read_file(path("market.txt.fp"))).size(), 3u);
  RunResult second = run_quarlo(dir(), {"-s", "80", "market.txt"});
  ASSERT_EQ(second.status, 0) << second.out;
  // Three items reach 80 %; nothing of the first run's patterns is left.
  EXPECT_EQ(split_lines(read_file(path("market.txt.fp"))).size(), 3u);
  // A failed run appends to the log as well.
  RunResult refused = run_quarlo(dir(), {"-t", "market.txt"});
  ASSERT_EQ(refused.status, 32);
  EXPECT_EQ(log(), first.out + second.out + refused.out);
}

// The log cannot be opened: the run stops before the banner, with the
// reason on standard error only.
void expect_log_open_failure(const RunResult& r, const std::string& system_text) {
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  Names lines = split_lines(r.err);
  ASSERT_EQ(lines.size(), 2u) << r.err;
  EXPECT_EQ(lines[0], "fopen: " + system_text);
  EXPECT_TRUE(matches_regex(lines[1], R"(\.\./vscom/log\(\d+\): Cannot open log file)"))
      << lines[1];
}

TEST_F(Cli, LogThatIsADirectoryEndsTheRunWithStatus1) {
  // A directory in the log's place defeats fopen for every user, root included.
  ASSERT_EQ(mkdir(path("quarlo.log").c_str(), 0755), 0);
  expect_log_open_failure(run_quarlo(dir(), {"-s", "40", "market.txt"}), "Is a directory");
  // Even -t is refused only after the log is open.
  expect_log_open_failure(run_quarlo(dir(), {"-t", "market.txt"}), "Is a directory");
  EXPECT_EQ(list_dir(dir()), (Names{"market.supp", "market.txt", "quarlo.log"}));
  EXPECT_EQ(list_dir(path("quarlo.log")), Names{});
}

TEST_F(Cli, ReadOnlyDirectoryEndsTheRunWithStatus1) {
  if (geteuid() == 0) GTEST_SKIP() << "root writes into read-only directories";
  ASSERT_EQ(chmod(dir().c_str(), 0555), 0);
  RunResult r = run_quarlo(dir(), {"-s", "40", "market.txt"});
  chmod(dir().c_str(), 0755);
  expect_log_open_failure(r, "Permission denied");
  EXPECT_EQ(list_dir(dir()), (Names{"market.supp", "market.txt"}));
}

}  // namespace
