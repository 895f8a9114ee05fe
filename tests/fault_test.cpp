// Faults a real machine has, provoked around whole runs of the program: a
// second run on the same FILE, a run killed half-way, too little memory, links
// at the intermediate names, a closed standard output. Each ends with the
// right result or a non-zero status and a line naming the file and the cause.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "quarlo/quarlo.h"
#include "support/harness.h"

namespace {

using quarlo_test::list_dir;
using quarlo_test::read_file;
using quarlo_test::RunResult;
using quarlo_test::run_forked;
using quarlo_test::run_quarlo;
using quarlo_test::write_file;

// Dense random transactions: at a low support they keep a run busy for a
// while and give millions of itemsets.
std::string dense(int lines) {
  std::mt19937 rng(11);
  std::string text;
  for (int l = 0; l < lines; ++l) {
    for (int item = 0; item < 24; ++item) {
      if (rng() % 10 < 7) text += std::to_string(item) + ' ';
    }
    text += '\n';
  }
  return text;
}

// The program with `args` in `dir`, started in the background with standard
// output on /dev/null, or closed.
pid_t start(const std::string& dir, const std::vector<std::string>& args, bool close_stdout = false) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  std::vector<std::string> strings = {QUARLO_BINARY};
  strings.insert(strings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);
  const int null = open("/dev/null", O_WRONLY);
  dup2(null, 1);
  if (close_stdout) close(1);
  if (chdir(dir.c_str()) != 0) _exit(126);
  execv(QUARLO_BINARY, argv.data());
  _exit(127);
}

class Faults : public quarlo_test::TempDirTest {};

TEST_F(Faults, SecondRunOnABusyFileStopsAtOnce) {
  write_file(path("b.txt"), "a b\nb c\n");
  const int fd = open(path("b.txt").c_str(), O_RDONLY);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);  // as a live run holds it
  RunResult r = run_quarlo(dir(), {"-s", "10", "b.txt"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.out.find("quarlo(284) b.txt is in use by another run\n"), std::string::npos) << r.out;
  EXPECT_EQ(list_dir(dir()), (std::vector<std::string>{"b.txt", "quarlo.log"}));
  close(fd);  // the lock goes with its holder
  EXPECT_EQ(run_quarlo(dir(), {"-s", "10", "b.txt"}).status, 0);
}

TEST_F(Faults, SignalRemovesTheRunsFilesAndKeepsTheEarlierResult) {
  write_file(path("d.txt"), dense(3000));
  ASSERT_EQ(run_quarlo(dir(), {"-s", "60", "-p", "d.txt"}).status, 0);
  const std::string fp = read_file(path("d.txt.fp"));
  const std::string pc = read_file(path("d.txt.pc"));
  for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
    const pid_t pid = start(dir(), {"-s", "1", "-p", "d.txt"});
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    kill(pid, sig);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) GTEST_SKIP() << "the run ended first";
    ASSERT_TRUE(WIFEXITED(status)) << sig;
    EXPECT_EQ(WEXITSTATUS(status), 128 + sig);
    EXPECT_EQ(list_dir(dir()), (std::vector<std::string>{"d.txt", "d.txt.fp", "d.txt.pc", "quarlo.log"}));
    EXPECT_EQ(read_file(path("d.txt.fp")), fp);
    EXPECT_EQ(read_file(path("d.txt.pc")), pc);
  }
}

TEST_F(Faults, RunningOutOfMemoryNamesTheStage) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's shadow memory does not fit under an address-space limit";
#else
  // 100,000 transactions over 20,000 items: the tree alone needs more.
  std::mt19937 rng(5);
  std::string text;
  for (int l = 0; l < 100000; ++l) {
    for (int i = 0; i < 10; ++i) text.append(std::to_string(rng() % 20000)).append(" ");
    text += '\n';
  }
  write_file(path("d.txt"), text);
  const std::string d = dir();
  RunResult r = run_forked([&d] {
    const struct rlimit limit = {32u << 20, 32u << 20};
    setrlimit(RLIMIT_AS, &limit);
    return run_quarlo(d, {"-s", "0", "-M", "2", "d.txt"}).status;
  });
  // The tree builder gets no block of nodes: the run ends with status 1 and
  // the stage's out-of-memory line, and no other report of the mining.
  EXPECT_EQ(r.status, 1);
  const std::string log = read_file(path("quarlo.log"));
  EXPECT_NE(log.find("quarlo(286) out of memory in mining\n"), std::string::npos) << log;
  EXPECT_EQ(log.find("Failed to find frequent patterns"), std::string::npos) << log;
  EXPECT_EQ(log.find("Fatal error"), std::string::npos) << log;
#endif
}

TEST_F(Faults, LinksAtIntermediateNamesAreNeverWrittenThrough) {
  write_file(path("g.txt"), "a b\nb c\na b c\n");
  write_file(path("victim"), "keep\n");
  for (const char* name : {"g.txt.conv", "g.txt.qr", "g.txt.fp_conv", "g.txt.fp_conv.tmp",
                           "g.txt.fp.tmp", "g.txt.pc.tmp"}) {
    ASSERT_EQ(symlink("victim", path(name).c_str()), 0);
  }
  EXPECT_EQ(run_quarlo(dir(), {"-s", "30", "-x", "g.txt"}).status, 0);
  EXPECT_EQ(read_file(path("victim")), "keep\n");
  EXPECT_EQ(read_file(path("g.txt.fp")), "2-0 1 33.333 a b c \n");
}

TEST_F(Faults, ClosedStandardOutputLeavesEachLineOnceInTheLog) {
  write_file(path("g.txt"), "a b\n");
  const pid_t pid = start(dir(), {"-s", "10", "g.txt"}, true);
  int status = -1;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(status, 0);
  const std::string log = read_file(path("quarlo.log"));
  EXPECT_EQ(log.find("Solution"), log.rfind("Solution"));
  EXPECT_NE(log.find("Solution"), std::string::npos);
}

// The numbered pattern file a failure leaves: as mining wrote it when the
// parent-children list fails, grouped by length when the back-conversion
// does (its output cannot be moved into place, or the disk is full). The
// library gives the same itemsets in both orders, by item numbers.
TEST_F(Faults, PatternFileLeftByAFailureIsAsItsStageLeftIt) {
  const std::string input = read_file(quarlo_test::source_path("examples/groceries.txt"));
  quarlo::Options o;
  o.support = quarlo::Support::percent(10);
  const auto t = quarlo::Transactions::from_file(quarlo_test::source_path("examples/groceries.txt"));
  auto line = [](uint32_t len, uint32_t ordinal, uint32_t support, uint32_t ntrans, const uint32_t* items) {
    char pct[32];
    snprintf(pct, sizeof pct, "%.3f", support * 100.0 / ntrans);
    std::string s = std::to_string(len - 1);
    s += '-';
    s += std::to_string(ordinal);
    s += ' ';
    s += std::to_string(support);
    s += ' ';
    s += pct;
    for (uint32_t i = 0; i < len; ++i) {
      s += ' ';
      s += std::to_string(items[i]);
    }
    s += '\n';
    return s;
  };
  const quarlo::Result r = quarlo::mine(t, o);
  std::string grouped;
  for (const quarlo::Itemset& s : r.itemsets) {
    grouped += line(s.items.size(), s.ordinal, s.support, r.stats.transactions, s.items.data());
  }
  std::string as_found;
  quarlo::mine(t, o, [&](const quarlo::PatternView& v) {
    as_found += line(v.length, v.ordinal, v.support, r.stats.transactions, v.items);
  });
  ASSERT_NE(grouped, as_found);
  const struct {
    const char* blocker;  // made a directory
    std::vector<std::string> args;
    unsigned long file_size_limit;
    int status;
    const std::string& left;
  } cases[] = {
      {"g.txt.pc", {"-p", "-s", "10", "g.txt"}, 0, 16, as_found},
      {"g.txt.fp", {"-s", "10", "g.txt"}, 0, 2, grouped},
      {nullptr, {"-s", "10", "g.txt"}, grouped.size() + 1, 2, grouped},
  };
  for (const auto& c : cases) {
    quarlo_test::TempDir d;
    write_file(d.join("g.txt"), input);
    if (c.blocker != nullptr) mkdir(d.join(c.blocker).c_str(), 0755);
    EXPECT_EQ(run_quarlo(d.path(), c.args, c.file_size_limit).status, c.status) << c.args[0];
    EXPECT_EQ(read_file(d.join("g.txt.fp_conv")), c.left) << c.args[0];
  }
}

}  // namespace
