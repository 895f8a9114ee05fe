// Entry of the mining engine: loads the binary transaction file, reports the
// input, builds the support table, the frequent-item list and the FP-tree,
// mines it into the numbered pattern file and reports the solution. Owns no
// process-wide state of its own; it drives that of qrdb, np2, cfptree, iopttn.
#ifndef QUARLO_MINER_QR_H_
#define QUARLO_MINER_QR_H_

// Runs the engine on get_qr_file() with the options and `item_count`.
// Returns 0, or 1 after a "Fatal error in ...()" (or open/close) report.
int find_frequent_patterns();

#endif  // QUARLO_MINER_QR_H_
