// The binary transaction file FILE.qr: written from the converted text file
// FILE.conv (one record per line that holds an item: a count word and the
// ascending item numbers, all little-endian 32-bit), and loaded back whole
// into a run's buffer to be mined. No state beyond one call.
#ifndef QUARLO_CLI_BINARY_FILE_H_
#define QUARLO_CLI_BINARY_FILE_H_

#include <cstdint>

#include "base/report.h"
#include "base/status.h"
#include "engine/engine.h"

namespace quarlo::cli {

using namespace quarlo::detail;

// Writes `output` (mode 0666 before the umask) from `input`: one record per
// line with items. Fails after a report: invalid argument for a line whose
// items are split by "-1", I/O for a file that cannot be read or written;
// records written before a failure stay in `output`. *item_count becomes one
// more than the largest item number written (0 if none); items of 2147483647
// and above do not raise it (the comparison is signed).
Status ttoqr(const char* input, const char* output, uint32_t* item_count, Reporter* rep);

// Reads the binary transaction file at `path` whole into `buf` (made by
// init_buf) and terminates it with the end word. An I/O failure (or out of
// memory) after a trace.
Status load_trandb(TranPool* pool, const char* path, TranBuf* buf);

// Loads the binary transaction file `qr_file` and mines it as mine_database
// does; a failure after a report.
Status find_frequent_patterns(Engine* e, const char* qr_file, const SupportSpec& spec,
                              EngineClient* client);

}  // namespace quarlo::cli

#endif  // QUARLO_CLI_BINARY_FILE_H_
