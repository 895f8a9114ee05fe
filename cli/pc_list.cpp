#include "cli/pc_list.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

#include "base/io.h"
#include "base/sites.h"
#include "base/status.h"
#include "base/tokens.h"
#include "post/parents.h"

namespace quarlo::cli {

namespace {

// Leading text fields of a pattern line: id, support count, support percentage.
constexpr uint32_t kPatternFields = 3;

// ---------------------------------------------------------------------------
// Files

// The pattern file and the PC list of one call; the list is written through
// one output buffer.
struct LatticeFiles {
  int patterns = -1;
  int pc = -1;
  std::unique_ptr<OutBuffer> out;
};

// Closes both files; false when the PC list could not be written whole.
bool close_files(LatticeFiles* files) {
  bool written = files->out == nullptr || files->out->flush() == 0;
  files->out.reset();
  if (files->patterns >= 0) close(files->patterns);
  if (files->pc >= 0 && close(files->pc) != 0) written = false;
  files->patterns = files->pc = -1;
  return written;
}

// Closes both files after a search that ended with `result`; a PC list that
// could not be written whole (a full disk) turns success into failure.
Status finish(LatticeFiles* files, const char* pc_file, Status result, Reporter* rep) {
  if (!close_files(files) && result.ok()) {
    const int err = errno;
    rep->printf("%s(%u) Failed to write %s", sites::kPcWrite.module, sites::kPcWrite.line, pc_file);
    return Status::io(err, pc_file);
  }
  return result;
}

// Opens both files, reporting each that fails; on failure both are closed.
Status open_files(const char* pattern_file, const char* pc_file, LatticeFiles* files,
                  Reporter* rep) {
  Status status;
  files->patterns = open(pattern_file, O_RDONLY);
  if (files->patterns < 0) {
    status = Status::io(errno, pattern_file);
    rep->printf("%s(%u) Failed to open %s", sites::kPcOpenPatterns.module,
                sites::kPcOpenPatterns.line, pattern_file);
  }
  files->pc = create_fresh(pc_file, 0664);
  if (files->pc < 0) {
    if (status.ok()) status = Status::io(errno, pc_file);
    rep->printf("%s(%u) Failed to open %s", sites::kPcOpen.module, sites::kPcOpen.line, pc_file);
  }
  if (status.ok()) {
    files->out = std::make_unique<OutBuffer>(files->pc);
  } else {
    close_files(files);
  }
  return status;
}

// Formats the PC lines into the list's output buffer. A line's parents come
// a length at a time, so the " L-" before their ordinals is made once per
// length; ordinals are copied from a table of their texts, filled as far as
// the largest ordinal met so far.
class LineWriter : public ParentSink {
 public:
  explicit LineWriter(OutBuffer* out) : out_(out) {}

  void id(uint32_t len_minus_one, uint32_t ordinal) override {
    char* p = out_->reserve(kMaxId);
    p = put_decimal(p, len_minus_one);
    *p++ = '-';
    out_->commit(put_decimal(p, ordinal));
  }
  void parents(uint32_t len_minus_one, const uint32_t* ordinals, size_t count) override {
    Text prefix{};
    prefix.chars[0] = ' ';
    char* end = put_decimal(prefix.chars + 1, len_minus_one);
    *end++ = '-';
    const size_t prefix_len = static_cast<size_t>(end - prefix.chars);
    for (size_t i = 0; i < count; ++i) {
      const uint32_t n = ordinals[i];
      if (n >= texts_.size()) extend(n);
      const Text& t = texts_[n];
      char* p = out_->reserve(2 * sizeof(Text));
      memcpy(p, prefix.chars, sizeof(Text));
      p += prefix_len;
      memcpy(p, t.chars, sizeof(Text));
      out_->commit(p + t.chars[sizeof(Text) - 1]);
    }
  }
  void end() override { out_->put_char('\n'); }

 private:
  static constexpr size_t kMaxId = 21;  // two 10-digit numbers and a dash

  // Up to 10 digits (or, as a line's prefix, " L-"), then padding; as an
  // ordinal's text, the last byte holds its length.
  struct Text {
    char chars[16];
  };

  // Adds the texts of the ordinals up to n and a quarter beyond.
  void extend(uint32_t n) {
    const size_t size = size_t{n} + 1 + n / 4;
    for (size_t v = texts_.size(); v < size; ++v) {
      Text t{};
      t.chars[sizeof(Text) - 1] =
          static_cast<char>(put_decimal(t.chars, static_cast<uint32_t>(v)) - t.chars);
      texts_.push_back(t);
    }
  }

  OutBuffer* out_;
  std::vector<Text> texts_;  // by ordinal: its decimal text
};

// Reads the next token as read_number does; tokens of up to nine digits,
// which are nearly all items, are read in place.
bool next_number(std::string_view* rest, uint32_t* value) {
  const std::string_view token = next_token(rest);
  if (token.empty() || token.size() > 9) return read_number(token, value);
  uint32_t v = 0;
  for (char c : token) {
    const uint32_t digit = static_cast<uint32_t>(c - '0');
    if (digit > 9) return read_number(token, value);
    v = v * 10 + digit;
  }
  *value = v;
  return true;
}

// Parses the items of one pattern line, after its three leading fields, into
// `items` (ascending, no duplicates): numbers up to the first token that is
// not one. A pattern line holds one itemset; an itemset break ("-1"), which
// the pattern writer never writes, is skipped.
void parse_items(std::string_view line, std::vector<uint32_t>* items) {
  for (uint32_t f = 0; f < kPatternFields; ++f) next_token(&line);
  items->clear();
  uint32_t value = 0;
  while (next_number(&line, &value)) {
    if (value != kItemsetBreak) items->push_back(value);
  }
  // Lines as the pattern writer makes them are already strictly ascending.
  if (std::adjacent_find(items->begin(), items->end(), std::greater_equal<uint32_t>()) !=
      items->end()) {
    std::sort(items->begin(), items->end());
    items->erase(std::unique(items->begin(), items->end()), items->end());
  }
}

// Loads every line of `in` into `table` and indexes it. Throws std::bad_alloc.
void load_patterns(int in, PatternSet* table) {
  LineReader lines(in);
  std::string_view line;
  std::vector<uint32_t> items;
  while (lines.next(&line)) {
    parse_items(line, &items);
    table->append(items.data(), static_cast<uint32_t>(items.size()));
  }
  table->index();
}

}  // namespace

Status generate_lattice(const char* pattern_file, const char* pc_file, Reporter* rep) {
  LatticeFiles files;
  Status status = open_files(pattern_file, pc_file, &files, rep);
  if (!status.ok()) return status;
  try {
    PatternSet table;
    load_patterns(files.patterns, &table);
    LineWriter writer(files.out.get());
    table.search(&writer);
  } catch (const std::bad_alloc&) {
    status = Status::out_of_memory();
  }
  return finish(&files, pc_file, std::move(status), rep);
}

}  // namespace quarlo::cli
