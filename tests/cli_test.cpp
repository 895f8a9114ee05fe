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

  // A missing option argument is skipped the same way.
  TempDir third;
  copy_file(data_path("cli/market.txt"), third.join("market.txt"));
  RunResult no_arg = run_quarlo(third.path(), {"-s", "40", "market.txt", "-m"});
  EXPECT_NE(no_arg.err.find("option requires an argument -- 'm'"), std::string::npos)
      << no_arg.err;
  EXPECT_EQ(no_arg.status, plain.status);
  EXPECT_EQ(mask_timings(no_arg.out), mask_timings(plain.out));
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

// Lines of `report` that start with `prefix`, in order.
std::vector<std::string> lines_starting(const std::string& report, const std::string& prefix) {
  std::vector<std::string> out;
  for (const std::string& line : split_lines(report)) {
    if (line.rfind(prefix, 0) == 0) out.push_back(line);
  }
  return out;
}

TEST_F(Cli, SuccessfulRunKeepsOnlyItsResults) {
  RunResult plain = run_quarlo(dir(), {"-s", "40", "market.txt"});
  ASSERT_EQ(plain.status, 0) << plain.out << plain.err;
  EXPECT_EQ(split_lines(plain.out).back(), kRule);
  EXPECT_EQ(list_dir(dir()), (std::vector<std::string>{"market.supp", "market.txt",
                                                       "market.txt.fp", "quarlo.log"}));

  // -x alone also keeps the PC list and leaves an empty TID list behind.
  RunResult maximal = run_quarlo(dir(), {"-s", "40", "-x", "market.txt"});
  ASSERT_EQ(maximal.status, 0) << maximal.out << maximal.err;
  EXPECT_EQ(list_dir(dir()),
            (std::vector<std::string>{"market.supp", "market.txt", "market.txt.fp",
                                      "market.txt.pc", "market.txt.tid", "quarlo.log"}));
  EXPECT_EQ(read_file(path("market.txt.tid")), "");
}

TEST_F(Cli, TimingBlockNamesOnlyTheStagesThatRan) {
  const std::string transform = "  Input File Transformation:                    #.### sec";
  const std::string patterns = "  Generating Frequent Pattern File:             #.### sec";
  const std::string pc_list = "  Generating PC List File:                      #.### sec";
  const std::string pruning = "  Pruning Non-Maximal Patterns:                 #.### sec";
  struct Case {
    std::vector<std::string> options;
    std::vector<std::string> timing_lines;
  };
  const Case cases[] = {
      {{}, {transform, patterns}},
      {{"-p"}, {transform, patterns, pc_list}},
      {{"-x"}, {transform, patterns, pc_list, pruning}},
      {{"-p", "-x"}, {transform, patterns, pc_list, pruning}},
  };
  for (const Case& c : cases) {
    TempDir run;
    copy_file(data_path("cli/market.txt"), run.join("market.txt"));
    std::vector<std::string> args = c.options;
    args.insert(args.end(), {"-s", "40", "market.txt"});
    RunResult r = run_quarlo(run.path(), args);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    std::vector<std::string> expected = {"", "Timing Information " + std::string(61, '-')};
    expected.insert(expected.end(), c.timing_lines.begin(), c.timing_lines.end());
    expected.push_back(kRule);
    std::vector<std::string> lines = split_lines(mask_timings(r.out));
    ASSERT_GE(lines.size(), expected.size());
    EXPECT_EQ(std::vector<std::string>(lines.end() - static_cast<long>(expected.size()),
                                       lines.end()),
              expected)
        << r.out;
    EXPECT_EQ(file_exists(run.join("market.txt.pc")), c.options.size() > 0);
  }
}

TEST_F(Cli, PerLengthCountsSkipAbsentLengths) {
  // Maximal patterns {a}, {b c} and {d e f g}: lengths 1, 2 and 4 only.
  quarlo_test::write_file(path("lengths.txt"), "a\na\nb c\nb c\nd e f g\nd e f g\n");
  RunResult r = run_quarlo(dir(), {"-s", "30", "-x", "lengths.txt"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(lines_starting(r.out, "  Number of Frequent Patterns["),
            (std::vector<std::string>{"  Number of Frequent Patterns[Length    1]      1",
                                      "  Number of Frequent Patterns[Length    2]      1",
                                      "  Number of Frequent Patterns[Length    4]      1"}));
  EXPECT_EQ(lines_starting(r.out, "  Number of Maximal Frequent Patterns:"),
            std::vector<std::string>{"  Number of Maximal Frequent Patterns:          3"});

  // Without -x every frequent pattern counts, and the pattern file comes
  // grouped by length.
  RunResult all = run_quarlo(dir(), {"-s", "30", "lengths.txt"});
  ASSERT_EQ(all.status, 0) << all.out << all.err;
  EXPECT_EQ(lines_starting(all.out, "  Number of Frequent Patterns["),
            (std::vector<std::string>{"  Number of Frequent Patterns[Length    1]      7",
                                      "  Number of Frequent Patterns[Length    2]      7",
                                      "  Number of Frequent Patterns[Length    3]      4",
                                      "  Number of Frequent Patterns[Length    4]      1"}));
  std::vector<std::string> patterns = split_lines(read_file(path("lengths.txt.fp")));
  ASSERT_EQ(patterns.size(), 19u);
  for (size_t i = 1; i < patterns.size(); ++i) {
    EXPECT_LE(std::stoul(patterns[i - 1]), std::stoul(patterns[i])) << patterns[i];
  }
}

TEST_F(Cli, SecondRunOverwritesThePatternFile) {
  RunResult first = run_quarlo(dir(), {"-s", "20", "market.txt"});
  ASSERT_EQ(first.status, 0) << first.out << first.err;
  const std::string many = read_file(path("market.txt.fp"));
  RunResult second = run_quarlo(dir(), {"-s", "80", "market.txt"});
  ASSERT_EQ(second.status, 0) << second.out << second.err;
  const std::string few = read_file(path("market.txt.fp"));
  // Three items reach 80 %; the file holds them alone, nothing of the first run.
  EXPECT_EQ(split_lines(few).size(), 3u) << few;
  EXPECT_GT(split_lines(many).size(), 3u);
}

TEST_F(Cli, FailedStagesEndWithStatus2AndTheirMessage) {
  RunResult missing = run_quarlo(dir(), {"-s", "40", "absent.txt"});
  EXPECT_EQ(missing.status, 2);
  std::vector<std::string> lines = split_lines(missing.out);
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(matches_regex(
      lines.back(), R"(quarlo\(\d+\) Fatal error in r_convert\(absent\.txt\.fp_conv, absent\.txt\.fp\))"))
      << missing.out;
  EXPECT_EQ(lines.front(), kRule);  // the banner came first
  EXPECT_TRUE(lines_starting(missing.out, "Timing Information").empty());

  RunResult no_table = run_quarlo(dir(), {"-S", "absent.supp", "market.txt"});
  EXPECT_EQ(no_table.status, 2);
  lines = split_lines(no_table.out);
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(matches_regex(lines.back(), R"(quarlo\(\d+\) Failed to find frequent patterns)"))
      << no_table.out;
  EXPECT_NE(no_table.out.find("fopen(absent.supp, \"r\"): No such file or directory\n"),
            std::string::npos)
      << no_table.out;
  EXPECT_TRUE(lines_starting(no_table.out, "Timing Information").empty());
  EXPECT_FALSE(file_exists(path("market.txt.fp")));

  // An empty FILE derives no names; the run must fail cleanly, not crash.
  TempDir run;
  RunResult empty = run_quarlo(run.path(), {"-s", "40", ""});
  EXPECT_EQ(empty.status, 2) << empty.err;
  lines = split_lines(empty.out);
  ASSERT_FALSE(lines.empty());
  EXPECT_TRUE(matches_regex(lines.back(), R"(quarlo\(\d+\) No file names can be derived from an empty FILE)"))
      << empty.out;
  EXPECT_EQ(list_dir(run.path()), std::vector<std::string>{"quarlo.log"});
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
