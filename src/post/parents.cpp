#include "post/parents.h"

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

namespace quarlo::detail {

namespace {

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
  std::vector<uint64_t> slots_;  // tag (high hash bits) | ordinal + 1; 0 is empty
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

// Every non-frequent itemset the searches meet, with its expansion once it
// has been made: the frequent subsets one item shorter (as parents) and the
// non-frequent ones (as further itemsets), in the order of the dropped item.
// Long patterns share most of their non-frequent subsets, so each search
// replays these lists instead of looking every subset up again.
class SubsetMemo {
 public:
  // A child entry: a parent's ordinal (tagged) or a memo id.
  static uint32_t parent_entry(uint32_t ordinal) { return ordinal << 1 | 1u; }
  static uint32_t memo_entry(uint32_t id) { return id << 1; }

  uint32_t size() const { return static_cast<uint32_t>(hashes_.size()); }
  const uint32_t* items(uint32_t id) const { return items_.data() + at_[id]; }
  uint64_t hash(uint32_t id) const { return hashes_[id]; }
  bool expanded(uint32_t id) const { return first_child_[id] != kNotExpanded; }
  const uint32_t* children_begin(uint32_t id) const { return children_.data() + first_child_[id]; }
  const uint32_t* children_end(uint32_t id) const { return children_begin(id) + child_count_[id]; }
  size_t bytes() const {
    return 4 * (items_.size() + children_.size() + slots_.size()) + 24 * hashes_.size();
  }

  // The id of q[0..len] without position `skip` (length len, hash `hash`),
  // added when new.
  uint32_t id_of(const uint32_t* q, uint32_t skip, uint32_t len, uint64_t hash) {
    if ((size_t{size()} + 1) * 2 > slots_.size()) grow();
    uint32_t& slot = slots_[probe(q, skip, len, hash)];
    if (slot != 0) return slot - 1;
    const uint32_t id = size();
    slot = id + 1;
    at_.push_back(items_.size());
    lengths_.push_back(len);
    for (uint32_t i = 0; i <= len; ++i) {
      if (i != skip) items_.push_back(q[i]);
    }
    hashes_.push_back(hash);
    first_child_.push_back(kNotExpanded);
    child_count_.push_back(0);
    return id;
  }

  void set_children(uint32_t id, const std::vector<uint32_t>& list) {
    first_child_[id] = children_.size();
    child_count_[id] = static_cast<uint32_t>(list.size());
    children_.insert(children_.end(), list.begin(), list.end());
  }

  void clear() { *this = SubsetMemo(); }

 private:
  static constexpr size_t kNotExpanded = SIZE_MAX;

  static uint64_t slot_hash(uint64_t hash, uint32_t len) {
    return hash ^ (uint64_t{len} * 0x9e3779b97f4a7c15ull);
  }

  size_t probe(const uint32_t* q, uint32_t skip, uint32_t len, uint64_t hash) const {
    const size_t mask = slots_.size() - 1;
    for (size_t i = slot_hash(hash, len) & mask;; i = (i + 1) & mask) {
      const uint32_t slot = slots_[i];
      if (slot == 0) return i;
      const uint32_t id = slot - 1;
      if (hashes_[id] == hash && lengths_[id] == len && equal_skipping(items(id), q, len, skip)) {
        return i;
      }
    }
  }

  void grow() {
    slots_.assign(slots_.empty() ? 1024 : slots_.size() * 2, 0);
    const size_t mask = slots_.size() - 1;
    for (uint32_t id = 0; id < size(); ++id) {
      size_t i = slot_hash(hashes_[id], lengths_[id]) & mask;
      while (slots_[i] != 0) i = (i + 1) & mask;
      slots_[i] = id + 1;
    }
  }

  std::vector<uint32_t> items_;
  std::vector<size_t> at_;
  std::vector<uint32_t> lengths_;
  std::vector<uint64_t> hashes_;
  std::vector<size_t> first_child_;
  std::vector<uint32_t> child_count_;
  std::vector<uint32_t> children_;
  std::vector<uint32_t> slots_;  // id + 1; 0 is empty
};

// One search per pattern: level by level downward, each level's itemsets in
// the order first met, each itemset's subsets in the order of the dropped
// item; a frequent subset is written as a parent once per level, a
// non-frequent one goes to the next level once.
class MemoSearch {
 public:
  MemoSearch(PatternTable* table, ParentSink* out) : table_(table), line_(*out) {}

  void run(uint32_t len, uint32_t ordinal) {
    if (memo_.bytes() > kMemoBudget) {  // a cache: start it afresh between patterns
      memo_.clear();
      seen_.clear();
    }
    line_.id(len - 1, ordinal);
    start_level();
    const uint32_t* p = table_->groups[len].items(ordinal);
    expand(p, len, table_->hashes.of(p, len), &list_);
    replay(list_.data(), list_.data() + list_.size(), len);
    for (uint32_t j = len - 1; j > 0 && !next_.empty(); --j) {
      std::swap(current_, next_);
      start_level();
      for (uint32_t id : current_) {
        if (!memo_.expanded(id)) {
          item_copy_.assign(memo_.items(id), memo_.items(id) + j);
          expand(item_copy_.data(), j, memo_.hash(id), &list_);
          memo_.set_children(id, list_);
        }
        replay(memo_.children_begin(id), memo_.children_end(id), j);
      }
    }
    line_.end();
  }

 private:
  static constexpr size_t kMemoBudget = size_t{512} << 20;

  void start_level() {
    next_.clear();
    written_.reset();
    if (++stamp_ == 0) {
      std::fill(seen_.begin(), seen_.end(), 0u);
      stamp_ = 1;
    }
  }

  // The child entries of the itemset q of length j with hash h.
  void expand(const uint32_t* q, uint32_t j, uint64_t h, std::vector<uint32_t>* list) {
    list->clear();
    PatternGroup* group = table_->group(j - 1);
    for (uint32_t t = 0; t < j; ++t) {
      const uint64_t sub = h - table_->hashes.of(q[t]);
      const uint32_t n = group != nullptr ? group->find(q, t, sub) : kNone;
      list->push_back(n != kNone ? SubsetMemo::parent_entry(n)
                                 : SubsetMemo::memo_entry(memo_.id_of(q, t, j - 1, sub)));
    }
  }

  // Writes the new parents among the entries of an itemset of length j and
  // queues its new non-frequent subsets.
  void replay(const uint32_t* begin, const uint32_t* end, uint32_t j) {
    if (seen_.size() < memo_.size()) seen_.resize(memo_.size() + memo_.size() / 2 + 64, 0);
    for (const uint32_t* c = begin; c != end; ++c) {
      const uint32_t v = *c >> 1;
      if (*c & 1u) {
        if (written_.insert(v)) line_.parent(j - 2, v);
      } else if (seen_[v] != stamp_) {
        seen_[v] = stamp_;
        next_.push_back(v);
      }
    }
  }

  PatternTable* table_;
  ParentSink& line_;
  SubsetMemo memo_;
  OrdinalSet written_;             // parents written from the level being expanded
  std::vector<uint32_t> current_;  // memo ids of the level being expanded
  std::vector<uint32_t> next_;     // memo ids of the level below, in the order met
  std::vector<uint32_t> seen_;     // by memo id: stamp of the level it was queued for
  uint32_t stamp_ = 0;
  std::vector<uint32_t> list_;
  std::vector<uint32_t> item_copy_;
};

// Runs the search for every pattern of `table`, longest first.
void search_all(PatternTable* table, ParentSink* out) {
  MemoSearch search(table, out);
  for (size_t k = table->groups.size(); k-- > 1;) {
    const uint32_t len = static_cast<uint32_t>(k);
    for (uint32_t i = 0; i < table->groups[k].count(); ++i) search.run(len, i);
  }
}

// Hands the parents of each pattern to a ParentVisitor, a line at a time.
class ParentCollector : public ParentSink {
 public:
  explicit ParentCollector(const ParentVisitor& visit) : visit_(visit) {}
  void id(uint32_t len_minus_one, uint32_t ordinal) override {
    len_ = len_minus_one + 1;
    ordinal_ = ordinal;
    parents_.clear();
  }
  void parent(uint32_t len_minus_one, uint32_t ordinal) override {
    parents_.emplace_back(len_minus_one + 1, ordinal);
  }
  void end() override { visit_(len_, ordinal_, parents_); }

 private:
  const ParentVisitor& visit_;
  uint32_t len_ = 0;
  uint32_t ordinal_ = 0;
  std::vector<std::pair<uint32_t, uint32_t>> parents_;
};

}  // namespace
struct PatternSet::Table {
  PatternTable patterns;
};

PatternSet::PatternSet() : table_(std::make_unique<Table>()) {}
PatternSet::~PatternSet() = default;

void PatternSet::append(const uint32_t* items, uint32_t len) {
  table_->patterns.append(items, len);
}

void PatternSet::index() {
  PatternTable& t = table_->patterns;
  t.hashes.cover(t.max_item);
  for (PatternGroup& g : t.groups) g.build_index(t.hashes);
}

void PatternSet::search(ParentSink* out) { search_all(&table_->patterns, out); }

void find_parents(const std::vector<std::vector<uint32_t>>& by_length, const ParentVisitor& visit) {
  PatternSet set;
  for (uint32_t len = 1; len < by_length.size(); ++len) {
    const std::vector<uint32_t>& flat = by_length[len];
    for (size_t at = 0; at + len <= flat.size(); at += len) set.append(flat.data() + at, len);
  }
  set.index();
  ParentCollector collector(visit);
  set.search(&collector);
}

}  // namespace quarlo::detail
