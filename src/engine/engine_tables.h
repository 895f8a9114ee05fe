// The tables of one mining run, for the engine's own modules only: each is
// filled and read by the module that owns it (the pool by the transaction
// store, `items` and `stats` by the frequent-item list, `prune` by the
// pruning tables, `tree` and `counters` by the FP-tree). An Engine owns one.
#ifndef QUARLO_ENGINE_ENGINE_TABLES_H_
#define QUARLO_ENGINE_ENGINE_TABLES_H_

#include "engine/engine.h"
#include "engine/fp_tree.h"
#include "engine/frequent_items.h"
#include "engine/pattern_sink.h"
#include "engine/prune_tables.h"
#include "engine/transaction_store.h"
#include "support/support_table.h"

namespace quarlo::detail {

struct EngineTables {
  SupportTable support;
  TranPool pool;
  InputStats stats;
  ItemTable items;
  PruneTables prune;
  TreeScratch tree;
  MiningCounters counters = {};
  PatternSink* sink = nullptr;
  bool top_single_path = false;  // enumerating the single path of the whole tree
};

}  // namespace quarlo::detail

#endif  // QUARLO_ENGINE_ENGINE_TABLES_H_
