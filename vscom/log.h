// Console and log reporting: every report line goes to the log file first and
// then to standard output, so "quarlo.log" holds a copy of every console report.
// Owns the process-wide log stream (null until log_open succeeds).
#ifndef QUARLO_VSCOM_LOG_H_
#define QUARLO_VSCOM_LOG_H_

#include <string_view>

#include "report.h"

// Opens `name` for appending as the log stream; a null name makes standard
// error the log stream. Returns 0, or 1 after printing the cause on stderr.
int log_open(const char* name);

// One report line: formatted, newline appended, stdout flushed, written to the
// log and then to stdout, log flushed. Before log_open only stdout gets it.
void log_printf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// As log_printf with ": " and the text of the errno current at the call appended.
void log_perror(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The program's reporter: report lines go through log_printf, traces to
// standard error as they come.
class LogReporter : public Reporter {
 public:
  void line(std::string_view text) override;
  void trace(std::string_view text) override;
};

#endif  // QUARLO_VSCOM_LOG_H_
