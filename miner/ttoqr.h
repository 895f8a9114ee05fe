// Converted text file (FILE.conv) to binary transaction file (FILE.qr): one
// record per non-empty line, a count word and ascending item numbers, all
// little-endian 32-bit. Owns the process-wide `item_count`.
#ifndef QUARLO_MINER_TTOQR_H_
#define QUARLO_MINER_TTOQR_H_

#include <cstdint>

// One more than the largest item number written by ttoqr (0 if none).
extern uint32_t item_count;

// Writes `output` from `input`. Returns 0, or 1 after a report.
unsigned ttoqr(const char* input, const char* output);

#endif  // QUARLO_MINER_TTOQR_H_
