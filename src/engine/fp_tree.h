// FP-tree of a transaction database and the depth-first mining recursion over
// it: trees are built with path pruning by the length-decreasing support,
// mined with node pruning, conditional trees and a single-path shortcut, and
// every frequent pattern goes to the run's pattern sink. The run's
// TreeScratch holds the item-rank index, the child index and the
// insertion-order scratch used while a tree is built, and the pattern scratch
// of the recursion.
#ifndef QUARLO_ENGINE_FP_TREE_H_
#define QUARLO_ENGINE_FP_TREE_H_

#include <cstdint>
#include <vector>

#include "base/status.h"
#include "engine/frequent_items.h"
#include "engine/pattern_sink.h"
#include "engine/prune_tables.h"
#include "engine/transaction_store.h"

namespace quarlo::detail {

class Engine;

// A tree node. `count` is the weighted number of records through the node;
// the single-path enumeration negates it for a while to mark the node.
struct FPNode {
  uint32_t item;
  int32_t count;
  FPNode* parent;       // null for the root
  FPNode* first_child;  // children in the order they were made
  FPNode* next_sibling;
  FPNode* next_link;  // next node of the same item (header chain)
  uint32_t depth;     // edges from the root (root 0)
  uint32_t nchild;    // children made while the tree was built
};
static_assert(sizeof(FPNode) == 48, "FPNode should stay six words");

// Nodes come from zero-filled blocks of this many; blocks are never split.
constexpr uint32_t kNodesPerBlock = 100;

struct FPNodeBlock {
  FPNodeBlock* next;  // null for the last block
  FPNode node[kNodesPerBlock];
};

// One frequent item of a tree, in the order of the frequent-item list.
struct HeaderEntry {
  uint32_t item;
  int32_t support;  // support in this tree, net of path and node pruning
  FPNode* head;     // most recently made node of the item; the chain ends with the first
};

struct FPTree {
  FPNode* root;
  int32_t nheader;
  HeaderEntry* header;
  FPNodeBlock* first_block;
  FPNodeBlock* cur_block;
  uint32_t nodes_used;  // nodes taken from cur_block
  int32_t top_support;  // support of the most frequent item before any pruning
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
  const FPNode* parent;
  FPNode* child;
  uint32_t item;
  uint32_t gen;
};

// Scratch of the tree builder and the recursion, reused by every tree of a run.
struct TreeScratch {
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
  // Records per length and the ordered refs of the insertion ordering.
  std::vector<uint32_t> length_start;
  std::vector<TranRef> ordered_refs;
  // The items of the pattern being extended (each level writes its own slot)
  // and the ancestor items of one node.
  std::vector<uint32_t> items;
  std::vector<uint32_t> path;
  // The leaves of one header chain that node pruning's first pass kept, and
  // the nodes it marked for removal.
  std::vector<FPNode*> leaves;
  std::vector<FPNode*> gone;
  // By item: set while a record from outside is checked for repeats.
  std::vector<char> seen;
};

// Builds `tree` from `db` and its frequent-item list (`nfreq` entries of
// `list`), applying path pruning against the run's cur_pattern_length.
// Rewrites the records of `db` in place, so the buffer is of no further use.
// Needs the run's pruning tables and support table. Out of memory after a
// trace.
Status create_fptree(Engine& e, TranBuf* db, int32_t nfreq, const ItemEntry* list, FPTree* tree);

// Releases every node block and the header table of `tree`.
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
  // The tree about to be walked; the split releases it (free_fptree) once
  // nothing reads its nodes any more.
  virtual void take_tree(const FPTree& tree) = 0;
  // `item` comes next; its one-item pattern, when it is frequent, follows on
  // the run's sink. A failure after a report.
  virtual Status begin_item(Engine& e, uint32_t item) = 0;
  // The nodes of `item` left by node pruning (linked by next_link) and its
  // support. The walk never again writes what mine_top_item reads of them
  // (their parents, items, counts, depths and this chain), so another thread
  // may mine them while the walk goes on. A failure after a report.
  virtual Status conditional(Engine& e, uint32_t item, int32_t support, const FPNode* chain) = 0;
};

// Collects the conditional database of an item with `support` from its
// pruned `chain` in the top-level tree into `cdb` (made here on e's pool), as
// a whole run does. Out of memory after a trace.
Status collect_top_item(Engine& e, int32_t support, const FPNode* chain, TranBuf* cdb);

// Mines `cdb` (released here), the conditional database of {item} with
// `support`, into e's sink exactly as a whole run mines it below its top
// level. e needs its support table, size limits, pool, pruning tables and
// pattern scratch. A failure after a report or trace.
Status mine_top_database(Engine& e, uint32_t item, int32_t support, TranBuf* cdb);

// collect_top_item, then mine_top_database.
Status mine_top_item(Engine& e, uint32_t item, int32_t support, const FPNode* chain);

}  // namespace quarlo::detail

#endif  // QUARLO_ENGINE_FP_TREE_H_
