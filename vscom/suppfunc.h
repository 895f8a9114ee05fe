// Length-decreasing support table: the minimum support count of every pattern
// length, the inverse lookup from a count to the shortest length it suffices
// for, and the lowest count of all. Owns the process-wide table, built once by
// one of the two builders after the transactions are counted.
#ifndef QUARLO_VSCOM_SUPPFUNC_H_
#define QUARLO_VSCOM_SUPPFUNC_H_

#include <cstdint>

// Count of transactions that `percent` of `ntrans` demands: the ceiling of
// ntrans * percent / 100 in 80-bit extended precision; 0 % still demands 1.
uint32_t percent_to_count(double percent, uint32_t ntrans);

// Builds the table from a file of "LEN F(LEN)" lines. Returns 0, or 1 after a report.
int init_freq_tbl(const char* file, uint32_t ntrans, uint32_t nitems);

// Builds the table from one constant percentage. Returns 0, or 1 after a report.
int init_freq_tbl_with_minsup(double percent, uint32_t ntrans, uint32_t nitems);

// Minimum support count of length `len` (1 <= len <= nitems; no range check).
uint32_t minsup_of_length(uint32_t len);

// Shortest length whose minimum support is at most `support` (cached below 100).
uint32_t min_length_of_support(int32_t support);

// The smallest minimum support over all lengths.
uint32_t lowest_minsup();

// Releases the table.
void free_freq_tbl();

#endif  // QUARLO_VSCOM_SUPPFUNC_H_
