#include "lattice.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "log.h"
#include "sequence.h"

namespace {

const char kSrc[] = "../vscom/lattice";
// Source lines quoted in the reports, fixed so that the logs of every build agree.
constexpr unsigned kLineOpenPatterns = 37;
constexpr unsigned kLineOpenPc = 41;
// Leading text fields of a pattern line: id, support count, support percentage.
constexpr uint32_t kPatternFields = 3;
constexpr uint32_t kItemsetBreak = 4294967295u;  // the value "-1" reads as

// ---------------------------------------------------------------------------
// Files

struct LatticeFiles {
  FILE* patterns = nullptr;
  FILE* pc = nullptr;
};

// Creates or truncates `name` for writing with mode 0664 before the umask.
FILE* create_text_file(const char* name) {
  int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC, 0664);
  if (fd < 0) return nullptr;
  FILE* f = fdopen(fd, "w");
  if (f == nullptr) close(fd);
  return f;
}

void close_files(LatticeFiles* files) {
  if (files->patterns != nullptr) fclose(files->patterns);
  if (files->pc != nullptr) fclose(files->pc);
  *files = LatticeFiles{};
}

// Opens both files, reporting each that fails. Returns 0, or 1 with both closed.
int open_files(const char* pattern_file, const char* pc_file, LatticeFiles* files) {
  files->patterns = fopen(pattern_file, "r");
  if (files->patterns == nullptr) {
    log_printf("%s(%u) Failed to open %s", kSrc, kLineOpenPatterns, pattern_file);
  }
  files->pc = create_text_file(pc_file);
  if (files->pc == nullptr) log_printf("%s(%u) Failed to open %s", kSrc, kLineOpenPc, pc_file);
  if (files->patterns != nullptr && files->pc != nullptr) return 0;
  close_files(files);
  return 1;
}

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
                 SequenceSet* found, FILE* out) {
  for (uint32_t t = 0; t < length(q); ++t) {
    Sequence* s = without_item(q, t);
    if (s == nullptr) return 1;
    uint32_t n = 0;
    if (found_before(*found, j - 1, *s)) {
      // already written for this pattern
    } else if (patterns.find_index(*s, &n)) {
      fprintf(out, " %u-%u", length(*s) - 1, n);
      found->insert(*s);
    } else {
      frontier->insert(*s);
    }
    delete s;
  }
  return 0;
}

// Writes the line of pattern p, the ordinal-th of its length. Returns 0 or 1.
int scan_pattern(const SequenceSet& patterns, const Sequence& p, uint32_t ordinal, FILE* out) {
  fprintf(out, "%u-%u", length(p) - 1, ordinal);
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
  fputc('\n', out);
  fflush(out);
  return 0;
}

int lattice_by_scan(FILE* in, FILE* out) {
  SequenceSet patterns;
  patterns.load(in, kPatternFields);
  for (uint32_t k = patterns.max_length(); k >= 1; --k) {
    for (uint32_t i = 0; const Sequence* p = patterns.at(k, i); ++i) {
      if (scan_pattern(patterns, *p, i, out) != 0) return 1;
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------
// The hashed search
//
// An itemset's hash is the sum of a mixed value per item, so the hash of a
// subset with one item dropped is one subtraction away, and a subset is looked
// up without building it: its stored candidates are compared against the
// parent's items with the dropped position skipped.

uint64_t item_hash(uint32_t item) {
  uint64_t z = item + 0x9e3779b97f4a7c15ull;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  return z ^ (z >> 31);
}

uint64_t itemset_hash(const uint32_t* items, uint32_t len) {
  uint64_t h = 0;
  for (uint32_t i = 0; i < len; ++i) h += item_hash(items[i]);
  return h;
}

// True when a[0..len) equals q[0..len] with q's position `skip` left out;
// a `skip` of len or more compares q[0..len) directly.
bool equal_skipping(const uint32_t* a, const uint32_t* q, uint32_t len, uint32_t skip) {
  for (uint32_t i = 0; i < len; ++i) {
    if (a[i] != q[i + (i >= skip ? 1 : 0)]) return false;
  }
  return true;
}

uint32_t table_size_for(size_t count) {
  uint32_t size = 16;
  while (size < count + count / 3 + 1) size *= 2;
  return size;
}

constexpr uint32_t kNone = ~uint32_t{0};

// The frequent patterns of one length in file order, stored flat in chunks of
// at most 64 Ki items (so the store never holds a doubled copy while it
// grows), with a hash index from itemset to its first ordinal and a stamp per
// pattern that marks it as already written for the current search.
class PatternGroup {
 public:
  explicit PatternGroup(uint32_t len) : len_(len) {
    uint32_t per_chunk = 1;
    while (per_chunk * 2 * uint64_t{len} <= kChunkItems && per_chunk < kChunkItems) per_chunk *= 2;
    shift_ = static_cast<uint32_t>(__builtin_ctz(per_chunk));
  }

  uint32_t count() const { return count_; }
  const uint32_t* items(uint32_t n) const {
    return chunks_[n >> shift_].data() + size_t{n & ((1u << shift_) - 1)} * len_;
  }

  void append(const uint32_t* items) {
    if ((count_ & ((1u << shift_) - 1)) == 0) start_chunk();
    chunks_.back().insert(chunks_.back().end(), items, items + len_);
    ++count_;
  }

  // Indexes every pattern under its itemset; an itemset seen twice keeps its
  // first ordinal. Call once, after the last append.
  void build_index() {
    slots_.assign(table_size_for(count_), 0);
    stamps_.assign(count_, 0);
    for (uint32_t n = 0; n < count_; ++n) {
      const uint32_t* a = items(n);
      const uint64_t h = itemset_hash(a, len_);
      size_t slot = probe(a, len_, h);
      if (slots_[slot] == 0) slots_[slot] = (h & kTagMask) | (uint64_t{n} + 1);
    }
  }

  // Ordinal of the first pattern equal to q[0..len] without position `skip`,
  // whose hash is `hash`; kNone when there is none.
  uint32_t find(const uint32_t* q, uint32_t skip, uint64_t hash) const {
    const uint64_t slot = slots_[probe(q, skip, hash)];
    return slot == 0 ? kNone : static_cast<uint32_t>(slot - 1);
  }

  // Marks pattern n as written in search `serial`; false when it already was.
  bool mark(uint32_t n, uint32_t serial) {
    if (stamps_[n] == serial) return false;
    stamps_[n] = serial;
    return true;
  }

 private:
  static constexpr uint64_t kChunkItems = 1u << 16;
  static constexpr uint64_t kTagMask = 0xffffffff00000000ull;

  void start_chunk() {
    if (chunks_.size() == 1) chunks_.front().shrink_to_fit();
    chunks_.emplace_back();
    if (chunks_.size() > 1) chunks_.back().reserve(size_t{len_} << shift_);
  }

  // The slot holding q-without-skip, or the empty slot where it would go.
  size_t probe(const uint32_t* q, uint32_t skip, uint64_t hash) const {
    const size_t mask = slots_.size() - 1;
    const uint64_t tag = hash & kTagMask;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
      const uint64_t slot = slots_[i];
      if (slot == 0) return i;
      if ((slot & kTagMask) == tag &&
          equal_skipping(items(static_cast<uint32_t>(slot - 1)), q, len_, skip)) {
        return i;
      }
    }
  }

  uint32_t len_;
  uint32_t shift_ = 0;  // log2 of the patterns per chunk
  uint32_t count_ = 0;
  std::vector<std::vector<uint32_t>> chunks_;
  std::vector<uint64_t> slots_;    // tag (high hash bits) | ordinal + 1; 0 is empty
  std::vector<uint32_t> stamps_;   // serial of the search that last wrote the pattern
};

// Every pattern of the file, grouped by length (index = length).
struct PatternTable {
  std::vector<PatternGroup> groups;

  PatternGroup* group(uint32_t len) { return len < groups.size() ? &groups[len] : nullptr; }
  void append(const std::vector<uint32_t>& items) {
    const uint32_t len = static_cast<uint32_t>(items.size());
    while (groups.size() <= len) groups.emplace_back(static_cast<uint32_t>(groups.size()));
    groups[len].append(items.data());
  }
};

// Parses the items of one pattern line as parse_sequence does with three
// leading fields, into `items` (ascending, no duplicates). Returns false when
// the line opens a second itemset, which the hashed search does not handle.
bool parse_items(std::string_view line, std::vector<uint32_t>* items) {
  auto next_token = [&line]() {
    size_t i = 0;
    while (i < line.size() && is_white_space(line[i])) ++i;
    size_t j = i;
    while (j < line.size() && !is_white_space(line[j])) ++j;
    std::string_view token = line.substr(i, j - i);
    line.remove_prefix(j);
    return token;
  };
  for (uint32_t f = 0; f < kPatternFields; ++f) next_token();
  items->clear();
  bool open_new = true;
  uint32_t value = 0;
  while (read_number(next_token(), &value)) {
    if (value == kItemsetBreak) {
      open_new = true;
      continue;
    }
    if (open_new && !items->empty()) return false;
    open_new = false;
    items->push_back(value);
  }
  std::sort(items->begin(), items->end());
  items->erase(std::unique(items->begin(), items->end()), items->end());
  return true;
}

// Loads every line of `in` into `table` and indexes it. Returns false when a
// record of more than one itemset was met (the table is then incomplete).
bool load_patterns(FILE* in, PatternTable* table) {
  char* buf = nullptr;
  size_t cap = 0;
  ssize_t n;
  std::vector<uint32_t> items;
  bool single = true;
  while (single && (n = getline(&buf, &cap, in)) > 0) {
    std::string_view line(buf, static_cast<size_t>(n));
    if (line.back() == '\n') line.remove_suffix(1);
    single = parse_items(line, &items);
    if (single) table->append(items);
  }
  free(buf);
  if (!single) return false;
  for (PatternGroup& g : table->groups) g.build_index();
  return true;
}

// The distinct itemsets of one length met by a search, in the order first met,
// with their hashes. Its index is cleared in O(1) per search by a generation
// number, so one Level serves every pattern without re-allocating.
class Level {
 public:
  void reset(uint32_t len) {
    len_ = len;
    items_.clear();
    hashes_.clear();
    if (++generation_ == 0) {  // wrapped: old stamps could match again
      std::fill(slots_.begin(), slots_.end(), Slot{});
      generation_ = 1;
    }
  }

  uint32_t count() const { return static_cast<uint32_t>(hashes_.size()); }
  const uint32_t* items(uint32_t x) const { return items_.data() + size_t{x} * len_; }
  uint64_t hash(uint32_t x) const { return hashes_[x]; }

  // Adds q[0..len] without position `skip` (hash `hash`) unless already present.
  void add(const uint32_t* q, uint32_t skip, uint64_t hash) {
    if ((size_t{count()} + 1) * 2 > slots_.size()) grow();
    Slot& slot = slots_[probe(q, skip, hash)];
    if (slot.generation == generation_) return;
    slot = Slot{generation_, count()};
    for (uint32_t i = 0; i <= len_; ++i) {
      if (i != skip) items_.push_back(q[i]);
    }
    hashes_.push_back(hash);
  }

 private:
  struct Slot {
    uint32_t generation = 0;
    uint32_t index = 0;
  };

  size_t probe(const uint32_t* q, uint32_t skip, uint64_t hash) const {
    const size_t mask = slots_.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
      const Slot& s = slots_[i];
      if (s.generation != generation_) return i;
      if (hashes_[s.index] == hash && equal_skipping(items(s.index), q, len_, skip)) return i;
    }
  }

  void grow() {
    slots_.assign(slots_.empty() ? 64 : slots_.size() * 2, Slot{});
    for (uint32_t x = 0; x < count(); ++x) {
      slots_[probe(items(x), len_, hashes_[x])] = Slot{generation_, x};
    }
  }

  uint32_t len_ = 0;
  uint32_t generation_ = 0;
  std::vector<uint32_t> items_;
  std::vector<uint64_t> hashes_;
  std::vector<Slot> slots_;
};

// Builds one PC line at a time and hands it to the stream whole.
class LineWriter {
 public:
  explicit LineWriter(FILE* out) : out_(out) {}
  void id(uint32_t len_minus_one, uint32_t ordinal) {
    put(len_minus_one);
    line_.push_back('-');
    put(ordinal);
  }
  void parent(uint32_t len_minus_one, uint32_t ordinal) {
    line_.push_back(' ');
    id(len_minus_one, ordinal);
  }
  void end() {
    line_.push_back('\n');
    fwrite(line_.data(), 1, line_.size(), out_);
    line_.clear();
  }

 private:
  void put(uint32_t v) {
    char digits[16];
    char* end = std::to_chars(digits, digits + sizeof digits, v).ptr;
    line_.append(digits, end);
  }
  FILE* out_;
  std::string line_;
};

// One search per pattern, with the two frontier levels in use (the one being
// expanded and the one being filled) kept across patterns.
class HashedSearch {
 public:
  HashedSearch(PatternTable* table, FILE* out) : table_(table), line_(out) {}

  void run(uint32_t len, uint32_t ordinal) {
    line_.id(len - 1, ordinal);
    ++serial_;
    const uint32_t* p = table_->groups[len].items(ordinal);
    current_.reset(len);
    current_.add(p, len, itemset_hash(p, len));
    for (uint32_t j = len; j > 0 && current_.count() > 0; --j) {
      expand_level(j);
      std::swap(current_, next_);
    }
    line_.end();
  }

 private:
  // Drops each item of every record of length j in turn: frequent subsets
  // not yet written go to the line, the others to the next level.
  void expand_level(uint32_t j) {
    next_.reset(j - 1);
    PatternGroup* group = table_->group(j - 1);
    for (uint32_t x = 0; x < current_.count(); ++x) {
      const uint32_t* q = current_.items(x);
      for (uint32_t t = 0; t < j; ++t) {
        const uint64_t h = current_.hash(x) - item_hash(q[t]);
        const uint32_t n = group != nullptr ? group->find(q, t, h) : kNone;
        if (n == kNone) {
          next_.add(q, t, h);
        } else if (group->mark(n, serial_)) {
          line_.parent(j - 2, n);
        }
      }
    }
  }

  PatternTable* table_;
  LineWriter line_;
  uint32_t serial_ = 0;
  Level current_;
  Level next_;
};

// Returns 0, 1 when memory runs short, or kNeedsScan when a record of more
// than one itemset was met before anything was written.
constexpr int kNeedsScan = 2;

int lattice_hashed(FILE* in, FILE* out) {
  try {
    PatternTable table;
    if (!load_patterns(in, &table)) return kNeedsScan;
    HashedSearch search(&table, out);
    for (size_t k = table.groups.size(); k-- > 1;) {
      const uint32_t len = static_cast<uint32_t>(k);
      for (uint32_t i = 0; i < table.groups[k].count(); ++i) search.run(len, i);
    }
    return 0;
  } catch (const std::bad_alloc&) {
    return 1;
  }
}

}  // namespace

int generate_lattice(const char* pattern_file, const char* pc_file) {
  LatticeFiles files;
  if (open_files(pattern_file, pc_file, &files) != 0) return 1;
  int result = lattice_hashed(files.patterns, files.pc);
  if (result == kNeedsScan) {
    rewind(files.patterns);
    result = lattice_by_scan(files.patterns, files.pc);
  }
  close_files(&files);
  return result;
}

int generate_lattice_by_scan(const char* pattern_file, const char* pc_file) {
  LatticeFiles files;
  if (open_files(pattern_file, pc_file, &files) != 0) return 1;
  const int result = lattice_by_scan(files.patterns, files.pc);
  close_files(&files);
  return result;
}
