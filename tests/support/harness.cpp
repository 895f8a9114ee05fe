#include "support/harness.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
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

// Reads everything from `fd`, starting at offset 0.
std::string slurp_fd(int fd) {
  std::string out;
  if (lseek(fd, 0, SEEK_SET) < 0) return out;
  char buf[8192];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR)) {
    if (n > 0) out.append(buf, static_cast<size_t>(n));
  }
  return out;
}

// An unnamed temporary file for a child's output; -1 on failure.
int anonymous_file() {
  FILE* f = tmpfile();
  if (f == nullptr) return -1;
  int fd = dup(fileno(f));
  fclose(f);
  return fd;
}

int decode_status(int wstatus) {
  if (WIFEXITED(wstatus)) return WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) return 128 + WTERMSIG(wstatus);
  return -1;
}

// Forks; in the child, points stdin at /dev/null and stdout/stderr at two
// anonymous files, then runs `child` (which must not return normally).
RunResult fork_captured(const std::function<void()>& child) {
  RunResult result;
  int out_fd = anonymous_file();
  int err_fd = anonymous_file();
  if (out_fd < 0 || err_fd < 0) {
    ADD_FAILURE() << "cannot create capture files: " << strerror(errno);
    return result;
  }
  fflush(stdout);
  fflush(stderr);
  pid_t pid = fork();
  if (pid < 0) {
    ADD_FAILURE() << "fork: " << strerror(errno);
  } else if (pid == 0) {
    int in_fd = open("/dev/null", O_RDONLY);
    if (in_fd >= 0) dup2(in_fd, STDIN_FILENO);
    dup2(out_fd, STDOUT_FILENO);
    dup2(err_fd, STDERR_FILENO);
    child();
    _exit(127);
  } else {
    int wstatus = 0;
    while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
    }
    result.status = decode_status(wstatus);
    result.out = slurp_fd(out_fd);
    result.err = slurp_fd(err_fd);
  }
  close(out_fd);
  close(err_fd);
  return result;
}

}  // namespace

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "quarlo-test-XXXXXX").string();
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp(" << pattern << "): " << strerror(errno);
    return;
  }
  path_ = buf.data();
}

TempDir::~TempDir() {
  if (path_.empty()) return;
  std::error_code ec;
  // A test may have taken away permissions; give them back so removal works.
  fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
  for (auto it = fs::recursive_directory_iterator(path_, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec)) fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::remove_all(path_, ec);
}

std::string TempDir::join(const std::string& name) const { return path_ + "/" + name; }

RunResult run_quarlo(const std::string& dir, const std::vector<std::string>& args) {
  std::vector<std::string> strings;
  strings.reserve(args.size() + 1);
  strings.push_back(QUARLO_BINARY);
  strings.insert(strings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& s : strings) argv.push_back(s.data());
  argv.push_back(nullptr);
  return fork_captured([&] {
    if (chdir(dir.c_str()) != 0) {
      perror("chdir");
      _exit(126);
    }
    execv(QUARLO_BINARY, argv.data());
    perror("execv");
    _exit(127);
  });
}

RunResult run_forked(const std::function<int()>& body) {
  return fork_captured([&] {
    int rc = body();
    fflush(stdout);
    fflush(stderr);
    _exit(rc);
  });
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    ADD_FAILURE() << "cannot read " << path;
    return "";
  }
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) ADD_FAILURE() << "cannot write " << path;
}

bool file_exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
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
  size_t start = 0;
  while (start < text.size()) {
    size_t nl = text.find('\n', start);
    if (nl == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, nl - start));
    start = nl + 1;
  }
  return lines;
}

std::string mask_timings(const std::string& report) {
  static const std::regex kTime("[0-9]+\\.[0-9]{3} sec");
  return std::regex_replace(report, kTime, "#.### sec");
}

bool matches_regex(const std::string& text, const std::string& pattern) {
  return std::regex_match(text, std::regex(pattern));
}

std::string regex_escape(const std::string& text) {
  static const std::string kSpecial = R"(\^$.|?*+()[]{})";
  std::string out;
  for (char c : text) {
    if (kSpecial.find(c) != std::string::npos) out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

std::string golden_path(const std::string& name) {
  return std::string(QUARLO_SOURCE_DIR) + "/tests/golden/" + name;
}

std::string data_path(const std::string& name) {
  return std::string(QUARLO_SOURCE_DIR) + "/tests/data/" + name;
}

StdoutCapture::StdoutCapture() {
  fflush(stdout);
  capture_fd_ = anonymous_file();
  saved_fd_ = dup(STDOUT_FILENO);
  if (capture_fd_ < 0 || saved_fd_ < 0) {
    ADD_FAILURE() << "cannot capture standard output: " << strerror(errno);
    return;
  }
  dup2(capture_fd_, STDOUT_FILENO);
}

StdoutCapture::~StdoutCapture() { release(); }

std::string StdoutCapture::release() {
  if (saved_fd_ < 0) return "";
  fflush(stdout);
  dup2(saved_fd_, STDOUT_FILENO);
  close(saved_fd_);
  saved_fd_ = -1;
  std::string text = slurp_fd(capture_fd_);
  close(capture_fd_);
  capture_fd_ = -1;
  return text;
}

Argv::Argv(std::initializer_list<std::string> args) : strings_(args) {
  for (std::string& s : strings_) pointers_.push_back(s.data());
  pointers_.push_back(nullptr);
}

}  // namespace quarlo_test
