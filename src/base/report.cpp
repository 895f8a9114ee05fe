#include "base/report.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace quarlo::detail {

namespace {

// vsnprintf into a string of exactly the formatted length.
std::string format(const char* fmt, va_list args) {
  char fixed[512];
  va_list copy;
  va_copy(copy, args);
  const int n = vsnprintf(fixed, sizeof fixed, fmt, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof fixed) return std::string(fixed, static_cast<size_t>(n));
  std::string out(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(out.data(), out.size(), fmt, args);
  out.resize(static_cast<size_t>(n));
  return out;
}

}  // namespace

void Reporter::printf(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const std::string text = format(fmt, args);
  va_end(args);
  line(text);
}

void Reporter::perror(const char* fmt, ...) {
  const int saved = errno;
  va_list args;
  va_start(args, fmt);
  std::string text = format(fmt, args);
  va_end(args);
  text += ": ";
  text += strerror(saved);
  line(text);
  errno = saved;
}

void Reporter::tracef(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const std::string text = format(fmt, args);
  va_end(args);
  trace(text);
}

void Reporter::trace_errno(const char* call) {
  const int saved = errno;
  std::string text = call;
  text += ": ";
  text += strerror(saved);
  text += '\n';
  trace(text);
  errno = saved;
}

void CollectingReporter::trace(std::string_view text) {
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    const std::string_view piece = text.substr(0, nl);
    if (!piece.empty()) lines_.emplace_back(piece);
    if (nl == std::string_view::npos) break;
    text.remove_prefix(nl + 1);
  }
}

std::string CollectingReporter::summary() const {
  std::string out;
  for (const std::string& l : lines_) {
    if (!out.empty()) out += "; ";
    out += l;
  }
  return out;
}

}  // namespace quarlo::detail
