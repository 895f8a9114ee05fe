#include "base/io.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

namespace quarlo::detail {

int create_fresh(const char* name, unsigned mode) {
  if (unlink(name) != 0 && errno != ENOENT) return -1;
  return open(name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
              static_cast<mode_t>(mode));
}

int unnamed_file_beside(const char* file) {
  const char* slash = strrchr(file, '/');
  const std::string dir =
      slash == nullptr ? "." : std::string(file, slash == file ? 1 : slash - file);
  const int fd = open(dir.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return fd;
  std::string name = dir + "/.quarlo-XXXXXX";
  const int named = mkstemp(name.data());
  if (named >= 0) unlink(name.c_str());
  return named;
}

bool write_all(int fd, const void* bytes, size_t n) {
  const char* text = static_cast<const char*>(bytes);
  while (n > 0) {
    const ssize_t w = write(fd, text, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      if (w == 0) errno = EIO;
      return false;
    }
    text += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

bool copy_range(int from, uint64_t offset, int to, uint64_t n) {
  loff_t at = static_cast<loff_t>(offset);
  while (n > 0) {
    const size_t step = static_cast<size_t>(std::min<uint64_t>(n, uint64_t{1} << 30));
    const ssize_t c = copy_file_range(from, &at, to, nullptr, step, 0);
    if (c > 0) {
      n -= static_cast<uint64_t>(c);
      continue;
    }
    if (c < 0 && errno == EINTR) continue;
    if (c == 0 || (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP)) {
      if (c == 0) errno = EIO;
      return false;
    }
    break;  // copied by hand below, from where the kernel stopped
  }
  char chunk[1 << 16];
  while (n > 0) {
    const ssize_t r = pread(from, chunk, std::min<uint64_t>(n, sizeof chunk), at);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) {
      if (r == 0) errno = EIO;
      return false;
    }
    if (!write_all(to, chunk, static_cast<size_t>(r))) return false;
    at += r;
    n -= static_cast<uint64_t>(r);
  }
  return true;
}

double wall_seconds() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) / 1000000.0;
}

namespace {
constexpr size_t kReadChunk = size_t{1} << 20;  // first size of a line reader's buffer
}  // namespace

LineReader::LineReader(int fd) : fd_(fd), buf_(new char[kReadChunk]), cap_(kReadChunk) {}

bool LineReader::next(std::string_view* line, bool* terminated) {
  for (;;) {
    const char* base = buf_.get();
    const void* nl = memchr(base + scan_, '\n', end_ - scan_);
    if (nl != nullptr) {
      const size_t pos = static_cast<const char*>(nl) - base;
      *line = std::string_view(base + begin_, pos - begin_);
      if (terminated != nullptr) *terminated = true;
      begin_ = scan_ = pos + 1;
      return true;
    }
    scan_ = end_;
    if (eof_) {
      if (begin_ == end_) return false;
      *line = std::string_view(base + begin_, end_ - begin_);
      if (terminated != nullptr) *terminated = false;
      begin_ = scan_ = end_;
      return true;
    }
    fill();
  }
}

// Moves the unread bytes to the front (growing the buffer when they fill it)
// and reads more after them.
void LineReader::fill() {
  if (begin_ > 0) {
    memmove(buf_.get(), buf_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    scan_ -= begin_;
    begin_ = 0;
  }
  if (end_ == cap_) {
    std::unique_ptr<char[]> bigger(new char[2 * cap_]);
    memcpy(bigger.get(), buf_.get(), end_);
    buf_ = std::move(bigger);
    cap_ *= 2;
  }
  ssize_t n;
  do {
    n = read(fd_, buf_.get() + end_, cap_ - end_);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) {
    eof_ = true;
  } else {
    end_ += static_cast<size_t>(n);
  }
}

OutBuffer::OutBuffer(int fd, size_t size) : size_(size), fd_(fd), buf_(new char[size]) {}

// Fills the buffer, flushes, and goes on until the bytes are all taken.
void OutBuffer::put_spanning(const void* bytes, size_t n) {
  const char* p = static_cast<const char*>(bytes);
  while (n > 0) {
    if (used_ == size_) flush();
    const size_t k = std::min(n, size_ - used_);
    memcpy(buf_.get() + used_, p, k);
    used_ += k;
    p += k;
    n -= k;
  }
}

namespace {

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

unsigned decimal_digits(uint32_t v) {
  unsigned n = 1;
  for (uint32_t bound = 10; n < 10 && v >= bound; bound *= 10) ++n;
  return n;
}

}  // namespace

char* put_decimal(char* out, uint32_t v) {
  char* const end = out + decimal_digits(v);
  char* p = end;
  while (v >= 100) {
    const uint32_t pair = 2 * (v % 100);
    v /= 100;
    *--p = kDigitPairs[pair + 1];
    *--p = kDigitPairs[pair];
  }
  if (v >= 10) {
    *--p = kDigitPairs[2 * v + 1];
    *--p = kDigitPairs[2 * v];
  } else {
    *--p = static_cast<char>('0' + v);
  }
  return end;
}

void OutBuffer::put_decimal(uint32_t v) {
  if (size_ - used_ < 10) flush();
  used_ = static_cast<size_t>(detail::put_decimal(buf_.get() + used_, v) - buf_.get());
}

int OutBuffer::flush() {
  if (!failed_ && used_ > 0 && !write_all(fd_, buf_.get(), used_)) {
    failed_ = true;
    error_ = errno;
  }
  used_ = 0;
  if (!failed_) return 0;
  errno = error_;
  return -1;
}

}  // namespace quarlo::detail
