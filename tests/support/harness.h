// Shared helpers of the test suite: a temporary directory that cleans up
// after itself, whole files, the captured output of the built program or of a
// forked code block, and the paths of the checked-in fixtures.
#ifndef QUARLO_TESTS_SUPPORT_HARNESS_H_
#define QUARLO_TESTS_SUPPORT_HARNESS_H_

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace quarlo_test {

// A fresh directory under the system's temporary directory, removed with all
// its contents when the object goes away.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string join(const std::string& name) const { return path_ + "/" + name; }

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

struct RunResult {
  int status = -1;  // exit status; 128 + signal number when killed by a signal
  std::string out, err;
};

// Runs `body` in a forked child, standard input from /dev/null and standard
// output and error captured; the child exits with body's result.
RunResult run_forked(const std::function<int()>& body);
// Runs the built program in `dir` with `args` (no shell) and umask 0, so that
// the modes of the files it creates are its own.
// A non-zero `file_size_limit` caps every file the program writes (a full
// disk: writes beyond it fail with EFBIG).
RunResult run_quarlo(const std::string& dir, const std::vector<std::string>& args,
                     unsigned long file_size_limit = 0);

// The sanitizer build checks memory and undefined behaviour; where a test's
// own reference (brute force, a plain search) would take most of its time
// there, it does less of it and the optimised build does all of it.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// Whole files; failures fail the test.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
void copy_file(const std::string& from, const std::string& to);
std::vector<std::string> list_dir(const std::string& dir);  // sorted names

// Lines of `text`; a final newline opens no empty line.
std::vector<std::string> split_lines(const std::string& text);
// `report` with every "N.NNN sec" replaced by "#.### sec".
std::string mask_timings(const std::string& report);
// True when the whole of `text` is `pattern`, in which "#.###" stands for a
// timing (digits, a point, three digits), "#" for one or more digits, "..."
// for any text, and every other character for itself.
bool matches_pattern(const std::string& text, const std::string& pattern);

// QUARLO_SOURCE_DIR + "/" + rel, and the fixtures under tests/data.
std::string source_path(const std::string& rel);
inline std::string data_path(const std::string& name) { return source_path("tests/data/" + name); }

}  // namespace quarlo_test

#endif  // QUARLO_TESTS_SUPPORT_HARNESS_H_
