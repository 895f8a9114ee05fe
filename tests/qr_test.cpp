// Engine entry: the report blocks it prints, the pattern file it leaves, and
// the fatal-error lines of its stages.
#include "qr.h"

#include <sys/stat.h>

#include <cstdio>

#include "support/engine.h"

namespace {

using namespace quarlo_test;

class Engine : public TempDirTest {
 protected:
  RunResult Run(const std::vector<std::string>& args) {
    set_options(args, input());
    return run_engine();
  }
  std::string input() const { return path("shop.txt"); }
  std::string patterns() const { return input() + ".fp_conv"; }
  // A report line: two spaces, the label padded to 46 columns, the value.
  static std::string Field(const std::string& label, const std::string& value) {
    return "  " + label + std::string(46 - label.size(), ' ') + value + "\n";
  }
};

// The input block opens the report, directly followed by the options; the
// solution block ends it and names the PC list only with -p. Without frequent
// items no pattern file is made.
TEST_F(Engine, ReportsInputOptionsAndSolution) {
  const std::vector<Items> chain = {{0, 1, 2}, {0, 1, 2}, {0, 1}, {0, 1}, {0}};
  const struct {
    std::vector<Items> records;
    std::vector<std::string> args;
    std::string ntrans, nitems, avg, max;
    size_t npatterns;
  } cases[] = {{chain, {"-s", "40"}, "5", "3", "2.200", "3", 7},
               {chain, {"-s", "40", "-p"}, "5", "3", "2.200", "3", 7},
               {{}, {"-s", "10"}, "0", "0", "0.000", "0", 0},
               {{{1}, {2}, {3}}, {"-s", "50"}, "3", "4", "1.000", "1", 0}};
  for (const auto& c : cases) {
    std::remove(patterns().c_str());
    write_qr(input() + ".qr", c.records);
    const RunResult r = Run(c.args);
    ASSERT_EQ(r.status, 0) << r.out;
    const std::string head =
        "Transaction File Information ---------------------------------------------------\n" +
        Field("Transaction File Name:", input()) +
        Field("Number of Input Transactions:", c.ntrans) +
        Field("Number of Distinct Items:", c.nitems) +
        Field("Average Number of Items In a Tran:", c.avg) +
        Field("Maximum Number of Items In a Tran:", c.max) +
        "\nOptions ------------------------------------------------------------------------\n";
    EXPECT_EQ(r.out.substr(0, head.size()), head);
    const std::string tail =
        "Solution -----------------------------------------------------------------------\n" +
        Field("Frequent Pattern File:", input() + ".fp") +
        (c.args.size() == 3 ? Field("PC List File:", input() + ".pc") : "") +
        Field("Number of Frequent Patterns:", std::to_string(c.npatterns));
    EXPECT_EQ(r.out.substr(r.out.size() - std::min(tail.size(), r.out.size())), tail);
    EXPECT_EQ(file_exists(patterns()), c.npatterns > 0);
    EXPECT_EQ(read_lines(patterns()).size(), c.npatterns);
  }
}

// Counts 4, 3, 1 of 8 for lengths 1, 2, 3. Item 3 is cut by path pruning; {2}
// (support 3 < 4) is not written, but its conditional tree gives {1, 2} and
// {0, 1, 2}; {0} comes last.
TEST_F(Engine, SupportTableFromFileDecreasesWithLength) {
  write_qr(input() + ".qr", {{0}, {0}, {0}, {0}, {1, 2}, {1, 2}, {0, 1, 2}, {3}});
  write_file(path("supp"), "1 50\n2 30\n3 10\n");
  ASSERT_EQ(Run({"-S", path("supp")}).status, 0);
  EXPECT_EQ(read_file(patterns()), "1-0 3 37.500 1 2\n2-0 1 12.500 0 1 2\n0-0 5 62.500 0\n");
}

// Each failing stage ends the report with its fatal-error line; a missing
// binary file fails before anything else is reported.
TEST_F(Engine, FatalErrorsEndTheReport) {
  const struct {
    std::vector<Items> records;  // written as FILE.qr unless empty
    std::string table;           // written and passed with -S unless empty
    bool pattern_dir;            // FILE.fp_conv is a directory
    std::string report;          // regular expression of the whole report
  } cases[] = {
      {{}, "", false, R"(qr\(106\) Fatal error in load_trandb\(\)\n)"},
      {{{0, 1}}, "2 5.0\n", false, R"([\s\S]*\nqr\(130\) Fatal error in init_freq_tbl\(\)\n)"},
      {{{0, 1}},
       "",
       true,
       R"([\s\S]*\niopttn\(26\) fopen\()" + regex_escape(patterns()) +
           R"(\): Is a directory\nqr\(177\) Failed to open .*\n)"},
  };
  for (const auto& c : cases) {
    item_count = 4;
    if (!c.records.empty()) write_qr(input() + ".qr", c.records);
    std::vector<std::string> args;
    if (!c.table.empty()) {
      write_file(path("supp"), c.table);
      args = {"-S", path("supp")};
    }
    if (c.pattern_dir) {
      ASSERT_EQ(mkdir(patterns().c_str(), 0700), 0);
    }
    const RunResult r = Run(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(matches_regex(r.out, c.report)) << r.out;
  }
}

}  // namespace
