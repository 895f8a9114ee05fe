// FP-tree of a transaction database and the depth-first mining recursion over
// it: trees are built with path pruning by the length-decreasing support,
// mined with node pruning, conditional trees and a single-path shortcut, and
// every frequent pattern goes to the pattern writer. Owns the process-wide
// item-rank index, the child index and the insertion-order scratch used while
// a tree is built, the pattern scratch of the recursion and the mining counters.
#ifndef QUARLO_MINER_CFPTREE_H_
#define QUARLO_MINER_CFPTREE_H_

#include <cstdint>

#include "iopttn.h"
#include "qrcf1.h"
#include "qrdb.h"

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
  FPNode* head;     // most recently made node of the item
  FPNode* tail;     // first node made, last in the chain
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

// How often the recursion took each shortcut since the last reset.
struct MiningCounters {
  uint64_t single_paths;       // trees enumerated as one path
  uint64_t marked_nodes;       // path nodes marked as too rare to extend a pattern
  uint64_t pruned_nodes;       // leaves removed by node pruning
  uint64_t cut_items;          // items cut from records by path pruning
  uint64_t conditional_trees;  // conditional trees built
};
const MiningCounters& mining_counters();
void reset_mining_counters();

// Builds `tree` from `db` and its frequent-item list (`nfreq` entries of
// `list`), applying path pruning against cur_pattern_length. Rewrites the
// records of `db` in place, so the buffer is of no further use. Needs
// alloc_avetbl and the support table. Returns 0, or -1 after a diagnostic on
// stderr; ends the process with status 1 when a node block cannot be had.
int create_fptree(TranBuf* db, int32_t nfreq, const ItemEntry* list, FPTree* tree, uint32_t nitems);

// Inserts the current transaction (items by rank ascending, the most frequent
// last) of weight `w` below `node`, cutting items by path pruning where a new
// branch would start. Only valid while create_fptree builds `tree`. Returns 0.
int insert_tran_to_fptree(FPTree* tree, FPNode* node, const CurTran* tran, HeaderEntry* header,
                          int32_t w);

// Releases every node block and the header table of `tree`.
void free_fptree(FPTree* tree);

// Mines the tree of the whole database (consumed) into the open pattern file.
// Returns 0, or -1 after a diagnostic.
int mine_fptree(FPTree* tree, uint32_t nitems);

// Writes every frequent extension of `p` found in `tree` (consumed on success).
int gen_freqpattern(FPTree* tree, const Pattern& p, uint32_t depth);

// Writes every frequent extension of `p` by nodes of the single path below `u`.
int gen_pattern_by_nodepath(const Pattern& p, FPNode* u);

#endif  // QUARLO_MINER_CFPTREE_H_
