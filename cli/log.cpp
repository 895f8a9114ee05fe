#include "cli/log.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "base/sites.h"

namespace quarlo::cli {

using namespace quarlo::detail;

namespace {

double seconds_now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

}  // namespace

void Console::show_progress(const char* text) {
  fprintf(stderr, "\r\033[Kquarlo: %s", text);
  fflush(stderr);
  progress_.shown = true;
  progress_.last = seconds_now();
}

// Formats one report into a line buffer of 4096 bytes, grown only for reports
// that would not fit, so short reports come out exactly as vsprintf makes them.
void Console::report(bool with_errno, const char* fmt, va_list args) {
  const int saved_errno = errno;
  char fixed[4096];
  std::vector<char> grown;
  char* buf = fixed;
  size_t cap = sizeof fixed;
  const char* err_text = with_errno ? strerror(saved_errno) : "";
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(buf, cap, fmt, copy);
  va_end(copy);
  if (n < 0) n = 0;
  size_t need = static_cast<size_t>(n) + (with_errno ? 2 + strlen(err_text) : 0) + 2;
  if (need > cap) {
    grown.resize(need);
    buf = grown.data();
    cap = need;
    vsnprintf(buf, cap, fmt, args);
  }
  size_t len = static_cast<size_t>(n);
  if (with_errno) len += static_cast<size_t>(snprintf(buf + len, cap - len, ": %s", err_text));
  buf[len++] = '\n';
  buf[len] = '\0';
  progress_clear();
  fflush(stdout);
  if (log_ != nullptr) fputs(buf, log_);
  fputs(buf, stdout);
  if (log_ != nullptr) fflush(log_);
}

Console::~Console() {
  if (log_ != nullptr && log_ != stderr) fclose(log_);
}

bool Console::open_log(const char* name) {
  if (name == nullptr) {
    log_ = stderr;
    return true;
  }
  FILE* f = fopen(name, "a");
  if (f == nullptr) {
    ::perror("fopen");
    fprintf(stderr, "%s(%u): Cannot open log file\n", sites::kLogOpen.module, sites::kLogOpen.line);
    return false;
  }
  log_ = f;
  return true;
}

void Console::printf(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  report(false, fmt, args);
  va_end(args);
}

void Console::perror(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  report(true, fmt, args);
  va_end(args);
}

void LogReporter::line(std::string_view text) {
  console_->printf("%.*s", static_cast<int>(text.size()), text.data());
}

void LogReporter::trace(std::string_view text) {
  console_->progress_clear();
  fwrite(text.data(), 1, text.size(), stderr);
}

void Console::progress_start() { progress_.on = isatty(2) == 1; }

void Console::progress_stage(const char* stage) {
  if (!progress_.on) return;
  progress_.stage = stage;
  show_progress(stage);
}

void Console::progress_share(uint32_t done, uint32_t total) {
  if (!progress_.on || total == 0 || seconds_now() - progress_.last < 0.1) return;
  char text[160];
  snprintf(text, sizeof text, "%s, %u of %u top-level items (%u%%)", progress_.stage, done, total,
           static_cast<unsigned>(100.0 * done / total));
  show_progress(text);
}

void Console::progress_clear_on_signal() const {
  if (progress_.shown) {
    const ssize_t n = write(2, "\r\033[K", 4);
    (void)n;
  }
}

void Console::progress_clear() {
  if (!progress_.shown) return;
  fputs("\r\033[K", stderr);
  fflush(stderr);
  progress_.shown = false;
}

}  // namespace quarlo::cli
