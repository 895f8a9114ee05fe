#include "cfptree.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <new>

#include "qr.h"

namespace {

const char kSrc[] = "cfptree";

// A node with more than kScanChildren children (the root and the upper nodes
// of sparse data can have thousands) has all of them, and its last child under
// the key kLastChild, in the child index keyed by (parent, item); other nodes
// are searched by walking their child list.
constexpr uint32_t kScanChildren = 8;
constexpr uint32_t kLastChild = 0xffffffffu;

// Orders tran_refs[0, n) longest record first, records of equal length in
// database order. reduce_records lists them in database order, so a stable
// counting sort by length gives exactly that order in linear time.
void order_insertions(Engine& e, uint32_t n, uint32_t max_length) {
  TreeScratch& t = e.tree;
  TranRef* tran_refs = e.prune.tran_refs.data();
  t.length_start.assign(max_length + 2, 0);
  for (uint32_t r = 0; r < n; ++r) ++t.length_start[max_length - tran_refs[r].count + 1];
  for (uint32_t k = 1; k < t.length_start.size(); ++k) t.length_start[k] += t.length_start[k - 1];
  if (t.ordered_refs.size() < n) t.ordered_refs.resize(n);
  for (uint32_t r = 0; r < n; ++r) {
    t.ordered_refs[t.length_start[max_length - tran_refs[r].count]++] = tran_refs[r];
  }
  std::copy(t.ordered_refs.begin(), t.ordered_refs.begin() + n, tran_refs);
}

bool ensure_rank(TreeScratch& t, uint32_t nitems) {
  if (t.rank.size() > nitems) return true;
  try {
    t.rank.assign(static_cast<size_t>(nitems) + 1, 0);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

size_t slot_of(const TreeScratch& t, const FPNode* parent, uint32_t item) {
  uint64_t h = reinterpret_cast<uintptr_t>(parent) * 0x9e3779b97f4a7c15ull;
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

void put_slot(TreeScratch& t, const FPNode* parent, uint32_t item, FPNode* child) {
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

void index_child(TreeScratch& t, const FPNode* parent, uint32_t item, FPNode* child) {
  if (!t.index_ok) return;
  if (2 * (t.slots_used + 1) > (t.slots == nullptr ? 0 : t.slot_mask + 1) && !grow_child_index(t)) {
    t.index_ok = false;
    return;
  }
  put_slot(t, parent, item, child);
}

FPNode* indexed_child(const TreeScratch& t, const FPNode* parent, uint32_t item) {
  for (size_t i = slot_of(t, parent, item);; i = (i + 1) & t.slot_mask) {
    const ChildSlot& s = t.slots[i];
    if (s.gen != t.gen) return nullptr;
    if (s.parent == parent && s.item == item) return s.child;
  }
}

bool is_indexed(const TreeScratch& t, const FPNode* node) {
  return t.index_ok && node->nchild > kScanChildren;
}

// Registers the new child `node` of `parent`; a parent that has just become
// wide gets all its children registered.
void note_child(TreeScratch& t, FPNode* parent, FPNode* node) {
  ++parent->nchild;
  if (parent->nchild < kScanChildren + 1) return;
  if (parent->nchild == kScanChildren + 1) {
    for (FPNode* c = parent->first_child; c != nullptr; c = c->next_sibling) {
      index_child(t, parent, c->item, c);
    }
  } else {
    index_child(t, parent, node->item, node);
  }
  index_child(t, parent, kLastChild, node);
}

// Traces a failed node block; the caller gives up on the tree.
void block_failure(Engine& e, int line) {
  e.rep->trace_errno("malloc");
  e.rep->tracef("%s(%d) : malloc(%d)\n", kSrc, line, static_cast<int>(sizeof(FPNodeBlock)));
  e.node_block_failed = true;
}

void header_failure(Engine& e, size_t bytes) {
  e.rep->trace_errno("malloc");
  e.rep->tracef("%s(%d) : malloc(%d)", kSrc, 1118, static_cast<int>(bytes));
  e.rep->tracef("%s(%d) : fail to create header table\n", kSrc, 1161);
}

// Header table in list order; -1 after the trace when memory is short.
int make_header(Engine& e, int32_t nfreq, const ItemEntry* list, FPTree* tree) {
  const size_t bytes = sizeof(HeaderEntry) * static_cast<size_t>(nfreq > 0 ? nfreq : 1);
  tree->header = static_cast<HeaderEntry*>(malloc(bytes));
  if (tree->header == nullptr) {
    header_failure(e, bytes);
    return -1;
  }
  uint32_t* rank = e.tree.rank.data();
  for (int32_t p = 0; p < nfreq; ++p) {
    tree->header[p] = {*list[p].items, list[p].support, nullptr, nullptr};
    rank[*list[p].items] = static_cast<uint32_t>(nfreq - p);
  }
  tree->nheader = nfreq;
  tree->top_support = nfreq > 0 ? list[0].support : 0;
  return 0;
}

void sort_by_rank(TranSlot* s, int32_t n) {
  if (n > 16) {
    std::sort(s, s + n, [](const TranSlot& a, const TranSlot& b) { return a.aux < b.aux; });
    return;
  }
  for (int32_t i = 1; i < n; ++i) {
    const TranSlot v = s[i];
    int32_t j = i;
    for (; j > 0 && s[j - 1].aux > v.aux; --j) s[j] = s[j - 1];
    s[j] = v;
  }
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
  sort_by_rank(s, kept);
  tran->n = kept;
  return kept;
}

// First pass: reduces every record of `db` to its frequent items in rank order
// (rewritten in place) and lists the non-empty ones in the run's tran_refs.
uint32_t reduce_records(Engine& e, TranBuf* db) {
  const uint32_t* rank = e.tree.rank.data();
  TranRef* refs = e.prune.tran_refs.data();
  uint32_t nrefs = 0;
  CurTran* tran = nullptr;
  db->position = 0;
  for (;;) {
    const uint32_t offset = db->position;
    if (read_tran(&e.pool, db, &tran) == 0) break;
    const int32_t n = keep_frequent(rank, tran);
    if (n == 0) continue;
    refs[nrefs++] = {offset, static_cast<uint32_t>(n)};
    int32_t* word = db->data + offset / 4;
    if (*word < 0) ++word;
    *word++ = n;
    for (int32_t i = 0; i < n; ++i) word[i] = static_cast<int32_t>(tran->slot[i].item);
  }
  return nrefs;
}

// The next free node, or null after a trace when no block can be had.
FPNode* take_node(Engine& e, FPTree* tree) {
  if (tree->nodes_used == kNodesPerBlock) {
    FPNodeBlock* block = static_cast<FPNodeBlock*>(calloc(1, sizeof(FPNodeBlock)));
    if (block == nullptr) {
      block_failure(e, 163);
      return nullptr;
    }
    tree->cur_block->next = block;
    tree->cur_block = block;
    tree->nodes_used = 0;
  }
  return &tree->cur_block->node[tree->nodes_used++];
}

// Makes a child of `parent` for `item` behind `last` (its current last child,
// or null) and pushes it on the item's header chain. Null when no node is left.
FPNode* add_child(Engine& e, FPTree* tree, FPNode* parent, FPNode* last, uint32_t item, int32_t w,
                  HeaderEntry* header) {
  FPNode* node = take_node(e, tree);
  if (node == nullptr) return nullptr;
  node->item = item;
  node->count = w;
  node->parent = parent;
  node->depth = parent->depth + 1;
  if (last == nullptr) {
    parent->first_child = node;
  } else {
    last->next_sibling = node;
  }
  note_child(e.tree, parent, node);
  const uint32_t rank = e.tree.rank[item];
  HeaderEntry* h = &header[tree->nheader - static_cast<int32_t>(rank)];
  if (h->head == nullptr) h->tail = node;
  node->next_link = h->head;
  h->head = node;
  return node;
}

// Child of `node` with `item`, or null; *last then gets the last child.
FPNode* find_child(const TreeScratch& t, FPNode* node, uint32_t item, FPNode** last) {
  if (is_indexed(t, node)) {
    FPNode* child = indexed_child(t, node, item);
    if (child == nullptr) *last = indexed_child(t, node, kLastChild);
    return child;
  }
  FPNode* prev = nullptr;
  for (FPNode* c = node->first_child; c != nullptr; c = c->next_sibling) {
    if (c->item == item) return c;
    prev = c;
  }
  *last = prev;
  return nullptr;
}

// Cuts `item` from a record of weight `w`: its support drops by w and, while
// the support was still at the floor or above, its shortest valid length is
// looked up again.
void cut_item(Engine& e, uint32_t item, int32_t w) {
  const int32_t before = e.prune.item_cur_support[item];
  e.prune.item_cur_support[item] = before - w;
  if (before >= static_cast<int32_t>(e.support.lowest_minsup())) {
    e.prune.item_min_length[item] = e.support.min_length_of_support(before - w);
  }
  ++e.counters.cut_items;
}

}  // namespace

TreeScratch::~TreeScratch() { free(slots); }

int insert_tran_to_fptree(Engine& e, FPTree* tree, FPNode* node, const CurTran* tran, int32_t w) {
  const TranSlot* s = tran->slot;
  const uint32_t reach = e.prune.cur_pattern_length + e.prune.cur_tran_length;
  const uint32_t* min_length = e.prune.item_min_length.data();
  int32_t n = tran->n;
  while (n > 0) {
    uint32_t x = s[n - 1].item;
    FPNode* last = nullptr;
    FPNode* child = find_child(e.tree, node, x, &last);
    if (child != nullptr) {
      child->count += w;
    } else {
      bool cut = false;
      while (min_length[x] > reach) {
        cut_item(e, x, w);
        if (--n == 0) return 0;
        x = s[n - 1].item;
        cut = true;
      }
      if (cut) continue;
      child = add_child(e, tree, node, last, x, w, tree->header);
      if (child == nullptr) return -1;
    }
    if (n < 2) return 0;
    --n;
    node = child;
  }
  return 0;
}

namespace {

// Starts `tree` with its header, its first block and the root. Returns 0, or
// -1 after a trace.
int start_tree(Engine& e, int32_t nfreq, const ItemEntry* list, FPTree* tree) {
  if (!ensure_rank(e.tree, e.nitems)) {
    header_failure(e, 4 * (static_cast<size_t>(e.nitems) + 1));
    return -1;
  }
  if (make_header(e, nfreq, list, tree) != 0) return -1;
  start_child_index(e.tree);
  tree->first_block = static_cast<FPNodeBlock*>(calloc(1, sizeof(FPNodeBlock)));
  if (tree->first_block == nullptr) {
    block_failure(e, 139);
    return -1;
  }
  tree->cur_block = tree->first_block;
  tree->root = &tree->first_block->node[0];
  tree->nodes_used = 1;
  return 0;
}

}  // namespace

int create_fptree(Engine& e, TranBuf* db, int32_t nfreq, const ItemEntry* list, FPTree* tree) {
  if (start_tree(e, nfreq, list, tree) != 0) return -1;
  const uint32_t nrefs = reduce_records(e, db);
  for (int32_t p = 0; p < nfreq; ++p) {
    const HeaderEntry& h = tree->header[p];
    e.prune.item_min_length[h.item] = e.support.min_length_of_support(h.support);
    e.prune.item_cur_support[h.item] = h.support;
  }
  order_insertions(e, nrefs, static_cast<uint32_t>(nfreq));
  CurTran* tran = nullptr;
  const TranRef* refs = e.prune.tran_refs.data();
  int status = 0;
  for (uint32_t r = 0; r < nrefs && status == 0; ++r) {
    const int32_t w = read_tran_at(&e.pool, db, &tran, refs[r].offset);
    e.prune.cur_tran_length = refs[r].count;
    status = insert_tran_to_fptree(e, tree, tree->root, tran, w);
  }
  for (int32_t p = 0; p < nfreq; ++p) {
    HeaderEntry& h = tree->header[p];
    h.support = e.prune.item_cur_support[h.item];
    e.tree.rank[h.item] = 0;
  }
  return status;
}

void free_fptree(FPTree* tree) {
  for (FPNodeBlock* b = tree->first_block; b != nullptr;) {
    FPNodeBlock* next = b->next;
    free(b);
    b = next;
  }
  free(tree->header);
  tree->first_block = tree->cur_block = nullptr;
  tree->header = nullptr;
  tree->root = nullptr;
  tree->nheader = 0;
}

namespace {

bool is_single_path(const FPTree* tree) {
  for (const FPNode* v = tree->root; v != nullptr; v = v->first_child) {
    if (v->next_sibling != nullptr) return false;
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
  if (q.length < e.min_size || q.length > e.max_size) return;
  if (e.wanted != nullptr) {
    const uint32_t least = e.top_single_path ? q.items[q.length - 1] : q.items[0];
    if (!(*e.wanted)[least]) return;
  }
  e.sink->put(q);
}

// Takes node `v` out of its parent's child list; the other children keep
// their order.
void unlink_from_parent(FPNode* v) {
  FPNode** at = &v->parent->first_child;
  while (*at != v) at = &(*at)->next_sibling;
  *at = v->next_sibling;
}

// Unlinks every node of the list `removed` (linked by next_link).
void unlink_removed(FPNode* removed) {
  for (FPNode* v = removed; v != nullptr; v = v->next_link) unlink_from_parent(v);
}

// Takes `v` (behind `prev`, or the head) out of h's chain.
void drop_from_chain(HeaderEntry* h, FPNode* prev, FPNode* v) {
  if (prev == nullptr) {
    h->head = v->next_link;
  } else {
    prev->next_link = v->next_link;
  }
  if (h->tail == v) h->tail = prev;
}

// Appends the record of node `v` to `cdb`: its ancestors below the root,
// least frequent first, weighted by v's count. Returns 0, or -1 after a trace.
int append_path(Engine& e, const FPNode* v, TranBuf* cdb) {
  uint32_t* path = e.tree.path.data();
  uint32_t n = 0;
  for (const FPNode* a = v->parent; a->parent != nullptr; a = a->parent) path[n++] = a->item;
  if (insert_tran_to_trandb(&e.pool, cdb, path, n, static_cast<uint32_t>(v->count)) != 0) {
    e.rep->tracef("%s(%d) : insert_tran_to_trandb\n", kSrc, 740);
    return -1;
  }
  return 0;
}

// True when node v of a pattern of k items plus v's item is deep enough to
// give a pattern of `len` items (nodes below the root alone give nothing).
bool contributes(const FPNode* v, uint32_t k, uint32_t len) {
  return v->depth > 1 && static_cast<int64_t>(v->depth) + k >= static_cast<int64_t>(len);
}

// Fills `cdb` with the record of every node of `chain` (linked by
// next_link) that contributes under `len`.
int collect_conditional(Engine& e, const FPNode* chain, uint32_t k, uint32_t len, TranBuf* cdb) {
  for (const FPNode* v = chain; v != nullptr; v = v->next_link) {
    if (contributes(v, k, len) && append_path(e, v, cdb) != 0) return -1;
  }
  return 0;
}

// Removes leaf `v` of h: its count leaves h's support and `*len` follows.
void remove_leaf(Engine& e, HeaderEntry* h, FPNode* v, uint32_t* len) {
  h->support -= v->count;
  *len = e.support.min_length_of_support(h->support);
  ++e.counters.pruned_nodes;
}

// First pass of node pruning over h's chain: every leaf too shallow to reach
// the shortest valid length `*len` goes (taken out of the chain at once and
// out of its parent's children after the pass), and each removal raises
// `*len`. The leaves kept are listed in e.tree.leaves, in chain order. When
// `cdb` is not null, every node kept is offered to it under `collect_len`.
// Returns false when a record cannot be appended.
bool first_prune_pass(Engine& e, HeaderEntry* h, uint32_t k, uint32_t* len, TranBuf* cdb,
                      uint32_t collect_len) {
  std::vector<FPNode*>& leaves = e.tree.leaves;
  leaves.clear();
  FPNode* gone = nullptr;  // the leaves removed in this pass
  FPNode* prev = nullptr;
  for (FPNode* v = h->head; v != nullptr;) {
    FPNode* next = v->next_link;
    const bool leaf = v->first_child == nullptr;
    if (leaf && static_cast<int64_t>(v->depth) + k < static_cast<int64_t>(*len)) {
      remove_leaf(e, h, v, len);
      drop_from_chain(h, prev, v);
      v->next_link = gone;
      gone = v;
    } else {
      if (leaf) leaves.push_back(v);
      if (cdb != nullptr && contributes(v, k, collect_len) && append_path(e, v, cdb) != 0) {
        return false;
      }
      prev = v;
    }
    v = next;
  }
  // Leaves of h are never parents of other nodes of h, so unlinking them
  // after the pass decides exactly as unlinking each one at once.
  unlink_removed(gone);
  return true;
}

// The later passes: only the leaves the first pass kept can go (removing a
// leaf of h never makes another node of h a leaf), so each pass walks them in
// chain order, marking the removed ones with a zero count, until a pass
// leaves `*len` as it found it or the support falls below `floor`. Then the
// marked nodes leave the chain and their parents' children.
void later_prune_passes(Engine& e, HeaderEntry* h, uint32_t k, uint32_t* len, int32_t floor) {
  std::vector<FPNode*>& leaves = e.tree.leaves;
  for (uint32_t before = 0; *len != before && h->support >= floor;) {
    before = *len;
    for (FPNode* v : leaves) {
      if (v->count != 0 && static_cast<int64_t>(v->depth) + k < static_cast<int64_t>(*len)) {
        remove_leaf(e, h, v, len);
        v->count = 0;
      }
    }
  }
  FPNode* gone = nullptr;
  FPNode* prev = nullptr;
  for (FPNode* v = h->head; v != nullptr;) {
    FPNode* next = v->next_link;
    if (v->count == 0) {
      drop_from_chain(h, prev, v);
      v->next_link = gone;
      gone = v;
    } else {
      prev = v;
    }
    v = next;
  }
  unlink_removed(gone);
}

enum class Pruned { kBelowFloor, kCollected, kFailed };

// Node pruning of h for a pattern of k items plus h, then h's conditional
// database in `cdb` (made by init_buf; null to prune only). Passes repeat
// while one raised the shortest valid length, since only that can make
// another leaf too shallow. The first pass also collects the records: when
// it leaves the length as it found it, those are exactly the records of a
// separate walk after the pruning; otherwise they are dropped and collected
// again.
Pruned prune_and_collect(Engine& e, HeaderEntry* h, uint32_t k, int32_t floor, TranBuf* cdb) {
  uint32_t len = e.support.min_length_of_support(h->support);
  // Every node is at depth 1 or more: when k + 1 reaches the length, no leaf goes.
  if (static_cast<int64_t>(k) + 1 >= static_cast<int64_t>(len)) {
    if (cdb == nullptr) return Pruned::kCollected;
    return collect_conditional(e, h->head, k, len, cdb) == 0 ? Pruned::kCollected : Pruned::kFailed;
  }
  const uint32_t first_len = len;
  if (!first_prune_pass(e, h, k, &len, cdb, first_len)) return Pruned::kFailed;
  if (h->support < floor) return Pruned::kBelowFloor;
  if (len == first_len) return Pruned::kCollected;
  if (cdb != nullptr) {
    cdb->position = 0;
    cdb->data[0] = 0;
  }
  later_prune_passes(e, h, k, &len, floor);
  if (h->support < floor) return Pruned::kBelowFloor;
  if (cdb == nullptr) return Pruned::kCollected;
  return collect_conditional(e, h->head, k, len, cdb) == 0 ? Pruned::kCollected : Pruned::kFailed;
}

// Builds the conditional tree of pattern `q` (k + 1 items, the last being h's)
// from `cdb`, which it releases, and mines it. Returns 0, or -1 after a trace.
int mine_conditional(Engine& e, const Pattern& q, TranBuf* cdb, uint32_t depth) {
  int32_t nfreq = 0;
  ItemEntry* list = nullptr;
  const int32_t floor = static_cast<int32_t>(e.support.lowest_minsup());
  if (create_freqitemlist(&e.items, &e.pool, cdb, floor, e.nitems, &e.stats, &nfreq, &list) != 0) {
    e.rep->printf("%s(%u) Fatal error in create_freqitemlist()", kSrc, 755u);
    return -1;
  }
  if (nfreq <= 0) {
    free_buf(&e.pool, cdb);
    return 0;
  }
  e.prune.cur_pattern_length = q.length;
  FPTree tree = {};
  if (create_fptree(e, cdb, nfreq, list, &tree) != 0) {
    e.rep->tracef("%s(%d) : create_fptree\n", kSrc, 773);
    free_fptree(&tree);
    return -1;
  }
  free_buf(&e.pool, cdb);
  ++e.counters.conditional_trees;
  if (gen_freqpattern(e, &tree, q, depth + 1) != 0) {
    e.rep->tracef("%s(%d) : gen_freqpattern\n", kSrc, 810);
    return -1;
  }
  return 0;
}

// The nodes of the single path below `u` that cannot extend a pattern of k
// items to any valid length get their counts negated.
void mark_rare_nodes(Engine& e, FPNode* u, uint32_t k) {
  const FPNode* end = u;
  while (end->first_child != nullptr) end = end->first_child;
  const uint32_t need_max = e.support.bound_of_length(k + end->depth - u->depth);
  for (FPNode* v = u->first_child; v != nullptr; v = v->first_child) {
    if (v->count > 0 && !at_least(v->count, need_max)) {
      v->count = -v->count;
      ++e.counters.marked_nodes;
    }
  }
}

}  // namespace

int gen_pattern_by_nodepath(Engine& e, const Pattern& p, FPNode* u) {
  const uint32_t k = p.length;
  if (k >= e.max_size || u->first_child == nullptr) return 0;
  mark_rare_nodes(e, u, k);
  Pattern q = {k + 1, p.support, p.items};
  const uint32_t need = e.support.minsup_of_length(k + 1);
  int status = 0;
  for (FPNode* v = u->first_child; v != nullptr && status == 0; v = v->first_child) {
    if (v->count < 0) continue;
    q.items[k] = v->item;
    if (q.support > v->count) q.support = v->count;
    if (at_least(q.support, need)) emit(e, q);
    if (v->first_child != nullptr && gen_pattern_by_nodepath(e, q, v) != 0) {
      e.rep->tracef("%s(%d) : gen_pattern_by_nodepath\n", kSrc, 950);
      status = -1;
    }
  }
  for (FPNode* v = u->first_child; v != nullptr; v = v->first_child) {
    if (v->count < 0) v->count = -v->count;
  }
  return status;
}

namespace {

// Mines the single path of `tree`; on the tree of the whole database every
// pattern's least frequent item is the last one added.
int mine_single_path(Engine& e, FPTree* tree, const Pattern& p, uint32_t depth) {
  ++e.counters.single_paths;
  e.top_single_path = depth == 1;
  const int status = gen_pattern_by_nodepath(e, p, tree->root);
  e.top_single_path = false;
  if (status != 0) {
    e.rep->tracef("%s(%d) : gen_pattern_by_nodepath\n", kSrc, 440);
    return -1;
  }
  free_fptree(tree);
  return 0;
}

}  // namespace

namespace {

// The nodes of every item that node pruning at the top level can remove
// while the item's support stays at the floor or above: those shallower than
// the shortest length of the floor. By header index, in chain order.
struct ShallowNodes {
  std::vector<size_t> start;  // nheader + 1 entries
  std::vector<FPNode*> nodes;
};

// Lists them by one sequential scan of the node blocks; false (nothing
// listed) when they are not few, so that walking the chains costs as much.
bool list_shallow_nodes(Engine& e, const FPTree& tree, uint32_t bound, ShallowNodes* out) {
  std::vector<uint32_t>& index = e.tree.rank;  // all zero between builds: item -> header index + 1
  for (int32_t p = 0; p < tree.nheader; ++p) index[tree.header[p].item] = static_cast<uint32_t>(p + 1);
  out->start.assign(static_cast<size_t>(tree.nheader) + 1, 0);
  size_t total = 0;
  size_t listed = 0;
  auto each_node = [&](auto&& visit) {
    for (const FPNodeBlock* b = tree.first_block; b != nullptr; b = b->next) {
      const uint32_t used = b == tree.cur_block ? tree.nodes_used : kNodesPerBlock;
      for (uint32_t k = b == tree.first_block ? 1 : 0; k < used; ++k) visit(const_cast<FPNode*>(&b->node[k]));
    }
  };
  each_node([&](FPNode* v) {
    ++total;
    if (v->depth < bound) {
      ++out->start[index[v->item]];
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
    each_node([&](FPNode* v) {
      if (v->depth < bound) out->nodes[--fill[index[v->item] - 1]] = v;
    });
  }
  for (int32_t p = 0; p < tree.nheader; ++p) index[tree.header[p].item] = 0;
  return few;
}

// Marks removed leaf v of h (count 0, kept in its chain) for unlinking.
void mark_removed(Engine& e, HeaderEntry* h, FPNode* v, uint32_t* len) {
  remove_leaf(e, h, v, len);
  v->count = 0;
  e.tree.gone.push_back(v);
}

// Ends a pass whose support fell below the floor at node `from` of h's
// chain: every leaf after it that is still there and too shallow goes.
void finish_pass_on_chain(Engine& e, HeaderEntry* h, FPNode* from, uint32_t* len) {
  for (FPNode* v = from; v != nullptr; v = v->next_link) {
    if (v->first_child == nullptr && v->count != 0 && static_cast<int64_t>(v->depth) < *len) {
      mark_removed(e, h, v, len);
    }
  }
}

// Takes the marked nodes out of their parents' children.
void unlink_marked(Engine& e) {
  for (FPNode* v : e.tree.gone) unlink_from_parent(v);
  e.tree.gone.clear();
}

// Node pruning of top item h as prune_and_collect decides it, visiting only
// its listed shallow nodes while the support stays at the floor: deeper
// leaves could only go once it has fallen below, and then the pass goes on
// along the chain. Removed nodes stay in the chain with a zero count (no
// record is collected from them: they are too shallow).
Pruned prune_listed(Engine& e, HeaderEntry* h, FPNode* const* nodes, size_t n, int32_t floor) {
  uint32_t len = e.support.min_length_of_support(h->support);
  if (len <= 1) return Pruned::kCollected;
  std::vector<FPNode*>& leaves = e.tree.leaves;
  leaves.clear();
  const uint32_t first_len = len;
  for (size_t i = 0; i < n; ++i) {
    FPNode* v = nodes[i];
    if (v->first_child != nullptr) continue;
    if (v->depth >= len) {
      leaves.push_back(v);
      continue;
    }
    mark_removed(e, h, v, &len);
    if (h->support < floor) {
      finish_pass_on_chain(e, h, v->next_link, &len);
      unlink_marked(e);
      return Pruned::kBelowFloor;
    }
  }
  for (uint32_t before = first_len == len ? len : 0; len != before;) {
    before = len;
    for (FPNode* v : leaves) {
      if (v->count == 0 || v->depth >= len) continue;
      mark_removed(e, h, v, &len);
      if (h->support < floor) {
        finish_pass_on_chain(e, h, v->next_link, &len);
        unlink_marked(e);
        return Pruned::kBelowFloor;
      }
    }
  }
  unlink_marked(e);
  return Pruned::kCollected;
}

// The longest shortest length of any support at the floor or above (the
// lookup is not monotone over small counts with a constant table).
uint32_t longest_length(const Engine& e, int32_t floor) {
  const int32_t cached = SupportTable::kCacheSize;
  uint32_t longest = e.support.min_length_of_support(std::max(floor, cached));
  for (int32_t s = std::max(floor, 0); s < cached; ++s) {
    longest = std::max(longest, e.support.min_length_of_support(s));
  }
  return longest;
}

// In a restricted run, the lowest header index whose item the run must
// produce (-1 when none): the top-level walk, least frequent item first, may
// stop below it, since everything a top item leads to has that item as its
// least frequent one and would be dropped by emit().
int32_t lowest_wanted_index(const Engine& e, const FPTree& tree) {
  if (e.wanted == nullptr) return 0;
  for (int32_t i = 0; i < tree.nheader; ++i) {
    if ((*e.wanted)[tree.header[i].item]) return i;
  }
  return -1;
}

// The top level of a run handed to e.split: the same walk, node pruning and
// one-item patterns as gen_freqpattern at depth 1; the split collects and
// mines each item's conditional database.
int split_top_level(Engine& e, FPTree* tree) {
  e.split->take_tree(*tree);
  const int32_t floor = static_cast<int32_t>(e.support.lowest_minsup());
  Pattern q = {1, 0, e.tree.items.data()};
  const uint32_t need = e.support.minsup_of_length(1);
  ShallowNodes shallow;
  const bool listed = e.wanted == nullptr && list_shallow_nodes(e, *tree, longest_length(e, floor), &shallow);
  const int32_t lowest = lowest_wanted_index(e, *tree);
  for (int32_t i = tree->nheader - 1; i >= 0 && i >= lowest; --i) {
    HeaderEntry* h = &tree->header[i];
    if (e.progress != nullptr) e.progress->top_items(tree->nheader - i, tree->nheader);
    if (h->support < floor) continue;
    if (e.wanted != nullptr && !(*e.wanted)[h->item]) {
      prune_and_collect(e, h, 0, floor, nullptr);
      continue;
    }
    if (e.split->begin_item(e, h->item) != 0) return -1;
    q.items[0] = h->item;
    q.support = h->support;
    if (at_least(q.support, need)) emit(e, q);
    const Pruned pruned =
        listed ? prune_listed(e, h, shallow.nodes.data() + shallow.start[i],
                              shallow.start[i + 1] - shallow.start[i], floor)
               : prune_and_collect(e, h, 0, floor, nullptr);
    if (pruned == Pruned::kBelowFloor) continue;
    if (e.split->conditional(e, h->item, h->support, h->head) != 0) return -1;
  }
  *tree = {};
  return 0;
}

}  // namespace

int collect_top_item(Engine& e, int32_t support, const FPNode* chain, TranBuf* cdb) {
  if (init_buf(&e.pool, cdb) != 0) {
    e.rep->tracef("%s(%d) : init_buf\n", kSrc, 684);
    return -1;
  }
  if (collect_conditional(e, chain, 0, e.support.min_length_of_support(support), cdb) != 0) {
    free_buf(&e.pool, cdb);
    return -1;
  }
  return 0;
}

int mine_top_database(Engine& e, uint32_t item, int32_t support, TranBuf* cdb) {
  uint32_t records = 0;
  for (const int32_t* w = cdb->data; *w != 0; ++records) w += *w < 0 ? 2 + w[1] : 1 + *w;
  try {
    if (e.prune.tran_refs.size() < records) e.prune.tran_refs.resize(records);
  } catch (const std::bad_alloc&) {
    free_buf(&e.pool, cdb);
    e.rep->trace_errno("malloc");
    e.rep->tracef("%s(%d) : malloc\n", kSrc, 365);
    return -1;
  }
  e.tree.items[0] = item;
  const Pattern q = {1, support, e.tree.items.data()};
  return mine_conditional(e, q, cdb, 1);
}

int mine_top_item(Engine& e, uint32_t item, int32_t support, const FPNode* chain) {
  TranBuf cdb;
  if (collect_top_item(e, support, chain, &cdb) != 0) return -1;
  return mine_top_database(e, item, support, &cdb);
}

int gen_freqpattern(Engine& e, FPTree* tree, const Pattern& p, uint32_t depth) {
  if (is_single_path(tree)) return mine_single_path(e, tree, p, depth);
  if (depth == 1 && e.split != nullptr) return split_top_level(e, tree);
  const int32_t floor = static_cast<int32_t>(e.support.lowest_minsup());
  const uint32_t k = p.length;
  Pattern q = {k + 1, 0, p.items};
  const uint32_t need = e.support.minsup_of_length(k + 1);
  const int32_t lowest = depth == 1 ? lowest_wanted_index(e, *tree) : 0;
  for (int32_t i = tree->nheader - 1; i >= 0 && i >= lowest; --i) {
    HeaderEntry* h = &tree->header[i];
    if (depth == 1 && e.progress != nullptr) e.progress->top_items(tree->nheader - i, tree->nheader);
    if (h->support < floor) continue;
    // A restricted run still prunes the items it skips, so that the tree
    // evolves exactly as in a run over every item.
    if (depth == 1 && e.wanted != nullptr && !(*e.wanted)[h->item]) {
      prune_and_collect(e, h, k, floor, nullptr);
      continue;
    }
    q.items[k] = h->item;
    q.support = h->support;
    if (at_least(q.support, need)) emit(e, q);
    TranBuf cdb;
    if (init_buf(&e.pool, &cdb) != 0) {
      e.rep->tracef("%s(%d) : init_buf\n", kSrc, 684);
      return -1;
    }
    const Pruned pruned = prune_and_collect(e, h, k, floor, &cdb);
    if (pruned == Pruned::kFailed) return -1;
    if (pruned == Pruned::kBelowFloor) {
      free_buf(&e.pool, &cdb);
      continue;
    }
    q.support = h->support;
    if (mine_conditional(e, q, &cdb, depth) != 0) return -1;
  }
  free_fptree(tree);
  return 0;
}

int mine_fptree(Engine& e, FPTree* tree) {
  try {
    e.tree.items.assign(static_cast<size_t>(e.nitems) + 1, 0);
    e.tree.path.assign(static_cast<size_t>(e.nitems) + 1, 0);
  } catch (const std::bad_alloc&) {
    e.rep->trace_errno("malloc");
    e.rep->tracef("%s(%d) : malloc\n", kSrc, 365);
    return -1;
  }
  // Every level of the recursion writes only its own slot of `items`. The
  // empty pattern carries the support of the most frequent item as it was
  // before path pruning: a single-path tree caps every pattern's support by
  // it, and pruning may have cut that item from every record.
  const Pattern empty = {0, tree->top_support, e.tree.items.data()};
  int status = gen_freqpattern(e, tree, empty, 1);
  if (status != 0) e.rep->tracef("%s(%d) : gen_freqpattern\n", kSrc, 376);
  return status;
}
