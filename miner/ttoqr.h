// Converted text file (FILE.conv) to binary transaction file (FILE.qr): one
// record per line that holds an item, a count word and the ascending item
// numbers, all little-endian 32-bit. Owns the process-wide `item_count`.
#ifndef QUARLO_MINER_TTOQR_H_
#define QUARLO_MINER_TTOQR_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sequence.h"

// One more than the largest item number written by ttoqr (0 if none); items
// of 2147483647 and above do not raise it (the comparison is signed).
extern uint32_t item_count;

// Writes `output` (mode 0666 before the umask) from `input`: one record per
// line with items; a line whose items are split by "-1" is an error. Returns
// 0, or 1 after a report; records written before a failure stay in `output`.
// Sets item_count from 0.
unsigned ttoqr(const char* input, const char* output);

// Buffer size that reads any newline-terminated line of the file with its
// newline and a terminating NUL: longest such line + 2. An unterminated last
// line is not measured. 4294967295 after a report when the file cannot be opened.
uint32_t max_line_size(const char* name);

// Builds the record block of a one-itemset record: word 0 the item count,
// then the items. On success *block is a malloc'ed block the caller frees,
// item_count is raised, and the result is 0; 1 after a report otherwise.
unsigned tseq_to_vsseq(const Sequence& seq, uint32_t** block);

#endif  // QUARLO_MINER_TTOQR_H_
