#include "support/harness.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#ifndef QUARLO_BINARY
#error "QUARLO_BINARY must name the built program"
#endif
#ifndef QUARLO_SOURCE_DIR
#error "QUARLO_SOURCE_DIR must name the source tree"
#endif

namespace fs = std::filesystem;

namespace quarlo_test {
namespace {

// Everything written to the unnamed temporary file `f`.
std::string contents(FILE* f) {
  std::string out;
  rewind(f);
  char buf[8192];
  for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
  fclose(f);
  return out;
}

}  // namespace

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "quarlo-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp(" << pattern << "): " << strerror(errno);
    return;
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  std::error_code ec;
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
  fs::remove_all(path_, ec);
}

RunResult run_forked(const std::function<int()>& body) {
  RunResult result;
  FILE* out = tmpfile();
  FILE* err = tmpfile();
  if (out == nullptr || err == nullptr) {
    ADD_FAILURE() << "cannot create capture files: " << strerror(errno);
    return result;
  }
  fflush(stdout);
  fflush(stderr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int in = open("/dev/null", O_RDONLY);
    if (in >= 0) dup2(in, STDIN_FILENO);
    dup2(fileno(out), STDOUT_FILENO);
    dup2(fileno(err), STDERR_FILENO);
    const int rc = body();
    fflush(stdout);
    fflush(stderr);
    _exit(rc);
  }
  int wstatus = 0;
  if (pid < 0) {
    ADD_FAILURE() << "fork: " << strerror(errno);
  } else {
    while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus)
                    : WIFSIGNALED(wstatus) ? 128 + WTERMSIG(wstatus) : -1;
  }
  result.out = contents(out);
  result.err = contents(err);
  return result;
}

RunResult run_quarlo(const std::string& dir, const std::vector<std::string>& args,
                     unsigned long file_size_limit) {
  std::vector<std::string> strings = {QUARLO_BINARY};
  strings.insert(strings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);
  return run_forked([&] {
    umask(0);
    if (file_size_limit != 0) {
      signal(SIGXFSZ, SIG_IGN);  // stays ignored across exec: writes fail instead
      const struct rlimit limit = {file_size_limit, file_size_limit};
      setrlimit(RLIMIT_FSIZE, &limit);
    }
    if (chdir(dir.c_str()) != 0) {
      perror("chdir");
      return 126;
    }
    execv(QUARLO_BINARY, argv.data());
    perror("execv");
    return 127;
  });
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) ADD_FAILURE() << "cannot read " << path;
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) ADD_FAILURE() << "cannot write " << path;
}

void copy_file(const std::string& from, const std::string& to) {
  std::error_code ec;
  fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
  if (ec) ADD_FAILURE() << "cannot copy " << from << " to " << to << ": " << ec.message();
}

std::vector<std::string> list_dir(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    names.push_back(entry.path().filename().string());
  }
  if (ec) ADD_FAILURE() << "cannot list " << dir << ": " << ec.message();
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

namespace {

size_t digits_at(const std::string& text, size_t at) {
  size_t n = 0;
  while (at + n < text.size() && text[at + n] >= '0' && text[at + n] <= '9') ++n;
  return n;
}

// Length of a "N.NNN" timing at `at` (one or more digits, a point, three
// digits), or 0.
size_t timing_at(const std::string& text, size_t at) {
  const size_t whole = digits_at(text, at);
  if (whole == 0 || at + whole >= text.size() || text[at + whole] != '.') return 0;
  const size_t frac = digits_at(text, at + whole + 1);
  return frac == 3 ? whole + 4 : 0;
}

bool matches_from(const std::string& text, size_t t, const std::string& pattern, size_t p) {
  if (p == pattern.size()) return t == text.size();
  if (pattern.compare(p, 3, "...") == 0) {
    for (size_t from = t; from <= text.size(); ++from) {
      if (matches_from(text, from, pattern, p + 3)) return true;
    }
    return false;
  }
  if (pattern.compare(p, 5, "#.###") == 0) {
    const size_t n = timing_at(text, t);
    return n > 0 && matches_from(text, t + n, pattern, p + 5);
  }
  if (pattern[p] == '#') {
    const size_t n = digits_at(text, t);
    return n > 0 && matches_from(text, t + n, pattern, p + 1);
  }
  return t < text.size() && text[t] == pattern[p] && matches_from(text, t + 1, pattern, p + 1);
}

}  // namespace

std::string mask_timings(const std::string& report) {
  std::string out;
  for (size_t at = 0; at < report.size();) {
    const bool starts = at == 0 || report[at - 1] < '0' || report[at - 1] > '9';
    const size_t n = starts ? timing_at(report, at) : 0;
    if (n > 0 && report.compare(at + n, 4, " sec") == 0) {
      out += "#.###";
      at += n;
    } else {
      out += report[at++];
    }
  }
  return out;
}

bool matches_pattern(const std::string& text, const std::string& pattern) {
  return matches_from(text, 0, pattern, 0);
}

std::string source_path(const std::string& rel) { return std::string(QUARLO_SOURCE_DIR) + "/" + rel; }

}  // namespace quarlo_test
