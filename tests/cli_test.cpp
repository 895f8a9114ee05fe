// Whole runs of the built program: usage and options, the report on the console
// and in quarlo.log, the status, last report lines, files left behind and their
// modes of every run that can be provoked from outside, and the groceries
// example against checked-in results. What the itemsets, parents and maximal
// itemsets are is checked through the library, which api_test holds to the program.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/harness.h"
#include "cli/options.h"

using namespace quarlo::cli;

namespace {

using quarlo_test::copy_file;
using quarlo_test::data_path;
using quarlo_test::list_dir;
using quarlo_test::mask_timings;
using quarlo_test::matches_pattern;
using quarlo_test::read_file;
using quarlo_test::run_quarlo;
using quarlo_test::RunResult;
using quarlo_test::source_path;
using quarlo_test::split_lines;
using quarlo_test::TempDir;

using Names = std::vector<std::string>;

const std::string kRule(80, '*');
const std::string kDir = "<dir>";    // setup entry made as a directory
const std::string kFifo = "<fifo>";  // setup entry made a named pipe

std::string example(const std::string& name) { return source_path("examples/" + name); }

// Copies the market-basket input "market.txt" and its table "market.supp"
// (1 60 / 2 40) into `to`.
void add_market(const std::string& to) {
  copy_file(data_path("cli/market.txt"), to + "/market.txt");
  copy_file(data_path("cli/market.supp"), to + "/market.supp");
}

// "  label:" padded so that the value starts in column 49, then the value.
std::string line(const std::string& label, const std::string& value) {
  std::string text = "  " + label + ":";
  text.resize(48, ' ');
  return text + value;
}

std::string count_line(unsigned length, unsigned count) {
  char text[80];
  snprintf(text, sizeof text, "  Number of Frequent Patterns[Length%5u]      %u", length, count);
  return text;
}

// The last lines of a successful run: `before`, then the timing block with
// the two stages that always run and the optional ones (1: the PC list,
// 2: the PC list and pruning), then the rule.
Names closing(Names before, int stages) {
  before.insert(before.end(),
                {"", "Timing Information -------------------------------------------------------------",
                 line("Input File Transformation", "#.### sec"),
                 line("Generating Frequent Pattern File", "#.### sec")});
  if (stages >= 1) before.push_back(line("Generating PC List File", "#.### sec"));
  if (stages >= 2) before.push_back(line("Pruning Non-Maximal Patterns", "#.### sec"));
  before.push_back(kRule);
  return before;
}

// The "Options" block: sizes, then the support lines, then -p and -x.
Names options_block(const std::string& max, Names support, bool pc, bool maximal,
                    const std::string& min = "1") {
  support.insert(support.begin(),
                 {"Options ------------------------------------------------------------------------",
                  line("Minimum Output Pattern Size", min), line("Maximum Output Pattern Size", max)});
  support.insert(support.end(), {line("PC List File Generation", pc ? "Generate" : "Skip"),
                                 line("Non-Maximal Frequent Pattern Pruning", maximal ? "Prune" : "Skip"),
                                 ""});
  return support;
}

// The mode a file gets from the stage that creates it (the runs have umask
// 0); 0 for files whose mode depends on which stage wrote them last.
unsigned created_mode(const std::string& name) {
  for (const auto& [suffix, mode] : {std::pair{".qr", 0666u}, {".log", 0666u}, {".conv", 0664u},
                                     {".fp", 0664u}, {".pc", 0664u}, {".tid", 0664u}}) {
    if (name.ends_with(suffix)) return mode;
  }
  return 0;
}

// One run in a fresh directory that holds market.txt and market.supp.
struct Scenario {
  const char* name;
  Names setup;  // pairs: file name, content (or kDir, kFifo)
  Names args;
  int status;
  bool full;    // `last` is everything after the banner (or the whole output
                // when there is none), not just its last lines
  Names last;   // patterns (see matches_pattern) of the final report lines
  Names left;   // the directory's entries afterwards, besides the inputs and quarlo.log
  Names empty;  // files of `left` that must be empty
  Names err = {};    // patterns of the lines on standard error
  Names shows = {};  // lines that stand together somewhere in the report
  unsigned long file_size_limit = 0;  // a full disk: no file may grow beyond this
};

// Inputs whose files outgrow a limit one after another: the converted text,
// the binary file, the pattern file, the PC list, the labelled pattern file.
std::string repeated(const std::string& line, int times) {
  std::string text;
  for (int i = 0; i < times; ++i) text += line;
  return text;
}
const std::string kLongText = repeated("alpha beta gamma delta epsilon\n", 3000);  // .conv 33 KB
const std::string kNumbers = repeated("0 1 2 3 4 5 6 7 8\n", 1000);  // .conv 19 KB, .qr 40 KB
const std::string kFourteen = "a b c d e f g h i j k l m n\n";  // -s 0: .fp_conv 0.55 MB, .pc 0.85 MB
const std::string kLongLabels = repeated(std::string(60, 'x') + "1 ", 1) +
                                repeated(std::string(60, 'y') + "2 ", 1) + std::string(60, 'z') +
                                " w v u t s\n";  // .fp_conv 7 KB, .fp 29 KB

const Names kMarket = {"market.supp", "market.txt", "quarlo.log"};
const std::string kConvertFatal =  // source line 78 converts FILE, 136 the patterns back
    "quarlo(%) Fatal error in r_convert(market.txt.fp_conv, market.txt.fp)";
std::string convert_fatal(const std::string& source_line) {
  std::string text = kConvertFatal;
  return text.replace(text.find('%'), 1, source_line);
}
const std::string kSupportTableFatal = "qr(#) Fatal error in init_freq_tbl()";
const std::string kNoPatterns = "quarlo(#) Failed to find frequent patterns";
const std::string kNoLattice = "quarlo(#) Failed to generate lattice data";
const std::string kNoLength1 =
    "../vscom/suppfunc(#) Support value for length=1 must be given in \"t.supp\"";
const std::string kNoTid = "quarlo(#) -t is not supported";
const Names kNoPcList = {line("Number of Frequent Patterns", "0"),
                         "../vscom/lattice(37) Failed to open market.txt.fp_conv", kNoLattice};
const Names kLogFailure = {"fopen: Is a directory", "../vscom/log(#): Cannot open log file"};
const Names kConvFiles = {"market.txt.conv", "market.txt.qr"};
const Names kStageFiles = {"market.txt.conv", "market.txt.fp_conv", "market.txt.pc"};
const Names kPruneFiles = {"market.txt.fp", "market.txt.pc", "market.txt.tid"};
const Names kMarketCounts = {count_line(1, 5), count_line(2, 8), count_line(3, 4)};
const Names kPruned =
    closing({line("Number of Maximal Frequent Patterns", "4"), count_line(3, 4)}, 2);

const Scenario kScenarios[] = {
    // The required line names the back-conversion; the cause goes to stderr,
    // and no empty FILE.conv is left.
    {"missing FILE", {}, {"-s", "40", "absent.txt"}, 2, true,
     {"quarlo(78) Fatal error in r_convert(absent.txt.fp_conv, absent.txt.fp)"}, {}, {},
     {"quarlo: absent.txt: No such file or directory"}},
    {"FILE is a directory", {"dir", kDir}, {"-s", "40", "dir"}, 2, true,
     {"quarlo(282) dir: is a directory"}, {"dir"}, {}},
    {"FILE is a named pipe", {"pipe", kFifo}, {"-s", "40", "pipe"}, 2, true,
     {"quarlo(282) pipe: is not a regular file"}, {"pipe"}, {}},
    {"empty FILE", {}, {"-s", "40", ""}, 2, true,
     {"quarlo(#) No file names can be derived from an empty FILE"}, {}, {}},
    {"missing support table", {}, {"-S", "absent.supp", "market.txt"}, 2, true,
     {"../vscom/suppfunc(#) fopen(absent.supp, \"r\"): No such file or directory",
      kSupportTableFatal, kNoPatterns},
     kConvFiles, {}},
    {"support table starting at length 2", {"t.supp", "2 50\n3 40\n"},
     {"-S", "t.supp", "-p", "-x", "market.txt"}, 2, true,
     {kNoLength1, kSupportTableFatal, kNoPatterns}, {"market.txt.conv", "market.txt.qr", "t.supp"},
     {}},
    // Reading stops above the number of distinct items (6), before "1 50".
    {"support table read up to length 7", {"t.supp", "7 10\n1 50\n"},
     {"-S", "t.supp", "market.txt"}, 2, true, {kNoLength1, kSupportTableFatal, kNoPatterns},
     {"market.txt.conv", "market.txt.qr", "t.supp"}, {}},
    {"FILE.conv on a full disk", {"t.txt", kLongText}, {"-s", "40", "t.txt"}, 2, true,
     {"quarlo(78) Fatal error in r_convert(t.txt.fp_conv, t.txt.fp)"}, {"t.txt", "t.txt.conv"}, {},
     {"quarlo: t.txt.conv: File too large"}, {}, 16384},
    {"FILE.qr is a directory", {"market.txt.qr", kDir}, {"-s", "40", "market.txt"}, 4, true,
     {"ttoqr(82) open(market.txt.qr): Is a directory"}, kConvFiles, {}},
    {"FILE.qr on a full disk", {"t.txt", kNumbers}, {"-s", "40", "t.txt"}, 4, true,
     {"ttoqr(103) write(*, *, 4): File too large"}, {"t.txt", "t.txt.conv", "t.txt.qr"}, {}, {}, {},
     30000},
    {"-1 between two items", {"seq.txt", "1 2\n3 -1 4\n5 6\n"}, {"-s", "10", "-x", "seq.txt"}, 4,
     true,
     {"ttoqr(#) Sequence with more than one itemsets detected",
      "ttoqr(#) Fatal error in tseq_to_vsseq()"},
     {"seq.txt", "seq.txt.conv", "seq.txt.qr"}, {}},
    {"FILE.fp_conv on a full disk", {"t.txt", kFourteen}, {"-s", "0", "t.txt"}, 2, false,
     {"iopttn(47) fclose() failed: File too large", "t.txt.fp_conv(0) Failed to close t.txt.fp_conv",
      kNoPatterns},
     {"t.txt", "t.txt.conv", "t.txt.fp_conv", "t.txt.qr"}, {}, {}, {}, 100000},
    // FILE.fp and FILE.pc are made under a temporary name and moved into
    // place whole; a failure leaves the earlier file as it was.
    {"FILE.fp is a directory", {"market.txt.fp", kDir}, {"-s", "50", "market.txt"}, 2, false,
     {count_line(2, 4), "quarlo(280) rename(market.txt.fp.tmp, market.txt.fp): Is a directory",
      convert_fatal("136")},
     {"market.txt.conv", "market.txt.fp", "market.txt.fp_conv"}, {},
     {"quarlo: market.txt.fp: Is a directory"}},
    {"FILE.fp on a full disk", {"t.txt", kLongLabels}, {"-s", "0", "t.txt"}, 2, false, {count_line(8, 1), "quarlo(136) Fatal error in r_convert(t.txt.fp_conv, t.txt.fp)"},
     {"t.txt", "t.txt.conv", "t.txt.fp_conv"}, {}, {"quarlo: t.txt.fp.tmp: File too large"},
     {}, 16384},
    {"FILE.pc is a directory", {"market.txt.pc", kDir}, {"-p", "-s", "40", "market.txt"}, 16,
     false, {"quarlo(280) rename(market.txt.pc.tmp, market.txt.pc): Is a directory", kNoLattice},
     kStageFiles, {}, {"quarlo: market.txt.pc: Is a directory"}},
    {"FILE.pc on a full disk", {"t.txt", kFourteen}, {"-x", "-s", "0", "t.txt"}, 16, false,
     {"../vscom/lattice(45) Failed to write t.txt.pc.tmp", kNoLattice},
     {"t.txt", "t.txt.conv", "t.txt.fp_conv"}, {}, {}, {}, 700000},
    // A stale pattern file of an earlier run is never read as this run's:
    // with nothing frequent there is no pattern file for the PC list.
    {"no frequent item with -p", {"market.txt.fp_conv", "0-0 5 100.000 1 \n"},
     {"-p", "-s", "90", "market.txt"}, 16, false, kNoPcList, {"market.txt.conv"}, {}},
    {"no frequent item with -x", {}, {"-x", "-s", "90", "market.txt"}, 16, false, kNoPcList,
     {"market.txt.conv"}, {}},
    {"-t", {}, {"-t", "x"}, 32, true, {kNoTid}, {}, {}},
    {"--tid-list", {}, {"--tid-list", "-x", "absent.txt"}, 32, true, {kNoTid}, {}, {}},
    // A log that cannot be opened (a directory defeats fopen for every user,
    // root included) stops the run before the banner, even with -t.
    {"quarlo.log is a directory", {"quarlo.log", kDir}, {"-s", "40", "market.txt"}, 1, true, {},
     {}, {}, kLogFailure},
    {"quarlo.log is a directory with -t", {"quarlo.log", kDir}, {"-t", "market.txt"}, 1, true, {},
     {}, {}, kLogFailure},
    {"no frequent item without -p or -x", {}, {"-s", "90", "market.txt"}, 0, false,
     closing({line("Number of Frequent Patterns", "0")}, 0), {"market.txt.fp"}, {"market.txt.fp"}},
    {"plain", {}, {"-s", "40", "market.txt"}, 0, false, closing(kMarketCounts, 0),
     {"market.txt.fp"}, {}, {},
     options_block("4294967295", {line("Constant Minimum Support", "40.000000")}, false, false)},
    {"-p", {}, {"-s", "40", "-p", "market.txt"}, 0, false, closing(kMarketCounts, 1),
     {"market.txt.fp", "market.txt.pc"}, {}},
    // -x keeps the PC list and leaves an empty TID list. Maximal patterns
    // {a}, {b c} and {d e f g}: the counts skip the absent lengths.
    {"-x", {"len.txt", "a\na\nb c\nb c\nd e f g\nd e f g\n"}, {"-s", "30", "-x", "len.txt"}, 0,
     false,
     closing({line("Number of Maximal Frequent Patterns", "3"), count_line(1, 1), count_line(2, 1),
              count_line(4, 1)},
             2),
     {"len.txt", "len.txt.fp", "len.txt.pc", "len.txt.tid"}, {"len.txt.tid"}},
    // Long forms; with a table a non-zero -s is shown and declared ignored,
    // a zero one is not shown; -M -1 wraps.
    {"-p -x with a table", {},
     {"--support=5", "--supptable", "market.supp", "--minsize=2", "--maxsize=-1",
      "--parent-children-list", "--maximal", "market.txt"},
     0, false, kPruned, kPruneFiles, {"market.txt.tid"}, {},
     options_block("4294967295",
                   {line("Length-Decreasing Support Constraint File", "market.supp"),
                    line("Constant Minimum Support",
                         "5.000000: Warning: Ignored: \"market.supp\" is given")},
                   true, true, "2")},
    {"zero -s with a table", {}, {"-s", "0", "-S", "market.supp", "-M", "3", "market.txt"}, 0,
     false, closing({count_line(1, 4), count_line(2, 8), count_line(3, 4)}, 0),
     {"market.txt.fp"}, {}, {},
     options_block("3", {line("Length-Decreasing Support Constraint File", "market.supp")}, false,
                   false)},
    // Unknown options and missing option arguments draw getopt's complaint
    // and are skipped; -b and -d have no effect; options may follow FILE.
    {"unknown option", {}, {"-q", "-s", "40", "-x", "market.txt"}, 0, false, kPruned, kPruneFiles,
     {"market.txt.tid"}, {"...: invalid option -- 'q'"}},
    {"option argument missing", {}, {"-s", "40", "-x", "market.txt", "-m"}, 0, false, kPruned,
     kPruneFiles, {"market.txt.tid"}, {"...: option requires an argument -- 'm'"}},
    {"-b and -d", {}, {"-b", "100", "-d", "/tmp", "-s", "40", "-x", "market.txt"}, 0, false, kPruned,
     kPruneFiles, {"market.txt.tid"}, {},
     options_block("4294967295", {line("Constant Minimum Support", "40.000000")}, false, true)},
    {"--bufsize and --dir", {},
     {"--bufsize=100", "--dir", "/tmp", "--support=40", "market.txt", "--maximal"}, 0, false,
     kPruned, kPruneFiles, {"market.txt.tid"}, {}},
    // Pruning that cannot replace a file reports it and the run goes on.
    {"FILE.tid is a directory", {"market.txt.tid", kDir}, {"-s", "40", "-x", "market.txt"}, 0,
     false,
     closing({"../vscom/maxpat(94) rename(market.txt.tid.tmp, market.txt.tid) failed: Is a directory",
              "../vscom/maxpat(95) Failed to remove unmaximal records from market.txt.tid",
              count_line(3, 4)},
             2),
     {"market.txt.fp", "market.txt.pc", "market.txt.tid", "market.txt.tid.tmp"},
     {"market.txt.tid.tmp"}},
    // Pruning that fails ends the run: no FILE.fp from unpruned patterns.
    {"pruning cannot make its temporary file", {"market.txt.fp_conv.tmp", kDir},
     {"-s", "40", "-x", "market.txt"}, 8, false,
     {"../vscom/maxpat(96) Failed to write market.txt.fp_conv.tmp: Is a directory",
      "../vscom/maxpat(95) Failed to remove unmaximal records from market.txt.fp_conv: Is a directory",
      "quarlo(90) Failed to prune unmaximal patterns"},
     {"market.txt.conv", "market.txt.fp_conv", "market.txt.fp_conv.tmp", "market.txt.pc"}, {}},
    // A stale temporary file, even a read-only one, is replaced.
    {"stale temporary file of the pruning", {"market.txt.fp_conv.tmp", "stale\n"},
     {"-s", "40", "-x", "market.txt"}, 0, false, kPruned, kPruneFiles, {"market.txt.tid"}},
};

// Matches `lines` against `patterns`, one each.
void expect_lines(const Names& lines, const Names& patterns, const std::string& text) {
  ASSERT_EQ(lines.size(), patterns.size()) << text;
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_TRUE(matches_pattern(lines[i], patterns[i]))
        << lines[i] << "\n  does not match " << patterns[i] << "\n" << text;
  }
}

// A failing run's report stops at its messages (no timing block, no closing
// rule) and, like every report, stands in quarlo.log exactly as on the console.
TEST(Runs, EachRunEndsWithItsStatusMessagesAndFiles) {
  for (const Scenario& run : kScenarios) {
    SCOPED_TRACE(run.name);
    TempDir d;
    add_market(d.path());
    for (size_t i = 0; i + 1 < run.setup.size(); i += 2) {
      const std::string name = d.join(run.setup[i]);
      if (run.setup[i + 1] == kDir) {
        std::filesystem::create_directory(name);
      } else if (run.setup[i + 1] == kFifo) {
        ASSERT_EQ(mkfifo(name.c_str(), 0644), 0);
      } else {
        quarlo_test::write_file(name, run.setup[i + 1]);
      }
    }
    RunResult r = run_quarlo(d.path(), run.args, run.file_size_limit);
    EXPECT_EQ(r.status, run.status);
    expect_lines(split_lines(r.err), run.err, r.err);
    Names lines = split_lines(r.out);
    if (!run.shows.empty()) {
      EXPECT_NE(std::search(lines.begin(), lines.end(), run.shows.begin(), run.shows.end()),
                lines.end()) << r.out;
    }
    if (run.status != 1 && run.status != 32) {  // refused before the banner
      ASSERT_GE(lines.size(), 3u) << r.out;
      EXPECT_EQ(lines[0], kRule);
      EXPECT_TRUE(matches_pattern(lines[1], "quarlo #.#.# - ...")) << lines[1];
      EXPECT_EQ(lines[2], "");
      lines.erase(lines.begin(), lines.begin() + 3);
    }
    if (!run.full && lines.size() > run.last.size()) {
      lines.erase(lines.begin(), lines.end() - static_cast<ptrdiff_t>(run.last.size()));
    }
    expect_lines(lines, run.last, r.out);
    if (run.status != 1) {
      EXPECT_EQ(read_file(d.join("quarlo.log")), r.out);
    }
    const Names names = list_dir(d.path());
    Names want = kMarket;
    want.insert(want.end(), run.left.begin(), run.left.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(names, want);
    for (const std::string& name : run.empty) EXPECT_EQ(read_file(d.join(name)), "") << name;
    for (const std::string& name : names) {
      struct stat st {};
      if (lstat(d.join(name).c_str(), &st) == 0 && S_ISREG(st.st_mode) && created_mode(name) != 0) {
        EXPECT_EQ(st.st_mode & 0777, created_mode(name)) << name;
      }
    }
  }
}

// A run directory holding market.txt and market.supp.
class Cli : public quarlo_test::TempDirTest {
 protected:
  void SetUp() override { add_market(dir()); }
};

TEST_F(Cli, HelpOrNoFilePrintsTheUsageOnlyAndExits1) {
  const std::string usage = read_file(source_path("tests/golden/usage_quarlo.txt"));
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

// The sibling miner's text: its own name and FILE paragraph, and -b, -d, -t.
TEST(UsageText, SiblingTextAddsItsOwnOptions) {
  const RunResult r = quarlo_test::run_forked([] {
    print_usage(1);
    return 0;
  });
  EXPECT_EQ(r.out, read_file(source_path("tests/golden/usage_vorsel.txt")));
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
  EXPECT_EQ(read_file(path("quarlo.log")), first.out + second.out + refused.out);
}

// The log cannot be opened: the reason goes to standard error only.
TEST_F(Cli, ReadOnlyDirectoryEndsTheRunWithStatus1) {
  if (geteuid() == 0) GTEST_SKIP() << "root writes into read-only directories";
  ASSERT_EQ(chmod(dir().c_str(), 0555), 0);
  RunResult r = run_quarlo(dir(), {"-s", "40", "market.txt"});
  chmod(dir().c_str(), 0755);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err.substr(0, r.err.find('\n')), "fopen: Permission denied");
  EXPECT_EQ(list_dir(dir()), (Names{"market.supp", "market.txt"}));
}

// A console that stops reading (quarlo ... | head) must not end the run: with
// standard output on a pipe whose reader is gone, the run still finishes with
// status 0, writes FILE.fp, removes its intermediate files and logs the whole
// report.
TEST_F(Cli, RunFinishesWhenStandardOutputIsABrokenPipe) {
  const std::string d = dir();
  copy_file(example("groceries.txt"), path("g.txt"));
  const RunResult r = quarlo_test::run_forked([&d] {
    int fds[2];
    if (pipe(fds) != 0 || chdir(d.c_str()) != 0) return 126;
    close(fds[0]);
    dup2(fds[1], STDOUT_FILENO);
    execl(QUARLO_BINARY, "quarlo", "-s", "20", "g.txt", static_cast<char*>(nullptr));
    return 127;
  });
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(list_dir(dir()), (Names{"g.txt", "g.txt.fp", "market.supp", "market.txt", "quarlo.log"}));
  EXPECT_NE(read_file(path("quarlo.log")).find("Timing Information"), std::string::npos);
}

// With standard error on a terminal, a progress line names the stages there
// and is cleared at the end; the report on standard output and the files stay
// those of a run without one.
TEST_F(Cli, ProgressLineShowsOnlyOnATerminalAndIsClearedAtTheEnd) {
  const std::string d = dir();
  copy_file(example("groceries.txt"), path("g.txt"));
  const RunResult plain = run_quarlo(d, {"-s", "20", "g.txt"});
  ASSERT_EQ(plain.status, 0);
  EXPECT_EQ(plain.err, "");
  const std::string fp = read_file(path("g.txt.fp"));
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  if (master < 0) GTEST_SKIP() << "no pseudo-terminal here";
  ASSERT_EQ(grantpt(master), 0);
  ASSERT_EQ(unlockpt(master), 0);
  const std::string terminal = ptsname(master);
  const RunResult r = quarlo_test::run_forked([&d, &terminal] {
    const int tty = open(terminal.c_str(), O_RDWR | O_NOCTTY);
    if (tty < 0 || chdir(d.c_str()) != 0) return 126;
    dup2(tty, STDERR_FILENO);
    execl(QUARLO_BINARY, "quarlo", "-s", "20", "g.txt", static_cast<char*>(nullptr));
    return 127;
  });
  std::string shown;
  char buf[4096];
  for (ssize_t n; (n = read(master, buf, sizeof buf)) > 0 && shown.size() < 65536;) {
    shown.append(buf, static_cast<size_t>(n));
    if (shown.ends_with("\r\033[K")) break;
  }
  close(master);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(mask_timings(r.out), mask_timings(plain.out));
  EXPECT_EQ(read_file(path("g.txt.fp")), fp);
  EXPECT_NE(shown.find("quarlo: mining"), std::string::npos) << shown;
  EXPECT_NE(shown.find("quarlo: the back-conversion"), std::string::npos) << shown;
  EXPECT_TRUE(shown.ends_with("\r\033[K")) << shown;
}

// QUARLO_THREADS changes neither the files nor the report; a value that is
// not a thread count is named on standard error and one thread mines.
TEST_F(Cli, ThreadCountFromTheEnvironmentKeepsEveryByte) {
  copy_file(example("groceries.txt"), path("g.txt"));
  copy_file(example("groceries.supp"), path("g.supp"));
  const Names args = {"-S", "g.supp", "-x", "g.txt"};
  unsetenv("QUARLO_THREADS");
  const RunResult one = run_quarlo(dir(), args);
  ASSERT_EQ(one.status, 0);
  const std::string fp = read_file(path("g.txt.fp"));
  const std::string pc = read_file(path("g.txt.pc"));
  for (const char* value : {"2", "3", "0", "two", "999"}) {
    setenv("QUARLO_THREADS", value, 1);
    const RunResult r = run_quarlo(dir(), args);
    unsetenv("QUARLO_THREADS");
    EXPECT_EQ(r.status, 0) << value;
    EXPECT_EQ(mask_timings(r.out), mask_timings(one.out)) << value;
    EXPECT_EQ(read_file(path("g.txt.fp")), fp) << value;
    EXPECT_EQ(read_file(path("g.txt.pc")), pc) << value;
    const bool counted = std::string(value) == "2" || std::string(value) == "3";
    EXPECT_EQ(r.err, counted ? "" : "quarlo: QUARLO_THREADS=" + std::string(value) +
                                        " is not a number from 1 to 256; mining on one thread\n");
  }
}

// The whole report below the banner (whose second line carries the version)
// and the files of the groceries example, against checked-in results.
TEST(Pipeline, GroceriesRunsMatchTheCheckedInResults) {
  for (const std::string option : {"x", "p"}) {
    SCOPED_TRACE(option);
    TempDir run;
    copy_file(example("groceries.txt"), run.join("groceries.txt"));
    copy_file(example("groceries.supp"), run.join("groceries.supp"));
    RunResult r = run_quarlo(run.path(), {"-S", "groceries.supp", "-" + option, "groceries.txt"});
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    Names lines = split_lines(mask_timings(r.out));
    ASSERT_GT(lines.size(), 3u);
    std::string body;
    for (size_t i = 3; i < lines.size(); ++i) body += lines[i] + "\n";
    const std::string golden = source_path("tests/golden/groceries." + option);
    EXPECT_EQ(body, read_file(golden + ".report"));
    EXPECT_EQ(read_file(run.join("groceries.txt.fp")), read_file(golden + ".fp"));
    EXPECT_EQ(read_file(run.join("groceries.txt.pc")), read_file(golden + ".pc"));
  }
}

}  // namespace
