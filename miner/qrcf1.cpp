#include "qrcf1.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "suppfunc.h"

namespace {

const char kSrc[] = "qrcf1";

// The item table, sized for g_capacity items: the listed entries (plus the
// sentinel), the item numbers they point at, the running supports (all zero
// between calls) and the items met by the current pass.
ItemEntry* g_entries = nullptr;
uint32_t* g_numbers = nullptr;
int32_t* g_support = nullptr;
uint32_t* g_touched = nullptr;
uint32_t g_capacity = 0;
bool g_allocated = false;

int alloc_item_table(uint32_t nitems) {
  const size_t n = nitems;
  const size_t bytes = (n + 1) * sizeof(ItemEntry) + 3 * n * sizeof(uint32_t);
  char* block = static_cast<char*>(calloc(1, bytes));
  if (block == nullptr) {
    perror("malloc");
    fprintf(stderr, "%s(%d) : malloc(%d)\n", kSrc, 48, static_cast<int>(bytes));
    return -1;
  }
  free(g_entries);
  g_entries = reinterpret_cast<ItemEntry*>(block);
  g_numbers = reinterpret_cast<uint32_t*>(g_entries + n + 1);
  g_support = reinterpret_cast<int32_t*>(g_numbers + n);
  g_touched = reinterpret_cast<uint32_t*>(g_support + n);
  for (uint32_t i = 0; i < nitems; ++i) g_numbers[i] = i;
  g_capacity = nitems;
  g_allocated = true;
  return 0;
}

// Adds every record's weight to its items' supports and updates the input
// statistics; returns the number of distinct items met.
uint32_t count_items(TranBuf* db) {
  uint32_t touched = 0;
  uint32_t records = 0;
  double sum = 0.0;
  CurTran* tran = nullptr;
  db->position = 0;
  for (int32_t w; (w = read_tran(db, &tran)) != 0;) {
    const uint32_t n = static_cast<uint32_t>(tran->n);
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t item = tran->slot[i].item;
      if (g_support[item] == 0) g_touched[touched++] = item;
      g_support[item] += w;
    }
    if (n > tran_max_items) tran_max_items = n;
    sum += static_cast<double>(n) * w;
    ++records;
  }
  if (records > 0) tran_avg_items = sum / records;
  return touched;
}

bool more_frequent(const ItemEntry& a, const ItemEntry& b) {
  if (a.support != b.support) return a.support > b.support;
  return *a.items < *b.items;
}

}  // namespace

int create_freqitemlist(TranBuf* db, int32_t* nfreq, ItemEntry** list, uint32_t nitems) {
  if (!g_allocated || nitems > g_capacity) {
    if (alloc_item_table(nitems) != 0) return -1;
  }
  const uint32_t touched = count_items(db);
  const int32_t floor = static_cast<int32_t>(lowest_minsup());
  int32_t kept = 0;
  for (uint32_t i = 0; i < touched; ++i) {
    const uint32_t item = g_touched[i];
    if (g_support[item] >= floor) g_entries[kept++] = {1, g_support[item], &g_numbers[item]};
    g_support[item] = 0;
  }
  std::sort(g_entries, g_entries + kept, more_frequent);
  g_entries[kept] = {1, -1, nullptr};
  *nfreq = kept;
  *list = (touched == 0) ? nullptr : g_entries;
  return 0;
}
