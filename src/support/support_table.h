// Length-decreasing support table: the minimum support count of every pattern
// length, the inverse lookup from a count to the shortest length it suffices
// for, and the lowest count of all. A table may also rise with the length:
// then the pruning works with its running minimum from length 1 on (a
// non-increasing bound with the same shortest lengths) and only the output
// test reads the table itself. One table per mining run, built once by one of
// the builders after the transactions are counted.
#ifndef QUARLO_SUPPORT_SUPPORT_TABLE_H_
#define QUARLO_SUPPORT_SUPPORT_TABLE_H_

#include <cstdint>
#include <utility>
#include <vector>

#include "base/report.h"
#include "base/status.h"

namespace quarlo::detail {

// Count of transactions that `percent` of `ntrans` demands: the ceiling of
// ntrans * percent / 100 in 80-bit extended precision; 0 % still demands 1.
uint32_t percent_to_count(double percent, uint32_t ntrans);

// (length, minimum support count) pairs in the order a table gives them.
using LengthCounts = std::vector<std::pair<long, uint32_t>>;

class SupportTable {
 public:
  // From a file of "LEN F(LEN)" lines (percentages). Lengths 1 .. min_size-1
  // demand ntrans + 1. Fails after a report through `rep`: I/O when the file
  // cannot be opened, invalid argument when it does not make a table.
  Status load_file(const char* file, uint32_t ntrans, uint32_t nitems, uint32_t min_size,
                   Reporter* rep);

  // From pairs as a table file would give them, with counts already made;
  // `name` stands for the table in reports. Reading stops at the first length
  // above nitems. Fails (invalid argument) after a report.
  Status set_pairs(const LengthCounts& pairs, const char* name, uint32_t ntrans, uint32_t nitems,
                   uint32_t min_size, Reporter* rep);

  // One constant count for every length. Never fails.
  void set_constant(uint32_t count, uint32_t ntrans, uint32_t nitems, uint32_t min_size);

  // Minimum support count of length `len` (1 <= len <= nitems; no range check).
  uint32_t minsup_of_length(uint32_t len) const { return minsup_[len - 1]; }

  // The smallest minimum support of the lengths 1 .. len: no pattern of
  // length len or shorter with a lower support is ever frequent.
  uint32_t bound_of_length(uint32_t len) const { return bound_[len - 1]; }

  // Supports below this have their shortest length stored with the table
  // (and saved with it).
  static constexpr int32_t kCacheSize = 100;

  // Most supports the direct lookup table covers: beyond it (and below the
  // supports that all answer the same) the table is searched.
  static constexpr uint32_t kMostDirect = uint32_t{1} << 20;

  // Shortest length whose minimum support is at most `support`: the stored
  // lengths below kCacheSize, then the binary search over the table. Every
  // support up to the point where the search answers a constant is looked up
  // directly.
  uint32_t min_length_of_support(int32_t support) const {
    if (static_cast<uint32_t>(support) < direct_.size()) return direct_[support];
    if (support >= same_from_) return same_length_;
    return search_length(support);
  }

  // The smallest minimum support over all lengths.
  uint32_t lowest_minsup() const { return lowest_; }

  uint32_t lengths() const { return nlengths_; }

  // The whole table as words, and the table again from such words (false
  // when they do not make one), so that another process mines by it.
  std::vector<uint32_t> save() const;
  bool restore(const uint32_t* words, size_t n);

 private:
  uint32_t search_length(int32_t support) const;
  void block_short_lengths(uint32_t ntrans, uint32_t min_size);
  void make_bound();
  void make_direct();

  std::vector<uint32_t> minsup_;  // entry L-1: minimum support count of length L
  std::vector<uint32_t> bound_;   // entry L-1: the least of minsup_[0 .. L-1]
  uint32_t nlengths_ = 0;         // lengths in the table (the number of items)
  uint32_t shortest_[kCacheSize] = {};
  uint32_t lowest_ = 0;
  // min_length_of_support of every support below direct_.size(), and the
  // answer of every support from same_from_ on (the search's comparisons all
  // go one way there).
  std::vector<uint32_t> direct_;
  int32_t same_from_ = 0;
  uint32_t same_length_ = 0;
};

}  // namespace quarlo::detail

#endif  // QUARLO_SUPPORT_SUPPORT_TABLE_H_
