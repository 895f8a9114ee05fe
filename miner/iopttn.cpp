#include "iopttn.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

namespace {

const char kSrc[] = "iopttn";

// Bytes reserved for one field of a line: the longest is a percentage of an
// unusual support, formatted with "%.3f" into at most this many bytes.
constexpr size_t kField = 64;
// A percentage never exceeds "100.000", so 7 characters suffice for every
// support <= ntrans.
constexpr size_t kPctSlot = 8;
const uint64_t kNoKey = UINT64_MAX;  // lines without a "-": kept last, not counted

// The decimal key before the first "-": digits 1-9 add their value, any other
// character counts as 0. Lines without "-" get kNoKey.
uint64_t length_key(const char* line, size_t len) {
  uint64_t key = 0;
  for (size_t i = 0; i < len; ++i) {
    char c = line[i];
    if (c == '-') return key;
    key = key * 10 + (c >= '1' && c <= '9' ? static_cast<uint64_t>(c - '0') : 0);
  }
  return kNoKey;
}

struct LineRef {
  uint64_t key;
  size_t begin;
  size_t len;
};

bool read_whole_file(const char* file, std::string* text) {
  int fd = open(file, O_RDONLY);
  if (fd < 0) return false;
  struct stat st;
  const size_t size = fstat(fd, &st) == 0 && st.st_size > 0 ? static_cast<size_t>(st.st_size) : 0;
  text->resize(size);  // read straight into the text
  size_t filled = 0;
  ssize_t n = 1;
  while (filled < size && (n = read(fd, text->data() + filled, size - filled)) > 0) {
    filled += static_cast<size_t>(n);
  }
  text->resize(filled);
  char chunk[1 << 16];  // whatever a growing file has beyond its size at open
  while (n > 0 && (n = read(fd, chunk, sizeof chunk)) > 0) text->append(chunk, static_cast<size_t>(n));
  close(fd);
  return true;
}

std::vector<LineRef> split_lines(const std::string& text) {
  std::vector<LineRef> lines;
  lines.reserve(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
  size_t begin = 0;
  while (begin < text.size()) {
    size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    lines.push_back({length_key(text.data() + begin, end - begin), begin, end - begin});
    begin = end + 1;
  }
  return lines;
}

// The line indexes ordered by key, file order kept within a key; lines
// without a key come last. A counting sort over the keys when they are small
// (pattern lengths always are), a stable sort otherwise.
std::vector<uint32_t> group_by_key(const std::vector<LineRef>& lines) {
  const uint64_t kMaxDirectKey = uint64_t{1} << 20;
  uint64_t max_key = 0;
  for (const LineRef& l : lines) {
    if (l.key != kNoKey) max_key = std::max(max_key, l.key);
  }
  std::vector<uint32_t> order(lines.size());
  if (max_key >= kMaxDirectKey) {
    for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&lines](uint32_t a, uint32_t b) { return lines[a].key < lines[b].key; });
    return order;
  }
  // start[k] = first output index of key k; slot max_key + 1 holds the lines without a key.
  auto slot = [max_key](uint64_t key) { return key == kNoKey ? max_key + 1 : key; };
  std::vector<size_t> start(max_key + 3, 0);
  for (const LineRef& l : lines) ++start[slot(l.key) + 1];
  for (size_t k = 1; k < start.size(); ++k) start[k] += start[k - 1];
  for (uint32_t i = 0; i < lines.size(); ++i) order[start[slot(lines[i].key)]++] = i;
  return order;
}

// Rewrites `file` with the lines in `order`. False, with errno set, when the
// file was truncated but could not be written whole; a file that cannot be
// opened is left as it was.
bool write_lines(const char* file, const std::string& text, const std::vector<LineRef>& lines,
                 const std::vector<uint32_t>& order) {
  int fd = create_fresh(file, 0664);
  if (fd < 0) return true;
  OutBuffer out(fd);
  for (uint32_t i : order) {
    out.put(text.data() + lines[i].begin, lines[i].len);
    out.put_char('\n');
  }
  const bool written = out.flush() == 0;
  close(fd);
  if (!written) errno = out.error();
  return written;
}

std::vector<LengthCount> length_counts(const std::vector<LineRef>& lines,
                                       const std::vector<uint32_t>& order) {
  std::vector<LengthCount> counts;
  size_t i = 0;
  while (i < order.size() && lines[order[i]].key != kNoKey) {
    const uint64_t key = lines[order[i]].key;
    size_t j = i;
    while (j < order.size() && lines[order[j]].key == key) ++j;
    counts.push_back({static_cast<uint32_t>(key + 1), static_cast<uint32_t>(j - i)});
    i = j;
  }
  return counts;
}


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
  fd_ = create_fresh(path, 0666);
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

bool sort_by_length(const char* file, std::vector<LengthCount>* counts) {
  std::string text;
  if (!read_whole_file(file, &text)) text.clear();
  const std::vector<LineRef> lines = split_lines(text);
  const std::vector<uint32_t> order = group_by_key(lines);
  if (!write_lines(file, text, lines, order)) return false;
  *counts = length_counts(lines, order);
  return true;
}
