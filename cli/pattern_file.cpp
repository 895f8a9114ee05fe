#include "cli/pattern_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <string_view>

#include "base/sites.h"
#include "cli/log.h"
#include "cli/pattern_ids.h"

namespace quarlo::cli {

namespace {

// Bytes reserved for one field of a line: the longest is a percentage of an
// unusual support, formatted with "%.3f" into at most this many bytes.
constexpr size_t kField = 64;
// A percentage never exceeds "100.000", so 7 characters suffice for every
// support <= ntrans.
constexpr size_t kPctSlot = 8;
// Item text slots: the text's length, then a blank and the digits.
constexpr size_t kItemSlot = 16;
constexpr size_t kMostItemTexts = size_t{1} << 20;
const uint64_t kNoKey = UINT64_MAX;  // lines without an id: kept last, not counted

// The L of the id that opens a line; lines without an id get kNoKey.
uint64_t length_key(const char* line, size_t len) {
  uint32_t l = 0;
  return read_id_length(std::string_view(line, len), &l) ? l : kNoKey;
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
  while (n > 0 && (n = read(fd, chunk, sizeof chunk)) > 0)
    text->append(chunk, static_cast<size_t>(n));
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

// Lines of one key on their way to the rewritten file: an unnamed temporary
// file beside it, filled through a small buffer.
struct Bucket {
  int fd = -1;
  std::unique_ptr<OutBuffer> out;
  uint32_t lines = 0;
  ~Bucket() {
    out.reset();
    if (fd >= 0) close(fd);
  }
};

// More distinct keys than this (never in the program's own pattern files)
// are grouped in memory instead of through one temporary file each.
constexpr size_t kMaxBuckets = 256;
constexpr size_t kBucketBuffer = size_t{64} << 10;

enum class Spread { kDone, kTooManyKeys, kFailed };

// Reads `file` once and spreads its lines over one bucket per key.
Spread spread_lines(const char* file, std::map<uint64_t, Bucket>* buckets) {
  const int in = open(file, O_RDONLY);
  LineReader reader(in);
  std::string_view line;
  Spread result = Spread::kDone;
  while (result == Spread::kDone && reader.next(&line)) {
    Bucket& b = (*buckets)[length_key(line.data(), line.size())];
    if (b.out == nullptr) {
      if (buckets->size() > kMaxBuckets) {
        result = Spread::kTooManyKeys;
        break;
      }
      b.fd = unnamed_file_beside(file);
      if (b.fd < 0) {
        result = Spread::kFailed;
        break;
      }
      b.out = std::make_unique<OutBuffer>(b.fd, kBucketBuffer);
    }
    b.out->put(line.data(), line.size());
    b.out->put_char('\n');
    ++b.lines;
  }
  if (in >= 0) close(in);
  for (auto& [key, b] : *buckets) {
    if (result == Spread::kDone && b.out != nullptr && b.out->flush() != 0)
      result = Spread::kFailed;
  }
  return result;
}

// The rewrite from the buckets, in key order. False, with errno set, when the
// file was made but could not be written whole; a file that cannot be made
// is left as it was.
bool join_buckets(const char* file, std::map<uint64_t, Bucket>* buckets,
                  std::vector<LengthCount>* counts) {
  const int out = create_fresh(file, 0664);
  if (out < 0) return true;
  bool written = true;
  for (auto& [key, b] : *buckets) {
    struct stat st;
    written = written && fstat(b.fd, &st) == 0 &&
              copy_range(b.fd, 0, out, static_cast<uint64_t>(st.st_size));
    if (key != kNoKey) counts->push_back({static_cast<uint32_t>(key + 1), b.lines});
  }
  const int err = errno;
  if (close(out) != 0 && written) return false;
  errno = err;
  return written;
}

// The grouping of a file with keys of every kind, in memory.
bool sort_in_memory(const char* file, std::vector<LengthCount>* counts) {
  std::string text;
  if (!read_whole_file(file, &text)) text.clear();
  const std::vector<LineRef> lines = split_lines(text);
  const std::vector<uint32_t> order = group_by_key(lines);
  if (!write_lines(file, text, lines, order)) return false;
  *counts = length_counts(lines, order);
  return true;
}

}  // namespace

Status PatternFileWriter::open(const char* path, uint32_t ntrans, uint32_t nitems, Reporter* rep) {
  rep_ = rep;
  fd_ = create_fresh(path, 0666);
  if (fd_ < 0) {
    const int err = errno;
    rep->perror("%s(%u) fopen(%s)", sites::kPatternOpen.module, sites::kPatternOpen.line, path);
    return Status::io(err, path);
  }
  try {
    out_ = std::make_unique<OutBuffer>(fd_);
    per_length_.assign(16, 0);
    labelled_.clear();
    label_bytes_.clear();
    scratch_.assign(static_cast<size_t>(nitems) + 1, 0);
    pct_.assign((static_cast<size_t>(ntrans) + 1) * kPctSlot, 0);
    item_text_.assign(kItemSlot * std::min<size_t>(nitems, kMostItemTexts), 0);
    for (uint32_t i = 0; i < item_text_.size() / kItemSlot; ++i) {
      char* slot = item_text_.data() + kItemSlot * size_t{i};
      slot[1] = ' ';
      slot[0] = static_cast<char>(put_decimal(slot + 2, i) - slot - 1);
    }
  } catch (const std::bad_alloc&) {
    rep->printf("%s(%u) new(%u) failed", sites::kPatternMemory.module, sites::kPatternMemory.line,
                0u);
    ::close(fd_);
    fd_ = -1;
    return Status::out_of_memory();
  }
  ntrans_ = ntrans;
  total_ = 0;
  return Status();
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
  if (len > per_length_.size())
    per_length_.resize(std::max<size_t>(len, 2 * per_length_.size()), 0);
  char* const start = out_->reserve(2 * kField);
  char* out = put_decimal(start, len - 1);
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
  if (!label_bytes_.empty()) measure(len, static_cast<uint64_t>(out - start), items);
  const char* text = item_text_.data();
  for (uint32_t i = 0; i < len; ++i) {
    out = out_->reserve(kItemSlot);
    if (items[i] < item_text_.size() / kItemSlot) {
      // A blank and the item's digits, copied whole from its slot.
      const char* slot = text + kItemSlot * size_t{items[i]};
      memcpy(out, slot + 1, kItemSlot - 1);
      out_->commit(out + slot[0]);
    } else {
      *out++ = ' ';
      out_->commit(put_decimal(out, items[i]));
    }
  }
  out = out_->reserve(1);
  *out++ = '\n';
  out_->commit(out);
  ++total_;
}

// A labelled line: its first three fields, a blank, each label and a blank,
// and the newline.
void PatternFileWriter::measure(uint32_t len, uint64_t head, const uint32_t* items) {
  if (len > labelled_.size()) labelled_.resize(per_length_.size(), 0);
  uint64_t bytes = head + 2 + len;
  for (uint32_t i = 0; i < len; ++i) bytes += label_bytes_[items[i]];
  labelled_[len - 1] += bytes;
}

Status PatternFileWriter::close() {
  // A write that failed on the way (a full disk) fails the close as well, so a
  // truncated pattern file never passes for a complete one.
  const bool written = out_ != nullptr && out_->flush() == 0;
  const int write_errno = out_ != nullptr ? out_->error() : 0;
  const bool closed = fd_ >= 0 && ::close(fd_) == 0;
  fd_ = -1;
  out_.reset();
  if (!written || !closed) {
    if (write_errno != 0) errno = write_errno;
    rep_->perror("%s(%u) fclose() failed", sites::kPatternClose.module, sites::kPatternClose.line);
    return Status::io(errno, {});
  }
  return Status();
}

void PatternFileWriter::abandon() {
  out_.reset();
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool sort_by_length(const char* file, std::vector<LengthCount>* counts) {
  counts->clear();
  std::map<uint64_t, Bucket> buckets;
  switch (spread_lines(file, &buckets)) {
    case Spread::kDone:
      return join_buckets(file, &buckets, counts);
    case Spread::kTooManyKeys:
      buckets.clear();
      return sort_in_memory(file, counts);
    case Spread::kFailed:
      break;
  }
  return false;
}

namespace {

const char kLengthCountFormat[] = "  Number of Frequent Patterns[Length%5u]      %u";

}  // namespace

void print_length_counts(const std::vector<uint32_t>& counts, Console* console) {
  for (size_t k = 0; k < counts.size(); ++k) {
    if (counts[k] > 0) console->printf(kLengthCountFormat, static_cast<uint32_t>(k + 1), counts[k]);
  }
}

bool group_by_length(const char* file, Console* console) {
  std::vector<LengthCount> counts;
  if (!sort_by_length(file, &counts)) {
    console->perror("%s(%u) Failed to write %s", sites::kGroupWrite.module, sites::kGroupWrite.line,
                    file);
    return false;
  }
  for (const LengthCount& c : counts) console->printf(kLengthCountFormat, c.length, c.count);
  return true;
}

}  // namespace quarlo::cli
