// Frequent-item list of a transaction database: counts every item's weighted
// support in one pass and lists the items that can still be part of a
// frequent pattern, by support descending and, among equal supports, by item
// number ascending. Owns the process-wide item table that every call reuses.
#ifndef QUARLO_MINER_QRCF1_H_
#define QUARLO_MINER_QRCF1_H_

#include <cstdint>

#include "qrdb.h"

// A 1-item pattern: same shape as the pattern record handed to the writer.
struct ItemEntry {
  uint32_t length;  // always 1
  int32_t support;  // weighted number of records that hold the item
  uint32_t* items;  // points at the item number
};

// Counts the items of `db` (rewinding it), updates the input statistics of
// qrdb and lists the items whose support reaches lowest_minsup(). On success
// *nfreq is the list's length and *list its first entry (null when no item
// occurs at all); the entry behind the last listed one has support -1. The
// list stays valid until the next call. Returns 0, or -1 after a diagnostic on
// stderr when the item table cannot be allocated.
int create_freqitemlist(TranBuf* db, int32_t* nfreq, ItemEntry** list, uint32_t nitems);

#endif  // QUARLO_MINER_QRCF1_H_
