// The reporter: each line to the log file first, then to standard output.
// The log stream is process-wide, so every case runs in a forked child and
// inspects what the child left on its standard streams and in the log file.
#include "log.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "support/harness.h"

namespace {

using quarlo_test::matches_regex;
using quarlo_test::read_file;
using quarlo_test::run_forked;
using quarlo_test::RunResult;
using quarlo_test::split_lines;
using quarlo_test::write_file;

class Reporter : public quarlo_test::TempDirTest {
 protected:
  std::string log_path() const { return path("quarlo.log"); }
};

TEST_F(Reporter, EachLineGoesToLogAndStdoutWithNewline) {
  RunResult r = run_forked([&] {
    if (log_open(log_path().c_str()) != 0) return 9;
    log_printf("%s(%u) Fatal error in %s()", "../vscom/x", 12u, "init_freq_tbl");
    log_printf("  Value:%*d", 5, 42);
    log_printf("%s", "");
    return 0;
  });
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string expected = "../vscom/x(12) Fatal error in init_freq_tbl()\n  Value:   42\n\n";
  EXPECT_EQ(r.out, expected);
  EXPECT_EQ(read_file(log_path()), expected);
  EXPECT_EQ(r.err, "");
}

TEST_F(Reporter, FormatEndingInNewlineLeavesAnEmptyLine) {
  RunResult r = run_forked([&] {
    log_open(log_path().c_str());
    log_printf("%s(%u) getopt returned invalid character code 0x%x\n", "m", 7u, 0x51u);
    log_printf("next");
    return 0;
  });
  ASSERT_EQ(r.status, 0);
  const std::string expected = "m(7) getopt returned invalid character code 0x51\n\nnext\n";
  EXPECT_EQ(r.out, expected);
  EXPECT_EQ(read_file(log_path()), expected);
}

TEST_F(Reporter, PerrorAppendsTheSystemErrorText) {
  RunResult r = run_forked([&] {
    log_open(log_path().c_str());
    errno = ENOENT;
    log_perror("%s(%d) unlink(%s)", "quarlo", 88, "a.b.qr");
    errno = EACCES;
    log_perror("%s(%u) fopen(%s, \"r\")", "../vscom/suppfunc", 9u, "tbl");
    return 0;
  });
  ASSERT_EQ(r.status, 0);
  const std::string expected =
      "quarlo(88) unlink(a.b.qr): No such file or directory\n"
      "../vscom/suppfunc(9) fopen(tbl, \"r\"): Permission denied\n";
  EXPECT_EQ(r.out, expected);
  EXPECT_EQ(read_file(log_path()), expected);
}

TEST_F(Reporter, PerrorReportsTheErrorOfTheFailedCall) {
  // A real failed call, as the stages report it.
  RunResult r = run_forked([&] {
    log_open(log_path().c_str());
    if (unlink(path("missing").c_str()) == 0) return 9;
    log_perror("%s(%d) unlink(%s)", "quarlo", 1, "missing");
    return 0;
  });
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "quarlo(1) unlink(missing): No such file or directory\n");
}

TEST_F(Reporter, PerrorKeepsErrnoFromBeforeTheReporterRuns) {
  // Standard output is closed with output pending, so the reporter's own
  // flush of stdout fails and sets errno to EBADF; the appended text must
  // still name the error the caller saw.
  RunResult r = run_forked([&] {
    log_open(log_path().c_str());
    fputs("pending", stdout);
    close(STDOUT_FILENO);
    errno = ENOENT;
    log_perror("unlink(%s)", "x");
    return 0;
  });
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(read_file(log_path()), "unlink(x): No such file or directory\n");
}

TEST_F(Reporter, LogIsCompleteWhenTheProcessDiesAbruptly) {
  // The log is flushed after every line; standard output only before the
  // next one, so a process that dies leaves the log complete.
  RunResult r = run_forked([&] {
    log_open(log_path().c_str());
    log_printf("first");
    log_printf("second");
    _exit(3);
    return 0;
  });
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(read_file(log_path()), "first\nsecond\n");
  EXPECT_EQ(r.out, "first\n");
}

TEST_F(Reporter, OpenAppendsToAnExistingLog) {
  write_file(log_path(), "earlier run\n");
  RunResult r = run_forked([&] {
    if (log_open(log_path().c_str()) != 0) return 9;
    log_printf("later run");
    return 0;
  });
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(read_file(log_path()), "earlier run\nlater run\n");
}

TEST_F(Reporter, BeforeOpenLinesReachStdoutOnly) {
  RunResult r = run_forked([&] {
    log_printf("early %d", 1);
    errno = ENOENT;
    log_perror("early %d", 2);
    return 0;
  });
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "early 1\nearly 2: No such file or directory\n");
  EXPECT_EQ(r.err, "");
}

TEST_F(Reporter, NullNameMakesStandardErrorTheLog) {
  RunResult r = run_forked([&] {
    if (log_open(nullptr) != 0) return 9;
    log_printf("both %s", "ways");
    return 0;
  });
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "both ways\n");
  EXPECT_EQ(r.err, "both ways\n");
}

TEST_F(Reporter, OpenFailureExplainsOnStderrOnly) {
  struct Case {
    std::string name;
    std::string system_text;
  };
  const Case cases[] = {
      {path("no-such-dir/quarlo.log"), "fopen: No such file or directory\n"},
      {dir(), "fopen: Is a directory\n"},
  };
  for (const Case& c : cases) {
    RunResult r = run_forked([&] { return log_open(c.name.c_str()); });
    EXPECT_EQ(r.status, 1) << c.name;
    EXPECT_EQ(r.out, "") << c.name;
    std::vector<std::string> lines = split_lines(r.err);
    ASSERT_EQ(lines.size(), 2u) << r.err;
    EXPECT_EQ(lines[0] + "\n", c.system_text);
    EXPECT_TRUE(matches_regex(lines[1], R"(\.\./vscom/log\(\d+\): Cannot open log file)"))
        << lines[1];
  }
}

TEST_F(Reporter, ExitingVariantsReportThenExitWithStatus2) {
  RunResult plain = run_forked([&] {
    log_open(log_path().c_str());
    log_printf_exit("%s(%u) gone", "m", 3u);
    return 0;
  });
  EXPECT_EQ(plain.status, 2);
  EXPECT_EQ(plain.out, "m(3) gone\n");

  RunResult with_errno = run_forked([&] {
    log_open(log_path().c_str());
    errno = ENOENT;
    log_perror_exit("%s(%u) fopen(%s, \"r\")", "m", 4u, "f");
    return 0;
  });
  EXPECT_EQ(with_errno.status, 2);
  EXPECT_EQ(with_errno.out, "m(4) fopen(f, \"r\"): No such file or directory\n");
  EXPECT_EQ(read_file(log_path()), "m(3) gone\nm(4) fopen(f, \"r\"): No such file or directory\n");
}

TEST_F(Reporter, LongReportsComeOutWhole) {
  // Reports up to the 4095-byte limit (newline included) and beyond it come
  // out unchanged; the error text is appended after the whole message.
  const std::string at_limit(4094, 'a');
  const std::string beyond(6000, 'b');
  RunResult r = run_forked([&] {
    log_open(log_path().c_str());
    log_printf("%s", at_limit.c_str());
    errno = ENOENT;
    log_perror("%s", beyond.c_str());
    return 0;
  });
  ASSERT_EQ(r.status, 0);
  const std::string expected = at_limit + "\n" + beyond + ": No such file or directory\n";
  EXPECT_EQ(r.out, expected);
  EXPECT_EQ(read_file(log_path()), expected);
}

}  // namespace
