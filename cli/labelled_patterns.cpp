#include "cli/labelled_patterns.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/io.h"

namespace quarlo::cli {

namespace {

// Section buffers start small (a run may have patterns of hundreds of
// lengths, most of them few) and double up to the largest chunk. Chunks are
// kept small, and a spilled chunk's buffer serves the next one: every fresh
// page costs a fault, which costs more than the copy through the spill file
// (a tenth of a run's time went to faults with 1 MiB chunks and a 16 MiB
// budget).
constexpr size_t kFirstChunk = size_t{4} << 10;
constexpr size_t kLargestChunk = size_t{64} << 10;
// Entries of the support-text cache (a power of two).
constexpr size_t kCountTexts = 4096;
// Room for "L-N " and the support text, with margin.
constexpr size_t kHeadRoom = 64;
// Labels up to this long (with their blank) are copied as one fixed-size
// block, which the compiler inlines; the table is padded to allow it.
constexpr size_t kShortLabel = 16;

// Copies n bytes in 16-byte blocks, so up to 15 bytes past the end of both
// sides may be read and written: for the short texts of a line, where a
// library call per copy costs more than the copy. Callers keep the slack.
inline void copy_short(char* to, const char* from, size_t n) {
  for (size_t i = 0; i < n; i += 16) memcpy(to + i, from + i, 16);
}

}  // namespace

LabelledPatternWriter::~LabelledPatternWriter() { release(); }

bool LabelledPatternWriter::open(const std::vector<std::string>& labels, uint32_t ntrans,
                                 const std::string& output, size_t budget) {
  release();
  labels_ = &labels;
  ntrans_ = ntrans;
  output_ = output;
  budget_ = budget;
  try {
    texts_.clear();
    starts_.clear();
    starts_.reserve(labels.size() + 1);
    longest_ = 0;
    for (const std::string& label : labels) {
      starts_.push_back(texts_.size());
      texts_ += label;
      texts_ += ' ';
      longest_ = std::max(longest_, label.size() + 1);
    }
    starts_.push_back(texts_.size());
    texts_.append(kShortLabel, '\0');
    scratch_.assign(labels.size() + 1, 0);
    level_size_.clear();
    depth_ = 0;
    if (longest_ <= kLevelLabel) {
      const size_t cells = size_t{kLevels} * (kLevels + 1) / 2;
      raw_.assign(kLevels, 0);
      level_items_.assign(cells, 0);
      level_text_.assign(longest_ * cells + 16, 0);  // slack for copy_short
      level_size_.assign(kLevels + 1, 0);
    }
    count_texts_.assign(kCountTexts, CountText{-1, 0, {}});
    sections_.clear();
    counts_.clear();
  } catch (const std::bad_alloc&) {
    return false;
  }
  total_ = 0;
  failed_ = false;
  return true;
}

// The id text "L-N " of the next pattern of section `s` (length `len`),
// then N counted up by one in the text.
char* LabelledPatternWriter::put_id(char* out, uint32_t len, Section* s) {
  if (s->id_size == 0) {
    char* end = put_decimal(s->id, len - 1);
    *end++ = '-';
    *end++ = '0';
    *end++ = ' ';
    s->id_size = static_cast<uint8_t>(end - s->id);
  }
  memcpy(out, s->id, sizeof s->id);
  out += s->id_size;
  char* digit = s->id + s->id_size - 2;
  while (*digit == '9') *digit-- = '0';
  if (*digit == '-') {  // 99...9 + 1: one more digit
    memmove(digit + 2, digit + 1, static_cast<size_t>(s->id + s->id_size - digit - 1));
    digit[1] = '1';
    ++s->id_size;
  } else {
    ++*digit;
  }
  return out;
}

// "support percent " for `support`: the percentage as "%.3f" of its share
// of the transactions, cached by support.
char* LabelledPatternWriter::put_counts(char* out, int32_t support) {
  CountText& c = count_texts_[static_cast<uint32_t>(support) & (kCountTexts - 1)];
  if (c.support != support) {
    char text[64];
    char* end = put_decimal(text, static_cast<uint32_t>(support));
    *end++ = ' ';
    const int n = snprintf(end, sizeof text - (end - text) - 1, "%.3f", support * 100.0 / ntrans_);
    end += n;
    *end++ = ' ';
    const size_t size = static_cast<size_t>(end - text);
    if (size > sizeof c.text) {  // a share too large for a slot: never cached
      memcpy(out, text, size);
      return out + size;
    }
    c.support = support;
    c.size = static_cast<uint8_t>(size);
    memcpy(c.text, text, size);
  }
  memcpy(out, c.text, sizeof c.text);
  return out + c.size;
}

// Moves the filled part of `s` to its full chunks. Over the memory budget
// the chunk goes to the spill file at once.
bool LabelledPatternWriter::retire(Section* s) {
  if (s->buf == nullptr) return true;
  if (s->used == 0) {
    free(s->buf);
    in_memory_ -= s->cap;
    s->buf = nullptr;
    s->cap = 0;
    return true;
  }
  try {
    s->full.push_back({s->buf, 0, s->used, s->cap});
  } catch (const std::bad_alloc&) {
    return false;
  }
  s->buf = nullptr;
  s->used = 0;
  return in_memory_ <= budget_ || spill(&s->full.back());
}

bool LabelledPatternWriter::spill(Chunk* c) {
  if (spill_fd_ < 0) {
    spill_fd_ = unnamed_file_beside(output_.c_str());
    if (spill_fd_ < 0) return false;
  }
  // Chunks are appended one after another; nothing else moves the offset.
  if (!write_all(spill_fd_, c->text, c->size)) return false;
  if (spare_ == nullptr && c->cap == kLargestChunk) {
    spare_ = c->text;  // the next largest chunk reuses it, its pages already mapped
  } else {
    free(c->text);
    in_memory_ -= c->cap;
  }
  c->text = nullptr;
  c->offset = spill_end_;
  spill_end_ += c->size;
  return true;
}

// At least `need` free bytes at the end of the section of length `len`.
char* LabelledPatternWriter::room(uint32_t len, size_t need) {
  if (len > sections_.size()) {
    try {
      sections_.resize(len);
      counts_.resize(len, 0);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  }
  Section& s = sections_[len - 1];
  if (s.cap - s.used >= need) return s.buf + s.used;
  const size_t cap = std::max(need, std::min(s.cap == 0 ? kFirstChunk : 2 * s.cap, kLargestChunk));
  if (!retire(&s)) return nullptr;
  if (cap == kLargestChunk && spare_ != nullptr) {
    s.buf = spare_;
    spare_ = nullptr;
  } else {
    s.buf = static_cast<char*>(malloc(cap));
    if (s.buf == nullptr) return nullptr;
    in_memory_ += cap;
  }
  s.cap = cap;
  return s.buf;
}

// Level d + 1 of the kept prefixes from level d and the raw item `x`: x
// inserted into level d's sorted items, its label into their text.
bool LabelledPatternWriter::extend_level(uint32_t d, uint32_t x) {
  if (x >= labels_->size()) return false;
  const size_t* starts = starts_.data();
  const uint32_t* from = level_items_.data() + size_t{d} * (d - 1) / 2;
  uint32_t* to = level_items_.data() + size_t{d + 1} * d / 2;
  const char* from_text = level_text_.data() + longest_ * d * (d - 1) / 2;
  char* to_text = level_text_.data() + longest_ * (d + 1) * d / 2;
  uint32_t j = 0;
  size_t split = 0;
  for (; j < d && from[j] < x; ++j) {
    split += starts[from[j] + 1] - starts[from[j]];
    to[j] = from[j];
  }
  to[j] = x;
  for (uint32_t k = j; k < d; ++k) to[k + 1] = from[k];
  const size_t n = starts[x + 1] - starts[x];
  // In this order each copy overwrites the slack the one before wrote.
  copy_short(to_text, from_text, split);
  copy_short(to_text + split, texts_.data() + starts[x], n);
  copy_short(to_text + split + n, from_text + split, level_size_[d] - split);
  level_size_[d + 1] = level_size_[d] + n;
  raw_[d] = x;
  return true;
}

// The labels of `p`'s items, ascending by item number, each with its blank,
// written at `out`; returns the end, or null for an item without a label.
// Patterns come depth first, most of them one item longer than the one
// before or sharing all but its last item: the levels keep the sorted items
// and text of every prefix of the last pattern, so only the levels past the
// prefix it shares are made again.
char* LabelledPatternWriter::put_labels(char* out, const Pattern& p) {
  const uint32_t len = p.length;
  if (len <= kLevels && !level_size_.empty()) {
    uint32_t d = 0;
    while (d < depth_ && d < len && raw_[d] == p.items[d]) ++d;
    for (; d < len; ++d) {
      if (!extend_level(d, p.items[d])) {
        depth_ = d;
        return nullptr;
      }
    }
    depth_ = len;
    const size_t size = level_size_[len];
    copy_short(out, level_text_.data() + longest_ * len * (len - 1) / 2, size);
    return out + size;
  }
  uint32_t* items = scratch_.data();
  memcpy(items, p.items, sizeof(uint32_t) * len);
  sort_items(items, len);
  if (items[len - 1] >= labels_->size()) return nullptr;
  const char* texts = texts_.data();
  const size_t* starts = starts_.data();
  const bool short_labels = longest_ <= kShortLabel;
  for (uint32_t i = 0; i < len; ++i) {
    const size_t n = starts[items[i] + 1] - starts[items[i]];
    if (short_labels) {
      memcpy(out, texts + starts[items[i]], kShortLabel);
    } else {
      memcpy(out, texts + starts[items[i]], n);
    }
    out += n;
  }
  return out;
}

void LabelledPatternWriter::put(const Pattern& p) {
  if (failed_) return;
  const uint32_t len = p.length;
  char* const start =
      len == 0 ? nullptr : room(len, kHeadRoom + len * std::max(longest_, kShortLabel) + 1);
  if (start == nullptr) {
    failed_ = true;
    return;
  }
  char* out = put_id(start, len, &sections_[len - 1]);
  out = put_counts(out, p.support);
  out = put_labels(out, p);
  if (out == nullptr) {
    failed_ = true;
    return;
  }
  *out++ = '\n';
  ++counts_[len - 1];
  sections_[len - 1].used += static_cast<size_t>(out - start);
  ++total_;
}

bool LabelledPatternWriter::write_sections(int fd) {
  for (const Section& s : sections_) {
    for (const Chunk& c : s.full) {
      const bool ok = c.text != nullptr ? write_all(fd, c.text, c.size)
                                        : copy_range(spill_fd_, c.offset, fd, c.size);
      if (!ok) return false;
    }
    if (s.used > 0 && !write_all(fd, s.buf, s.used)) return false;
  }
  return true;
}

Status LabelledPatternWriter::write_to(const std::string& path) {
  const int fd = create_fresh(path.c_str(), 0664);
  if (fd < 0) return Status::io(errno, path);
  bool ok = write_sections(fd);
  int err = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    err = errno;
  }
  return ok ? Status() : Status::io(err, path);
}

void LabelledPatternWriter::release() {
  for (Section& s : sections_) {
    for (Chunk& c : s.full) free(c.text);
    free(s.buf);
  }
  sections_.clear();
  free(spare_);
  spare_ = nullptr;
  in_memory_ = 0;
  if (spill_fd_ >= 0) ::close(spill_fd_);
  spill_fd_ = -1;
  spill_end_ = 0;
}

}  // namespace quarlo::cli
