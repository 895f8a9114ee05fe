#include "cfptree.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "log.h"
#include "np2.h"
#include "suppfunc.h"
#include "vscmdl.h"

namespace {

const char kSrc[] = "cfptree";

MiningCounters g_counters = {};

// Rank of every item in the list of the tree being built: nfreq for the most
// frequent, 1 for the least, 0 for items not in the list. All zero between
// builds. Header index of a listed item = nfreq - rank.
uint32_t* g_rank = nullptr;
uint32_t g_rank_capacity = 0;

// Child index of the tree being built. A node with more than kScanChildren
// children (the root and the upper nodes of sparse data can have thousands)
// has all of them, and its last child under the key kLastChild, in this
// open-addressing table keyed by (parent, item); other nodes are searched by
// walking their child list. Entries of earlier builds are told apart by their
// generation, so starting a build clears nothing.
constexpr uint32_t kScanChildren = 8;
constexpr uint32_t kLastChild = 0xffffffffu;

struct ChildSlot {
  const FPNode* parent;
  FPNode* child;
  uint32_t item;
  uint32_t gen;
};

ChildSlot* g_slots = nullptr;
size_t g_slot_mask = 0;   // capacity - 1 (capacity a power of two, or 0)
size_t g_slots_used = 0;  // slots of the current generation
uint32_t g_gen = 0;
bool g_index_ok = false;  // false when growing failed: this build walks lists

// Scratch of the recursion: the ancestor items of one node (filled and used
// before the recursion descends), the item count and the maximum output size.
uint32_t* g_path = nullptr;
uint32_t g_nitems = 0;
uint32_t g_max_size = 0xffffffffu;

// Scratch of the insertion ordering: records per length, and the ordered refs.
std::vector<uint32_t> g_length_start;
std::vector<TranRef> g_ordered_refs;

// Orders tran_refs[0, n) longest record first, records of equal length in
// database order. reduce_records lists them in database order, so a stable
// counting sort by length gives exactly that order in linear time.
void order_insertions(uint32_t n, uint32_t max_length) {
  g_length_start.assign(max_length + 2, 0);
  for (uint32_t r = 0; r < n; ++r) ++g_length_start[max_length - tran_refs[r].count + 1];
  for (uint32_t k = 1; k < g_length_start.size(); ++k) g_length_start[k] += g_length_start[k - 1];
  if (g_ordered_refs.size() < n) g_ordered_refs.resize(n);
  for (uint32_t r = 0; r < n; ++r) {
    g_ordered_refs[g_length_start[max_length - tran_refs[r].count]++] = tran_refs[r];
  }
  std::copy(g_ordered_refs.begin(), g_ordered_refs.begin() + n, tran_refs);
}

bool ensure_rank(uint32_t nitems) {
  if (g_rank != nullptr && nitems <= g_rank_capacity) return true;
  uint32_t* grown = static_cast<uint32_t*>(calloc(nitems + 1, sizeof(uint32_t)));
  if (grown == nullptr) return false;
  free(g_rank);
  g_rank = grown;
  g_rank_capacity = nitems;
  return true;
}

size_t slot_of(const FPNode* parent, uint32_t item) {
  uint64_t h = reinterpret_cast<uintptr_t>(parent) * 0x9e3779b97f4a7c15ull;
  h ^= (item + 0x632be59bd9b4e019ull) * 0xc2b2ae3d27d4eb4full;
  return static_cast<size_t>(h ^ (h >> 29)) & g_slot_mask;
}

void start_child_index() {
  if (++g_gen == 0) {  // generations wrapped: forget every old entry
    for (size_t i = 0; g_slots != nullptr && i <= g_slot_mask; ++i) g_slots[i].gen = 0;
    g_gen = 1;
  }
  g_slots_used = 0;
  g_index_ok = true;
}

void put_slot(ChildSlot* slots, size_t mask, const FPNode* parent, uint32_t item, FPNode* child) {
  size_t i = slot_of(parent, item) & mask;
  while (slots[i].gen == g_gen && (slots[i].parent != parent || slots[i].item != item)) {
    i = (i + 1) & mask;
  }
  if (slots[i].gen != g_gen) ++g_slots_used;
  slots[i] = {parent, child, item, g_gen};
}

// Doubles the table (at least 1024 slots), keeping the current generation.
bool grow_child_index() {
  const size_t old_cap = g_slots == nullptr ? 0 : g_slot_mask + 1;
  const size_t cap = old_cap == 0 ? 1024 : 2 * old_cap;
  ChildSlot* slots = static_cast<ChildSlot*>(calloc(cap, sizeof(ChildSlot)));
  if (slots == nullptr) return false;
  ChildSlot* old = g_slots;
  g_slots = slots;
  g_slot_mask = cap - 1;
  g_slots_used = 0;
  for (size_t i = 0; i < old_cap; ++i) {
    if (old[i].gen == g_gen) put_slot(g_slots, g_slot_mask, old[i].parent, old[i].item, old[i].child);
  }
  free(old);
  return true;
}

void index_child(const FPNode* parent, uint32_t item, FPNode* child) {
  if (!g_index_ok) return;
  if (2 * (g_slots_used + 1) > (g_slots == nullptr ? 0 : g_slot_mask + 1) && !grow_child_index()) {
    g_index_ok = false;
    return;
  }
  put_slot(g_slots, g_slot_mask, parent, item, child);
}

FPNode* indexed_child(const FPNode* parent, uint32_t item) {
  for (size_t i = slot_of(parent, item);; i = (i + 1) & g_slot_mask) {
    const ChildSlot& s = g_slots[i];
    if (s.gen != g_gen) return nullptr;
    if (s.parent == parent && s.item == item) return s.child;
  }
}

bool is_indexed(const FPNode* node) { return g_index_ok && node->nchild > kScanChildren; }

// Registers the new child `node` of `parent`; a parent that has just become
// wide gets all its children registered.
void note_child(FPNode* parent, FPNode* node) {
  ++parent->nchild;
  if (parent->nchild < kScanChildren + 1) return;
  if (parent->nchild == kScanChildren + 1) {
    for (FPNode* c = parent->first_child; c != nullptr; c = c->next_sibling) {
      index_child(parent, c->item, c);
    }
  } else {
    index_child(parent, node->item, node);
  }
  index_child(parent, kLastChild, node);
}

FPNodeBlock* new_block() {
  FPNodeBlock* block = static_cast<FPNodeBlock*>(calloc(1, sizeof(FPNodeBlock)));
  return block;
}

[[noreturn]] void block_failure(int line) {
  perror("malloc");
  fprintf(stderr, "%s(%d) : malloc(%d)\n", kSrc, line, static_cast<int>(sizeof(FPNodeBlock)));
  exit(1);
}

// Header table in list order; -1 after the diagnostic when memory is short.
int make_header(int32_t nfreq, const ItemEntry* list, FPTree* tree) {
  const size_t bytes = sizeof(HeaderEntry) * static_cast<size_t>(nfreq > 0 ? nfreq : 1);
  tree->header = static_cast<HeaderEntry*>(malloc(bytes));
  if (tree->header == nullptr) {
    perror("malloc");
    fprintf(stderr, "%s(%d) : malloc(%d)", kSrc, 1118, static_cast<int>(bytes));
    fprintf(stderr, "%s(%d) : fail to create header table\n", kSrc, 1161);
    return -1;
  }
  for (int32_t p = 0; p < nfreq; ++p) {
    tree->header[p] = {*list[p].items, list[p].support, nullptr, nullptr};
    g_rank[*list[p].items] = static_cast<uint32_t>(nfreq - p);
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
int32_t keep_frequent(CurTran* tran) {
  TranSlot* s = tran->slot;
  int32_t kept = 0;
  for (int32_t i = 0; i < tran->n; ++i) {
    const uint32_t rank = g_rank[s[i].item];
    if (rank != 0) s[kept++] = {s[i].item, rank};
  }
  sort_by_rank(s, kept);
  tran->n = kept;
  return kept;
}

// First pass: reduces every record of `db` to its frequent items in rank order
// (rewritten in place) and lists the non-empty ones in tran_refs.
uint32_t reduce_records(TranBuf* db) {
  uint32_t nrefs = 0;
  CurTran* tran = nullptr;
  db->position = 0;
  for (;;) {
    const uint32_t offset = db->position;
    if (read_tran(db, &tran) == 0) break;
    const int32_t n = keep_frequent(tran);
    if (n == 0) continue;
    tran_refs[nrefs++] = {offset, static_cast<uint32_t>(n)};
    int32_t* word = db->data + offset / 4;
    if (*word < 0) ++word;
    *word++ = n;
    for (int32_t i = 0; i < n; ++i) word[i] = static_cast<int32_t>(tran->slot[i].item);
  }
  return nrefs;
}

FPNode* take_node(FPTree* tree) {
  if (tree->nodes_used == kNodesPerBlock) {
    FPNodeBlock* block = new_block();
    if (block == nullptr) block_failure(163);
    tree->cur_block->next = block;
    tree->cur_block = block;
    tree->nodes_used = 0;
  }
  return &tree->cur_block->node[tree->nodes_used++];
}

// Makes a child of `parent` for `item` behind `last` (its current last child,
// or null) and pushes it on the item's header chain.
FPNode* add_child(FPTree* tree, FPNode* parent, FPNode* last, uint32_t item, int32_t w,
                  HeaderEntry* header) {
  FPNode* node = take_node(tree);
  node->item = item;
  node->count = w;
  node->parent = parent;
  node->depth = parent->depth + 1;
  if (last == nullptr) {
    parent->first_child = node;
  } else {
    last->next_sibling = node;
  }
  note_child(parent, node);
  const uint32_t rank = g_rank[item];
  HeaderEntry* h = &header[tree->nheader - static_cast<int32_t>(rank)];
  if (h->head == nullptr) h->tail = node;
  node->next_link = h->head;
  h->head = node;
  return node;
}

// Child of `node` with `item`, or null; *last then gets the last child.
FPNode* find_child(FPNode* node, uint32_t item, FPNode** last) {
  if (is_indexed(node)) {
    FPNode* child = indexed_child(node, item);
    if (child == nullptr) *last = indexed_child(node, kLastChild);
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
void cut_item(uint32_t item, int32_t w) {
  const int32_t before = item_cur_support[item];
  item_cur_support[item] = before - w;
  if (before >= static_cast<int32_t>(lowest_minsup())) {
    item_min_length[item] = min_length_of_support(item_cur_support[item]);
  }
  ++g_counters.cut_items;
}

}  // namespace

const MiningCounters& mining_counters() { return g_counters; }

void reset_mining_counters() { g_counters = {}; }

int insert_tran_to_fptree(FPTree* tree, FPNode* node, const CurTran* tran, HeaderEntry* header,
                          int32_t w) {
  const TranSlot* s = tran->slot;
  const uint32_t reach = cur_pattern_length + cur_tran_length;
  int32_t n = tran->n;
  while (n > 0) {
    uint32_t x = s[n - 1].item;
    FPNode* last = nullptr;
    FPNode* child = find_child(node, x, &last);
    if (child != nullptr) {
      child->count += w;
    } else {
      bool cut = false;
      while (item_min_length[x] > reach) {
        cut_item(x, w);
        if (--n == 0) return 0;
        x = s[n - 1].item;
        cut = true;
      }
      if (cut) continue;
      child = add_child(tree, node, last, x, w, header);
    }
    if (n < 2) return 0;
    --n;
    node = child;
  }
  return 0;
}

int create_fptree(TranBuf* db, int32_t nfreq, const ItemEntry* list, FPTree* tree,
                  uint32_t nitems) {
  if (!ensure_rank(nitems)) {
    perror("malloc");
    fprintf(stderr, "%s(%d) : malloc(%d)", kSrc, 1118, static_cast<int>(4 * (nitems + 1)));
    fprintf(stderr, "%s(%d) : fail to create header table\n", kSrc, 1161);
    return -1;
  }
  if (make_header(nfreq, list, tree) != 0) return -1;
  start_child_index();
  tree->first_block = new_block();
  if (tree->first_block == nullptr) block_failure(139);
  tree->cur_block = tree->first_block;
  tree->root = &tree->first_block->node[0];
  tree->nodes_used = 1;

  const uint32_t nrefs = reduce_records(db);
  for (int32_t p = 0; p < nfreq; ++p) {
    const HeaderEntry& h = tree->header[p];
    item_min_length[h.item] = min_length_of_support(h.support);
    item_cur_support[h.item] = h.support;
  }
  order_insertions(nrefs, static_cast<uint32_t>(nfreq));
  CurTran* tran = nullptr;
  for (uint32_t r = 0; r < nrefs; ++r) {
    const int32_t w = read_tran_at(db, &tran, tran_refs[r].offset);
    cur_tran_length = tran_refs[r].count;
    insert_tran_to_fptree(tree, tree->root, tran, tree->header, w);
  }
  for (int32_t p = 0; p < nfreq; ++p) {
    HeaderEntry& h = tree->header[p];
    h.support = item_cur_support[h.item];
    g_rank[h.item] = 0;
  }
  return 0;
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

// Takes every node of the list `removed` (linked by next_link) out of its
// parent's child list; the other children keep their order.
void unlink_removed(FPNode* removed) {
  for (FPNode* v = removed; v != nullptr; v = v->next_link) {
    FPNode** at = &v->parent->first_child;
    while (*at != v) at = &(*at)->next_sibling;
    *at = v->next_sibling;
  }
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
// least frequent first, weighted by v's count. Returns 0, or -1 after a
// diagnostic.
int append_path(const FPNode* v, TranBuf* cdb) {
  uint32_t n = 0;
  for (const FPNode* a = v->parent; a->parent != nullptr; a = a->parent) g_path[n++] = a->item;
  if (insert_tran_to_trandb(cdb, g_path, n, static_cast<uint32_t>(v->count)) != 0) {
    fprintf(stderr, "%s(%d) : insert_tran_to_trandb\n", kSrc, 740);
    return -1;
  }
  return 0;
}

// True when node v of a pattern of k items plus v's item is deep enough to
// give a pattern of `len` items (nodes below the root alone give nothing).
bool contributes(const FPNode* v, uint32_t k, uint32_t len) {
  return v->depth > 1 && static_cast<int64_t>(v->depth) + k >= static_cast<int64_t>(len);
}

// Fills `cdb` with the record of every node of h that contributes under `len`.
int collect_conditional(const HeaderEntry* h, uint32_t k, uint32_t len, TranBuf* cdb) {
  for (const FPNode* v = h->head; v != nullptr; v = v->next_link) {
    if (contributes(v, k, len) && append_path(v, cdb) != 0) return -1;
  }
  return 0;
}

// One pass of node pruning over h's chain: every leaf too shallow to reach
// the shortest valid length `*len` goes, and each removal raises `*len`. When
// `cdb` is not null, every node kept is offered to it under `collect_len`.
// Returns false when a record cannot be appended.
bool prune_pass(HeaderEntry* h, uint32_t k, uint32_t* len, TranBuf* cdb, uint32_t collect_len) {
  FPNode* gone = nullptr;  // the leaves removed in this pass
  FPNode* prev = nullptr;
  for (FPNode* v = h->head; v != nullptr;) {
    FPNode* next = v->next_link;
    if (v->first_child == nullptr &&
        static_cast<int64_t>(v->depth) + k < static_cast<int64_t>(*len)) {
      h->support -= v->count;
      *len = min_length_of_support(h->support);
      drop_from_chain(h, prev, v);
      v->next_link = gone;
      gone = v;
      ++g_counters.pruned_nodes;
    } else {
      if (cdb != nullptr && contributes(v, k, collect_len) && append_path(v, cdb) != 0) return false;
      prev = v;
    }
    v = next;
  }
  // Leaves of h are never parents of other nodes of h, so unlinking them
  // after the pass decides exactly as unlinking each one at once.
  unlink_removed(gone);
  return true;
}

enum class Pruned { kBelowFloor, kCollected, kFailed };

// Node pruning of h for a pattern of k items plus h, then h's conditional
// database in `cdb` (made by init_buf). Passes repeat while one raised the
// shortest valid length, since only that can make another leaf too shallow
// (removing a leaf of h never makes another node of h a leaf). The first pass
// also collects the records: when it leaves the length as it found it, those
// are exactly the records of a separate walk after the pruning; otherwise
// they are dropped and collected again.
Pruned prune_and_collect(HeaderEntry* h, uint32_t k, int32_t floor, TranBuf* cdb) {
  uint32_t len = min_length_of_support(h->support);
  // Every node is at depth 1 or more: when k + 1 reaches the length, no leaf goes.
  if (static_cast<int64_t>(k) + 1 >= static_cast<int64_t>(len)) {
    return collect_conditional(h, k, len, cdb) == 0 ? Pruned::kCollected : Pruned::kFailed;
  }
  const uint32_t first_len = len;
  if (!prune_pass(h, k, &len, cdb, first_len)) return Pruned::kFailed;
  if (h->support < floor) return Pruned::kBelowFloor;
  if (len == first_len) return Pruned::kCollected;
  cdb->position = 0;
  cdb->data[0] = 0;
  for (uint32_t before = 0; len != before;) {
    before = len;
    prune_pass(h, k, &len, nullptr, 0);
    if (h->support < floor) return Pruned::kBelowFloor;
  }
  return collect_conditional(h, k, len, cdb) == 0 ? Pruned::kCollected : Pruned::kFailed;
}

// Builds the conditional tree of pattern `q` (k + 1 items, the last being h's)
// from `cdb`, which it releases, and mines it. Returns 0, or -1 after a diagnostic.
int mine_conditional(const Pattern& q, TranBuf* cdb, uint32_t depth) {
  int32_t nfreq = 0;
  ItemEntry* list = nullptr;
  if (create_freqitemlist(cdb, &nfreq, &list, g_nitems) != 0) {
    log_printf("%s(%u) Fatal error in create_freqitemlist()", kSrc, 755u);
    return -1;
  }
  if (nfreq <= 0) {
    free_buf(cdb);
    return 0;
  }
  cur_pattern_length = q.length;
  FPTree tree = {};
  if (create_fptree(cdb, nfreq, list, &tree, g_nitems) != 0) {
    fprintf(stderr, "%s(%d) : create_fptree\n", kSrc, 773);
    return -1;
  }
  free_buf(cdb);
  ++g_counters.conditional_trees;
  if (gen_freqpattern(&tree, q, depth + 1) != 0) {
    fprintf(stderr, "%s(%d) : gen_freqpattern\n", kSrc, 810);
    return -1;
  }
  return 0;
}

}  // namespace

int gen_pattern_by_nodepath(const Pattern& p, FPNode* u) {
  const uint32_t k = p.length;
  if (k >= g_max_size || u->first_child == nullptr) return 0;
  const FPNode* end = u;
  while (end->first_child != nullptr) end = end->first_child;
  const uint32_t need_max = minsup_of_length(k + end->depth - u->depth);
  for (FPNode* v = u->first_child; v != nullptr; v = v->first_child) {
    if (v->count > 0 && !at_least(v->count, need_max)) {
      v->count = -v->count;
      ++g_counters.marked_nodes;
    }
  }
  Pattern q = {k + 1, p.support, p.items};
  const uint32_t need = minsup_of_length(k + 1);
  int status = 0;
  for (FPNode* v = u->first_child; v != nullptr && status == 0; v = v->first_child) {
    if (v->count < 0) continue;
    q.items[k] = v->item;
    if (q.support > v->count) q.support = v->count;
    if (at_least(q.support, need)) write_freqpattern(q);
    if (v->first_child != nullptr && gen_pattern_by_nodepath(q, v) != 0) {
      fprintf(stderr, "%s(%d) : gen_pattern_by_nodepath\n", kSrc, 950);
      status = -1;
    }
  }
  for (FPNode* v = u->first_child; v != nullptr; v = v->first_child) {
    if (v->count < 0) v->count = -v->count;
  }
  return status;
}

int gen_freqpattern(FPTree* tree, const Pattern& p, uint32_t depth) {
  const int32_t floor = static_cast<int32_t>(lowest_minsup());
  if (is_single_path(tree)) {
    ++g_counters.single_paths;
    if (gen_pattern_by_nodepath(p, tree->root) != 0) {
      fprintf(stderr, "%s(%d) : gen_pattern_by_nodepath\n", kSrc, 440);
      return -1;
    }
    free_fptree(tree);
    return 0;
  }
  const uint32_t k = p.length;
  Pattern q = {k + 1, 0, p.items};
  const uint32_t need = minsup_of_length(k + 1);
  for (int32_t i = tree->nheader - 1; i >= 0; --i) {
    HeaderEntry* h = &tree->header[i];
    if (h->support < floor) continue;
    q.items[k] = h->item;
    q.support = h->support;
    if (at_least(q.support, need)) write_freqpattern(q);
    TranBuf cdb;
    if (init_buf(&cdb, g_nitems) != 0) {
      fprintf(stderr, "%s(%d) : init_buf\n", kSrc, 684);
      return -1;
    }
    const Pruned pruned = prune_and_collect(h, k, floor, &cdb);
    if (pruned == Pruned::kFailed) return -1;
    if (pruned == Pruned::kBelowFloor) {
      free_buf(&cdb);
      continue;
    }
    q.support = h->support;
    if (mine_conditional(q, &cdb, depth) != 0) return -1;
  }
  free_fptree(tree);
  return 0;
}

int mine_fptree(FPTree* tree, uint32_t nitems) {
  uint32_t* items = static_cast<uint32_t*>(malloc(sizeof(uint32_t) * (nitems + 1)));
  uint32_t* path = static_cast<uint32_t*>(malloc(sizeof(uint32_t) * (nitems + 1)));
  if (items == nullptr || path == nullptr) {
    perror("malloc");
    fprintf(stderr, "%s(%d) : malloc\n", kSrc, 365);
    free(items);
    free(path);
    return -1;
  }
  g_path = path;
  g_nitems = nitems;
  g_max_size = get_max_size();
  // Every level of the recursion writes only its own slot of `items`. The
  // empty pattern carries the support of the most frequent item as it was
  // before path pruning: a single-path tree caps every pattern's support by
  // it, and pruning may have cut that item from every record.
  const Pattern empty = {0, tree->top_support, items};
  int status = gen_freqpattern(tree, empty, 1);
  if (status != 0) fprintf(stderr, "%s(%d) : gen_freqpattern\n", kSrc, 376);
  g_path = nullptr;
  free(items);
  free(path);
  return status;
}
