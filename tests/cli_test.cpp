// End-to-end tests of the built program: usage, option handling, the
// refused -t, and the console/log report as a user sees them. Every run has
// its own temporary directory as working directory, so "quarlo.log" starts
// absent.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/harness.h"

namespace {

using quarlo_test::copy_file;
using quarlo_test::data_path;
using quarlo_test::file_exists;
using quarlo_test::golden_path;
using quarlo_test::list_dir;
using quarlo_test::mask_timings;
using quarlo_test::matches_regex;
using quarlo_test::read_file;
using quarlo_test::report_block;
using quarlo_test::run_quarlo;
using quarlo_test::RunResult;
using quarlo_test::split_lines;
using quarlo_test::TempDir;

const std::string kRule(80, '*');

// A run directory holding the small market-basket input "market.txt" and the
// support table "market.supp" (1 60 / 2 40).
class Cli : public quarlo_test::TempDirTest {
 protected:
  void SetUp() override {
    copy_file(data_path("cli/market.txt"), path("market.txt"));
    copy_file(data_path("cli/market.supp"), path("market.supp"));
  }
  std::string log() const { return read_file(path("quarlo.log")); }
};

TEST_F(Cli, HelpAndMissingFilePrintUsageOnlyAndExit1) {
  const std::string usage = read_file(golden_path("usage_quarlo.txt"));
  const std::vector<std::vector<std::string>> command_lines = {
      {"-h", "market.txt"}, {"--help"}, {}, {"-x", "-s", "5"}, {"-h", "-t", "market.txt"}};
  for (const auto& args : command_lines) {
    RunResult r = run_quarlo(dir(), args);
    EXPECT_EQ(r.status, 1) << args.size();
    EXPECT_EQ(r.out, usage);
    EXPECT_EQ(r.err, "");
    EXPECT_FALSE(file_exists(path("quarlo.log")));
  }
  EXPECT_EQ(list_dir(dir()), (std::vector<std::string>{"market.supp", "market.txt"}));
}

TEST_F(Cli, TidListIsRefusedBeforeTheBanner) {
  const std::string input_before = read_file(path("market.txt"));
  RunResult r = run_quarlo(dir(), {"-t", "market.txt"});
  EXPECT_EQ(r.status, 32);
  ASSERT_TRUE(matches_regex(r.out, R"(quarlo\(\d+\) -t is not supported\n)")) << r.out;
  EXPECT_EQ(log(), r.out);  // one line: no banner, no report
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(list_dir(dir()),
            (std::vector<std::string>{"market.supp", "market.txt", "quarlo.log"}));
  EXPECT_EQ(read_file(path("market.txt")), input_before);

  // Refused also as --tid-list, and with a FILE that does not exist.
  RunResult again = run_quarlo(dir(), {"--tid-list", "-x", "absent.txt"});
  EXPECT_EQ(again.status, 32);
  EXPECT_TRUE(matches_regex(again.out, R"(quarlo\(\d+\) -t is not supported\n)")) << again.out;
  EXPECT_EQ(log(), r.out + again.out);
}

TEST_F(Cli, UnknownOptionDrawsGetoptsComplaintAndTheRunGoesOn) {
  TempDir other;
  copy_file(data_path("cli/market.txt"), other.join("market.txt"));
  RunResult plain = run_quarlo(other.path(), {"-s", "40", "market.txt"});
  RunResult with_q = run_quarlo(dir(), {"-q", "-s", "40", "market.txt"});
  EXPECT_NE(with_q.err.find("invalid option -- 'q'"), std::string::npos) << with_q.err;
  EXPECT_EQ(with_q.status, plain.status);
  EXPECT_EQ(mask_timings(with_q.out), mask_timings(plain.out));
  EXPECT_FALSE(with_q.out.empty());
  EXPECT_EQ(with_q.out.find("invalid option"), std::string::npos);
}

TEST_F(Cli, BufferSizeAndDirectoryChangeNothing) {
  TempDir other;
  copy_file(data_path("cli/market.txt"), other.join("market.txt"));
  RunResult plain = run_quarlo(other.path(), {"-s", "40", "-x", "market.txt"});
  RunResult extra = run_quarlo(dir(), {"-b", "100", "-d", "/tmp", "-s", "40", "-x", "market.txt"});
  EXPECT_EQ(extra.status, plain.status);
  EXPECT_EQ(mask_timings(extra.out), mask_timings(plain.out));
  EXPECT_EQ(extra.err, plain.err);
  // The same files, with the same contents, apart from the log's timings.
  std::vector<std::string> names = list_dir(dir());
  names.erase(std::remove(names.begin(), names.end(), "market.supp"), names.end());
  EXPECT_EQ(names, list_dir(other.path()));
  for (const std::string& name : names) {
    std::string mine = read_file(path(name));
    std::string theirs = read_file(other.join(name));
    EXPECT_EQ(mask_timings(mine), mask_timings(theirs)) << name;
  }
}

TEST_F(Cli, OptionsBlockShowsTheParsedValues) {
  RunResult r = run_quarlo(dir(), {"-s", "40", "market.txt"});
  EXPECT_EQ(report_block(r.out, "Options"),
            "Options ------------------------------------------------------------------------\n"
            "  Minimum Output Pattern Size:                  1\n"
            "  Maximum Output Pattern Size:                  4294967295\n"
            "  Constant Minimum Support:                     40.000000\n"
            "  PC List File Generation:                      Skip\n"
            "  Non-Maximal Frequent Pattern Pruning:         Skip\n"
            "\n")
      << r.out;

  copy_file(path("market.supp"), path("tbl"));
  RunResult table = run_quarlo(dir(), {"-s", "5", "-S", "tbl", "-m", "2", "-M", "-1", "-p",
                                       "-x", "market.txt"});
  EXPECT_EQ(report_block(table.out, "Options"),
            "Options ------------------------------------------------------------------------\n"
            "  Minimum Output Pattern Size:                  2\n"
            "  Maximum Output Pattern Size:                  4294967295\n"
            "  Length-Decreasing Support Constraint File:    tbl\n"
            "  Constant Minimum Support:                     5.000000: Warning: Ignored: "
            "\"tbl\" is given\n"
            "  PC List File Generation:                      Generate\n"
            "  Non-Maximal Frequent Pattern Pruning:         Prune\n"
            "\n")
      << table.out;

  RunResult zero = run_quarlo(dir(), {"-s", "0", "-S", "tbl", "market.txt"});
  std::string block = report_block(zero.out, "Options");
  EXPECT_NE(block.find("  Length-Decreasing Support Constraint File:    tbl\n"), std::string::npos)
      << zero.out;
  EXPECT_EQ(block.find("Warning"), std::string::npos) << block;
}

TEST_F(Cli, ReportOpensWithTheBanner) {
  RunResult r = run_quarlo(dir(), {"-s", "40", "market.txt"});
  std::vector<std::string> lines = split_lines(r.out);
  ASSERT_GE(lines.size(), 3u) << r.out;
  EXPECT_EQ(lines[0], kRule);
  EXPECT_NE(lines[1].find("quarlo"), std::string::npos) << lines[1];
  EXPECT_EQ(lines[2], "");
}

TEST_F(Cli, EveryStdoutLineStandsInTheLogInOrder) {
  struct Case {
    std::vector<std::string> args;
  };
  const Case cases[] = {
      {{"-s", "40", "market.txt"}},
      {{"-S", "market.supp", "-p", "-x", "market.txt"}},
      {{"-s", "40", "absent.txt"}},           // a failing run reports too
      {{"-S", "absent.supp", "market.txt"}},  // and so does a failing engine
  };
  for (const Case& c : cases) {
    TempDir run;
    copy_file(data_path("cli/market.txt"), run.join("market.txt"));
    copy_file(data_path("cli/market.supp"), run.join("market.supp"));
    RunResult r = run_quarlo(run.path(), c.args);
    ASSERT_FALSE(r.out.empty()) << c.args.back();
    // Nothing else ever writes to the log, so "line for line" means equal.
    EXPECT_EQ(read_file(run.join("quarlo.log")), r.out) << c.args.back();
  }
}

TEST_F(Cli, SecondRunAppendsItsReport) {
  RunResult first = run_quarlo(dir(), {"-s", "40", "market.txt"});
  RunResult second = run_quarlo(dir(), {"-s", "40", "-x", "market.txt"});
  ASSERT_FALSE(first.out.empty());
  ASSERT_FALSE(second.out.empty());
  EXPECT_EQ(log(), first.out + second.out);
}

// The log cannot be opened: the run stops before the banner, with the
// reason on standard error only.
void expect_log_open_failure(const RunResult& r, const std::string& system_text) {
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  std::vector<std::string> lines = split_lines(r.err);
  ASSERT_EQ(lines.size(), 2u) << r.err;
  EXPECT_EQ(lines[0], "fopen: " + system_text);
  EXPECT_TRUE(matches_regex(lines[1], R"(\.\./vscom/log\(\d+\): Cannot open log file)"))
      << lines[1];
}

TEST_F(Cli, UnopenableLogEndsTheRunWithStatus1) {
  // A directory in the log's place defeats fopen for every user, root included.
  ASSERT_EQ(mkdir(path("quarlo.log").c_str(), 0755), 0);
  RunResult r = run_quarlo(dir(), {"-s", "40", "market.txt"});
  expect_log_open_failure(r, "Is a directory");
  EXPECT_EQ(list_dir(dir()),
            (std::vector<std::string>{"market.supp", "market.txt", "quarlo.log"}));
  EXPECT_EQ(list_dir(path("quarlo.log")), std::vector<std::string>{});

  // Even -t is refused only after the log is open.
  RunResult t = run_quarlo(dir(), {"-t", "market.txt"});
  expect_log_open_failure(t, "Is a directory");
}

TEST_F(Cli, ReadOnlyDirectoryEndsTheRunWithStatus1) {
  if (geteuid() == 0) GTEST_SKIP() << "root writes into read-only directories";
  ASSERT_EQ(chmod(dir().c_str(), 0555), 0);
  RunResult r = run_quarlo(dir(), {"-s", "40", "market.txt"});
  chmod(dir().c_str(), 0755);
  expect_log_open_failure(r, "Permission denied");
  EXPECT_EQ(list_dir(dir()), (std::vector<std::string>{"market.supp", "market.txt"}));
}

}  // namespace
