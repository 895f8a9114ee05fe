#include "engine/fp_tree.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>
#include <utility>
#include <vector>

#include "engine/engine_tables.h"

namespace quarlo::detail {

namespace {

// A node with more than kScanChildren children (the root and the upper nodes
// of sparse data can have thousands) has all of them, and its last child under
// the key kLastChild, in the child index keyed by (parent, item); other nodes
// are searched by walking their child list.
constexpr uint32_t kLastChild = 0xffffffffu;
constexpr uint32_t kWide = NodeKey::kWide;

// Nodes the arena holds at first, and the most it may hold.
constexpr NodeId kFirstNodes = 4096;
constexpr NodeId kMostNodes = 0x7fffffffu;
// Header entries of the arena's first block.
constexpr size_t kFirstHeaders = 4096;

bool ensure_rank(TreeScratch& t, uint32_t nitems) {
  if (t.rank.size() > nitems) return true;
  try {
    t.rank.assign(static_cast<size_t>(nitems) + 1, 0);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

size_t slot_of(const TreeScratch& t, NodeId parent, uint32_t item) {
  uint64_t h = parent * 0x9e3779b97f4a7c15ull;
  h ^= (item + 0x632be59bd9b4e019ull) * 0xc2b2ae3d27d4eb4full;
  return static_cast<size_t>(h ^ (h >> 29)) & t.slot_mask;
}

void start_child_index(TreeScratch& t) {
  if (++t.gen == 0) {  // generations wrapped: forget every old entry
    for (size_t i = 0; t.slots != nullptr && i <= t.slot_mask; ++i) t.slots[i].gen = 0;
    t.gen = 1;
  }
  t.slots_used = 0;
  t.index_ok = true;
}

void put_slot(TreeScratch& t, NodeId parent, uint32_t item, NodeId child) {
  ChildSlot* slots = t.slots;
  size_t i = slot_of(t, parent, item);
  while (slots[i].gen == t.gen && (slots[i].parent != parent || slots[i].item != item)) {
    i = (i + 1) & t.slot_mask;
  }
  if (slots[i].gen != t.gen) ++t.slots_used;
  slots[i] = {parent, child, item, t.gen};
}

// Doubles the table (at least 1024 slots), keeping the current generation.
bool grow_child_index(TreeScratch& t) {
  const size_t old_cap = t.slots == nullptr ? 0 : t.slot_mask + 1;
  const size_t cap = old_cap == 0 ? 1024 : 2 * old_cap;
  ChildSlot* slots = static_cast<ChildSlot*>(calloc(cap, sizeof(ChildSlot)));
  if (slots == nullptr) return false;
  ChildSlot* old = t.slots;
  t.slots = slots;
  t.slot_mask = cap - 1;
  t.slots_used = 0;
  for (size_t i = 0; i < old_cap; ++i) {
    if (old[i].gen == t.gen) put_slot(t, old[i].parent, old[i].item, old[i].child);
  }
  free(old);
  return true;
}

void index_child(TreeScratch& t, NodeId parent, uint32_t item, NodeId child) {
  if (!t.index_ok) return;
  if (2 * (t.slots_used + 1) > (t.slots == nullptr ? 0 : t.slot_mask + 1) && !grow_child_index(t)) {
    t.index_ok = false;
    return;
  }
  put_slot(t, parent, item, child);
}

NodeId indexed_child(const TreeScratch& t, NodeId parent, uint32_t item) {
  for (size_t i = slot_of(t, parent, item);; i = (i + 1) & t.slot_mask) {
    const ChildSlot& s = t.slots[i];
    if (s.gen != t.gen) return kNoNode;
    if (s.parent == parent && s.item == item) return s.child;
  }
}

// Registers the new child `node` of `parent`, which had `before` children
// (counted only while the parent is not wide); a parent that has just become
// wide gets all its children registered. Once the index has failed in a
// build, no lookup reads it again.
void note_child(TreeScratch& t, const NodeKey& key, FPNode* nd, NodeId parent, NodeId node,
                uint32_t before) {
  FPNode& p = nd[parent];
  if ((p.key & kWide) != 0) {
    index_child(t, parent, key.item(nd[node]), node);
  } else if (before == kScanChildren) {
    p.key |= kWide;
    for (NodeId c = p.first_child; c != kNoNode; c = nd[c].next_sibling) {
      index_child(t, parent, key.item(nd[c]), c);
    }
  } else {
    return;
  }
  index_child(t, parent, kLastChild, node);
}

// Traces a failed header table (its malloc line has no newline of its own).
Status header_failure(Engine& e, size_t bytes) {
  using sites::kHeaderMalloc, sites::kHeaderTable;
  e.rep->trace_errno("malloc");
  e.rep->tracef("%s(%u) : malloc(%d)", kHeaderMalloc.module, kHeaderMalloc.line,
                static_cast<int>(bytes));
  e.rep->tracef("%s(%u) : fail to create header table\n", kHeaderTable.module, kHeaderTable.line);
  return Status::out_of_memory();
}

// Header table in list order.
Status make_header(Engine& e, int32_t nfreq, const ItemEntry* list, FPTree* tree) {
  const size_t n = static_cast<size_t>(nfreq > 0 ? nfreq : 1);
  tree->header = tree->arena->take_headers(n);
  if (tree->header == nullptr) return header_failure(e, sizeof(HeaderEntry) * n);
  uint32_t* rank = tables(e).tree.rank.data();
  for (int32_t p = 0; p < nfreq; ++p) {
    tree->header[p] = {*list[p].items, list[p].support, kNoNode};
    rank[*list[p].items] = static_cast<uint32_t>(nfreq - p);
  }
  tree->nheader = nfreq;
  tree->top_support = nfreq > 0 ? list[0].support : 0;
  return Status();
}

// Keeps the listed items of the current transaction, least frequent first,
// and returns how many remain.
int32_t keep_frequent(const uint32_t* rank, CurTran* tran) {
  TranSlot* s = tran->slot;
  int32_t kept = 0;
  for (int32_t i = 0; i < tran->n; ++i) {
    const uint32_t r = rank[s[i].item];
    if (r != 0) s[kept++] = {s[i].item, r};
  }
  sort_short(s, static_cast<size_t>(kept),
             [](const TranSlot& a, const TranSlot& b) { return a.aux < b.aux; });
  tran->n = kept;
  return kept;
}

// Words of a record of n items with weight w in a buffer.
uint32_t record_words(int32_t w, uint32_t n) { return n + (w == 1 ? 1 : 2); }

// First pass: reduces every record of `db` to its frequent items in rank order
// and writes the non-empty ones back to the front of the buffer, in database
// order; counts the words each record length takes (words_by_length[n]).
// Returns the bytes the reduced records take.
uint32_t reduce_records(Engine& e, TranBuf* db, std::vector<uint32_t>& words_by_length) {
  const uint32_t* rank = tables(e).tree.rank.data();
  int32_t* out = db->data;
  CurTran* tran = nullptr;
  db->position = 0;
  for (int32_t w; (w = read_tran(&tables(e).pool, db, &tran)) != 0;) {
    const int32_t n = keep_frequent(rank, tran);
    if (n == 0) continue;
    // The reduced record ends no later than the one just read: the writer
    // never passes the reader.
    if (w != 1) *out++ = -w;
    *out++ = n;
    for (int32_t i = 0; i < n; ++i) out[i] = static_cast<int32_t>(tran->slot[i].item);
    out += n;
    words_by_length[static_cast<uint32_t>(n)] += record_words(w, static_cast<uint32_t>(n));
  }
  *out = 0;
  return static_cast<uint32_t>(4 * (out - db->data));
}

// Second pass: copies the reduced records of `db` into the builder's
// insertion buffer in the order they go into the tree, longest first and
// records of equal length in database order, then hands the database's
// memory back (a whole database's is the biggest block of a run). False when
// the buffer cannot be had.
bool order_records_by_length(Engine& e, TranBuf* db, uint32_t bytes, uint32_t max_length,
                             std::vector<uint32_t>& at) {
  TreeScratch& t = tables(e).tree;
  const size_t words = bytes / 4 + 1;
  if (t.insert_cap < words) {
    int32_t* grown = static_cast<int32_t*>(malloc(4 * words));
    if (grown == nullptr) return false;
    free(t.insert_buf);
    t.insert_buf = grown;
    t.insert_cap = words;
  }
  // at[n] becomes the first word of the records of n items.
  uint32_t next = 0;
  for (uint32_t n = max_length; n >= 1; --n) {
    const uint32_t w = at[n];
    at[n] = next;
    next += w;
  }
  int32_t* to = t.insert_buf;
  for (const int32_t* r = db->data; *r != 0;) {
    const uint32_t head = *r < 0 ? 2 : 1;
    const uint32_t n = static_cast<uint32_t>(r[head - 1]);
    std::memcpy(to + at[n], r, 4 * (head + n));
    at[n] += head + n;
    r += head + n;
  }
  to[next] = 0;
  shrink_buf(&tables(e).pool, db);
  return true;
}

// Hands the whole pages of [from, to) back to the system: read records of
// the insertion buffer that will not be read again.
void release_pages(const int32_t* from, const int32_t* to) {
  constexpr uintptr_t kPage = 4096;
  const uintptr_t a = (reinterpret_cast<uintptr_t>(from) + kPage - 1) & ~(kPage - 1);
  const uintptr_t b = reinterpret_cast<uintptr_t>(to) & ~(kPage - 1);
  if (b > a) madvise(reinterpret_cast<void*>(a), b - a, MADV_DONTNEED);
}

// A new node of the tree's arena, or kNoNode after a trace when the arena
// cannot grow.
NodeId take_node(Engine& e, FPTree* tree, const Site& site) {
  size_t bytes = 0;
  const NodeId id = tree->arena->take_node(&bytes);
  if (id == kNoNode) (void)malloc_failure(e.rep, site, bytes);
  return id;
}

// Makes a child of `parent` for `item` behind `last` (its current last child,
// or kNoNode; `before` children in all) and pushes it on the item's header
// chain. kNoNode when no node is left.
NodeId add_child(Engine& e, FPTree* tree, NodeId parent, NodeId last, uint32_t before,
                 uint32_t item, int32_t w) {
  const NodeId id = take_node(e, tree, sites::kNodeBlock);
  if (id == kNoNode) return kNoNode;
  FPNode* nd = tree->arena->nodes();
  const uint32_t rank = tables(e).tree.rank[item];
  HeaderEntry* h = &tree->header[tree->nheader - static_cast<int32_t>(rank)];
  const NodeKey& key = tree->arena->key();
  nd[id] = {key.child_key(item, nd[parent].key), w, parent, kNoNode, kNoNode, h->head};
  h->head = id;
  if (last == kNoNode) {
    nd[parent].first_child = id;
  } else {
    nd[last].next_sibling = id;
  }
  note_child(tables(e).tree, key, nd, parent, id, before);
  return id;
}

// Child of `node` with `item`, or kNoNode; *last then gets the last child
// and, when the node is not looked up in the index, *before the number of
// its children.
NodeId find_child(const TreeScratch& t, const NodeKey& key, const FPNode* nd, NodeId node,
                  uint32_t item, NodeId* last, uint32_t* before) {
  if (t.index_ok && (nd[node].key & kWide) != 0) {
    const NodeId child = indexed_child(t, node, item);
    if (child == kNoNode) *last = indexed_child(t, node, kLastChild);
    return child;
  }
  NodeId prev = kNoNode;
  uint32_t k = 0;
  for (NodeId c = nd[node].first_child; c != kNoNode; c = nd[c].next_sibling, ++k) {
    if (key.item(nd[c]) == item) return c;
    prev = c;
  }
  *last = prev;
  *before = k;
  return kNoNode;
}

// Cuts `item` from a record of weight `w`: its support drops by w and, while
// the support was still at the floor or above, its shortest valid length is
// looked up again.
void cut_item(Engine& e, uint32_t item, int32_t w) {
  const int32_t before = tables(e).prune.item_cur_support[item];
  tables(e).prune.item_cur_support[item] = before - w;
  if (before >= static_cast<int32_t>(tables(e).support.lowest_minsup())) {
    tables(e).prune.item_min_length[item] = tables(e).support.min_length_of_support(before - w);
  }
  ++tables(e).counters.cut_items;
}

// Inserts the current transaction (items by rank ascending, the most frequent
// last) of weight `w` below `node`, cutting items by path pruning where a new
// branch would start. False after a trace when no node block can be had.
bool insert_tran_to_fptree(Engine& e, FPTree* tree, NodeId node, const CurTran* tran, int32_t w) {
  const TranSlot* s = tran->slot;
  const uint32_t reach = tables(e).prune.cur_pattern_length + tables(e).prune.cur_tran_length;
  const uint32_t* min_length = tables(e).prune.item_min_length.data();
  int32_t n = tran->n;
  while (n > 0) {
    uint32_t x = s[n - 1].item;
    NodeId last = kNoNode;
    uint32_t before = 0;
    NodeId child = find_child(tables(e).tree, tree->arena->key(), tree->arena->nodes(), node, x,
                              &last, &before);
    if (child != kNoNode) {
      tree->arena->nodes()[child].count += w;
    } else {
      bool cut = false;
      while (min_length[x] > reach) {
        cut_item(e, x, w);
        if (--n == 0) return true;
        x = s[n - 1].item;
        cut = true;
      }
      if (cut) continue;
      child = add_child(e, tree, node, last, before, x, w);
      if (child == kNoNode) return false;
    }
    if (n < 2) return true;
    --n;
    node = child;
  }
  return true;
}

// Looking ahead while records go into a big tree: each insertion walks down
// from the root, and on a tree far bigger than the cache nearly every node it
// visits is a miss that the next step waits for. Before a batch of records is
// inserted, their paths through the tree as it stands are walked side by side,
// one step of each in turn, and each step only asks for the memory the next
// one reads (a prefetch), so the misses of a batch overlap. The walk reads
// and decides nothing: the insertion that follows runs as before, on nodes
// that are now in the cache.
constexpr int kLookahead = 16;

// Records from which a conditional tree is built with the look-ahead: about
// as many as a 1 MiB database holds.
constexpr uint32_t kBigRecords = 1u << 16;

uint32_t item_of(int32_t word) { return static_cast<uint32_t>(word); }
uint32_t item_of(const TranSlot& slot) { return slot.item; }

template <class Item>
struct PathWalk {
  const Item* items;  // the record, the item to look up next last
  int32_t n;          // items left; 0 when the walk is over
  NodeId node;        // where the walk stands
  NodeId next;        // the child being read (a slot in the index when `in_index`)
  bool pending;       // `next` has been asked for and is read in the next round
  bool in_index;
};

// Walks the records of `walk` (count of them) down the tree from `root`,
// asking for each node, child list entry or index slot one round before it
// is read.
template <class Item>
void look_ahead(const TreeScratch& t, const NodeKey& key, const FPNode* nd, PathWalk<Item>* walk,
                int count) {
  for (int active = count; active > 0;) {
    active = 0;
    for (int i = 0; i < count; ++i) {
      PathWalk<Item>& w = walk[i];
      if (w.n == 0) continue;
      const uint32_t x = item_of(w.items[w.n - 1]);
      if (w.pending) {
        w.pending = false;
        NodeId c = kNoNode;
        if (w.in_index) {
          c = indexed_child(t, w.node, x);
        } else if (key.item(nd[w.next]) == x) {
          c = w.next;
        } else {
          w.next = nd[w.next].next_sibling;  // the next child of the list
          if (w.next == kNoNode) {
            w.n = 0;
          } else {
            __builtin_prefetch(&nd[w.next]);
            w.pending = true;
            ++active;
          }
          continue;
        }
        if (c == kNoNode || --w.n == 0) {
          w.n = 0;
          continue;
        }
        w.node = c;
        __builtin_prefetch(&nd[c]);
        ++active;
        continue;  // its children are asked for once it has come
      }
      // At w.node, which has come: ask for its child with the next item.
      const uint32_t y = item_of(w.items[w.n - 1]);
      if (t.index_ok && (nd[w.node].key & kWide) != 0) {
        __builtin_prefetch(&t.slots[slot_of(t, w.node, y)]);
        w.in_index = true;
      } else {
        w.next = nd[w.node].first_child;
        if (w.next == kNoNode) {
          w.n = 0;
          continue;
        }
        __builtin_prefetch(&nd[w.next]);
        w.in_index = false;
      }
      w.pending = true;
      ++active;
    }
  }
}

// Starts `tree` on the run's arena with its header and the root.
Status start_tree(Engine& e, int32_t nfreq, const ItemEntry* list, FPTree* tree) {
  tree->arena = &tables(e).tree.arena;
  tree->arena->key().set_items(e.setup().nitems);
  tree->start = tree->arena->mark();
  if (!ensure_rank(tables(e).tree, e.setup().nitems)) {
    return header_failure(e, 4 * (static_cast<size_t>(e.setup().nitems) + 1));
  }
  if (Status s = make_header(e, nfreq, list, tree); !s.ok()) return s;
  start_child_index(tables(e).tree);
  tree->root = take_node(e, tree, sites::kFirstBlock);
  if (tree->root == kNoNode) return Status::out_of_tree_nodes();
  tree->arena->nodes()[tree->root] = {NodeKey::root_key(), 0, kNoNode, kNoNode, kNoNode, kNoNode};
  return Status();
}

}  // namespace

TreeScratch::~TreeScratch() {
  free(slots);
  free(insert_buf);
}

TreeArena::~TreeArena() {
  free(node_);
  for (const Block& b : blocks_) free(b.entry);
}

bool TreeArena::grow(size_t* bytes) {
  const NodeId cap = cap_ == 0 ? kFirstNodes : (cap_ > kMostNodes / 2 ? kMostNodes : 2 * cap_);
  *bytes = sizeof(FPNode) * static_cast<size_t>(cap);
  if (cap <= cap_) return false;
  FPNode* moved = static_cast<FPNode*>(realloc(node_, *bytes));
  if (moved == nullptr) return false;
  node_ = moved;
  cap_ = cap;
  return true;
}

HeaderEntry* TreeArena::take_headers(size_t n) {
  if (block_ < blocks_.size() && blocks_[block_].cap - headers_used_ >= n) {
    HeaderEntry* at = blocks_[block_].entry + headers_used_;
    headers_used_ += n;
    return at;
  }
  // The next block, made (or remade, when too small: nothing lies in a block
  // above the current one) to hold n entries.
  const uint32_t next = blocks_.empty() ? 0 : block_ + 1;
  if (next == blocks_.size() || blocks_[next].cap < n) {
    const size_t last_cap = blocks_.empty() ? kFirstHeaders / 2 : blocks_.back().cap;
    const size_t cap = std::max(n, 2 * last_cap);
    HeaderEntry* entry = static_cast<HeaderEntry*>(malloc(sizeof(HeaderEntry) * cap));
    if (entry == nullptr) return nullptr;
    try {
      if (next == blocks_.size()) blocks_.push_back({nullptr, 0});
    } catch (const std::bad_alloc&) {
      free(entry);
      return nullptr;
    }
    free(blocks_[next].entry);
    blocks_[next] = {entry, cap};
  }
  block_ = next;
  headers_used_ = n;
  return blocks_[next].entry;
}

namespace {

// Gives every header item of `tree` its shortest valid length and its current
// support, against which path pruning cuts.
void start_item_tables(Engine& e, const FPTree& tree) {
  for (int32_t p = 0; p < tree.nheader; ++p) {
    const HeaderEntry& h = tree.header[p];
    tables(e).prune.item_min_length[h.item] = tables(e).support.min_length_of_support(h.support);
    tables(e).prune.item_cur_support[h.item] = h.support;
  }
}

// Takes the header supports net of path pruning and clears the ranks.
void finish_tree(Engine& e, FPTree* tree) {
  for (int32_t p = 0; p < tree->nheader; ++p) {
    HeaderEntry& h = tree->header[p];
    h.support = tables(e).prune.item_cur_support[h.item];
    tables(e).tree.rank[h.item] = 0;
  }
}

}  // namespace

Status create_fptree(Engine& e, TranBuf* db, int32_t nfreq, const ItemEntry* list, FPTree* tree) {
  if (Status s = start_tree(e, nfreq, list, tree); !s.ok()) return s;
  TreeScratch& t = tables(e).tree;
  const uint32_t max_length = static_cast<uint32_t>(nfreq);
  t.length_start.assign(max_length + 1, 0);
  const uint32_t bytes = reduce_records(e, db, t.length_start);
  if (!order_records_by_length(e, db, bytes, max_length, t.length_start)) {
    finish_tree(e, tree);
    return malloc_failure(e.rep, sites::kNodeBlock, bytes + 4);
  }
  start_item_tables(e, *tree);
  // The records go in one after the other; on a big buffer the pages read
  // are handed back every few MiB, so the records and the nodes they become
  // are not both held whole.
  constexpr uint32_t kReleaseStep = 1u << 22;
  TranBuf ins = {bytes + 4, 0, t.insert_buf};
  uint32_t released = 0;
  CurTran* tran = nullptr;
  bool inserted = true;
  PathWalk<int32_t> walk[kLookahead];
  const bool big = bytes > kTranBlockBytes;  // small trees stay in the cache
  while (inserted) {
    int count = kLookahead;
    if (big) {
      count = 0;
      for (uint32_t at = ins.position / 4; count < kLookahead && t.insert_buf[at] != 0; ++count) {
        const int32_t* r = t.insert_buf + at;
        const uint32_t head = *r < 0 ? 2 : 1;
        const int32_t n = r[head - 1];
        walk[count] = {r + head, n, tree->root, kNoNode, false, false};
        at += head + static_cast<uint32_t>(n);
      }
      look_ahead(t, tree->arena->key(), tree->arena->nodes(), walk, count);
    }
    int32_t w = 0;
    for (int i = 0; i < count && inserted && (w = read_tran(&tables(e).pool, &ins, &tran)) != 0;
         ++i) {
      tables(e).prune.cur_tran_length = static_cast<uint32_t>(tran->n);
      inserted = insert_tran_to_fptree(e, tree, tree->root, tran, w);
    }
    if (w == 0) break;
    if (ins.position - released >= kReleaseStep) {
      release_pages(t.insert_buf + released / 4, t.insert_buf + ins.position / 4);
      released = ins.position;
    }
  }
  // A buffer beyond a few blocks held a whole database: it goes with the build.
  if (t.insert_cap > 4 * static_cast<size_t>(kTranBlockBytes / 4)) {
    free(t.insert_buf);
    t.insert_buf = nullptr;
    t.insert_cap = 0;
  }
  finish_tree(e, tree);
  return inserted ? Status() : Status::out_of_tree_nodes();  // no node block to be had
}

void free_fptree(FPTree* tree) {
  if (tree->arena != nullptr) tree->arena->release(tree->start);
  *tree = {};
}

namespace {

// Appends the record of node `v` to `cdb`: its ancestors below the root,
// least frequent first, weighted by v's count (nothing for a removed node).
Status append_path(Engine& e, const NodeKey& key, const FPNode* nd, NodeId v, TranBuf* cdb) {
  uint32_t* path = tables(e).tree.path.data();
  uint32_t n = 0;
  for (NodeId a = nd[v].parent; nd[a].parent != kNoNode; a = nd[a].parent) {
    path[n++] = key.item(nd[a]);
  }
  Status s =
      insert_tran_to_trandb(&tables(e).pool, cdb, path, n, static_cast<uint32_t>(nd[v].count));
  if (!s.ok()) {
    e.rep->tracef("%s(%u) : insert_tran_to_trandb\n", sites::kCollectInsert.module,
                  sites::kCollectInsert.line);
  }
  return s;
}

// True when node v of a pattern of k items plus v's item is deep enough to
// give a pattern of `len` items (nodes below the root alone give nothing).
bool contributes(const NodeKey& key, const FPNode* nd, NodeId v, uint32_t k, uint32_t len) {
  const uint32_t depth = key.depth(nd, v);
  return depth > 1 && static_cast<int64_t>(depth) + k >= static_cast<int64_t>(len);
}

// Fills `cdb` with the record of every node of `chain` (linked by
// next_link) that contributes under `len`.
Status collect_conditional(Engine& e, const NodeKey& key, const FPNode* nd, NodeId chain,
                           uint32_t k, uint32_t len, TranBuf* cdb) {
  for (NodeId v = chain; v != kNoNode; v = nd[v].next_link) {
    if (!contributes(key, nd, v, k, len)) continue;
    if (Status s = append_path(e, key, nd, v, cdb); !s.ok()) return s;
  }
  return Status();
}

// True when leaf v of a pattern of k items plus v's item is too shallow to
// give a pattern of the shortest valid length `len`.
bool too_shallow(const NodeKey& key, const FPNode* nd, NodeId v, uint32_t k, uint32_t len) {
  return static_cast<int64_t>(key.depth(nd, v)) + k < static_cast<int64_t>(len);
}

// Removes leaf `v` of h: its count leaves h's support, `*len` follows, and
// v keeps its place in h's chain with a zero count (so no record is ever
// collected from it) until it leaves its parent's children with the others.
void remove_leaf(Engine& e, HeaderEntry* h, FPNode* nd, NodeId v, uint32_t* len) {
  h->support -= nd[v].count;
  *len = tables(e).support.min_length_of_support(h->support);
  ++tables(e).counters.pruned_nodes;
  nd[v].count = 0;
  tables(e).tree.gone.push_back(v);
}

// Takes node `v` out of its parent's child list; the other children keep
// their order.
void unlink_from_parent(FPNode* nd, NodeId v) {
  NodeId* at = &nd[nd[v].parent].first_child;
  while (*at != v) at = &nd[*at].next_sibling;
  *at = nd[v].next_sibling;
}

// Takes the removed leaves out of their parents' children. Leaves of an item
// are never parents of nodes of the same item, so unlinking them after the
// pruning decides exactly as unlinking each one at once.
void unlink_removed(Engine& e, FPNode* nd) {
  for (NodeId v : tables(e).tree.gone) unlink_from_parent(nd, v);
  tables(e).tree.gone.clear();
}

// The nodes of an item's chain, for a range-for.
struct ChainNodes {
  struct Iterator {
    const FPNode* nd;
    NodeId v;
    NodeId operator*() const { return v; }
    Iterator& operator++() {
      v = nd[v].next_link;
      return *this;
    }
    bool operator!=(const Iterator& o) const { return v != o.v; }
  };
  const FPNode* nd;
  NodeId head;
  Iterator begin() const { return {nd, head}; }
  Iterator end() const { return {nd, kNoNode}; }
};

enum class Pruned { kBelowFloor, kKept };

// h's support fell below `floor` when leaf `from` went: the pass ends along
// the chain (every later leaf still there and too shallow goes), and h is
// not extended.
Pruned below_floor(Engine& e, HeaderEntry* h, FPNode* nd, NodeId from, uint32_t k, uint32_t* len) {
  for (NodeId v = nd[from].next_link; v != kNoNode; v = nd[v].next_link) {
    if (nd[v].first_child == kNoNode && nd[v].count != 0 &&
        too_shallow(tables(e).tree.arena.key(), nd, v, k, *len))
      remove_leaf(e, h, nd, v, len);
  }
  unlink_removed(e, nd);
  return Pruned::kBelowFloor;
}

// Node pruning of h for a pattern of k items plus h. A pass removes every
// leaf too shallow for the shortest valid length, which each removal raises;
// passes repeat while one raised it, and only the leaves the first pass kept
// can go in later ones (removing a leaf of h never makes another node of h a
// leaf). The first pass visits `nodes`, in chain order: h's whole chain, or
// at the top level the listed nodes that can go while the support stays at
// the floor. Afterwards h's shortest valid length is that of its support.
template <class Nodes>
Pruned prune_item(Engine& e, FPNode* nd, HeaderEntry* h, uint32_t k, int32_t floor,
                  const Nodes& nodes) {
  const NodeKey& key = tables(e).tree.arena.key();
  uint32_t len = tables(e).support.min_length_of_support(h->support);
  const uint32_t first_len = len;
  // Every node is at depth 1 or more: when k + 1 reaches the length, no leaf goes.
  const bool prunes = static_cast<int64_t>(k) + 1 < static_cast<int64_t>(len);
  std::vector<NodeId>& leaves = tables(e).tree.leaves;
  leaves.clear();
  for (NodeId v : nodes) {
    if (!prunes) break;
    if (nd[v].first_child == kNoNode) {
      if (too_shallow(key, nd, v, k, len)) {
        remove_leaf(e, h, nd, v, &len);
        if (h->support < floor) return below_floor(e, h, nd, v, k, &len);
        continue;
      }
      leaves.push_back(v);
    }
  }
  for (uint32_t before = first_len; len != before;) {
    before = len;
    for (NodeId v : leaves) {
      if (nd[v].count == 0 || !too_shallow(key, nd, v, k, len)) continue;
      remove_leaf(e, h, nd, v, &len);
      if (h->support < floor) return below_floor(e, h, nd, v, k, &len);
    }
  }
  unlink_removed(e, nd);
  return Pruned::kKept;
}

}  // namespace

Status make_pattern_scratch(Engine& e) {
  const size_t n = static_cast<size_t>(e.setup().nitems) + 1;
  if (tables(e).tree.items.size() >= n && tables(e).tree.path.size() >= n) return Status();
  try {
    tables(e).tree.items.assign(n, 0);
    tables(e).tree.path.assign(n, 0);
  } catch (const std::bad_alloc&) {
    e.rep->trace_errno("malloc");
    return Status::out_of_memory();
  }
  return Status();
}

namespace {

// Mines the conditional tree of `q` just built into `tree` (`built` tells
// whether it could be), tracing a failure of either step.
Status mine_built_tree(Engine& e, Status built, FPTree* tree, const Pattern& q, uint32_t depth) {
  if (!built.ok()) {
    e.rep->tracef("%s(%u) : create_fptree\n", sites::kConditionalTree.module,
                  sites::kConditionalTree.line);
    free_fptree(tree);
    return built;
  }
  ++tables(e).counters.conditional_trees;
  Status s = gen_freqpattern(e, tree, q, depth + 1);
  if (!s.ok()) {
    e.rep->tracef("%s(%u) : gen_freqpattern\n", sites::kConditionalMine.module,
                  sites::kConditionalMine.line);
  }
  return s;
}

// Builds the conditional tree of pattern `q` (k + 1 items, the last being h's)
// from `cdb`, which it releases, and mines it.
Status mine_conditional(Engine& e, const Pattern& q, TranBuf* cdb, uint32_t depth) {
  int32_t nfreq = 0;
  ItemEntry* list = nullptr;
  const int32_t floor = static_cast<int32_t>(tables(e).support.lowest_minsup());
  Status s = create_freqitemlist(&tables(e).items, &tables(e).pool, cdb, floor, e.setup().nitems,
                                 &tables(e).stats, &nfreq, &list);
  if (!s.ok()) {
    e.rep->printf("%s(%u) Fatal error in create_freqitemlist()", sites::kConditionalItems.module,
                  sites::kConditionalItems.line);
    free_buf(&tables(e).pool, cdb);
    return s;
  }
  if (nfreq <= 0) {
    free_buf(&tables(e).pool, cdb);
    return s;
  }
  tables(e).prune.cur_pattern_length = q.length;
  FPTree tree = {};
  s = create_fptree(e, cdb, nfreq, list, &tree);
  free_buf(&tables(e).pool, cdb);
  return mine_built_tree(e, std::move(s), &tree, q, depth);
}

// Counts the conditional database of the chain from `chain` (nodes of the
// tree on top of the arena) as collect_conditional would write it under
// `len` for a pattern of k items plus the chain's item: every node with a
// count that contributes adds it to each ancestor's item in the item table, and its
// ancestors (least frequent first) go to record_items as its record, listed
// in records in chain order; the one walk up the tree serves both. Returns
// the number of items met; *nrecords gets the number of records.
uint32_t count_chain(Engine& e, NodeId chain, uint32_t k, uint32_t len, size_t* nrecords) {
  const FPNode* nd = tables(e).tree.arena.nodes();
  const NodeKey& key = tables(e).tree.arena.key();
  int32_t* support = tables(e).items.support.data();
  uint32_t* touched = tables(e).items.touched.data();
  std::vector<TranSlot>& path = tables(e).tree.record_items;
  std::vector<CondRecord>& recs = tables(e).tree.records;
  uint32_t met = 0;
  size_t nrecs = 0;
  size_t at = 0;
  for (NodeId v = chain; v != kNoNode; v = nd[v].next_link) {
    const FPNode& node = nd[v];
    if (node.count == 0 || !contributes(key, nd, v, k, len)) continue;
    // Room for its ancestors below the root; grown (rarely) by doubling.
    const size_t room = key.depth(nd, v) - 1;
    if (at + room > UINT32_MAX) throw std::bad_alloc();
    if (at + room > path.size()) path.resize(std::max(2 * path.size(), at + room));
    if (nrecs == recs.size()) recs.resize(std::max<size_t>(2 * recs.size(), 1024));
    TranSlot* out = path.data() + at;
    uint32_t n = 0;
    const int32_t w = node.count;
    for (NodeId a = node.parent; nd[a].parent != kNoNode; a = nd[a].parent) {
      const uint32_t item = key.item(nd[a]);
      if (support[item] == 0) touched[met++] = item;
      support[item] += w;
      out[n++] = {item, 0};
    }
    recs[nrecs++] = {static_cast<uint32_t>(at), n, w};
    at += n;
  }
  *nrecords = nrecs;
  return met;
}

bool by_rank(const TranSlot& a, const TranSlot& b) { return a.aux < b.aux; }

// Orders records[0, n) into `ordered` longest first, records of equal length
// in chain order (a stable counting sort by length, as order_insertions).
void order_records(TreeScratch& t, uint32_t n, uint32_t max_length) {
  const CondRecord* recs = t.records.data();
  t.length_start.assign(max_length + 2, 0);
  for (uint32_t r = 0; r < n; ++r) ++t.length_start[max_length - recs[r].n + 1];
  for (uint32_t k = 1; k < t.length_start.size(); ++k) t.length_start[k] += t.length_start[k - 1];
  for (uint32_t r = 0; r < n; ++r) t.ordered[t.length_start[max_length - recs[r].n]++] = recs[r];
}

// Builds `tree` from the `nodes` records count_chain took (records and
// record_items) and the frequent-item list of their items: each record keeps
// its frequent items (in place), least frequent first, and the records go in
// longest first, ties in chain order, with path pruning, as create_fptree
// builds the tree of the same records written to a buffer. Out of memory or
// of tree nodes after a trace.
Status build_from_chain(Engine& e, int32_t nfreq, const ItemEntry* list, size_t nodes,
                        FPTree* tree) {
  if (Status s = start_tree(e, nfreq, list, tree); !s.ok()) return s;
  TreeScratch& t = tables(e).tree;
  try {
    if (t.ordered.size() < nodes) t.ordered.resize(nodes);
  } catch (const std::bad_alloc&) {
    finish_tree(e, tree);
    e.rep->trace_errno("malloc");
    return Status::out_of_memory();
  }
  const uint32_t* rank = t.rank.data();
  TranSlot* items = t.record_items.data();
  CondRecord* recs = t.records.data();
  uint32_t nrecs = 0;
  for (size_t r = 0; r < nodes; ++r) {
    const CondRecord raw = recs[r];
    TranSlot* s = items + raw.start;
    uint32_t n = 0;
    for (uint32_t i = 0; i < raw.n; ++i) {
      const uint32_t item = s[i].item;
      const uint32_t rk = rank[item];
      if (rk != 0) s[n++] = {item, rk};
    }
    if (n == 0) continue;
    // Ancestors come least frequent first in the parent's order, which the
    // new ranks mostly keep.
    if (!std::is_sorted(s, s + n, by_rank)) sort_short(s, n, by_rank);
    recs[nrecs++] = {raw.start, n, raw.w};
  }
  start_item_tables(e, *tree);
  order_records(t, nrecs, static_cast<uint32_t>(nfreq));
  bool inserted = true;
  // As create_fptree, the paths of the coming records are walked ahead in a
  // tree of many records.
  const bool big = nrecs >= kBigRecords;
  PathWalk<TranSlot> walk[kLookahead];
  for (uint32_t r = 0; r < nrecs && inserted;) {
    const uint32_t count = std::min<uint32_t>(kLookahead, nrecs - r);
    if (big) {
      for (uint32_t i = 0; i < count; ++i) {
        const CondRecord& c = t.ordered[r + i];
        walk[i] = {items + c.start, static_cast<int32_t>(c.n), tree->root, kNoNode, false, false};
      }
      look_ahead(t, tree->arena->key(), tree->arena->nodes(), walk, static_cast<int>(count));
    }
    for (const uint32_t last = r + count; r < last && inserted; ++r) {
      const CondRecord& c = t.ordered[r];
      const CurTran tran = {static_cast<int32_t>(c.n), items + c.start};
      tables(e).prune.cur_tran_length = c.n;
      inserted = insert_tran_to_fptree(e, tree, tree->root, &tran, c.w);
    }
  }
  finish_tree(e, tree);
  return inserted ? Status() : Status::out_of_tree_nodes();  // no node to be had
}

// Builds the conditional tree of pattern `q` (k + 1 items, the last being
// the chain's) from the nodes of `chain` that contribute under `len`, taken
// straight from the tree on top of the arena, and mines it.
Status mine_chain(Engine& e, const Pattern& q, NodeId chain, uint32_t len, uint32_t depth) {
  Status s = size_item_table(&tables(e).items, e.setup().nitems, e.rep);
  size_t nrecords = 0;
  uint32_t met = 0;
  if (s.ok()) {
    try {
      met = count_chain(e, chain, q.length - 1, len, &nrecords);
    } catch (const std::bad_alloc&) {  // the records could not grow
      for (uint32_t i = 0; i < e.setup().nitems; ++i) tables(e).items.support[i] = 0;
      e.rep->trace_errno("malloc");
      s = Status::out_of_memory();
    }
  }
  if (!s.ok()) {
    e.rep->printf("%s(%u) Fatal error in create_freqitemlist()", sites::kConditionalItems.module,
                  sites::kConditionalItems.line);
    return s;
  }
  int32_t nfreq = 0;
  ItemEntry* list = nullptr;
  list_touched_items(&tables(e).items, met, static_cast<int32_t>(tables(e).support.lowest_minsup()),
                     &nfreq, &list);
  if (nfreq <= 0) return s;
  tables(e).prune.cur_pattern_length = q.length;
  FPTree tree = {};
  s = build_from_chain(e, nfreq, list, nrecords, &tree);
  return mine_built_tree(e, std::move(s), &tree, q, depth);
}

bool is_single_path(const FPTree* tree) {
  const FPNode* nd = tree->nodes();
  for (NodeId v = tree->root; v != kNoNode; v = nd[v].first_child) {
    if (nd[v].next_sibling != kNoNode) return false;
  }
  return true;
}

bool at_least(int32_t support, uint32_t need) {
  return static_cast<int64_t>(support) >= static_cast<int64_t>(need);
}

// Hands `q` to the run's sink when its length is within the output sizes and,
// in a restricted run, its least frequent item is one the run must produce:
// the first item added, or on a single path of the whole tree the last.
void emit(Engine& e, const Pattern& q) {
  if (q.length < e.setup().min_size || q.length > e.setup().max_size) return;
  if (e.setup().wanted != nullptr) {
    const uint32_t least = tables(e).top_single_path ? q.items[q.length - 1] : q.items[0];
    if (!(*e.setup().wanted)[least]) return;
  }
  tables(e).sink->put(q);
}

// The nodes of the single path below `u` that cannot extend a pattern of k
// items to any valid length get their counts negated.
void mark_rare_nodes(Engine& e, FPNode* nd, NodeId u, uint32_t k) {
  uint32_t below = 0;  // nodes of the path below u
  for (NodeId v = nd[u].first_child; v != kNoNode; v = nd[v].first_child) ++below;
  const uint32_t need_max = tables(e).support.bound_of_length(k + below);
  for (NodeId v = nd[u].first_child; v != kNoNode; v = nd[v].first_child) {
    if (nd[v].count > 0 && !at_least(nd[v].count, need_max)) {
      nd[v].count = -nd[v].count;
      ++tables(e).counters.marked_nodes;
    }
  }
}

// Hands every frequent extension of `p` by nodes of the single path below `u`
// to the run's sink.
void mine_path_below(Engine& e, const Pattern& p, FPNode* nd, NodeId u) {
  const uint32_t k = p.length;
  if (k >= e.setup().max_size || nd[u].first_child == kNoNode) return;
  mark_rare_nodes(e, nd, u, k);
  Pattern q = {k + 1, p.support, p.items};
  const uint32_t need = tables(e).support.minsup_of_length(k + 1);
  for (NodeId v = nd[u].first_child; v != kNoNode; v = nd[v].first_child) {
    if (nd[v].count < 0) continue;
    q.items[k] = tables(e).tree.arena.key().item(nd[v]);
    if (q.support > nd[v].count) q.support = nd[v].count;
    if (at_least(q.support, need)) emit(e, q);
    if (nd[v].first_child != kNoNode) mine_path_below(e, q, nd, v);
  }
  for (NodeId v = nd[u].first_child; v != kNoNode; v = nd[v].first_child) {
    if (nd[v].count < 0) nd[v].count = -nd[v].count;
  }
}

// Mines the single path of `tree` (released here); on the tree of the whole
// database every pattern's least frequent item is the last one added.
void mine_single_path(Engine& e, FPTree* tree, const Pattern& p, uint32_t depth) {
  ++tables(e).counters.single_paths;
  tables(e).top_single_path = depth == 1;
  mine_path_below(e, p, tree->arena->nodes(), tree->root);
  tables(e).top_single_path = false;
  free_fptree(tree);
}

// The nodes of every item that node pruning at the top level can remove
// while the item's support stays at the floor or above: those shallower than
// the shortest length of the floor. By header index, in chain order.
struct ShallowNodes {
  std::vector<size_t> start;  // nheader + 1 entries
  std::vector<NodeId> nodes;

  std::span<const NodeId> of(int32_t p) const {
    return {nodes.data() + start[p], start[p + 1] - start[p]};
  }
};

// Lists them by one sequential scan of the tree's nodes (the last on the
// arena); false (nothing listed) when they are not few, so that walking the
// chains costs as much.
bool list_shallow_nodes(Engine& e, const FPTree& tree, uint32_t bound, ShallowNodes* out) {
  std::vector<uint32_t>& index =
      tables(e).tree.rank;  // all zero between builds: item -> header index + 1
  for (int32_t p = 0; p < tree.nheader; ++p)
    index[tree.header[p].item] = static_cast<uint32_t>(p + 1);
  out->start.assign(static_cast<size_t>(tree.nheader) + 1, 0);
  size_t total = 0;
  size_t listed = 0;
  const FPNode* nd = tree.nodes();
  const NodeKey& key = tree.key();
  const NodeId end = tree.arena->end();
  auto each_node = [&](auto&& visit) {
    for (NodeId v = tree.root + 1; v < end; ++v) visit(v);
  };
  each_node([&](NodeId v) {
    ++total;
    if (key.depth(nd, v) < bound) {
      ++out->start[index[key.item(nd[v])]];
      ++listed;
    }
  });
  const bool few = 2 * listed <= total;
  if (few) {
    // start[p] counts the nodes of header index p - 1: turn counts into ends.
    for (size_t p = 1; p < out->start.size(); ++p) out->start[p] += out->start[p - 1];
    out->nodes.resize(listed);
    // Chains run from the newest node to the oldest: fill each range from its end.
    std::vector<size_t> fill(out->start.begin() + 1, out->start.end());
    each_node([&](NodeId v) {
      if (key.depth(nd, v) < bound) out->nodes[--fill[index[key.item(nd[v])] - 1]] = v;
    });
  }
  for (int32_t p = 0; p < tree.nheader; ++p) index[tree.header[p].item] = 0;
  return few;
}

// The longest shortest length of any support at the floor or above (the
// lookup is not monotone over small counts with a constant table).
uint32_t longest_length(const Engine& e, int32_t floor) {
  const int32_t cached = SupportTable::kCacheSize;
  uint32_t longest = tables(e).support.min_length_of_support(std::max(floor, cached));
  for (int32_t s = std::max(floor, 0); s < cached; ++s) {
    longest = std::max(longest, tables(e).support.min_length_of_support(s));
  }
  return longest;
}

// Prunes top item h (header index i) and hands its pruned chain to the run's
// split, which collects and mines its conditional database.
Status split_item(Engine& e, HeaderEntry* h, int32_t i, int32_t floor, const ShallowNodes* listed) {
  FPNode* nd = tables(e).tree.arena.nodes();
  const Pruned pruned = listed != nullptr ? prune_item(e, nd, h, 0, floor, listed->of(i))
                                          : prune_item(e, nd, h, 0, floor, ChainNodes{nd, h->head});
  if (pruned == Pruned::kBelowFloor) return Status();
  return e.split()->conditional(e, h->item, h->support, h->head);
}

// Prunes h (header index i; its first pass over the listed nodes when there
// is a list) and mines its conditional tree below `q`, the pattern that ends
// with h's item.
Status mine_item(Engine& e, HeaderEntry* h, int32_t i, Pattern q, int32_t floor, uint32_t depth,
                 const ShallowNodes* listed) {
  FPNode* nd = tables(e).tree.arena.nodes();
  const Pruned pruned = listed != nullptr
                            ? prune_item(e, nd, h, q.length - 1, floor, listed->of(i))
                            : prune_item(e, nd, h, q.length - 1, floor, ChainNodes{nd, h->head});
  if (pruned != Pruned::kKept) return Status();
  q.support = h->support;
  return mine_chain(e, q, h->head, tables(e).support.min_length_of_support(h->support), depth);
}

// In a restricted run, the lowest header index whose item the run must
// produce (-1 when none): the top-level walk, least frequent item first, may
// stop below it, since everything a top item leads to has that item as its
// least frequent one and would be dropped by emit().
int32_t lowest_wanted_index(const Engine& e, const FPTree& tree) {
  const std::vector<char>* wanted = e.setup().wanted;
  if (wanted == nullptr) return 0;
  for (int32_t i = 0; i < tree.nheader; ++i) {
    if ((*wanted)[tree.header[i].item]) return i;
  }
  return -1;
}

// The walk over the items of `tree` (released here), least frequent first:
// each item's pattern `p` plus the item goes to the sink when frequent, then
// the item's nodes are pruned and its conditional database is mined. At the
// top level the walk reports its progress, node pruning's first pass visits
// only the listed shallow nodes when they are few (instead of every chain of
// the biggest tree, node by node across memory), a restricted run only
// prunes the items it skips (so that the tree evolves as in a run over every
// item) and stops below the last item it must produce, and a split run hands
// each conditional database to the split.
Status walk_items(Engine& e, FPTree* tree, const Pattern& p, uint32_t depth) {
  const bool top = depth == 1;
  TopLevelSplit* split = top ? e.split() : nullptr;
  const int32_t floor = static_cast<int32_t>(tables(e).support.lowest_minsup());
  ShallowNodes shallow;
  const ShallowNodes* listed = nullptr;
  if (split != nullptr) split->take_tree(*tree);
  if (top && e.setup().wanted == nullptr &&
      list_shallow_nodes(e, *tree, longest_length(e, floor), &shallow))
    listed = &shallow;
  const uint32_t k = p.length;
  Pattern q = {k + 1, 0, p.items};
  const uint32_t need = tables(e).support.minsup_of_length(k + 1);
  const int32_t lowest = top ? lowest_wanted_index(e, *tree) : 0;
  for (int32_t i = tree->nheader - 1; i >= 0 && i >= lowest; --i) {
    HeaderEntry* h = &tree->header[i];
    if (top && e.setup().progress != nullptr)
      e.setup().progress->top_items(tree->nheader - i, tree->nheader);
    if (h->support < floor) continue;
    if (top && e.setup().wanted != nullptr && !(*e.setup().wanted)[h->item]) {
      FPNode* nd = tree->arena->nodes();
      prune_item(e, nd, h, k, floor, ChainNodes{nd, h->head});
      continue;
    }
    if (split != nullptr) {
      if (Status s = split->begin_item(e, h->item); !s.ok()) return s;
    }
    q.items[k] = h->item;
    q.support = h->support;
    if (at_least(q.support, need)) emit(e, q);
    Status s = split != nullptr ? split_item(e, h, i, floor, listed)
                                : mine_item(e, h, i, q, floor, depth, listed);
    if (!s.ok()) return s;
  }
  if (split != nullptr) {
    *tree = {};  // the split holds it from here
  } else {
    free_fptree(tree);
  }
  return Status();
}

}  // namespace

Status collect_top_item(Engine& e, const FPTree& top, int32_t support, NodeId chain, TranBuf* cdb) {
  if (Status s = init_buf(&tables(e).pool, cdb); !s.ok()) {
    e.rep->tracef("%s(%u) : init_buf\n", sites::kCollectInitBuf.module,
                  sites::kCollectInitBuf.line);
    return s;
  }
  Status s = collect_conditional(e, top.key(), top.nodes(), chain, 0,
                                 tables(e).support.min_length_of_support(support), cdb);
  if (!s.ok()) free_buf(&tables(e).pool, cdb);
  return s;
}

// The trace of the pattern scratch that could not be had.
Status recursion_malloc_failure(Engine& e) {
  e.rep->tracef("%s(%u) : malloc\n", sites::kRecursionMalloc.module, sites::kRecursionMalloc.line);
  return Status::out_of_memory();
}

Status mine_top_database(Engine& e, uint32_t item, int32_t support, TranBuf* cdb) {
  tables(e).tree.items[0] = item;
  const Pattern q = {1, support, tables(e).tree.items.data()};
  return mine_conditional(e, q, cdb, 1);
}

Status mine_top_item(Engine& e, const FPTree& top, uint32_t item, int32_t support, NodeId chain) {
  TranBuf cdb;
  if (Status s = collect_top_item(e, top, support, chain, &cdb); !s.ok()) return s;
  return mine_top_database(e, item, support, &cdb);
}

Status gen_freqpattern(Engine& e, FPTree* tree, const Pattern& p, uint32_t depth) {
  if (!is_single_path(tree)) return walk_items(e, tree, p, depth);
  mine_single_path(e, tree, p, depth);
  return Status();
}

Status mine_fptree(Engine& e, FPTree* tree) {
  if (!make_pattern_scratch(e).ok()) return recursion_malloc_failure(e);
  // Every level of the recursion writes only its own slot of `items`. The
  // empty pattern carries the support of the most frequent item as it was
  // before path pruning: a single-path tree caps every pattern's support by
  // it, and pruning may have cut that item from every record.
  const Pattern empty = {0, tree->top_support, tables(e).tree.items.data()};
  Status s = gen_freqpattern(e, tree, empty, 1);
  if (!s.ok())
    e.rep->tracef("%s(%u) : gen_freqpattern\n", sites::kRecursionMine.module,
                  sites::kRecursionMine.line);
  return s;
}

}  // namespace quarlo::detail
