// End-to-end tests of whole runs through the built program: the exit status,
// closing report lines and files left behind of every run that can be
// provoked from outside, the parent-children list and maximal pruning, and
// the groceries example against checked-in results and a direct enumeration.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/harness.h"

namespace {

using quarlo_test::copy_file;
using quarlo_test::file_exists;
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

using Names = std::vector<std::string>;

const std::string kRule(80, '*');
const std::string kDirectory = "<dir>";  // Scenario::setup entry made as a directory

std::string example_path(const std::string& name) {
  return std::string(QUARLO_SOURCE_DIR) + "/examples/" + name;
}

// "  label:" padded so that the value starts in column 49.
std::string head(const std::string& label) {
  std::string text = "  " + label + ":";
  text.resize(48, ' ');
  return text;
}

std::string timing(const std::string& stage) {
  return regex_escape(head(stage)) + R"(\d+\.\d{3} sec)";
}

// The last lines of a successful run: `before`, then the timing block with
// the two stages that always run and the optional `stages`, then the rule.
Names closing(Names before, const Names& stages) {
  before.insert(before.end(), {"", "Timing Information -{61}", timing("Input File Transformation"),
                               timing("Generating Frequent Pattern File")});
  before.insert(before.end(), stages.begin(), stages.end());
  before.push_back(regex_escape(kRule));
  return before;
}

Names sorted_union(Names names, const Names& more) {
  names.insert(names.end(), more.begin(), more.end());
  std::sort(names.begin(), names.end());
  return names;
}

// One run in a fresh directory that holds market.txt and market.supp.
struct Scenario {
  const char* name;
  Names setup;  // pairs: file name, content (kDirectory for a directory)
  Names args;
  int status;
  bool full;     // `last` is everything after the banner (or the whole output
                 // when there is none), not just its last lines
  Names last;    // regular expressions for the final report lines
  Names left;    // the directory's entries afterwards, besides the inputs and quarlo.log
  Names empty;   // files of `left` that must be empty
};

const Names kMarket = {"market.supp", "market.txt", "quarlo.log"};
const std::string kSupportTableFatal = R"(qr\(\d+\) Fatal error in init_freq_tbl\(\))";
const std::string kNoPatterns = R"(quarlo\(\d+\) Failed to find frequent patterns)";
const std::string kNoLength1 =
    R"(\.\./vscom/suppfunc\(\d+\) Support value for length=1 must be given in "t\.supp")";
const Names kNoPcList = {regex_escape(head("Number of Frequent Patterns")) + "0",
                         R"(\.\./vscom/lattice\(\d+\) Failed to open market\.txt\.fp_conv)",
                         R"(quarlo\(\d+\) Failed to generate lattice data)"};

const Scenario kScenarios[] = {
    {"missing FILE", {}, {"-s", "40", "absent.txt"}, 2, true,
     {R"(quarlo\(\d+\) Fatal error in r_convert\(absent\.txt\.fp_conv, absent\.txt\.fp\))"},
     {"absent.txt.conv"}, {}},
    {"empty FILE", {}, {"-s", "40", ""}, 2, true,
     {R"(quarlo\(\d+\) No file names can be derived from an empty FILE)"}, {}, {}},
    {"missing support table", {}, {"-S", "absent.supp", "market.txt"}, 2, true,
     {R"(\.\./vscom/suppfunc\(\d+\) fopen\(absent\.supp, "r"\): No such file or directory)",
      kSupportTableFatal, kNoPatterns},
     {"market.txt.conv", "market.txt.qr"}, {}},
    {"support table starting at length 2", {"t.supp", "2 50\n3 40\n"},
     {"-S", "t.supp", "-p", "-x", "market.txt"}, 2, true,
     {kNoLength1, kSupportTableFatal, kNoPatterns}, {"market.txt.conv", "market.txt.qr", "t.supp"},
     {}},
    // Reading stops above the number of distinct items (6), before "1 50".
    {"support table read up to length 7", {"t.supp", "7 10\n1 50\n"},
     {"-S", "t.supp", "market.txt"}, 2, true, {kNoLength1, kSupportTableFatal, kNoPatterns},
     {"market.txt.conv", "market.txt.qr", "t.supp"}, {}},
    {"pattern file cannot be created", {"market.txt.fp", kDirectory}, {"-s", "50", "market.txt"},
     2, false,
     {regex_escape("  Number of Frequent Patterns[Length    2]      4"),
      R"(quarlo\(\d+\) Fatal error in r_convert\(market\.txt\.fp_conv, market\.txt\.fp\))"},
     {"market.txt.conv", "market.txt.fp", "market.txt.fp_conv"}, {}},
    {"-1 between two items", {"seq.txt", "1 2\n3 -1 4\n5 6\n"}, {"-s", "10", "-x", "seq.txt"}, 4,
     true,
     {R"(ttoqr\(\d+\) Sequence with more than one itemsets detected)",
      R"(ttoqr\(\d+\) Fatal error in tseq_to_vsseq\(\))"},
     {"seq.txt", "seq.txt.conv", "seq.txt.qr"}, {}},
    // FILE.qr goes after mining; the PC list is created before the missing
    // pattern file is noticed; no pruning runs, so there is no FILE.tid.
    {"no frequent item with -p", {}, {"-p", "-s", "90", "market.txt"}, 16, false, kNoPcList,
     {"market.txt.conv", "market.txt.pc"}, {"market.txt.pc"}},
    {"no frequent item with -x", {}, {"-x", "-s", "90", "market.txt"}, 16, false, kNoPcList,
     {"market.txt.conv", "market.txt.pc"}, {"market.txt.pc"}},
    {"no frequent item with -p -x", {}, {"-p", "-x", "-s", "90", "market.txt"}, 16, false,
     kNoPcList, {"market.txt.conv", "market.txt.pc"}, {"market.txt.pc"}},
    {"-t", {}, {"-t", "x"}, 32, true, {R"(quarlo\(\d+\) -t is not supported)"}, {}, {}},
    {"--tid-list", {}, {"--tid-list", "-x", "absent.txt"}, 32, true,
     {R"(quarlo\(\d+\) -t is not supported)"}, {}, {}},
    {"no frequent item without -p or -x", {}, {"-s", "90", "market.txt"}, 0, false,
     closing({regex_escape(head("Number of Frequent Patterns")) + "0"}, {}), {"market.txt.fp"},
     {"market.txt.fp"}},
    {"plain", {}, {"-s", "40", "market.txt"}, 0, false, closing({}, {}), {"market.txt.fp"}, {}},
    {"-p", {}, {"-s", "40", "-p", "market.txt"}, 0, false,
     closing({}, {timing("Generating PC List File")}), {"market.txt.fp", "market.txt.pc"}, {}},
    // -x alone keeps the PC list and leaves an empty TID list.
    {"-x", {}, {"-s", "40", "-x", "market.txt"}, 0, false,
     closing({}, {timing("Generating PC List File"), timing("Pruning Non-Maximal Patterns")}),
     {"market.txt.fp", "market.txt.pc", "market.txt.tid"}, {"market.txt.tid"}},
    {"-p -x", {}, {"-s", "40", "-p", "-x", "market.txt"}, 0, false,
     closing({}, {timing("Generating PC List File"), timing("Pruning Non-Maximal Patterns")}),
     {"market.txt.fp", "market.txt.pc", "market.txt.tid"}, {"market.txt.tid"}},
};

// Source line of a "quarlo(N) ..." report line.
std::string source_line(const std::string& line) {
  return line.substr(line.find('(') + 1, line.find(')') - line.find('(') - 1);
}

// A failing run's report stops at its messages (no timing block, no closing
// rule) and, like every report, stands in quarlo.log exactly as on the console.
TEST(Pipeline, EachRunEndsWithItsStatusMessagesAndFiles) {
  std::map<std::string, std::string> final_lines;
  for (const Scenario& run : kScenarios) {
    SCOPED_TRACE(run.name);
    TempDir d;
    copy_file(data_path("cli/market.txt"), d.join("market.txt"));
    copy_file(data_path("cli/market.supp"), d.join("market.supp"));
    for (size_t i = 0; i + 1 < run.setup.size(); i += 2) {
      if (run.setup[i + 1] == kDirectory) {
        std::filesystem::create_directory(d.join(run.setup[i]));
      } else {
        quarlo_test::write_file(d.join(run.setup[i]), run.setup[i + 1]);
      }
    }
    RunResult r = run_quarlo(d.path(), run.args);
    EXPECT_EQ(r.status, run.status);
    EXPECT_EQ(r.err, "");
    Names lines = split_lines(r.out);
    if (run.status != 32) {  // -t is refused before the banner
      ASSERT_GE(lines.size(), 3u) << r.out;
      EXPECT_EQ(lines[0], kRule);
      EXPECT_TRUE(matches_regex(lines[1], R"(quarlo \d+\.\d+\.\d+ - .+)")) << lines[1];
      EXPECT_EQ(lines[2], "");
      lines.erase(lines.begin(), lines.begin() + 3);
    }
    if (run.full) {
      EXPECT_EQ(lines.size(), run.last.size()) << r.out;
    }
    ASSERT_GE(lines.size(), run.last.size()) << r.out;
    const size_t first = lines.size() - run.last.size();
    for (size_t i = 0; i < run.last.size(); ++i) {
      EXPECT_TRUE(matches_regex(lines[first + i], run.last[i]))
          << lines[first + i] << "\n  does not match " << run.last[i] << "\n" << r.out;
    }
    EXPECT_EQ(read_file(d.join("quarlo.log")), r.out);
    EXPECT_EQ(list_dir(d.path()), sorted_union(kMarket, run.left));
    for (const std::string& name : run.empty) EXPECT_EQ(read_file(d.join(name)), "") << name;
    if (!lines.empty()) final_lines[run.name] = lines.back();
  }
  // The forward and the back conversion fail with the same text, each from a
  // source line of its own.
  EXPECT_NE(source_line(final_lines["missing FILE"]),
            source_line(final_lines["pattern file cannot be created"]));
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

Names lines_starting(const std::string& report, const std::string& prefix) {
  Names out;
  for (const std::string& line : split_lines(report)) {
    if (line.rfind(prefix, 0) == 0) out.push_back(line);
  }
  return out;
}

// Runs `options` on copies of `input` and `table` in `run`; returns the report.
RunResult run_on(const TempDir& run, const std::string& input, const std::string& table,
                 const Names& options) {
  copy_file(input, run.join("in.txt"));
  copy_file(table, run.join("in.supp"));
  Names args = {"-S", "in.supp"};
  args.insert(args.end(), options.begin(), options.end());
  args.push_back("in.txt");
  return run_quarlo(run.path(), args);
}

// A console that stops reading (quarlo ... | head) must not end the run: with
// standard output on a pipe whose reader is gone, the run still finishes with
// status 0, writes FILE.fp, removes its intermediate files and logs the whole
// report.
TEST(Pipeline, RunFinishesWhenStandardOutputIsABrokenPipe) {
  TempDir dir;
  copy_file(example_path("groceries.txt"), dir.join("g.txt"));
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  close(fds[0]);
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, STDERR_FILENO);
    if (chdir(dir.path().c_str()) != 0) _exit(126);
    execl(QUARLO_BINARY, "quarlo", "-s", "20", "g.txt", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_TRUE(file_exists(dir.join("g.txt.fp")));
  EXPECT_FALSE(file_exists(dir.join("g.txt.conv")));
  EXPECT_FALSE(file_exists(dir.join("g.txt.fp_conv")));
  EXPECT_NE(read_file(dir.join("quarlo.log")).find("Timing Information"), std::string::npos);
}

// A full disk must not pass for success: with one output file at a time
// pointing at /dev/full, the stage writing it fails the run with its status
// (2, or 16 for the PC list) and message, instead of leaving a truncated file
// behind.
TEST(Pipeline, WriteFailuresOfTheOutputFilesFailTheirStage) {
  const struct {
    const char* file;     // made a link to /dev/full
    const char* message;  // last line of the report
  } cases[] = {
      {"g.txt.conv", R"(quarlo\(\d+\) Fatal error in r_convert\(g\.txt\.fp_conv, g\.txt\.fp\))"},
      {"g.txt.fp_conv", R"(quarlo\(\d+\) Failed to find frequent patterns)"},
      {"g.txt.fp", R"(quarlo\(\d+\) Fatal error in r_convert\(g\.txt\.fp_conv, g\.txt\.fp\))"},
      {"g.txt.pc", R"(quarlo\(\d+\) Failed to generate lattice data)"},
  };
  for (const auto& c : cases) {
    TempDir dir;
    copy_file(example_path("groceries.txt"), dir.join("g.txt"));
    ASSERT_EQ(symlink("/dev/full", dir.join(c.file).c_str()), 0);
    RunResult r = run_quarlo(dir.path(), {"-s", "20", "-x", "g.txt"});
    EXPECT_EQ(r.status, std::string(c.file) == "g.txt.pc" ? 16 : 2) << c.file << "\n" << r.out;
    const Names lines = split_lines(r.out);
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(matches_regex(lines.back(), c.message)) << c.file << ": " << lines.back();
  }
}

// ---------------------------------------------------------------------------
// Parent-children list and maximal pruning

// lattice.txt with lattice.supp (9 transactions; 30 % -> 3, 20 % -> 2, 10 % -> 1
// from length 3 on): frequent are exactly {1} (3), {2} (4), {3} (5), {1 3} (2)
// and {1 2 3} (1); {1 2}, {2 3} and {0} are not. Labels 0..3 are numbered
// 0..3, so the numbered pattern file speaks in the same items.
TEST(Pipeline, PcListReachesParentsThroughInfrequentSubsets) {
  // {1 3} directly; {2 3} gives {3} and {2}; {1 2} gives {2} again (skipped) and {1}.
  const std::string pc_list = "2-0 1-0 0-2 0-1 0-0\n1-0 0-2 0-0\n0-0\n0-1\n0-2\n";
  TempDir listed;
  ASSERT_EQ(run_on(listed, data_path("pipeline/lattice.txt"), data_path("pipeline/lattice.supp"),
                   {"-p"}).status, 0);
  EXPECT_EQ(read_file(listed.join("in.txt.fp")),
            "0-0 3 33.333 1 \n"
            "0-1 4 44.444 2 \n"
            "0-2 5 55.556 3 \n"
            "1-0 2 22.222 1 3 \n"
            "2-0 1 11.111 1 2 3 \n");
  EXPECT_EQ(read_file(listed.join("in.txt.pc")), pc_list);

  // Pruning keeps only {1 2 3}, the one pattern no line names as a parent.
  TempDir pruned;
  RunResult r = run_on(pruned, data_path("pipeline/lattice.txt"),
                       data_path("pipeline/lattice.supp"), {"-x"});
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(read_file(pruned.join("in.txt.fp")), "2-0 1 11.111 1 2 3 \n");
  EXPECT_EQ(read_file(pruned.join("in.txt.pc")), pc_list);
  EXPECT_EQ(lines_starting(r.out, "  Number of "),
            (Names{"  Number of Input Transactions:                 9",
                   "  Number of Distinct Items:                     4",
                   "  Number of Frequent Patterns:                  5",
                   "  Number of Maximal Frequent Patterns:          1",
                   "  Number of Frequent Patterns[Length    3]      1"}));
}

TEST(Pipeline, MaximalRunKeepsExactlyThePatternsNoOtherFrequentPatternContains) {
  const std::pair<std::string, std::string> inputs[] = {
      {example_path("groceries.txt"), example_path("groceries.supp")},
      {data_path("pipeline/lattice.txt"), data_path("pipeline/lattice.supp")},
      // Subsets of frequent patterns missing at several levels.
      {data_path("pipeline/gaps.txt"), data_path("pipeline/gaps.supp")},
  };
  for (const auto& [input, table] : inputs) {
    SCOPED_TRACE(input);
    TempDir all_dir;
    TempDir max_dir;
    ASSERT_EQ(run_on(all_dir, input, table, {}).status, 0);
    RunResult max = run_on(max_dir, input, table, {"-x"});
    ASSERT_EQ(max.status, 0) << max.out;

    const Names all_lines = split_lines(read_file(all_dir.join("in.txt.fp")));
    const std::vector<PatternLine> every = parse_patterns(read_file(all_dir.join("in.txt.fp")));
    Names expected;  // the full run's lines of the uncontained patterns, unchanged
    for (size_t i = 0; i < every.size(); ++i) {
      const std::set<std::string>& p = every[i].items;
      if (std::none_of(every.begin(), every.end(), [&](const PatternLine& q) {
            return q.items.size() > p.size() &&
                   std::includes(q.items.begin(), q.items.end(), p.begin(), p.end());
          })) {
        expected.push_back(all_lines[i]);
      }
    }
    const Names kept = split_lines(read_file(max_dir.join("in.txt.fp")));
    ASSERT_FALSE(kept.empty());
    EXPECT_EQ(kept, expected);
    EXPECT_EQ(lines_starting(max.out, "  Number of Maximal"),
              Names{head("Number of Maximal Frequent Patterns") + std::to_string(kept.size())});
  }
}

// ---------------------------------------------------------------------------
// The groceries example

TEST(Pipeline, GroceriesRunsMatchTheCheckedInResults) {
  for (const std::string option : {"x", "p"}) {
    SCOPED_TRACE(option);
    TempDir run;
    copy_file(example_path("groceries.txt"), run.join("groceries.txt"));
    copy_file(example_path("groceries.supp"), run.join("groceries.supp"));
    RunResult r = run_quarlo(run.path(), {"-S", "groceries.supp", "-" + option, "groceries.txt"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    // Below the banner, whose second line carries the version.
    Names lines = split_lines(mask_timings(r.out));
    ASSERT_GT(lines.size(), 3u);
    std::string body;
    for (size_t i = 3; i < lines.size(); ++i) body += lines[i] + "\n";
    const std::string golden = golden_path("groceries." + option);
    EXPECT_EQ(body, read_file(golden + ".report"));
    EXPECT_EQ(read_file(run.join("groceries.txt.fp")), read_file(golden + ".fp"));
    EXPECT_EQ(read_file(run.join("groceries.txt.pc")), read_file(golden + ".pc"));
  }
}

// Every itemset over the transactions' items whose support reaches the
// minimum of its length (the last minimum for all longer lengths).
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
  const Names items(universe.begin(), universe.end());
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
    if (support >= minimum[std::min(candidate.size(), minimum.size()) - 1]) {
      out[candidate] = support;
    }
  }
  return out;
}

TEST(Pipeline, GroceriesPatternFileHoldsExactlyTheEnumeratedFrequentItemsets) {
  TempDir run;
  RunResult r = run_on(run, example_path("groceries.txt"), example_path("groceries.supp"), {});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const std::string transactions = read_file(example_path("groceries.txt"));
  ASSERT_EQ(split_lines(transactions).size(), 25u);
  // 25 transactions: 20 % -> 5, 16 % -> 4, 12 % -> 3, 8 % -> 2 (whole products).
  const auto expected = enumerate_frequent(transactions, {5, 4, 3, 2});

  std::map<std::set<std::string>, int> found;
  std::map<size_t, unsigned> next_ordinal;
  size_t previous_length = 0;
  for (const PatternLine& p : parse_patterns(read_file(run.join("in.txt.fp")))) {
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
            Names{head("Number of Frequent Patterns") + std::to_string(expected.size())});
}

}  // namespace
