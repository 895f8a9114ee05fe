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

namespace quarlo::cli {

using namespace quarlo::detail;

namespace {

const char kSrc[] = "../vscom/log";
FILE* g_log = nullptr;  // the log stream; null until log_open

// The progress line: on only when standard error is a terminal.
struct Progress {
  bool on = false;
  volatile sig_atomic_t shown = false;  // a line stands on the terminal now
  const char* stage = "";
  double last = 0.0;         // when it was last written
};
Progress g_progress;

double seconds_now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9;
}

void show_progress(const char* text) {
  fprintf(stderr, "\r\033[Kquarlo: %s", text);
  fflush(stderr);
  g_progress.shown = true;
  g_progress.last = seconds_now();
}

// Formats one report into a line buffer of 4096 bytes, grown only for reports
// that would not fit, so short reports come out exactly as vsprintf makes them.
void report(bool with_errno, const char* fmt, va_list args) {
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
  if (g_log != nullptr) fputs(buf, g_log);
  fputs(buf, stdout);
  if (g_log != nullptr) fflush(g_log);
}

}  // namespace

int log_open(const char* name) {
  if (name == nullptr) {
    g_log = stderr;
    return 0;
  }
  FILE* f = fopen(name, "a");
  if (f == nullptr) {
    perror("fopen");
    fprintf(stderr, "%s(%d): Cannot open log file\n", kSrc, 56);
    return 1;
  }
  g_log = f;
  return 0;
}

void log_printf(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  report(false, fmt, args);
  va_end(args);
}

void log_perror(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  report(true, fmt, args);
  va_end(args);
}

void LogReporter::line(std::string_view text) {
  log_printf("%.*s", static_cast<int>(text.size()), text.data());
}

void LogReporter::trace(std::string_view text) {
  progress_clear();
  fwrite(text.data(), 1, text.size(), stderr);
}

void progress_start() { g_progress.on = isatty(2) == 1; }

void progress_stage(const char* stage) {
  if (!g_progress.on) return;
  g_progress.stage = stage;
  show_progress(stage);
}

void progress_share(uint32_t done, uint32_t total) {
  if (!g_progress.on || total == 0 || seconds_now() - g_progress.last < 0.1) return;
  char text[160];
  snprintf(text, sizeof text, "%s, %u of %u top-level items (%u%%)", g_progress.stage, done, total,
           static_cast<unsigned>(100.0 * done / total));
  show_progress(text);
}

void progress_clear_on_signal() {
  if (g_progress.shown) {
    const ssize_t n = write(2, "\r\033[K", 4);
    (void)n;
  }
}

void progress_clear() {
  if (!g_progress.shown) return;
  fputs("\r\033[K", stderr);
  fflush(stderr);
  g_progress.shown = false;
}

}  // namespace quarlo::cli
