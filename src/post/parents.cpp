#include "post/parents.h"

#ifdef __linux__
#include <sys/mman.h>
#endif

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

// True when a[0..n) equals b[0..n), compared two items at a time.
bool equal_items(const uint32_t* a, const uint32_t* b, uint32_t n) {
  uint32_t i = 0;
  for (; i + 2 <= n; i += 2) {
    uint64_t x, y;
    std::memcpy(&x, a + i, 8);
    std::memcpy(&y, b + i, 8);
    if (x != y) return false;
  }
  return i == n || a[i] == b[i];
}

// True when a[0..len) equals q[0..len] with q's position `skip` left out;
// a `skip` of len or more compares q[0..len) directly.
bool equal_skipping(const uint32_t* a, const uint32_t* q, uint32_t len, uint32_t skip) {
  const uint32_t head = std::min(skip, len);
  if (!equal_items(a, q, head)) return false;
  // With nothing behind the skipped position q may hold only len items (or
  // none, a null pointer): no pointer is formed past them.
  return head == len || equal_items(a + head, q + head + 1, len - head);
}

// Slots for `count` patterns: a power of two, at most three quarters full.
size_t table_size_for(size_t count) {
  size_t size = 16;
  while (size < count + count / 3 + 1) size *= 2;
  return size;
}

constexpr uint32_t kNone = ~uint32_t{0};

// Anonymous memory mappings for large arrays: made, grown (moved by the
// kernel without copying) and given back; nullptr on failure.
#ifdef __linux__
constexpr bool kMaps = true;

void* map_bytes(size_t bytes) {
  void* p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  madvise(p, bytes, MADV_HUGEPAGE);  // a hint: without huge pages it still works
  return p;
}

void* remap_bytes(void* old, size_t old_bytes, size_t bytes) {
  void* p = mremap(old, old_bytes, bytes, MREMAP_MAYMOVE);
  if (p == MAP_FAILED) return nullptr;
  madvise(p, bytes, MADV_HUGEPAGE);
  return p;
}

void unmap_bytes(void* p, size_t bytes) { munmap(p, bytes); }
#else
constexpr bool kMaps = false;
void* map_bytes(size_t) { return nullptr; }
void* remap_bytes(void*, size_t, size_t) { return nullptr; }
void unmap_bytes(void*, size_t) {}
#endif

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

// A growable array of trivially copyable values. Past kMapped bytes it lives
// in its own memory mapping, which grows by remapping its pages (no copy, no
// second fault per page) and asks for huge pages: the memo's arrays grow to
// tens of megabytes a step at a time, and faulting them in 4 KiB pages costs
// more than the search that fills them. Below that, and where mappings are
// not available, it is held by realloc.
template <class T>
class PodArray {
 public:
  PodArray() = default;
  PodArray(const PodArray&) = delete;
  PodArray& operator=(const PodArray&) = delete;
  ~PodArray() { release(); }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* data() { return data_; }
  const T* data() const { return data_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }

  void push_back(const T& v) {
    if (size_ == cap_) reserve(size_ + 1);
    data_[size_++] = v;
  }
  // Room for n more values past the end (never a null pointer, even for
  // none); the caller writes them and sets the new size.
  T* room(size_t n) {
    if (n > cap_ - size_ || data_ == nullptr) reserve(size_ + n);
    return data_ + size_;
  }
  void set_size(size_t n) { size_ = n; }
  void clear() { size_ = 0; }
  void swap(PodArray& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(cap_, other.cap_);
  }
  // Grows to n values, the new ones zero.
  void grow_zeroed(size_t n) {
    if (n <= size_) return;
    room(n - size_);
    std::memset(static_cast<void*>(data_ + size_), 0, (n - size_) * sizeof(T));
    size_ = n;
  }
  void fill_zero() { std::memset(static_cast<void*>(data_), 0, size_ * sizeof(T)); }
  // Gives the memory back.
  void release() {
    if (mapped()) {
      unmap_bytes(data_, cap_ * sizeof(T));
    } else {
      std::free(data_);
    }
    data_ = nullptr;
    size_ = cap_ = 0;
  }

 private:
  static constexpr size_t kMapped = size_t{2} << 20;  // one huge page

  bool mapped() const { return kMaps && cap_ * sizeof(T) >= kMapped; }

  void reserve(size_t need) {
    size_t cap = std::max<size_t>(cap_ * 2, 1024 / sizeof(T));
    cap = std::max(cap, need);
    if (kMaps && cap * sizeof(T) >= kMapped) {
      cap = (cap * sizeof(T) + kMapped - 1) / kMapped * kMapped / sizeof(T);
      void* p = mapped() ? remap_bytes(data_, cap_ * sizeof(T), cap * sizeof(T))
                         : map_bytes(cap * sizeof(T));
      if (p == nullptr) throw std::bad_alloc();
      if (!mapped()) {
        if (size_ > 0) std::memcpy(p, static_cast<const void*>(data_), size_ * sizeof(T));
        std::free(data_);
      }
      data_ = static_cast<T*>(p);
    } else {
      void* p = std::realloc(static_cast<void*>(data_), cap * sizeof(T));
      if (p == nullptr) throw std::bad_alloc();
      data_ = static_cast<T*>(p);
    }
    cap_ = cap;
  }

  T* data_ = nullptr;
  size_t size_ = 0;
  size_t cap_ = 0;
};

// Every non-frequent itemset the searches meet, with its expansion once it
// has been made: one entry per subset one item shorter, in the order of the
// dropped item, each the ordinal of a frequent subset (a parent) or the id of
// a non-frequent one (to search further), told apart by the low bit. Long
// patterns share most of their non-frequent subsets, so each search replays
// these lists instead of looking every subset up again. The same expansion
// is also kept as two plain lists, parents then non-frequent ids, each in
// the order of the dropped item: a replay takes the two kinds in two
// separate orders, and loops over them without a branch on the kind.
class SubsetMemo {
 public:
  static uint32_t parent_entry(uint32_t ordinal) { return ordinal << 1 | 1u; }
  static uint32_t memo_entry(uint32_t id) { return id << 1; }

  // An itemset: where its items and its expansion lie, its length, and the
  // itemset whose expansion first met it (a memo id, or kRoot for the pattern
  // being searched) with the position of the item dropped from it. Offsets
  // are 32-bit: a memo that would outgrow them (16 GiB) fails as memory
  // running short.
  struct Node {
    uint32_t items_at;     // first item in items_
    uint32_t children_at;  // first entry in entries_ and in split_; kNotExpanded before expansion
    uint32_t len;
    uint32_t parents;  // split_ holds `parents` ordinals, then len - parents ids
    uint32_t from;
    uint32_t dropped;
  };
  static constexpr uint32_t kNotExpanded = ~uint32_t{0};
  static constexpr uint32_t kRoot = ~uint32_t{0};

  explicit SubsetMemo(const ItemHashes& hashes) : hashes_(hashes) {}

  uint32_t size() const { return static_cast<uint32_t>(nodes_.size()); }
  const Node& node(uint32_t id) const { return nodes_[id]; }
  const uint32_t* items(const Node& n) const { return items_.data() + n.items_at; }
  const uint32_t* entries(const Node& n) const { return entries_.data() + n.children_at; }
  const uint32_t* split(const Node& n) const { return split_.data() + n.children_at; }
  size_t bytes() const {
    return 4 * (items_.size() + entries_.size() + split_.size()) + 8 * slots_.size() +
           sizeof(Node) * nodes_.size();
  }

  // Starts loading the home slot of the itemset of length len with hash `hash`.
  void prefetch(uint64_t hash, uint32_t len) const {
    if (!slots_.empty()) __builtin_prefetch(&slots_[slot_hash(hash, len) & (slots_.size() - 1)]);
  }

  // The id of q[0..len] without position `skip` (length len, hash `hash`),
  // added when new as met by the expansion of `from`.
  uint32_t id_of(const uint32_t* q, uint32_t skip, uint32_t len, uint64_t hash, uint32_t from) {
    if (nodes_.size() + nodes_.size() / 3 + 1 > slots_.size()) grow();
    const size_t mask = slots_.size() - 1;
    const uint64_t key = slot_hash(hash, len);
    const uint64_t tag = key & kTagMask;
    size_t i = key & mask;
    for (;; i = (i + 1) & mask) {
      const uint64_t slot = slots_[i];
      if (slot == 0) break;
      if ((slot & kTagMask) != tag) continue;
      const uint32_t id = static_cast<uint32_t>(slot) - 1;
      const Node& n = nodes_[id];
      if (n.len == len && equal_skipping(items(n), q, len, skip)) return id;
    }
    // Ids stay below 2^31 so that they fit an entry.
    if (items_.size() + len >= kNotExpanded || nodes_.size() + 1 >= (uint32_t{1} << 31)) {
      throw std::bad_alloc();
    }
    const uint32_t id = size();
    slots_[i] = tag | (uint64_t{id} + 1);
    nodes_.push_back(Node{static_cast<uint32_t>(items_.size()), kNotExpanded, len, 0, from, skip});
    uint32_t* to = items_.room(len);
    std::memcpy(to, q, size_t{skip} * 4);
    std::memcpy(to + skip, q + skip + 1, size_t{len - skip} * 4);
    items_.set_size(items_.size() + len);
    return id;
  }

  // Stores the expansion of `id`: its entries in the order of the dropped
  // item, and the same split (`parents` ordinals, then the other ids).
  void set_children(uint32_t id, const PodArray<uint32_t>& entries,
                    const PodArray<uint32_t>& split, uint32_t parents) {
    const size_t count = entries.size();
    if (entries_.size() + count >= kNotExpanded) throw std::bad_alloc();
    Node& n = nodes_[id];
    n.children_at = static_cast<uint32_t>(entries_.size());
    n.parents = parents;
    std::memcpy(entries_.room(count), entries.data(), count * 4);
    entries_.set_size(entries_.size() + count);
    std::memcpy(split_.room(count), split.data(), count * 4);
    split_.set_size(split_.size() + count);
  }

  void clear() {
    nodes_.release();
    items_.release();
    entries_.release();
    split_.release();
    slots_.release();
  }

 private:
  static constexpr uint64_t kTagMask = 0xffffffff00000000ull;

  static uint64_t slot_hash(uint64_t hash, uint32_t len) {
    return hash ^ (uint64_t{len} * 0x9e3779b97f4a7c15ull);
  }

  // Doubles the slots (at most three quarters full), rehashing every itemset
  // from its items.
  void grow() {
    const size_t size = slots_.empty() ? 1024 : slots_.size() * 2;
    slots_.release();
    slots_.grow_zeroed(size);
    const size_t mask = size - 1;
    for (uint32_t id = 0; id < this->size(); ++id) {
      const Node& n = nodes_[id];
      const uint64_t key = slot_hash(hashes_.of(items(n), n.len), n.len);
      size_t i = key & mask;
      while (slots_[i] != 0) i = (i + 1) & mask;
      slots_[i] = (key & kTagMask) | (uint64_t{id} + 1);
    }
  }

  const ItemHashes& hashes_;
  PodArray<Node> nodes_;
  PodArray<uint32_t> items_;
  PodArray<uint32_t> entries_;
  PodArray<uint32_t> split_;
  PodArray<uint64_t> slots_;  // tag (high bits of the slot hash) | id + 1; 0 is empty
};

// One search per pattern: level by level downward, each level's itemsets in
// the order first met, each itemset's subsets in the order of the dropped
// item; a frequent subset is written as a parent once, a non-frequent one
// goes to the next level once. The subsets met on different levels differ in
// length, so "once per level" is "once per search": both are marked with the
// search's stamp, parents by their place among all patterns, non-frequent
// itemsets by their memo id.
//
// Every itemset is expanded in the search that first meets it, one level
// below the itemset W whose expansion met it (W without its item at d). Its
// subset without the item at t is then W's subset without the item at t
// (a sibling on the same level) without the item W had at d: when that
// sibling is non-frequent and already expanded, the entry is read from the
// sibling's expansion instead of being looked up by hash.
class MemoSearch {
 public:
  MemoSearch(PatternTable* table, ParentSink* out)
      : table_(table), out_(*out), memo_(table->hashes) {
    first_.resize(table->groups.size() + 1, 0);
    for (size_t k = 0; k < table->groups.size(); ++k) {
      first_[k + 1] = first_[k] + table->groups[k].count();
    }
    written_.grow_zeroed(first_.back());
  }

  void run(uint32_t len, uint32_t ordinal) {
    if (memo_.bytes() > kMemoBudget) {  // a cache: start it afresh between patterns
      memo_.clear();
      seen_.release();
    }
    next_stamp();
    out_.id(len - 1, ordinal);
    const uint32_t* p = table_->groups[len].items(ordinal);
    expand(p, len, SubsetMemo::kRoot, 0, nullptr);
    root_.swap(entries_);
    next_.clear();
    found_.clear();
    take(split_.data(), parents_, len - 1);
    queue(split_.data() + parents_, len - parents_);
    if (!found_.empty()) out_.parents(len - 2, found_.data(), found_.size());
    for (uint32_t j = len - 1; j > 0 && !next_.empty(); --j) {
      current_.swap(next_);
      replay_level(j);
      if (!found_.empty()) out_.parents(j - 2, found_.data(), found_.size());
    }
    out_.end();
  }

 private:
  static constexpr size_t kMemoBudget = size_t{512} << 20;

  void next_stamp() {
    if (++stamp_ == 0) {
      written_.fill_zero();
      seen_.fill_zero();
      stamp_ = 1;
    }
  }

  // The entries of the subsets of the itemset q of length j (memo id `id`,
  // or kRoot) into entries_, in the order of the dropped item. `from` holds
  // the entries of the itemset whose expansion met q (q is it without its
  // item at `dropped`); nullptr for the pattern itself.
  void expand(const uint32_t* q, uint32_t j, uint32_t id, uint32_t dropped,
              const uint32_t* from) {
    entries_.clear();
    split_.clear();
    uint32_t* const out = entries_.room(j);
    entries_.set_size(j);
    missing_.clear();
    for (uint32_t t = 0; t < j; ++t) {
      if (from != nullptr) {
        const uint32_t w = from[t + (t >= dropped ? 1 : 0)];  // the sibling without q[t]
        if ((w & 1u) == 0) {
          const SubsetMemo::Node& s = memo_.node(w >> 1);
          if (s.children_at != SubsetMemo::kNotExpanded) {
            const uint32_t at = dropped - (dropped > t ? 1 : 0);  // where q's dropped item sits
            out[t] = memo_.entries(s)[at];
            continue;
          }
        }
      }
      missing_.push_back(t);
    }
    if (!missing_.empty()) look_up(q, j, id);
    // The same entries split by kind.
    uint32_t* const split = split_.room(j);
    uint32_t parents = 0;
    for (uint32_t t = 0; t < j; ++t) parents += entries_[t] & 1u;
    for (uint32_t t = 0, p = 0, o = parents; t < j; ++t) {
      const uint32_t e = entries_[t];
      split[(e & 1u) != 0 ? p++ : o++] = e >> 1;
    }
    split_.set_size(j);
    parents_ = parents;
  }

  // Fills the entries of the positions in missing_ by looking their subsets
  // up by hash.
  void look_up(const uint32_t* q, uint32_t j, uint32_t id) {
    // Their home slots in both tables first, so that the cache misses
    // overlap instead of coming one lookup after the other.
    const PatternGroup* group = table_->group(j - 1);
    const uint64_t h = table_->hashes.of(q, j);
    uint64_t* const subs = sub_hashes_.room(missing_.size());
    for (size_t k = 0; k < missing_.size(); ++k) {
      subs[k] = h - table_->hashes.of(q[missing_[k]]);
      if (group != nullptr) group->prefetch_slot(subs[k]);
      memo_.prefetch(subs[k], j - 1);
    }
    for (size_t k = 0; k < missing_.size(); ++k) {
      const uint32_t t = missing_[k];
      const uint32_t n = group != nullptr ? group->find(q, t, subs[k]) : kNone;
      entries_[t] = n != kNone ? SubsetMemo::parent_entry(n)
                               : SubsetMemo::memo_entry(memo_.id_of(q, t, j - 1, subs[k], id));
    }
    if (seen_.size() < memo_.size()) seen_.grow_zeroed(memo_.size() + memo_.size() / 2 + 64);
  }

  // Adds the parents among `count` ordinals of length `len` not yet written.
  void take(const uint32_t* ordinals, uint32_t count, uint32_t len) {
    uint32_t* const written = written_.data() + first_[len];
    uint32_t* out = found_.room(count);
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t n = ordinals[i];
      *out = n;
      out += written[n] != stamp_;
      written[n] = stamp_;
    }
    found_.set_size(static_cast<size_t>(out - found_.data()));
  }

  // Queues the non-frequent itemsets among `count` memo ids not yet queued.
  void queue(const uint32_t* ids, uint32_t count) {
    uint32_t* out = next_.room(count);
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t v = ids[i];
      *out = v;
      out += seen_[v] != stamp_;
      seen_[v] = stamp_;
    }
    next_.set_size(static_cast<size_t>(out - next_.data()));
  }

  // Expands (once) and replays every itemset of current_, all of length j:
  // their new parents go to found_, their new non-frequent subsets to next_.
  // The loop keeps its arrays in locals; an expansion may move them (the
  // memo grows), so they are taken up again after one.
  void replay_level(uint32_t j) {
    found_.clear();
    next_.clear();
    // At most one entry per pattern of length j - 1, one per memo id.
    found_.room(first_[j] - first_[j - 1]);
    next_.room(memo_.size());
    uint32_t* const written = written_.data() + first_[j - 1];
    const uint32_t stamp = stamp_;
    uint32_t* found = found_.data();
    uint32_t* next = next_.data();
    uint32_t* seen = seen_.data();
    for (size_t k = 0; k < current_.size(); ++k) {
      const uint32_t id = current_[k];
      if (memo_.node(id).children_at == SubsetMemo::kNotExpanded) {
        next_.set_size(static_cast<size_t>(next - next_.data()));
        const SubsetMemo::Node& n = memo_.node(id);
        const uint32_t* from =
            n.from == SubsetMemo::kRoot ? root_.data() : memo_.entries(memo_.node(n.from));
        item_copy_.assign(memo_.items(n), memo_.items(n) + j);
        expand(item_copy_.data(), j, id, n.dropped, from);
        memo_.set_children(id, entries_, split_, parents_);
        next_.room(memo_.size() - next_.size());
        next = next_.data() + next_.size();
        seen = seen_.data();
      }
      const SubsetMemo::Node& n = memo_.node(id);
      const uint32_t* c = memo_.split(n);
      for (uint32_t i = 0; i < n.parents; ++i) {
        const uint32_t v = c[i];
        *found = v;
        found += written[v] != stamp;
        written[v] = stamp;
      }
      for (uint32_t i = n.parents; i < j; ++i) {
        const uint32_t v = c[i];
        *next = v;
        next += seen[v] != stamp;
        seen[v] = stamp;
      }
    }
    found_.set_size(static_cast<size_t>(found - found_.data()));
    next_.set_size(static_cast<size_t>(next - next_.data()));
  }

  PatternTable* table_;
  ParentSink& out_;
  SubsetMemo memo_;
  std::vector<size_t> first_;      // by length: place of its first pattern among all
  PodArray<uint32_t> written_;     // by place among all patterns: stamp of the search that wrote it
  PodArray<uint32_t> seen_;        // by memo id: stamp of the search that queued it
  uint32_t stamp_ = 0;
  PodArray<uint32_t> root_;        // the entries of the pattern being searched
  PodArray<uint32_t> current_;     // memo ids of the level being expanded
  PodArray<uint32_t> next_;        // memo ids of the level below, in the order met
  PodArray<uint32_t> found_;       // parents written from the level being expanded
  PodArray<uint32_t> entries_;     // expand's result
  PodArray<uint32_t> split_;       // and the same split by kind
  uint32_t parents_ = 0;           // how many of them are parents
  PodArray<uint32_t> missing_;     // expand's positions left to look up
  PodArray<uint64_t> sub_hashes_;  // and their subsets' hashes
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
  void parents(uint32_t len_minus_one, const uint32_t* ordinals, size_t count) override {
    for (size_t i = 0; i < count; ++i) parents_.emplace_back(len_minus_one + 1, ordinals[i]);
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
