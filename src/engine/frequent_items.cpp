#include "engine/frequent_items.h"

#include <algorithm>
#include <new>

namespace quarlo::detail {

// Sizes the tables for `nitems` items unless they are big enough already.
Status size_item_table(ItemTable* t, uint32_t nitems, Reporter* rep) {
  if (t->numbers.size() >= nitems && !t->entries.empty()) return Status();
  const size_t n = nitems;
  try {
    t->entries.assign(n + 1, ItemEntry{});
    t->numbers.resize(n);
    t->support.assign(n, 0);
    t->touched.resize(n);
  } catch (const std::bad_alloc&) {
    return malloc_failure(rep, sites::kItemTable,
                          (n + 1) * sizeof(ItemEntry) + 3 * n * sizeof(uint32_t));
  }
  for (uint32_t i = 0; i < nitems; ++i) t->numbers[i] = i;
  return Status();
}

namespace {

// Adds every record's weight to its items' supports and updates the input
// statistics; returns the number of distinct items met.
uint32_t count_items(ItemTable* t, TranPool* pool, TranBuf* db, InputStats* stats) {
  uint32_t touched = 0;
  uint32_t records = 0;
  double sum = 0.0;
  CurTran* tran = nullptr;
  int32_t* support = t->support.data();
  db->position = 0;
  for (int32_t w; (w = read_tran(pool, db, &tran)) != 0;) {
    const uint32_t n = static_cast<uint32_t>(tran->n);
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t item = tran->slot[i].item;
      if (support[item] == 0) t->touched[touched++] = item;
      support[item] += w;
    }
    if (n > stats->max_items) stats->max_items = n;
    sum += static_cast<double>(n) * w;
    ++records;
  }
  if (records > 0) stats->avg_items = sum / records;
  return touched;
}

bool more_frequent(const ItemEntry& a, const ItemEntry& b) {
  if (a.support != b.support) return a.support > b.support;
  return *a.items < *b.items;
}

// Lists the touched items at or above `floor`, clearing their supports.
int32_t list_items(ItemTable* t, uint32_t touched, int32_t floor) {
  int32_t kept = 0;
  for (uint32_t i = 0; i < touched; ++i) {
    const uint32_t item = t->touched[i];
    if (t->support[item] >= floor) t->entries[kept++] = {1, t->support[item], &t->numbers[item]};
    t->support[item] = 0;
  }
  std::sort(t->entries.begin(), t->entries.begin() + kept, more_frequent);
  t->entries[kept] = {1, -1, nullptr};
  return kept;
}

}  // namespace

Status create_freqitemlist(ItemTable* table, TranPool* pool, TranBuf* db, int32_t floor,
                           uint32_t nitems, InputStats* stats, int32_t* nfreq, ItemEntry** list) {
  if (Status s = size_item_table(table, nitems, pool->rep); !s.ok()) return s;
  const uint32_t touched = count_items(table, pool, db, stats);
  *nfreq = list_items(table, touched, floor);
  *list = (touched == 0) ? nullptr : table->entries.data();
  return Status();
}

void list_touched_items(ItemTable* table, uint32_t touched, int32_t floor, int32_t* nfreq,
                        ItemEntry** list) {
  *nfreq = list_items(table, touched, floor);
  *list = (touched == 0) ? nullptr : table->entries.data();
}

Status list_counted_items(ItemTable* table, const uint32_t* supports, int32_t floor,
                          uint32_t nitems, int32_t* nfreq, ItemEntry** list, Reporter* rep) {
  if (Status s = size_item_table(table, nitems, rep); !s.ok()) return s;
  uint32_t touched = 0;
  for (uint32_t item = 0; item < nitems; ++item) {
    if (supports[item] == 0) continue;
    table->support[item] = static_cast<int32_t>(supports[item]);
    table->touched[touched++] = item;
  }
  *nfreq = list_items(table, touched, floor);
  *list = (touched == 0) ? nullptr : table->entries.data();
  return Status();
}

}  // namespace quarlo::detail
