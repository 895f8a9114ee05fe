// Console and log reporting: every report line goes to the log file first and
// then to standard output, so "quarlo.log" holds a copy of every console report.
// A Console owns the run's log stream (null until open_log succeeds) and the
// progress line's state; the driver holds the one Console of a run.
#ifndef QUARLO_CLI_LOG_H_
#define QUARLO_CLI_LOG_H_

#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "base/report.h"

namespace quarlo::cli {

using namespace quarlo::detail;

class Console {
 public:
  Console() = default;
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;
  ~Console();

  // Opens `name` for appending as the log stream; a null name makes standard
  // error the log stream. False after printing the cause on stderr.
  bool open_log(const char* name);

  // One report line: formatted, newline appended, stdout flushed, written to
  // the log and then to stdout, log flushed. Before open_log only stdout gets it.
  void printf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  // As printf with ": " and the text of the errno current at the call appended.
  void perror(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  // The progress line: when standard error is a terminal (and only then),
  // one line there names the stage running and, while mining, the share of
  // the top-level items done; it is rewritten in place at most ten times a
  // second and cleared before any report line or trace and at the end.
  void progress_start();
  void progress_stage(const char* stage);
  void progress_share(uint32_t done, uint32_t total);
  void progress_clear();
  // progress_clear for a signal handler (async-signal-safe).
  void progress_clear_on_signal() const;

 private:
  struct Progress {
    bool on = false;
    volatile sig_atomic_t shown = false;  // a line stands on the terminal now
    const char* stage = "";
    double last = 0.0;  // when it was last written
  };

  void report(bool with_errno, const char* fmt, va_list args);
  void show_progress(const char* text);

  FILE* log_ = nullptr;
  Progress progress_;
};

// The program's reporter: report lines go through the console, traces to
// standard error as they come.
class LogReporter : public Reporter {
 public:
  explicit LogReporter(Console* console) : console_(console) {}
  void line(std::string_view text) override;
  void trace(std::string_view text) override;

 private:
  Console* console_;
};

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_LOG_H_
