// The console reporter: each line to the log file first, then to standard
// output; traces go to standard error only. The log stream is process-wide,
// so every case runs in a forked child. Whole runs check the log's mirroring
// and a log that cannot be opened.
#include "log.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "support/harness.h"

namespace {

using quarlo_test::read_file;
using quarlo_test::run_forked;
using quarlo_test::RunResult;

class ConsoleLog : public quarlo_test::TempDirTest {
 protected:
  std::string log_path() const { return path("quarlo.log"); }
};

TEST_F(ConsoleLog, EachLineIsAppendedToTheLogAndWrittenToStdout) {
  quarlo_test::write_file(log_path(), "earlier run\n");
  // Reports up to the 4095-byte limit (newline included) and beyond it come
  // out unchanged; the error text is appended after the whole message.
  const std::string name = log_path(), at_limit(4094, 'a'), beyond(6000, 'b');
  RunResult r = run_forked([&] {
    if (log_open(name.c_str()) != 0) return 9;
    log_printf("%s(%u) Fatal error in %s()", "../vscom/x", 12u, "init_freq_tbl");
    log_printf("  Value:%*d", 5, 42);
    log_printf("%s", "");
    log_printf("code 0x%x\n", 0x51u);  // a format's own newline leaves an empty line
    errno = ENOENT;
    log_perror("%s(%d) unlink(%s)", "quarlo", 88, "a.b.qr");
    log_printf("%s", at_limit.c_str());
    errno = ENOENT;
    log_perror("%s", beyond.c_str());
    LogReporter rep;
    rep.printf("via %s", "reporter");
    errno = EACCES;
    rep.perror("fopen(%s, \"r\")", "tbl");
    rep.tracef("trace %d\n", 1);
    rep.line(std::string_view("50%s and more", 4));  // plain text, up to its length
    return 0;
  });
  ASSERT_EQ(r.status, 0) << r.err;
  const std::string expected =
      "../vscom/x(12) Fatal error in init_freq_tbl()\n  Value:   42\n\ncode 0x51\n\n"
      "quarlo(88) unlink(a.b.qr): No such file or directory\n" +
      at_limit + "\n" + beyond + ": No such file or directory\n" +
      "via reporter\nfopen(tbl, \"r\"): Permission denied\n50%s\n";
  EXPECT_EQ(r.out, expected);
  EXPECT_EQ(read_file(log_path()), "earlier run\n" + expected);
  EXPECT_EQ(r.err, "trace 1\n");
}

TEST_F(ConsoleLog, LogIsCompleteAndKeepsErrnoWhenStdoutFails) {
  // The log is flushed after every line, standard output only before the
  // next one, so a process that dies leaves the log complete. With standard
  // output closed and "second" pending, the reporter's own flush of stdout
  // fails and sets errno to EBADF; the appended text must still name the
  // error the caller saw.
  const std::string name = log_path();
  RunResult r = run_forked([&name] {
    if (log_open(name.c_str()) != 0) return 9;
    log_printf("first");
    log_printf("second");
    close(STDOUT_FILENO);
    errno = ENOENT;
    log_perror("unlink(%s)", "x");
    _exit(3);
  });
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(read_file(log_path()), "first\nsecond\nunlink(x): No such file or directory\n");
  EXPECT_EQ(r.out, "first\n");
}

}  // namespace
