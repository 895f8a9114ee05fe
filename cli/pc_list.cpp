#include "cli/pc_list.h"
#include "base/sites.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

#include "base/io.h"
#include "base/tokens.h"
#include "cli/pattern_records.h"
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
int finish(LatticeFiles* files, const char* pc_file, int result, Reporter* rep) {
  if (!close_files(files) && result == 0) {
    rep->printf("%s(%u) Failed to write %s", sites::kPcWrite.module, sites::kPcWrite.line, pc_file);
    return 1;
  }
  return result;
}

// Opens both files, reporting each that fails. Returns 0, or 1 with both closed.
int open_files(const char* pattern_file, const char* pc_file, LatticeFiles* files,
               Reporter* rep) {
  files->patterns = open(pattern_file, O_RDONLY);
  if (files->patterns < 0) {
    rep->printf("%s(%u) Failed to open %s", sites::kPcOpenPatterns.module, sites::kPcOpenPatterns.line, pattern_file);
  }
  files->pc = create_fresh(pc_file, 0664);
  if (files->pc < 0) rep->printf("%s(%u) Failed to open %s", sites::kPcOpen.module, sites::kPcOpen.line, pc_file);
  if (files->patterns >= 0 && files->pc >= 0) {
    files->out = std::make_unique<OutBuffer>(files->pc);
    return 0;
  }
  close_files(files);
  return 1;
}

// Formats the PC lines into the list's output buffer, digits in place.
class LineWriter : public ParentSink {
 public:
  explicit LineWriter(OutBuffer* out) : out_(out) {}

  void id(uint32_t len_minus_one, uint32_t ordinal) override {
    char* p = out_->reserve(kMaxId);
    p = put_decimal(p, len_minus_one);
    *p++ = '-';
    out_->commit(put_decimal(p, ordinal));
  }
  void parent(uint32_t len_minus_one, uint32_t ordinal) override {
    out_->put_char(' ');
    id(len_minus_one, ordinal);
  }
  void end() override { out_->put_char('\n'); }

 private:
  static constexpr size_t kMaxId = 21;  // two 10-digit numbers and a dash

  OutBuffer* out_;
};

// ---------------------------------------------------------------------------
// The plain search over SequenceSet

// True when a record of `found` of length `len` contains s.
bool found_before(const SequenceSet& found, uint32_t len, const Sequence& s) {
  for (uint32_t m = 0;; ++m) {
    const Sequence* r = found.at(len, m);
    if (r == nullptr) return false;
    if (contains(*r, s)) return true;
  }
}

// Writes the parents met below frontier record q (of length j): frequent
// subsets go to the line and `found`, the others to `frontier`. Returns 0, or
// 1 when a subset cannot be allocated.
int scan_subsets(const SequenceSet& patterns, const Sequence& q, uint32_t j, SequenceSet* frontier,
                 SequenceSet* found, LineWriter* out) {
  for (uint32_t t = 0; t < length(q); ++t) {
    Sequence* s = without_item(q, t);
    if (s == nullptr) return 1;
    uint32_t n = 0;
    if (found_before(*found, j - 1, *s)) {
      // already written for this pattern
    } else if (patterns.find_index(*s, &n)) {
      out->parent(length(*s) - 1, n);
      found->insert(*s);
    } else {
      frontier->insert(*s);
    }
    delete s;
  }
  return 0;
}

// Writes the line of pattern p, the ordinal-th of its length. Returns 0 or 1.
int scan_pattern(const SequenceSet& patterns, const Sequence& p, uint32_t ordinal,
                 LineWriter* out) {
  out->id(length(p) - 1, ordinal);
  SequenceSet frontier;
  SequenceSet found;
  frontier.insert(p);
  uint32_t j = length(p);
  uint32_t x = 0;
  for (;;) {
    const Sequence* q = frontier.at(j, x);
    if (q == nullptr) {
      x = 0;
      while (q == nullptr && j != 0) q = frontier.at(--j, 0);
      if (q == nullptr) break;
    }
    if (scan_subsets(patterns, *q, j, &frontier, &found, out) != 0) return 1;
    ++x;
  }
  out->end();
  return 0;
}

int lattice_by_scan(int in, LineWriter* out) {
  SequenceSet patterns;
  patterns.load(in, kPatternFields);
  for (uint32_t k = patterns.max_length(); k >= 1; --k) {
    for (uint32_t i = 0; const Sequence* p = patterns.at(k, i); ++i) {
      if (scan_pattern(patterns, *p, i, out) != 0) return 1;
    }
  }
  return 0;
}

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

// Parses the items of one pattern line as parse_sequence does with three
// leading fields, into `items` (ascending, no duplicates). Returns false when
// the line opens a second itemset, which the hashed search does not handle.
bool parse_items(std::string_view line, std::vector<uint32_t>* items) {
  for (uint32_t f = 0; f < kPatternFields; ++f) next_token(&line);
  items->clear();
  bool open_new = true;
  uint32_t value = 0;
  while (next_number(&line, &value)) {
    if (value == kItemsetBreak) {
      open_new = true;
      continue;
    }
    if (open_new && !items->empty()) return false;
    open_new = false;
    items->push_back(value);
  }
  // Lines as the pattern writer makes them are already strictly ascending.
  if (std::adjacent_find(items->begin(), items->end(), std::greater_equal<uint32_t>()) !=
      items->end()) {
    std::sort(items->begin(), items->end());
    items->erase(std::unique(items->begin(), items->end()), items->end());
  }
  return true;
}

// Loads every line of `in` into `table` and indexes it. Returns false when a
// record of more than one itemset was met (the table is then incomplete).
bool load_patterns(int in, PatternSet* table) {
  LineReader lines(in);
  std::string_view line;
  std::vector<uint32_t> items;
  while (lines.next(&line)) {
    if (!parse_items(line, &items)) return false;
    table->append(items.data(), static_cast<uint32_t>(items.size()));
  }
  table->index();
  return true;
}

// Returns 0, 1 when memory runs short, or kNeedsScan when a record of more
// than one itemset was met before anything was written.
constexpr int kNeedsScan = 2;

int lattice_hashed(int in, LineWriter* out) {
  try {
    PatternSet table;
    if (!load_patterns(in, &table)) return kNeedsScan;
    table.search(out);
    return 0;
  } catch (const std::bad_alloc&) {
    return 1;
  }
}

}  // namespace

int generate_lattice(const char* pattern_file, const char* pc_file, Reporter* rep) {
  LatticeFiles files;
  if (open_files(pattern_file, pc_file, &files, rep) != 0) return 1;
  LineWriter writer(files.out.get());
  int result = lattice_hashed(files.patterns, &writer);
  if (result == kNeedsScan) {
    lseek(files.patterns, 0, SEEK_SET);
    result = lattice_by_scan(files.patterns, &writer);
  }
  return finish(&files, pc_file, result, rep);
}

int generate_lattice_by_scan(const char* pattern_file, const char* pc_file, Reporter* rep) {
  LatticeFiles files;
  if (open_files(pattern_file, pc_file, &files, rep) != 0) return 1;
  LineWriter writer(files.out.get());
  return finish(&files, pc_file, lattice_by_scan(files.patterns, &writer), rep);
}

}  // namespace quarlo::cli
