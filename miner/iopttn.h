// Frequent-pattern file writer: one text line per pattern, "L-N support
// percent items...", with L the length minus one, N the pattern's ordinal
// among the written patterns of its length, and the items ascending. Applies
// the minimum and maximum output size. Owns the process-wide writer state
// (open stream, output buffer, per-length counters, percentage cache, total).
#ifndef QUARLO_MINER_IOPTTN_H_
#define QUARLO_MINER_IOPTTN_H_

#include <cstdint>

// A pattern as the miner hands it over: `length` items in the order they were
// added (any order; the writer sorts a copy).
struct Pattern {
  uint32_t length;
  int32_t support;
  uint32_t* items;
};

// Creates or truncates `path` and resets the per-length ordinals. `ntrans` is
// the number of input transactions (the 100 % mark); `nitems` bounds the
// pattern length. Returns 0, or -1 after a report.
int open_pattern_file(const char* path, uint32_t ntrans, uint32_t nitems);

// Writes one line for `p` when get_min_size() <= length <= get_max_size()
// (as read at open); otherwise does nothing.
void write_freqpattern(const Pattern& p);

// Flushes and closes the file. Returns 0, or -1 after a report when closing
// fails or any write since the open failed (a full disk).
int close_pattern_file();

// Number of pattern lines written since the process started.
uint32_t pattern_count();

#endif  // QUARLO_MINER_IOPTTN_H_
