#include "lattice.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "sequence.h"
#include "util.h"

namespace {

const char kSrc[] = "../vscom/lattice";
// Source lines quoted in the reports, fixed so that the logs of every build agree.
constexpr unsigned kLineOpenPatterns = 37;
constexpr unsigned kLineOpenPc = 41;
constexpr unsigned kLineWritePc = 45;
// Leading text fields of a pattern line: id, support count, support percentage.
constexpr uint32_t kPatternFields = 3;
constexpr uint32_t kItemsetBreak = 4294967295u;  // the value "-1" reads as

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
    rep->printf("%s(%u) Failed to write %s", kSrc, kLineWritePc, pc_file);
    return 1;
  }
  return result;
}

// Opens both files, reporting each that fails. Returns 0, or 1 with both closed.
int open_files(const char* pattern_file, const char* pc_file, LatticeFiles* files,
               Reporter* rep) {
  files->patterns = open(pattern_file, O_RDONLY);
  if (files->patterns < 0) {
    rep->printf("%s(%u) Failed to open %s", kSrc, kLineOpenPatterns, pattern_file);
  }
  files->pc = create_fresh(pc_file, 0664);
  if (files->pc < 0) rep->printf("%s(%u) Failed to open %s", kSrc, kLineOpenPc, pc_file);
  if (files->patterns >= 0 && files->pc >= 0) {
    files->out = std::make_unique<OutBuffer>(files->pc);
    return 0;
  }
  close_files(files);
  return 1;
}

// Formats the PC lines into the list's output buffer. Digits are written in
// place: calls to copy a few bytes cost more here than the formatting itself.
class LineWriter {
 public:
  explicit LineWriter(OutBuffer* out) : out_(out) {}

  void id(uint32_t len_minus_one, uint32_t ordinal) {
    char* p = out_->reserve(kMaxId);
    p = put(p, len_minus_one);
    *p++ = '-';
    out_->commit(put(p, ordinal));
  }
  void parent(uint32_t len_minus_one, uint32_t ordinal) {
    char* p = out_->reserve(1);
    *p++ = ' ';
    out_->commit(p);
    id(len_minus_one, ordinal);
  }
  void end() {
    char* p = out_->reserve(1);
    *p++ = '\n';
    out_->commit(p);
  }

 private:
  static constexpr size_t kMaxId = 21;  // two 10-digit numbers and a dash

  // Writes v in decimal at p, two digits per division; returns the end.
  static char* put(char* p, uint32_t v) {
    static constexpr char kPairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    size_t len = 1;
    for (uint32_t rest = v; rest >= 10; rest /= 10) ++len;
    char* end = p + len;
    p = end;
    for (; v >= 100; v /= 100) {
      p -= 2;
      p[0] = kPairs[2 * (v % 100)];
      p[1] = kPairs[2 * (v % 100) + 1];
    }
    if (v >= 10) {
      p[-2] = kPairs[2 * v];
      p[-1] = kPairs[2 * v + 1];
    } else {
      p[-1] = static_cast<char>('0' + v);
    }
    return end;
  }

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

// item_hash of every item below a bound, looked up instead of recomputed.
class ItemHashes {
 public:
  // Tabulates the items up to max_item, at most the first 2^20.
  void cover(uint32_t max_item) {
    const size_t n = std::min<size_t>(size_t{max_item} + 1, size_t{1} << 20);
    known_.resize(n);
    for (size_t i = 0; i < n; ++i) known_[i] = item_hash(static_cast<uint32_t>(i));
  }
  uint64_t of(uint32_t item) const { return item < known_.size() ? known_[item] : item_hash(item); }
  uint64_t of(const uint32_t* items, uint32_t len) const {
    uint64_t h = 0;
    for (uint32_t i = 0; i < len; ++i) h += of(items[i]);
    return h;
  }

 private:
  std::vector<uint64_t> known_;
};

// True when a[0..len) equals q[0..len] with q's position `skip` left out;
// a `skip` of len or more compares q[0..len) directly.
bool equal_skipping(const uint32_t* a, const uint32_t* q, uint32_t len, uint32_t skip) {
  for (uint32_t i = 0; i < len; ++i) {
    if (a[i] != q[i + (i >= skip ? 1 : 0)]) return false;
  }
  return true;
}

// Slots for `count` patterns: a power of two, at most three quarters full.
size_t table_size_for(size_t count) {
  size_t size = 16;
  while (size < count + count / 3 + 1) size *= 2;
  return size;
}

constexpr uint32_t kNone = ~uint32_t{0};

// The frequent patterns of one length in file order, stored flat in chunks of
// at most 64 Ki items (so the store never holds a doubled copy while it
// grows), with a hash index from itemset to its first ordinal.
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
    std::vector<uint32_t>& chunk = chunks_.back();
    for (uint32_t i = 0; i < len_; ++i) chunk.push_back(items[i]);
    ++count_;
  }

  // Indexes every pattern under its itemset; an itemset seen twice keeps its
  // first ordinal. Call once, after the last append.
  void build_index(const ItemHashes& hashes) {
    slots_.assign(table_size_for(count_), 0);
    for (uint32_t n = 0; n < count_; ++n) {
      const uint32_t* a = items(n);
      const uint64_t h = hashes.of(a, len_);
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

  // Start loading the home slot of `hash`, and then the items of the pattern
  // found there: the lookups of one record's subsets overlap their misses.
  void prefetch_slot(uint64_t hash) const {
    __builtin_prefetch(&slots_[hash & (slots_.size() - 1)]);
  }
  void prefetch_items(uint64_t hash) const {
    const uint64_t slot = slots_[hash & (slots_.size() - 1)];
    if (slot != 0) __builtin_prefetch(items(static_cast<uint32_t>(slot - 1)));
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
};

// Every pattern of the file, grouped by length (index = length).
struct PatternTable {
  std::vector<PatternGroup> groups;
  ItemHashes hashes;
  uint32_t max_item = 0;

  PatternGroup* group(uint32_t len) { return len < groups.size() ? &groups[len] : nullptr; }
  // Appends the pattern of `len` ascending items at `items`.
  void append(const uint32_t* items, uint32_t len) {
    while (groups.size() <= len) groups.emplace_back(static_cast<uint32_t>(groups.size()));
    groups[len].append(items);
    if (len > 0) max_item = std::max(max_item, items[len - 1]);
  }
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
bool load_patterns(int in, PatternTable* table) {
  LineReader lines(in);
  std::string_view line;
  std::vector<uint32_t> items;
  while (lines.next(&line)) {
    if (!parse_items(line, &items)) return false;
    table->append(items.data(), static_cast<uint32_t>(items.size()));
  }
  table->hashes.cover(table->max_item);
  for (PatternGroup& g : table->groups) g.build_index(table->hashes);
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

// The ordinals of the parents written from one level of a search: a level's
// subsets all have the same length, so a parent can only recur within it.
// Cleared in O(1) by a generation number.
class OrdinalSet {
 public:
  void reset() {
    count_ = 0;
    if (++generation_ == 0) {
      std::fill(slots_.begin(), slots_.end(), Slot{});
      generation_ = 1;
    }
  }
  // Adds n; false when it was there.
  bool insert(uint32_t n) {
    if ((count_ + 1) * 2 > slots_.size()) grow();
    Slot& slot = slots_[find(n)];
    if (slot.generation == generation_) return false;
    slot = Slot{generation_, n};
    ++count_;
    return true;
  }

 private:
  struct Slot {
    uint32_t generation = 0;
    uint32_t ordinal = 0;
  };

  size_t find(uint32_t n) const {
    const size_t mask = slots_.size() - 1;
    for (size_t i = (n * 0x9e3779b1u) & mask;; i = (i + 1) & mask) {
      if (slots_[i].generation != generation_ || slots_[i].ordinal == n) return i;
    }
  }

  void grow() {
    std::vector<Slot> old;
    old.swap(slots_);
    slots_.assign(old.empty() ? 64 : old.size() * 2, Slot{});
    for (const Slot& s : old) {
      if (s.generation == generation_) slots_[find(s.ordinal)] = s;
    }
  }

  uint32_t generation_ = 0;
  size_t count_ = 0;
  std::vector<Slot> slots_;
};

// One search per pattern, with the two frontier levels in use (the one being
// expanded and the one being filled) kept across patterns.
template <class Out>
class HashedSearch {
 public:
  HashedSearch(PatternTable* table, Out* out) : table_(table), line_(*out) {}

  void run(uint32_t len, uint32_t ordinal) {
    line_.id(len - 1, ordinal);
    const uint32_t* p = table_->groups[len].items(ordinal);
    current_.reset(len);
    current_.add(p, len, table_->hashes.of(p, len));
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
    written_.reset();
    PatternGroup* group = table_->group(j - 1);
    hashes_.resize(j);
    for (uint32_t x = 0; x < current_.count(); ++x) {
      const uint32_t* q = current_.items(x);
      for (uint32_t t = 0; t < j; ++t) hashes_[t] = current_.hash(x) - table_->hashes.of(q[t]);
      if (group != nullptr) prefetch(*group, j);
      for (uint32_t t = 0; t < j; ++t) {
        const uint32_t n = group != nullptr ? group->find(q, t, hashes_[t]) : kNone;
        if (n == kNone) {
          next_.add(q, t, hashes_[t]);
        } else if (written_.insert(n)) {
          line_.parent(j - 2, n);
        }
      }
    }
  }

  void prefetch(const PatternGroup& group, uint32_t j) const {
    for (uint32_t t = 0; t < j; ++t) group.prefetch_slot(hashes_[t]);
    for (uint32_t t = 0; t < j; ++t) group.prefetch_items(hashes_[t]);
  }

  PatternTable* table_;
  Out& line_;
  OrdinalSet written_;  // parents written from the level being expanded
  Level current_;
  Level next_;
  std::vector<uint64_t> hashes_;  // of the subsets of the record being expanded
};

// Runs the search for every pattern of `table`, longest first.
template <class Out>
void search_all(PatternTable* table, Out* out) {
  HashedSearch<Out> search(table, out);
  for (size_t k = table->groups.size(); k-- > 1;) {
    const uint32_t len = static_cast<uint32_t>(k);
    for (uint32_t i = 0; i < table->groups[k].count(); ++i) search.run(len, i);
  }
}

// Hands the parents of each pattern to a ParentVisitor, a line at a time.
class ParentCollector {
 public:
  explicit ParentCollector(const ParentVisitor& visit) : visit_(visit) {}
  void id(uint32_t len_minus_one, uint32_t ordinal) {
    len_ = len_minus_one + 1;
    ordinal_ = ordinal;
    parents_.clear();
  }
  void parent(uint32_t len_minus_one, uint32_t ordinal) {
    parents_.emplace_back(len_minus_one + 1, ordinal);
  }
  void end() { visit_(len_, ordinal_, parents_); }

 private:
  const ParentVisitor& visit_;
  uint32_t len_ = 0;
  uint32_t ordinal_ = 0;
  std::vector<std::pair<uint32_t, uint32_t>> parents_;
};

// Returns 0, 1 when memory runs short, or kNeedsScan when a record of more
// than one itemset was met before anything was written.
constexpr int kNeedsScan = 2;

int lattice_hashed(int in, LineWriter* out) {
  try {
    PatternTable table;
    if (!load_patterns(in, &table)) return kNeedsScan;
    search_all(&table, out);
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

void find_parents(const std::vector<std::vector<uint32_t>>& by_length, const ParentVisitor& visit) {
  PatternTable table;
  for (uint32_t len = 1; len < by_length.size(); ++len) {
    const std::vector<uint32_t>& flat = by_length[len];
    for (size_t at = 0; at + len <= flat.size(); at += len) {
      table.append(flat.data() + at, len);
    }
  }
  table.hashes.cover(table.max_item);
  for (PatternGroup& g : table.groups) g.build_index(table.hashes);
  ParentCollector collector(visit);
  search_all(&table, &collector);
}
