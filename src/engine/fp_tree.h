// FP-tree of a transaction database and the depth-first mining recursion over
// it: trees are built with path pruning by the length-decreasing support,
// mined with node pruning, conditional trees and a single-path shortcut, and
// every frequent pattern goes to the run's pattern sink. The run's
// TreeScratch holds the arena of every tree's nodes and header table, the
// item-rank index, the child index and the insertion-order scratch used
// while a tree is built, and the pattern scratch of the recursion.
#ifndef QUARLO_ENGINE_FP_TREE_H_
#define QUARLO_ENGINE_FP_TREE_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/status.h"
#include "engine/frequent_items.h"
#include "engine/pattern_sink.h"
#include "engine/prune_tables.h"
#include "engine/transaction_store.h"

namespace quarlo::detail {

class Engine;

// Index of a node in the run's node arena; 0 stands for no node.
using NodeId = uint32_t;
constexpr NodeId kNoNode = 0;

// A tree node: six words. `count` is the weighted number of records through
// the node; the single-path enumeration negates it for a while to mark the
// node. Links are arena indices. `key` packs the node's item (low bits), its
// depth (edges from the root, above the item) and on top a bit for "more
// than kScanChildren children" (the child count only decides when a node's
// children go into the child index, so it is not kept); the run's NodeKey
// says where the fields lie. A depth too big for its bits is kept at the
// field's largest value and counted out along the parents when read.
struct FPNode {
  uint32_t key;
  int32_t count;
  NodeId parent;       // kNoNode for the root
  NodeId first_child;  // children in the order they were made
  NodeId next_sibling;
  NodeId next_link;  // next node of the same item (header chain)
};
static_assert(sizeof(FPNode) == 24, "FPNode should stay six words");

// The split of a node's key for a run of `nitems` items: the item takes the
// bits its largest number needs (at least one), the wide bit is the top
// one, the depth has what is left in between. Every tree of a run, and of
// the engines that read its top-level tree, uses the same split.
class NodeKey {
 public:
  static constexpr uint32_t kWide = 0x80000000u;

  void set_items(uint32_t nitems) {
    uint32_t bits = 1;
    while (bits < 31 && (nitems - 1) >> bits != 0) ++bits;
    if (nitems == 0) bits = 1;
    shift_ = bits;
    item_mask_ = (1u << bits) - 1;
    cap_ = (kWide >> bits) - 1;  // 0 when the item takes all 31 bits
  }

  uint32_t item(const FPNode& v) const { return v.key & item_mask_; }
  static bool wide(const FPNode& v) { return (v.key & kWide) != 0; }
  // The depth as kept: exact below cap().
  uint32_t kept_depth(const FPNode& v) const { return (v.key & ~kWide) >> shift_; }
  uint32_t cap() const { return cap_; }

  // The depth of node v: exact, counted along the parents from where the
  // kept depth stops being exact (never on data whose records fit the bits).
  uint32_t depth(const FPNode* nd, NodeId v) const {
    uint32_t steps = 0;
    for (;;) {
      const uint32_t d = kept_depth(nd[v]);
      if (d < cap_) return steps + d;
      if (nd[v].parent == kNoNode) return steps;
      v = nd[v].parent;
      ++steps;
    }
  }

  // The key of a new child with `item` of a node whose key is `parent_key`.
  uint32_t child_key(uint32_t item, uint32_t parent_key) const {
    uint32_t d = ((parent_key & ~kWide) >> shift_);
    if (d < cap_) ++d;
    return item | (d << shift_);
  }
  // The root's key: item 0, depth 0.
  static uint32_t root_key() { return 0; }

 private:
  uint32_t shift_ = 1;
  uint32_t item_mask_ = 1;
  uint32_t cap_ = 0;
};

// A node has children in the child index from this many on.
constexpr uint32_t kScanChildren = 8;

// One frequent item of a tree, in the order of the frequent-item list.
struct HeaderEntry {
  uint32_t item;
  int32_t support;  // support in this tree, net of path and node pruning
  NodeId head;      // most recently made node of the item; the chain ends with the first
};

// The nodes and header tables of every tree of a run, taken and given back
// as a stack: a tree takes its nodes and its header on top of its parent's
// and gives them back when it is mined, so the trees of one recursion level
// reuse the same memory and nothing is allocated once the arena is big
// enough. Nodes lie in one array (they are reached by index, so the array
// may move when it grows); header tables lie in blocks that never move,
// since a level keeps pointers into its own while deeper levels take theirs.
class TreeArena {
 public:
  TreeArena() = default;
  TreeArena(const TreeArena&) = delete;
  TreeArena& operator=(const TreeArena&) = delete;
  ~TreeArena();

  // Where the arena stood: what a tree gives back when it is released.
  struct Mark {
    NodeId nodes;
    uint32_t block;
    size_t headers;
  };
  Mark mark() const { return {used_, block_, headers_used_}; }
  void release(const Mark& m) {
    used_ = m.nodes;
    block_ = m.block;
    headers_used_ = m.headers;
  }

  // How node keys are split; set for the run's item count by each tree.
  NodeKey& key() { return key_; }
  const NodeKey& key() const { return key_; }

  // The node array, valid until the next take_node.
  FPNode* nodes() { return node_; }
  const FPNode* nodes() const { return node_; }
  NodeId end() const { return used_; }

  // A new node (its fields unset), or kNoNode when the array cannot grow;
  // *bytes then says how much was asked for.
  NodeId take_node(size_t* bytes) {
    if (used_ >= cap_ && !grow(bytes)) return kNoNode;
    return used_++;
  }

  // Room for n header entries, or null when no block can be had.
  HeaderEntry* take_headers(size_t n);

 private:
  bool grow(size_t* bytes);

  NodeKey key_;
  FPNode* node_ = nullptr;
  NodeId used_ = 1;  // node 0 is never handed out
  NodeId cap_ = 0;
  struct Block {
    HeaderEntry* entry;
    size_t cap;
  };
  std::vector<Block> blocks_;
  uint32_t block_ = 0;      // the block headers are taken from
  size_t headers_used_ = 0;  // entries taken from it
};

struct FPTree {
  TreeArena* arena;  // null for no tree
  NodeId root;
  int32_t nheader;
  HeaderEntry* header;
  TreeArena::Mark start;  // the arena before the tree: given back on release
  int32_t top_support;    // support of the most frequent item before any pruning

  const FPNode* nodes() const { return arena->nodes(); }
  const NodeKey& key() const { return arena->key(); }
};

// How often the recursion took each shortcut in a run.
struct MiningCounters {
  uint64_t single_paths;       // trees enumerated as one path
  uint64_t marked_nodes;       // path nodes marked as too rare to extend a pattern
  uint64_t pruned_nodes;       // leaves removed by node pruning
  uint64_t cut_items;          // items cut from records by path pruning
  uint64_t conditional_trees;  // conditional trees built
};

// One entry of the child index: the child of `parent` with `item`, valid
// while `gen` is the index's current generation.
struct ChildSlot {
  NodeId parent;
  NodeId child;
  uint32_t item;
  uint32_t gen;
};

// A record of a conditional database taken straight from its parent tree:
// its frequent items lie in TreeScratch::record_items from `start` on.
struct CondRecord {
  uint32_t start;
  uint32_t n;  // its number of frequent items
  int32_t w;   // its weight: the count of the node it was taken for
};

// Scratch of the tree builder and the recursion, reused by every tree of a run.
struct TreeScratch {
  TreeArena arena;  // the nodes and header tables of the run's trees
  TreeScratch() = default;
  TreeScratch(const TreeScratch&) = delete;
  TreeScratch& operator=(const TreeScratch&) = delete;
  ~TreeScratch();

  // Rank of every item in the list of the tree being built: nfreq for the
  // most frequent, 1 for the least, 0 for items not in the list. All zero
  // between builds. Header index of a listed item = nfreq - rank.
  std::vector<uint32_t> rank;
  // Open-addressing child index of the tree being built; entries of earlier
  // builds are told apart by their generation, so a build clears nothing.
  ChildSlot* slots = nullptr;
  size_t slot_mask = 0;   // capacity - 1 (capacity a power of two, or 0)
  size_t slots_used = 0;  // slots of the current generation
  uint32_t gen = 0;
  bool index_ok = false;  // false when growing failed: this build walks lists
  // Words (or records) per record length while records are put in insertion
  // order, and the records of a database in that order: longest first, equal
  // lengths in database order (freed after a build that needed more than 4 MiB).
  std::vector<uint32_t> length_start;
  int32_t* insert_buf = nullptr;
  size_t insert_cap = 0;  // words
  // A conditional database taken from its parent tree: the records' items
  // (all ancestors as taken, then the frequent ones ranked, least frequent
  // first), the records in chain order and in insertion order.
  std::vector<TranSlot> record_items;
  std::vector<CondRecord> records;
  std::vector<CondRecord> ordered;
  // The items of the pattern being extended (each level writes its own slot)
  // and the ancestor items of one node.
  std::vector<uint32_t> items;
  std::vector<uint32_t> path;
  // The leaves of one header chain that node pruning's first pass kept, and
  // the nodes it marked for removal.
  std::vector<NodeId> leaves;
  std::vector<NodeId> gone;
  // By item: set while a record from outside is checked for repeats.
  std::vector<char> seen;
};

// Builds `tree` from `db` and its frequent-item list (`nfreq` entries of
// `list`), applying path pruning against the run's cur_pattern_length.
// Reduces the records of `db` in place and leaves it empty and shrunk to one
// block, so the buffer is of no further use.
// Needs the run's pruning tables and support table. Out of memory after a
// trace.
Status create_fptree(Engine& e, TranBuf* db, int32_t nfreq, const ItemEntry* list, FPTree* tree);

// Gives the nodes and the header table of `tree` back to its arena (with
// everything taken after them); nothing for a tree that is not there.
void free_fptree(FPTree* tree);

// Sizes the pattern scratch of the recursion for e.setup().nitems items (kept when
// big enough). Out of memory after tracing the malloc.
Status make_pattern_scratch(Engine& e);

// Mines the tree of the whole database (consumed) into the run's sink; a
// failure after a trace.
Status mine_fptree(Engine& e, FPTree* tree);

// Hands every frequent extension of `p` found in `tree` (consumed on success)
// to the run's sink.
Status gen_freqpattern(Engine& e, FPTree* tree, const Pattern& p, uint32_t depth);

// Takes over the top level of a run whose tree is not a single path (set as
// Engine::split): the run's thread still walks the top items in mining order,
// prunes each and hands its one-item pattern to the run's sink, but each
// item's conditional database is collected and mined elsewhere.
class TopLevelSplit {
 public:
  virtual ~TopLevelSplit() = default;
  // The tree about to be walked. Its nodes lie on the run's arena, which
  // holds them until the run's engine goes; a split may give them back
  // (free_fptree) before, once nothing reads them any more.
  virtual void take_tree(const FPTree& tree) = 0;
  // `item` comes next; its one-item pattern, when it is frequent, follows on
  // the run's sink. A failure after a report.
  virtual Status begin_item(Engine& e, uint32_t item) = 0;
  // The nodes of `item` left by node pruning (linked by next_link, in the
  // tree given to take_tree) and its support. The walk never again writes
  // what mine_top_item reads of them (their parents, items, counts, depths
  // and this chain), and takes no more nodes, so another thread may mine
  // them while the walk goes on. A failure after a report.
  virtual Status conditional(Engine& e, uint32_t item, int32_t support, NodeId chain) = 0;
};

// Collects the conditional database of an item with `support` from its
// pruned `chain` in the top-level tree `top` into `cdb` (made here on e's
// pool), as a whole run does. Out of memory after a trace.
Status collect_top_item(Engine& e, const FPTree& top, int32_t support, NodeId chain, TranBuf* cdb);

// Mines `cdb` (released here), the conditional database of {item} with
// `support`, into e's sink exactly as a whole run mines it below its top
// level. e needs its support table, size limits, pool, pruning tables and
// pattern scratch. A failure after a report or trace.
Status mine_top_database(Engine& e, uint32_t item, int32_t support, TranBuf* cdb);

// collect_top_item, then mine_top_database.
Status mine_top_item(Engine& e, const FPTree& top, uint32_t item, int32_t support, NodeId chain);

}  // namespace quarlo::detail

#endif  // QUARLO_ENGINE_FP_TREE_H_
