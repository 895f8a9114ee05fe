#include "iopttn.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

namespace {

const char kSrc[] = "iopttn";

// Bytes reserved for one field of a line: the longest is a percentage of an
// unusual support, formatted with "%.3f" into at most this many bytes.
constexpr size_t kField = 64;
// A percentage never exceeds "100.000", so 7 characters suffice for every
// support <= ntrans.
constexpr size_t kPctSlot = 8;

}  // namespace

void sort_items(uint32_t* a, uint32_t n) {
  if (n > 16) {
    std::sort(a, a + n);
    return;
  }
  for (uint32_t i = 1; i < n; ++i) {
    const uint32_t v = a[i];
    uint32_t j = i;
    for (; j > 0 && a[j - 1] > v; --j) a[j] = a[j - 1];
    a[j] = v;
  }
}

int PatternFileWriter::open(const char* path, uint32_t ntrans, uint32_t nitems, Reporter* rep) {
  rep_ = rep;
  fd_ = ::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (fd_ < 0) {
    rep->perror("%s(%u) fopen(%s)", kSrc, 26u, path);
    return -1;
  }
  try {
    out_ = std::make_unique<OutBuffer>(fd_);
    per_length_.assign(16, 0);
    scratch_.assign(static_cast<size_t>(nitems) + 1, 0);
    pct_.assign((static_cast<size_t>(ntrans) + 1) * kPctSlot, 0);
  } catch (const std::bad_alloc&) {
    rep->printf("%s(%u) new(%u) failed", kSrc, 37u, 0u);
    ::close(fd_);
    fd_ = -1;
    return -1;
  }
  ntrans_ = ntrans;
  total_ = 0;
  return 0;
}

char* PatternFileWriter::put_percent(char* out, int32_t support) {
  if (support >= 0 && static_cast<uint32_t>(support) <= ntrans_) {
    char* slot = pct_.data() + kPctSlot * static_cast<size_t>(support);
    if (slot[0] == 0) {
      char text[32];
      int n = snprintf(text, sizeof text, "%.3f", support * 100.0 / ntrans_);
      if (n > 0 && n < static_cast<int>(kPctSlot)) {
        slot[0] = static_cast<char>(n);
        memcpy(slot + 1, text, static_cast<size_t>(n));
      }
    }
    if (slot[0] != 0) {
      memcpy(out, slot + 1, static_cast<size_t>(slot[0]));
      return out + slot[0];
    }
  }
  return out + snprintf(out, kField, "%.3f", support * 100.0 / ntrans_);
}

void PatternFileWriter::put(const Pattern& p) {
  const uint32_t len = p.length;
  if (len > per_length_.size()) per_length_.resize(std::max<size_t>(len, 2 * per_length_.size()), 0);
  char* out = out_->reserve(2 * kField);
  out = put_decimal(out, len - 1);
  *out++ = '-';
  out = put_decimal(out, per_length_[len - 1]++);
  *out++ = ' ';
  out = put_decimal(out, static_cast<uint32_t>(p.support));
  *out++ = ' ';
  out = put_percent(out, p.support);
  out_->commit(out);
  uint32_t* items = scratch_.data();
  memcpy(items, p.items, sizeof(uint32_t) * len);
  sort_items(items, len);
  for (uint32_t i = 0; i < len; ++i) {
    out = out_->reserve(12);
    *out++ = ' ';
    out_->commit(put_decimal(out, items[i]));
  }
  out = out_->reserve(1);
  *out++ = '\n';
  out_->commit(out);
  ++total_;
}

int PatternFileWriter::close() {
  // A write that failed on the way (a full disk) fails the close as well, so a
  // truncated pattern file never passes for a complete one.
  const bool written = out_ != nullptr && out_->flush() == 0;
  const int write_errno = out_ != nullptr ? out_->error() : 0;
  const bool closed = fd_ >= 0 && ::close(fd_) == 0;
  fd_ = -1;
  out_.reset();
  if (!written || !closed) {
    if (write_errno != 0) errno = write_errno;
    rep_->perror("%s(%u) fclose() failed", kSrc, 47u);
    return -1;
  }
  per_length_.clear();
  return 0;
}

void PatternFileWriter::abandon() {
  out_.reset();
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}
