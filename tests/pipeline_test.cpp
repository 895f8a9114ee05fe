// End-to-end tests of whole runs through the built program: the exit status
// of every stage that can be made to fail from outside, with its messages and
// the files it leaves; the parent-children list and maximal pruning of a run;
// and the demo example against checked-in results and a direct enumeration.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/harness.h"

namespace {

using quarlo_test::copy_file;
using quarlo_test::data_path;
using quarlo_test::golden_path;
using quarlo_test::list_dir;
using quarlo_test::mask_timings;
using quarlo_test::matches_regex;
using quarlo_test::read_file;
using quarlo_test::regex_escape;
using quarlo_test::run_quarlo;
using quarlo_test::RunResult;
using quarlo_test::split_lines;
using quarlo_test::TempDir;
using quarlo_test::write_file;

using Names = std::vector<std::string>;

const std::string kRule(80, '*');

std::string example_path(const std::string& name) {
  return std::string(QUARLO_SOURCE_DIR) + "/examples/" + name;
}

class Pipeline : public quarlo_test::TempDirTest {
 protected:
  std::string log() const { return read_file(path("quarlo.log")); }

  // The report of a run that stopped at a failing stage ends with `tail`
  // (regular expressions, one per line), has no timing block and no closing
  // rule, and stands in the log exactly as on the console.
  void expect_failure_report(const RunResult& r, const Names& tail) const {
    std::vector<std::string> lines = split_lines(r.out);
    ASSERT_GE(lines.size(), tail.size() + 2) << r.out;  // banner rule and name first
    EXPECT_EQ(lines.front(), kRule);
    for (size_t i = 0; i < tail.size(); ++i) {
      const std::string& line = lines[lines.size() - tail.size() + i];
      EXPECT_TRUE(matches_regex(line, tail[i])) << line << "\n  does not match " << tail[i];
    }
    EXPECT_EQ(r.out.find("Timing Information"), std::string::npos) << r.out;
    EXPECT_EQ(std::count(lines.begin(), lines.end(), kRule), 1) << r.out;
    EXPECT_EQ(log(), r.out);
  }
};

// ---------------------------------------------------------------------------
// Failing stages

TEST_F(Pipeline, SupportTableWithoutLengthOneEndsWith2) {
  // The second table never reaches length 1: reading stops at the length
  // above the number of distinct items (3).
  const std::string tables[] = {"2 50\n3 40\n", "5 10\n1 50\n"};
  for (const std::string& table : tables) {
    SCOPED_TRACE(table);
    write_file(path("basket.txt"), "1 2\n2 3\n1 2 3\n");
    write_file(path("t.supp"), table);
    RunResult r = run_quarlo(dir(), {"-S", "t.supp", "-p", "-x", "basket.txt"});
    EXPECT_EQ(r.status, 2);
    expect_failure_report(
        r, {R"(\.\./vscom/suppfunc\(\d+\) Support value for length=1 must be given in "t\.supp")",
            R"(qr\(130\) Fatal error in init_freq_tbl\(\))",
            R"(quarlo\(\d+\) Failed to find frequent patterns)"});
    // Mining failed: the converted and the binary file stay, nothing later exists.
    EXPECT_EQ(list_dir(dir()), (Names{"basket.txt", "basket.txt.conv", "basket.txt.qr",
                                      "quarlo.log", "t.supp"}));
    ASSERT_EQ(unlink(path("quarlo.log").c_str()), 0);
  }
}

TEST_F(Pipeline, ItemsetSeparatorInsideATransactionEndsWith4) {
  write_file(path("seq.txt"), "1 2\n3 -1 4\n5 6\n");
  RunResult r = run_quarlo(dir(), {"-s", "10", "-x", "seq.txt"});
  EXPECT_EQ(r.status, 4);
  // The binary writer names the cause; the driver adds nothing of its own,
  // and nothing stands between the banner and the cause.
  EXPECT_EQ(split_lines(r.out).size(), 5u) << r.out;
  expect_failure_report(r, {"", R"(ttoqr\(26\) Sequence with more than one itemsets detected)",
                            R"(ttoqr\(98\) Fatal error in tseq_to_vsseq\(\))"});
  EXPECT_EQ(list_dir(dir()), (Names{"quarlo.log", "seq.txt", "seq.txt.conv", "seq.txt.qr"}));
  // The reserved token passes the label conversion unchanged.
  EXPECT_NE(read_file(path("seq.txt.conv")).find(" -1 "), std::string::npos);
}

TEST_F(Pipeline, NoFrequentItemWithPcListEndsWith16) {
  const Names option_sets[] = {{"-p"}, {"-x"}, {"-p", "-x"}};
  for (const Names& options : option_sets) {
    SCOPED_TRACE(options.back() + " of " + std::to_string(options.size()));
    write_file(path("rare.txt"), "1 2\n3 4\n5 6\n");
    Names args = options;
    args.insert(args.end(), {"-s", "90", "rare.txt"});
    RunResult r = run_quarlo(dir(), args);
    EXPECT_EQ(r.status, 16);
    // The engine wrote no numbered pattern file, so the PC list cannot read it.
    expect_failure_report(r, {regex_escape("  Number of Frequent Patterns:                  0"),
                              regex_escape("../vscom/lattice(37) Failed to open rare.txt.fp_conv"),
                              R"(quarlo\(\d+\) Failed to generate lattice data)"});
    EXPECT_EQ(r.out.find("Number of Maximal"), std::string::npos) << r.out;
    // FILE.qr went after mining; FILE.conv stays; the PC list was opened
    // (created empty) before the failure was known; no pruning ran, so no
    // TID list file either.
    EXPECT_EQ(list_dir(dir()), (Names{"quarlo.log", "rare.txt", "rare.txt.conv", "rare.txt.pc"}));
    EXPECT_EQ(read_file(path("rare.txt.pc")), "");
    for (const std::string& name : list_dir(dir())) {
      if (name != "rare.txt") {
        ASSERT_EQ(unlink(path(name).c_str()), 0);
      }
    }
  }
}

TEST_F(Pipeline, FailureKeepsTheLogOfEarlierRuns) {
  write_file(path("rare.txt"), "1 2\n3 4\n5 6\n");
  RunResult ok = run_quarlo(dir(), {"-s", "30", "-p", "rare.txt"});
  ASSERT_EQ(ok.status, 0) << ok.out;
  RunResult failed = run_quarlo(dir(), {"-s", "90", "-p", "rare.txt"});
  ASSERT_EQ(failed.status, 16) << failed.out;
  EXPECT_EQ(log(), ok.out + failed.out);
  // The successful run's pattern file (6 items, 3 pairs) is still there;
  // its PC list was truncated by the failed run's open.
  EXPECT_EQ(split_lines(read_file(path("rare.txt.fp"))).size(), 9u);
  EXPECT_EQ(read_file(path("rare.txt.pc")), "");
}

// Source line of a "quarlo(N) ..." report line.
std::string report_line_number(const std::string& line) {
  return line.substr(line.find('(') + 1, line.find(')') - line.find('(') - 1);
}

TEST_F(Pipeline, FailedBackConversionEndsWith2AndKeepsTheIntermediateFiles) {
  write_file(path("basket.txt"), "1 2\n2 3\n1 2 3\n");
  ASSERT_EQ(mkdir(path("basket.txt.fp").c_str(), 0755), 0);  // the pattern file cannot be created
  RunResult r = run_quarlo(dir(), {"-s", "50", "basket.txt"});
  EXPECT_EQ(r.status, 2);
  const std::string message =
      R"(quarlo\(\d+\) Fatal error in r_convert\(basket\.txt\.fp_conv, basket\.txt\.fp\))";
  expect_failure_report(r, {message});
  // The counts by length came before; the converted and numbered pattern files stay.
  EXPECT_NE(r.out.find("  Number of Frequent Patterns[Length    2]      2\n"), std::string::npos)
      << r.out;
  EXPECT_EQ(list_dir(dir()), (Names{"basket.txt", "basket.txt.conv", "basket.txt.fp",
                                    "basket.txt.fp_conv", "quarlo.log"}));

  // The forward conversion reports the same text from a line of its own.
  TempDir other;
  RunResult missing = run_quarlo(other.path(), {"-s", "50", "basket.txt"});
  ASSERT_EQ(missing.status, 2);
  const std::string back = split_lines(r.out).back();
  const std::string forward = split_lines(missing.out).back();
  ASSERT_TRUE(matches_regex(forward, message)) << forward;
  EXPECT_NE(report_line_number(forward), report_line_number(back)) << forward << "\n" << back;
}

TEST_F(Pipeline, NoFrequentItemWithoutPostProcessingGivesAnEmptyPatternFile) {
  write_file(path("rare.txt"), "1 2\n3 4\n5 6\n");
  RunResult r = run_quarlo(dir(), {"-s", "90", "rare.txt"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("  Number of Frequent Patterns:                  0\n\nTiming Information"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("[Length"), std::string::npos);
  EXPECT_EQ(split_lines(r.out).back(), kRule);
  EXPECT_EQ(read_file(path("rare.txt.fp")), "");
  EXPECT_EQ(list_dir(dir()), (Names{"quarlo.log", "rare.txt", "rare.txt.fp"}));
}

// ---------------------------------------------------------------------------
// Pattern files read back

struct PatternLine {
  std::string id;       // "L-N"
  int support = 0;
  std::string percent;  // as written, "%.3f"
  std::set<std::string> items;
};

// Lines of a final pattern file: id, support, percentage, labels, each token
// followed by one blank.
std::vector<PatternLine> parse_patterns(const std::string& text) {
  std::vector<PatternLine> out;
  for (const std::string& line : split_lines(text)) {
    EXPECT_TRUE(!line.empty() && line.back() == ' ') << '"' << line << '"';
    std::istringstream in(line);
    PatternLine p;
    in >> p.id >> p.support >> p.percent;
    std::string label;
    while (in >> label) p.items.insert(label);
    out.push_back(p);
  }
  return out;
}

bool proper_subset(const std::set<std::string>& a, const std::set<std::string>& b) {
  return a.size() < b.size() && std::includes(b.begin(), b.end(), a.begin(), a.end());
}

std::vector<std::string> lines_starting(const std::string& report, const std::string& prefix) {
  std::vector<std::string> out;
  for (const std::string& line : split_lines(report)) {
    if (line.rfind(prefix, 0) == 0) out.push_back(line);
  }
  return out;
}

std::string count_line(const char* format, unsigned a, unsigned b = 0) {
  char buffer[128];
  std::snprintf(buffer, sizeof buffer, format, a, b);
  return buffer;
}

// ---------------------------------------------------------------------------
// Parent-children list and maximal pruning

// lattice.txt with lattice.supp (9 transactions; 30 % -> 3, 20 % -> 2,
// 10 % -> 1 from length 3 on): frequent are exactly {1} (support 3), {2} (4),
// {3} (5), {1 3} (2) and {1 2 3} (1); {1 2} and {2 3} (1 each) are not, and
// neither is item 0 (1). Labels 0..3 are numbered 0..3, so the numbered
// pattern file speaks in the same items.
class PipelineLattice : public Pipeline {
 protected:
  void SetUp() override {
    copy_file(data_path("pipeline/lattice.txt"), path("lattice.txt"));
    copy_file(data_path("pipeline/lattice.supp"), path("lattice.supp"));
  }
};

TEST_F(PipelineLattice, ParentsAreReachedThroughInfrequentSubsets) {
  RunResult r = run_quarlo(dir(), {"-S", "lattice.supp", "-p", "lattice.txt"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(read_file(path("lattice.txt.fp")),
            "0-0 3 33.333 1 \n"
            "0-1 4 44.444 2 \n"
            "0-2 5 55.556 3 \n"
            "1-0 2 22.222 1 3 \n"
            "2-0 1 11.111 1 2 3 \n");
  // {1 3} directly; {2 3} gives {3} and {2}; {1 2} gives {2} again
  // (skipped) and {1}.
  EXPECT_EQ(read_file(path("lattice.txt.pc")),
            "2-0 1-0 0-2 0-1 0-0\n"
            "1-0 0-2 0-0\n"
            "0-0\n"
            "0-1\n"
            "0-2\n");
  EXPECT_EQ(list_dir(dir()), (Names{"lattice.supp", "lattice.txt", "lattice.txt.fp",
                                    "lattice.txt.pc", "quarlo.log"}));
}

TEST_F(PipelineLattice, MaximalPruningKeepsThePatternNamedAsNobodysParent) {
  RunResult r = run_quarlo(dir(), {"-S", "lattice.supp", "-x", "lattice.txt"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(read_file(path("lattice.txt.fp")), "2-0 1 11.111 1 2 3 \n");
  EXPECT_EQ(read_file(path("lattice.txt.pc")),
            "2-0 1-0 0-2 0-1 0-0\n1-0 0-2 0-0\n0-0\n0-1\n0-2\n");
  EXPECT_EQ(lines_starting(r.out, "  Number of "),
            (Names{"  Number of Input Transactions:                 9",
                   "  Number of Distinct Items:                     4",
                   "  Number of Frequent Patterns:                  5",
                   "  Number of Maximal Frequent Patterns:          1",
                   "  Number of Frequent Patterns[Length    3]      1"}));
}

// Runs FILE with `table` twice, without and with -x, in separate directories,
// and checks that the -x pattern file holds exactly the patterns no other
// frequent pattern contains, with their lines unchanged, and that the report
// counts them.
void expect_maximal_run_keeps_uncontained(const std::string& input, const std::string& table) {
  SCOPED_TRACE(input);
  TempDir all_dir;
  TempDir max_dir;
  for (const TempDir* d : {&all_dir, &max_dir}) {
    copy_file(input, d->join("in.txt"));
    copy_file(table, d->join("in.supp"));
  }
  RunResult all = run_quarlo(all_dir.path(), {"-S", "in.supp", "in.txt"});
  RunResult max = run_quarlo(max_dir.path(), {"-S", "in.supp", "-x", "in.txt"});
  ASSERT_EQ(all.status, 0) << all.out;
  ASSERT_EQ(max.status, 0) << max.out;

  const std::vector<PatternLine> every = parse_patterns(read_file(all_dir.join("in.txt.fp")));
  const std::vector<PatternLine> kept = parse_patterns(read_file(max_dir.join("in.txt.fp")));
  ASSERT_FALSE(kept.empty());

  std::vector<std::string> expected_ids;
  for (const PatternLine& p : every) {
    bool contained = std::any_of(every.begin(), every.end(), [&](const PatternLine& q) {
      return proper_subset(p.items, q.items);
    });
    if (!contained) expected_ids.push_back(p.id);
  }
  std::vector<std::string> kept_ids;
  for (const PatternLine& p : kept) kept_ids.push_back(p.id);
  EXPECT_EQ(kept_ids, expected_ids);

  // Pruning drops lines; those it keeps are the full run's lines as they were.
  const std::vector<std::string> all_lines = split_lines(read_file(all_dir.join("in.txt.fp")));
  for (const std::string& line : split_lines(read_file(max_dir.join("in.txt.fp")))) {
    EXPECT_NE(std::find(all_lines.begin(), all_lines.end(), line), all_lines.end()) << line;
  }

  EXPECT_EQ(lines_starting(max.out, "  Number of Maximal Frequent Patterns:"),
            Names{count_line("  Number of Maximal Frequent Patterns:          %u",
                             static_cast<unsigned>(kept.size()))});
  // The per-length lines count the kept patterns only.
  std::map<unsigned, unsigned> by_length;
  for (const PatternLine& p : kept) ++by_length[static_cast<unsigned>(p.items.size())];
  Names expected_counts;
  for (const auto& [length, count] : by_length) {
    expected_counts.push_back(
        count_line("  Number of Frequent Patterns[Length%5u]      %u", length, count));
  }
  EXPECT_EQ(lines_starting(max.out, "  Number of Frequent Patterns["), expected_counts);
}

TEST(PipelineMaximal, KeepsExactlyThePatternsNoOtherFrequentPatternContains) {
  expect_maximal_run_keeps_uncontained(example_path("groceries.txt"),
                                       example_path("groceries.supp"));
  expect_maximal_run_keeps_uncontained(data_path("pipeline/lattice.txt"),
                                       data_path("pipeline/lattice.supp"));
  // Subsets of frequent patterns missing at several levels.
  expect_maximal_run_keeps_uncontained(data_path("pipeline/gaps.txt"),
                                       data_path("pipeline/gaps.supp"));
}

// ---------------------------------------------------------------------------
// The demo example

// Runs the example with `options` in a fresh directory; returns the report.
RunResult run_groceries(const TempDir& run, const Names& options) {
  copy_file(example_path("groceries.txt"), run.join("groceries.txt"));
  copy_file(example_path("groceries.supp"), run.join("groceries.supp"));
  Names args = {"-S", "groceries.supp"};
  args.insert(args.end(), options.begin(), options.end());
  args.push_back("groceries.txt");
  return run_quarlo(run.path(), args);
}

// The report below the banner (whose second line carries the version), with
// timing figures masked.
std::string report_body(const std::string& out) {
  std::vector<std::string> lines = split_lines(mask_timings(out));
  std::string body;
  for (size_t i = 3; i < lines.size(); ++i) body += lines[i] + "\n";
  return body;
}

TEST(PipelineGroceries, MaximalRunMatchesTheCheckedInResults) {
  TempDir run;
  RunResult r = run_groceries(run, {"-x"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(split_lines(r.out).front(), kRule);
  EXPECT_EQ(report_body(r.out), read_file(golden_path("groceries.x.report")));
  EXPECT_EQ(read_file(run.join("groceries.txt.fp")), read_file(golden_path("groceries.x.fp")));
  EXPECT_EQ(read_file(run.join("groceries.txt.pc")), read_file(golden_path("groceries.x.pc")));
  EXPECT_EQ(read_file(run.join("groceries.txt.tid")), "");
}

TEST(PipelineGroceries, PcListRunMatchesTheCheckedInResults) {
  TempDir run;
  RunResult r = run_groceries(run, {"-p"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(split_lines(r.out).front(), kRule);
  EXPECT_EQ(report_body(r.out), read_file(golden_path("groceries.p.report")));
  EXPECT_EQ(read_file(run.join("groceries.txt.fp")), read_file(golden_path("groceries.p.fp")));
  EXPECT_EQ(read_file(run.join("groceries.txt.pc")), read_file(golden_path("groceries.p.pc")));
  // Pruning works on the same list: -x and -p make the same PC list.
  EXPECT_EQ(read_file(golden_path("groceries.x.pc")), read_file(golden_path("groceries.p.pc")));
}

// Every itemset over the example's items whose support reaches the minimum
// of its length, counted directly from the transactions.
std::map<std::set<std::string>, int> enumerate_frequent(const std::string& transactions,
                                                        const std::vector<int>& minimum) {
  std::vector<std::set<std::string>> trans;
  std::set<std::string> universe;
  for (const std::string& line : split_lines(transactions)) {
    std::istringstream in(line);
    std::set<std::string> t;
    std::string label;
    while (in >> label) t.insert(label);
    universe.insert(t.begin(), t.end());
    trans.push_back(t);
  }
  const std::vector<std::string> items(universe.begin(), universe.end());
  std::map<std::set<std::string>, int> out;
  for (unsigned mask = 1; mask < (1u << items.size()); ++mask) {
    std::set<std::string> candidate;
    for (size_t i = 0; i < items.size(); ++i) {
      if (mask & (1u << i)) candidate.insert(items[i]);
    }
    int support = 0;
    for (const auto& t : trans) {
      if (std::includes(t.begin(), t.end(), candidate.begin(), candidate.end())) ++support;
    }
    size_t length = std::min(candidate.size(), minimum.size());
    if (support >= minimum[length - 1]) out[candidate] = support;
  }
  return out;
}

TEST(PipelineGroceries, PatternFileHoldsExactlyTheFrequentItemsets) {
  TempDir run;
  RunResult r = run_groceries(run, {});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const std::string transactions = read_file(example_path("groceries.txt"));
  ASSERT_EQ(split_lines(transactions).size(), 25u);
  // 25 transactions: 20 % -> 5, 16 % -> 4, 12 % -> 3, 8 % -> 2 (the products
  // are whole numbers) and 2 for every longer length.
  const std::map<std::set<std::string>, int> expected =
      enumerate_frequent(transactions, {5, 4, 3, 2});

  const std::vector<PatternLine> patterns = parse_patterns(read_file(run.join("groceries.txt.fp")));
  std::map<std::set<std::string>, int> found;
  std::map<size_t, unsigned> next_ordinal;
  size_t previous_length = 0;
  for (const PatternLine& p : patterns) {
    EXPECT_TRUE(found.emplace(p.items, p.support).second) << p.id << " repeated";
    // Grouped by length, each group numbered from 0 in file order.
    const size_t length = p.items.size();
    EXPECT_GE(length, previous_length) << p.id;
    previous_length = length;
    EXPECT_EQ(p.id, std::to_string(length - 1) + "-" + std::to_string(next_ordinal[length]++));
    char percent[32];
    std::snprintf(percent, sizeof percent, "%.3f", p.support * 100.0 / 25);
    EXPECT_EQ(p.percent, percent) << p.id;
  }
  EXPECT_EQ(found, expected);
  EXPECT_EQ(lines_starting(r.out, "  Number of Frequent Patterns:"),
            Names{count_line("  Number of Frequent Patterns:                  %u",
                             static_cast<unsigned>(expected.size()))});
}

}  // namespace
