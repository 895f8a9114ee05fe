// Per-item pruning tables of the tree builder and the mining recursion: each
// item's shortest valid pattern length and current support, and the lengths
// that path pruning compares against. One PruneTables per run, rewritten for
// every tree.
#ifndef QUARLO_ENGINE_PRUNE_TABLES_H_
#define QUARLO_ENGINE_PRUNE_TABLES_H_

#include <cstdint>
#include <vector>

#include "base/report.h"
#include "base/status.h"

namespace quarlo::detail {

struct PruneTables {
  // Indexed by item number: the shortest length at which the item's current
  // support suffices, and that current support (reduced by path pruning).
  std::vector<uint32_t> item_min_length;
  std::vector<int32_t> item_cur_support;
  // Length of the pattern whose conditional tree is being built (1 for the
  // tree of the whole database), and the item count of the record being inserted.
  uint32_t cur_pattern_length = 1;
  uint32_t cur_tran_length = 0;
};

// Sizes the tables for `nitems` items. Out of memory after a report line,
// which names the size of the block the tables of `nitems` items and
// `nrecords` records are known by (8 bytes each), as it always has.
Status alloc_avetbl(PruneTables* t, uint32_t nitems, uint32_t nrecords, Reporter* rep);

}  // namespace quarlo::detail

#endif  // QUARLO_ENGINE_PRUNE_TABLES_H_
