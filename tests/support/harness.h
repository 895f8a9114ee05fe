// Shared helpers for the test suites: a temporary directory that cleans up
// after itself, whole-file read/write, line splitting, the captured output of
// a code block or of the built program, and the paths of the checked-in
// fixtures. Every test executable links these helpers; nothing here holds
// state between calls.
#ifndef QUARLO_TESTS_SUPPORT_HARNESS_H_
#define QUARLO_TESTS_SUPPORT_HARNESS_H_

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace quarlo_test {

// A fresh directory under the system's temporary directory, removed with all
// its contents (permissions restored first) when the object goes away.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // Absolute path of the directory, without a trailing slash.
  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string join(const std::string& name) const;

 private:
  std::string path_;
};

// Fixture base: each test gets its own TempDir.
class TempDirTest : public ::testing::Test {
 protected:
  const std::string& dir() const { return tmp_.path(); }
  std::string path(const std::string& name) const { return tmp_.join(name); }

 private:
  TempDir tmp_;
};

// What a process (or a forked code block) left behind.
struct RunResult {
  int status = -1;  // exit status; 128 + signal number when killed by a signal
  std::string out;  // everything written to standard output
  std::string err;  // everything written to standard error
};

// Runs the built program (compile definition QUARLO_BINARY) with the working
// directory `dir` and the arguments `args` (argv[0] is supplied), standard
// input from /dev/null; waits for it and returns its status and output. The
// arguments reach the program unchanged: no shell is involved.
RunResult run_quarlo(const std::string& dir, const std::vector<std::string>& args);

// Runs `body` in a forked child with standard output and standard error
// captured; the child exits with body's result (or with the status of an
// exit() inside body). Use it for code that exits or touches process-wide
// state that must not leak into the other tests.
RunResult run_forked(const std::function<int()>& body);

// Whole file as bytes. Fails the current test (and returns "") when the file
// cannot be read.
std::string read_file(const std::string& path);
// Creates or truncates `path` with exactly `content`; fails the test on error.
void write_file(const std::string& path, const std::string& content);
bool file_exists(const std::string& path);
// Copies a file byte for byte (e.g. a fixture into a TempDir); fails the test on error.
void copy_file(const std::string& from, const std::string& to);
// Names of the entries of `dir` (without "." and ".."), sorted.
std::vector<std::string> list_dir(const std::string& dir);

// Splits text at "\n"; a final newline does not open another (empty) line,
// so "a\n\nb\n" gives {"a", "", "b"}.
std::vector<std::string> split_lines(const std::string& text);

// `report` with every "N.NNN sec" time replaced by "#.### sec", so the reports
// of two runs compare equal when only their timings differ.
std::string mask_timings(const std::string& report);

// True when the whole of `text` matches the ECMAScript regular expression
// `pattern` (use it for report lines whose source line numbers may change).
bool matches_regex(const std::string& text, const std::string& pattern);
// `text` with every regular-expression special character escaped.
std::string regex_escape(const std::string& text);

// Checked-in fixtures: tests/golden/<name> and tests/data/<name>.
std::string golden_path(const std::string& name);
std::string data_path(const std::string& name);

// Collects what the current process writes to standard output between
// construction and release() (or destruction), at the file-descriptor level,
// so both stdio and raw writes are caught.
class StdoutCapture {
 public:
  StdoutCapture();
  ~StdoutCapture();
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;
  // Restores standard output and returns what was written; later calls return "".
  std::string release();

 private:
  int saved_fd_ = -1;
  int capture_fd_ = -1;
};

// Argument vector for in-process calls of parse(): owns writable copies of
// the strings, argv[0] included, followed by a null pointer.
class Argv {
 public:
  Argv(std::initializer_list<std::string> args);
  int argc() const { return static_cast<int>(strings_.size()); }
  char** argv() { return pointers_.data(); }

 private:
  std::vector<std::string> strings_;
  std::vector<char*> pointers_;
};

}  // namespace quarlo_test

#endif  // QUARLO_TESTS_SUPPORT_HARNESS_H_
