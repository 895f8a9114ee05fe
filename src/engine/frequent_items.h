// Frequent-item list of a transaction database: counts every item's weighted
// support in one pass and lists the items that can still be part of a
// frequent pattern, by support descending and, among equal supports, by item
// number ascending. An ItemTable holds one run's counting tables, reused by
// every call.
#ifndef QUARLO_ENGINE_FREQUENT_ITEMS_H_
#define QUARLO_ENGINE_FREQUENT_ITEMS_H_

#include <cstdint>
#include <vector>

#include "engine/transaction_store.h"

namespace quarlo::detail {

// A 1-item pattern: same shape as the pattern record handed to the writer.
struct ItemEntry {
  uint32_t length;  // always 1
  int32_t support;  // weighted number of records that hold the item
  uint32_t* items;  // points at the item number
};

// Largest record length and mean record length (weighted by the record's
// weight, divided by the number of records), raised or overwritten by every
// counting pass.
struct InputStats {
  uint32_t max_items = 0;
  double avg_items = 0.0;
};

// The listed entries (plus the sentinel), the item numbers they point at, the
// running supports (all zero between calls) and the items met by a pass.
struct ItemTable {
  std::vector<ItemEntry> entries;
  std::vector<uint32_t> numbers;
  std::vector<int32_t> support;
  std::vector<uint32_t> touched;
};

// Counts the items of `db` (rewinding it), updates `stats` and lists the items
// whose support reaches `floor`. On success *nfreq is the list's length and
// *list its first entry (null when no item occurs at all); the entry behind
// the last listed one has support -1. The list stays valid until the next
// call. Out of memory after a trace when the table cannot be allocated.
Status create_freqitemlist(ItemTable* table, TranPool* pool, TranBuf* db, int32_t floor,
                           uint32_t nitems, InputStats* stats, int32_t* nfreq, ItemEntry** list);

// Sizes `table` for `nitems` items (kept when big enough), so that a caller
// may count supports into table->support itself, noting each item it meets
// first in table->touched. Out of memory after a trace.
Status size_item_table(ItemTable* table, uint32_t nitems, Reporter* rep);

// Lists the first `touched` items of table->touched whose support counted in
// table->support reaches `floor`, ordered as create_freqitemlist orders them,
// and clears their supports. Same result conventions.
void list_touched_items(ItemTable* table, uint32_t touched, int32_t floor, int32_t* nfreq,
                        ItemEntry** list);

// Lists the items whose given support reaches `floor`, ordered as
// create_freqitemlist orders them, from supports counted elsewhere (one per
// item number). Same result conventions.
Status list_counted_items(ItemTable* table, const uint32_t* supports, int32_t floor,
                          uint32_t nitems, int32_t* nfreq, ItemEntry** list, Reporter* rep);

}  // namespace quarlo::detail

#endif  // QUARLO_ENGINE_FREQUENT_ITEMS_H_
