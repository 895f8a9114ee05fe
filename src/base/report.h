// Diagnostics of the library: every stage reports through a Reporter that its
// caller supplies, never to a stream of its own. The program forwards report
// lines to the console and the log and traces to standard error; the public
// API collects them into the message of the error it raises. No state.
#ifndef QUARLO_BASE_REPORT_H_
#define QUARLO_BASE_REPORT_H_

#include <string>
#include <string_view>
#include <vector>

namespace quarlo::detail {

class Reporter {
 public:
  virtual ~Reporter() = default;

  // One line of the run report, without its newline.
  virtual void line(std::string_view text) = 0;
  // Text of a call trace (the low-level modules' diagnostics), with whatever
  // newlines it carries.
  virtual void trace(std::string_view text) = 0;

  // line() of the formatted text.
  void printf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  // line() of the formatted text, ": " and the text of the current errno.
  void perror(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  // trace() of the formatted text.
  void tracef(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  // trace() of "call: " plus the text of the current errno and a newline.
  void trace_errno(const char* call);
};

// Keeps every line and trace, in order; the library's own default.
class CollectingReporter : public Reporter {
 public:
  void line(std::string_view text) override { lines_.emplace_back(text); }
  void trace(std::string_view text) override;
  // Everything reported so far, one line each, joined by "; ".
  std::string summary() const;
  const std::vector<std::string>& lines() const { return lines_; }

 private:
  std::vector<std::string> lines_;
};

}  // namespace quarlo::detail

#endif  // QUARLO_BASE_REPORT_H_
