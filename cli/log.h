// Console and log reporting: every report line goes to the log file first and
// then to standard output, so "quarlo.log" holds a copy of every console report.
// Owns the process-wide log stream (null until log_open succeeds) and the
// progress line's state.
#ifndef QUARLO_CLI_LOG_H_
#define QUARLO_CLI_LOG_H_

#include <cstdint>
#include <string_view>

#include "base/report.h"

namespace quarlo::cli {

// The program is written against the library's internals.
using namespace quarlo::detail;

// Opens `name` for appending as the log stream; a null name makes standard
// error the log stream. Returns 0, or 1 after printing the cause on stderr.
int log_open(const char* name);

// One report line: formatted, newline appended, stdout flushed, written to the
// log and then to stdout, log flushed. Before log_open only stdout gets it.
void log_printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// As log_printf with ": " and the text of the errno current at the call appended.
void log_perror(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The progress line: when standard error is a terminal (and only then),
// one line there names the stage running and, while mining, the share of
// the top-level items done; it is rewritten in place at most ten times a
// second and cleared before any report line or trace and at the end.
void progress_start();
void progress_stage(const char* stage);
void progress_share(uint32_t done, uint32_t total);
void progress_clear();
// progress_clear for a signal handler (async-signal-safe).
void progress_clear_on_signal();

// The program's reporter: report lines go through log_printf, traces to
// standard error as they come.
class LogReporter : public Reporter {
 public:
  void line(std::string_view text) override;
  void trace(std::string_view text) override;
};

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_LOG_H_
